// Measures the storage manager and prints one table; scripts/bench builds and runs it.
#include <dlfcn.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "bench/Benches.h"
#include "fmgr/FmgrFileManager.h"

namespace {

namespace fs = std::filesystem;
using namespace bench;

constexpr int kHolds = 0;
constexpr int kMissed = 1;
constexpr int kRefused = 2;

// What is wrong with measuring this build; empty: nothing. The library counts as built like this program when
// it is the one of the same build.
std::string WhyNotMeasured() {
#if !defined(__OPTIMIZE__) || !defined(NDEBUG) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return "this build is not optimised: its figures say nothing. scripts/bench builds the one that is installed";
#else
  Dl_info library = {};
  dladdr(reinterpret_cast<void*>(&FmgrFileManager::GetInstance), &library);
  std::error_code error;
  if (fs::equivalent(library.dli_fname != nullptr ? library.dli_fname : "", BENCH_LIBRARY, error)) return "";
  return "the library in use is not the one of this build, " BENCH_LIBRARY;
#endif
}

std::string ModelOfProcessor() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("model name", 0) == 0) return line.substr(line.find(':') + 2);
  }
  return "unknown processor";
}

std::string Machine() {
  utsname system = {};
  uname(&system);
  return ModelOfProcessor() + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " processors, " +
         system.sysname + " " + system.release;
}

std::string Today() {
  const time_t now = std::time(nullptr);
  std::tm utc = {};
  gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%F", &utc);
  return text;
}

struct Group {
  const char* name;
  void (*measure)(const Settings&, Report*);
};
constexpr Group kGroups[] = {
    {"hand-out", MeasureHandOut},       {"pool", MeasurePool},
    {"questions", MeasureQuestions},    {"overlap", MeasureOverlap},
    {"list-mode", MeasureListMode},     {"adding", MeasureAdding},
    {"start-up", MeasureStartUp},       {"preparing", MeasurePreparing},
    {"recorder", MeasureRecorder},      {"latency", MeasureLatency},
    {"record-file", MeasureRecordFile},
};

std::string NamesOfGroups() {
  std::string names;
  for (const Group& group : kGroups) names += (names.empty() ? "" : ", ") + std::string(group.name);
  return names;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  Format format = Format::kText;
  std::vector<std::string> only;
  std::string fileSystem = "of the directory";
  std::string commit = "unknown";
  bool json = false;
  bool markdown = false;
  CLI::App app("Measures the storage manager; 0: every row holds, 1: some do not, 2: could not measure");
  app.add_option("directory", settings.directory, "Where to measure; made, and removed afterwards")->required();
  app.add_flag("--quick", settings.quick, "Fewer rounds, fewer files: under two minutes");
  app.add_flag("--json", json, "One JSON document instead of the table");
  app.add_flag("--markdown", markdown, "The table for a document");
  app.add_option("--picture", settings.picture, "Draw the latencies of the hand-out into this PNG");
  app.add_option("--only", only, "Some groups of rows: " + NamesOfGroups())->delimiter(',');
  app.add_option("--file-system", fileSystem, "What the directory lies on, as the table shall say");
  app.add_option("--commit", commit, "Of the source, as the table shall say");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kHolds : kRefused;
  }
  if (json) format = Format::kJson;
  if (markdown) format = Format::kMarkdown;
  if (const std::string why = WhyNotMeasured(); !why.empty()) {
    Say(why);
    return kRefused;
  }
  for (const std::string& name : only) {
    if (std::none_of(std::begin(kGroups), std::end(kGroups),
                     [&](const Group& group) { return name == group.name; })) {
      Say("there are no rows " + name + ", but: " + NamesOfGroups());
      return kRefused;
    }
  }
  std::error_code error;
  if (!fs::create_directories(settings.directory, error)) {
    errno = error ? error.value() : EEXIST;
    Stop(settings.directory);
  }
  settings.programs = fs::read_symlink("/proc/self/exe", error).parent_path().string();
  SilenceLogs();
  Report report;
  for (const Group& group : kGroups) {
    if (only.empty() || std::find(only.begin(), only.end(), group.name) != only.end())
      group.measure(settings, &report);
  }
  fs::remove_all(settings.directory, error);
  report.Print(format, {{"machine", Machine()},
                        {"date", Today()},
                        {"compiler", BENCH_COMPILER},
                        {"commit", commit},
                        {"file system", fileSystem},
                        {"run", settings.quick ? "quick" : "full"}});
  return report.CountMissed() == 0 ? kHolds : kMissed;
}
