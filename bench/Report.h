// The table of what was measured: a row a figure, held against something and against what is to be reached.
#pragma once

#include <string>
#include <vector>

namespace bench {

enum class Goal {
  kNone,          // told only
  kRatioAtMost,   // ours / theirs
  kRatioAtLeast,  //
  kOursAtMost,
  kOursAtLeast,
};

struct Row {
  std::string figure;
  std::string unit;  // "s" (printed as us, ms or s), or what stands behind the number
  double ours = 0;
  std::string against;  // what `theirs` is; empty: nothing
  double theirs = 0;
  double ratio = 0;
  Goal goal = Goal::kNone;
  double limit = 0;
  std::string left = {};  // why it was not measured; the numbers mean nothing then

  bool Holds() const;  // true as well where nothing is to be reached, or nothing was measured
};

enum class Format { kText, kMarkdown, kJson };

// One line on standard error as it was when the program began, with the time since: what is being done.
void Say(const std::string& what);
// What the measured code logs goes nowhere from now on; Say() still reaches standard error.
void SilenceLogs();

class Report {
 public:
  void Begin(const std::string& section);
  void Add(const Row& row);
  // Rows as another program prints them, a line each: figure, unit, ours, against, theirs, ratio, goal ("<" or
  // ">", "" for none) and limit, or figure and "-" and why it was left, with tabs between. False: there is one
  // that is none.
  bool AddLines(const std::string& text);

  // On standard output. `facts` are names and values: machine, date and the like.
  void Print(Format format, const std::vector<std::pair<std::string, std::string>>& facts) const;
  int CountMissed() const;

 private:
  struct Section {
    std::string name;
    std::vector<Row> rows;
  };
  std::vector<Section> mSections;
};

}  // namespace bench
