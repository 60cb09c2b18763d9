#include "bench/Report.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

namespace bench {

namespace {

using Cells = std::array<std::string, 6>;
const Cells kHead = {"Figure", "Ours", "Against", "Ratio", "To reach", "Holds"};

int gTerminal = STDERR_FILENO;
const auto gBegin = std::chrono::steady_clock::now();

std::string Number(double value) {
  char text[32];
  const int decimals = std::fabs(value) >= 100 || value == std::floor(value) ? 0
                       : std::fabs(value) >= 10                              ? 1
                                                                             : 2;
  std::snprintf(text, sizeof text, "%.*f", std::fabs(value) < 0.1 ? 3 : decimals, value);
  return value == 0 ? "0" : text;
}

std::string Amount(double value, const std::string& unit) {
  if (unit != "s") return unit.empty() ? Number(value) : Number(value) + " " + unit;
  if (value < 1e-3) return Number(value * 1e6) + " us";
  return value < 1 ? Number(value * 1e3) + " ms" : Number(value) + " s";
}

bool OfRatio(Goal goal) { return goal == Goal::kRatioAtMost || goal == Goal::kRatioAtLeast; }

Cells CellsOf(const Row& row) {
  if (!row.left.empty()) return {row.figure, "not measured: " + row.left, "", "", "", ""};
  Cells cells = {row.figure, Amount(row.ours, row.unit), "", "", "", ""};
  if (!row.against.empty()) {
    cells[2] = Amount(row.theirs, row.unit) + " " + row.against;
    cells[3] = Number(row.ratio);
  }
  if (row.goal == Goal::kNone) return cells;
  const bool least = row.goal == Goal::kRatioAtLeast || row.goal == Goal::kOursAtLeast;
  cells[4] = (least ? "at least " : "at most ") +
             (OfRatio(row.goal) ? Number(row.limit) : Amount(row.limit, row.unit));
  cells[5] = row.Holds() ? "yes" : "NO";
  return cells;
}

nlohmann::ordered_json ToJson(const Row& row) {
  nlohmann::ordered_json json = {{"figure", row.figure}};
  if (!row.left.empty()) {
    json["notMeasured"] = row.left;
    return json;
  }
  json["unit"] = row.unit;
  json["ours"] = row.ours;
  if (!row.against.empty())
    json.update({{"against", row.against}, {"theirs", row.theirs}, {"ratio", row.ratio}});
  if (row.goal == Goal::kNone) return json;
  const bool least = row.goal == Goal::kRatioAtLeast || row.goal == Goal::kOursAtLeast;
  json["toReach"] = {{"of", OfRatio(row.goal) ? "ratio" : "ours"}, {least ? "least" : "most", row.limit}};
  json["holds"] = row.Holds();
  return json;
}

void PrintLine(const Cells& cells, const std::array<size_t, 6>& widths, const char* edge, const char* between) {
  std::string line = edge;
  for (size_t i = 0; i < cells.size(); ++i) {
    line += cells[i];
    if (i + 1 == cells.size() && *edge == '\0') break;
    if (widths[i] > cells[i].size()) line.append(widths[i] - cells[i].size(), ' ');
    line += i + 1 < cells.size() ? between : " |";
  }
  std::printf("%s\n", line.c_str());
}

}  // namespace

bool Row::Holds() const {
  if (!left.empty()) return true;
  switch (goal) {
    case Goal::kRatioAtMost:
      return ratio <= limit;
    case Goal::kRatioAtLeast:
      return ratio >= limit;
    case Goal::kOursAtMost:
      return ours <= limit;
    case Goal::kOursAtLeast:
      return ours >= limit;
    case Goal::kNone:
      break;
  }
  return true;
}

void Say(const std::string& what) {
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - gBegin).count();
  dprintf(gTerminal, "== %d:%02d %s\n", static_cast<int>(seconds / 60), static_cast<int>(seconds % 60),
          what.c_str());
}

void SilenceLogs() {
  gTerminal = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

void Report::Begin(const std::string& section) {
  mSections.push_back({section, {}});
  Say(section);
}

void Report::Add(const Row& row) {
  mSections.back().rows.push_back(row);
  const Cells cells = CellsOf(row);
  std::string line = "  " + row.figure + ": " + cells[1];
  for (size_t i = 2; i < cells.size(); ++i) {
    if (!cells[i].empty()) line += ", " + cells[i];
  }
  Say(line);
}

bool Report::AddLines(const std::string& text) {
  std::istringstream lines(text);
  bool sound = true;
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> fields;
    std::istringstream parts(line);
    for (std::string field; std::getline(parts, field, '\t');) fields.push_back(field);
    Row row;
    if (fields.size() == 3 && fields[1] == "-") {
      row.figure = fields[0];
      row.left = fields[2];
    } else if (fields.size() >= 6) {
      fields.resize(8);
      row = {fields[0],
             fields[1],
             std::atof(fields[2].c_str()),
             fields[3],
             std::atof(fields[4].c_str()),
             std::atof(fields[5].c_str())};
      const bool ratio = !row.against.empty();
      if (fields[6] == "<") row.goal = ratio ? Goal::kRatioAtMost : Goal::kOursAtMost;
      if (fields[6] == ">") row.goal = ratio ? Goal::kRatioAtLeast : Goal::kOursAtLeast;
      row.limit = std::atof(fields[7].c_str());
    } else {
      sound = false;
      continue;
    }
    Add(row);
  }
  return sound;
}

void Report::Print(Format format, const std::vector<std::pair<std::string, std::string>>& facts) const {
  if (format == Format::kJson) {
    nlohmann::ordered_json document;
    for (const auto& [name, value] : facts) document[name] = value;
    document["rows"] = nlohmann::ordered_json::array();
    for (const Section& section : mSections) {
      for (const Row& row : section.rows) {
        nlohmann::ordered_json json = {{"section", section.name}};
        json.update(ToJson(row));
        document["rows"].push_back(json);
      }
    }
    document["missed"] = CountMissed();
    std::printf("%s\n", document.dump(2).c_str());
    return;
  }
  const bool markdown = format == Format::kMarkdown;
  for (const auto& [name, value] : facts)
    std::printf("%s%s: %s\n", markdown ? "- " : "", name.c_str(), value.c_str());
  std::array<size_t, 6> widths = {};
  for (size_t i = 0; i < widths.size(); ++i) widths[i] = kHead[i].size();
  for (const Section& section : mSections) {
    for (const Row& row : section.rows) {
      const Cells cells = CellsOf(row);
      const size_t count = row.left.empty() ? widths.size() : 1;
      for (size_t i = 0; i < count; ++i) widths[i] = std::max(widths[i], cells[i].size());
    }
  }
  const char* edge = markdown ? "| " : "";
  const char* between = markdown ? " | " : "  ";
  std::printf("\n");
  PrintLine(kHead, widths, edge, between);
  if (markdown) std::printf("|---|---|---|---|---|---|\n");
  for (const Section& section : mSections) {
    if (section.rows.empty()) continue;
    if (markdown) PrintLine({"**" + section.name + "**", "", "", "", "", ""}, widths, edge, between);
    if (!markdown) std::printf("-- %s\n", section.name.c_str());
    for (const Row& row : section.rows) PrintLine(CellsOf(row), widths, edge, between);
  }
  const int missed = CountMissed();
  std::printf("\n%s\n",
              missed == 0 ? "Every row holds." : (std::to_string(missed) + " rows do not hold.").c_str());
}

int Report::CountMissed() const {
  int missed = 0;
  for (const Section& section : mSections) {
    for (const Row& row : section.rows) missed += row.Holds() ? 0 : 1;
  }
  return missed;
}

}  // namespace bench
