// Gives recordings that were never completed the names that say what is in them: those that a crash left
// behind, and those whose last rename failed. Tried again until it is done; said only when the name is there.
#pragma once

#include <string>
#include <vector>

#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/SearchIndex.h"

namespace recorder {

struct Completed {
  enum class Outcome {
    kDone,           // `path` is its new name
    kNothingUsable,  // nothing was recorded into it
    kUnreadable,     // the device can't read it
    kNotNamed,       // repaired, `path` would be its name; `error` kept it from that
    kLeft,           // nothing is known of it
  };
  Outcome outcome = Outcome::kLeft;
  std::string path;
  int error = 0;
};

// Repairs the recording at `path`, which nobody is writing, and renames it without replacing anything. The
// search database is not touched.
Completed CompleteRecording(const std::string& path);

class Completion {
 public:
  explicit Completion(SearchIndex& index) : mIndex(index) {}

  // A recording that nobody is writing, of which nothing is known but that it has no final name.
  void AddUnfinished(const std::string& path) { mPending.push_back({path, "", false}); }
  // A recording that is closed, and could not be renamed to `target`. The file manager goes by that name
  // already. `error`, what kept it from that, is said now; 0: it isn't known, and is said when it is met again.
  void AddUnnamed(const std::string& path, const std::string& target, int error);
  // Tries all that is pending once, on disks that are managed, one line for each that is settled and the first
  // time for each that isn't.
  void TryAll(Disks& disks);

 private:
  struct Pending {
    std::string path;
    std::string target;  // empty: not known yet
    bool isSaid = false;
  };

  static void SayNotNamed(Pending* pending, const std::string& target, int error);
  bool Try(Pending* pending, const Disk& disk, FmgrRepositoryGroup& group);
  bool Finish(const Pending& pending, const Disk& disk, bool wasUnfinished);

  SearchIndex& mIndex;
  std::vector<Pending> mPending;
};

}  // namespace recorder
