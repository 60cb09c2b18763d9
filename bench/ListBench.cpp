// Recordings that overlap, and disks whose list of files the library keeps itself.
#include <list>
#include <random>
#include <vector>

#include "Flc.h"
#include "bench/Benches.h"
#include "bench/Rounds.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace bench {

namespace {

constexpr uint32_t kBase = 1600000000;
constexpr int kSeconds = 60;
constexpr int64_t kMicros = 1000000;

size_t ListAll(const FmgrFileManager& manager) {
  std::list<std::string> paths;
  ImfSearchCondition condition;
  condition.endTime = INT32_MAX * kMicros;
  manager.CollectFileList(paths, condition);
  return paths.size();
}

}  // namespace

// One recording of the directory, early in it, ends after the next one does: as a camera leaves it whose clock
// was set back by some minutes.
void MeasureOverlap(const Settings& settings, Report* report) {
  report->Begin("A recording that ends after its successor, in one data directory");
  for (const int files : {31250, 80000}) {
    Stage stage(settings);
    const std::string disk = stage.MakeDisk("a");
    Stage::MakeDirectory(disk, 1);
    FmgrFileManager& manager = stage.Add(disk);
    for (int i = 0; i < files; ++i) {
      const uint32_t start = kBase + static_cast<uint32_t>(i * kSeconds);
      FlcAddFile("a", 1, start, start + kSeconds, 0xf);
    }
    constexpr uint32_t kOdd = kBase + 100 * kSeconds;
    const auto with = [] { FlcAddFile("a", 1, kOdd, kOdd + 10 * kSeconds, 0xf); };
    const auto without = [] { FlcAddFile("a", 1, kOdd, kOdd + kSeconds, 0xf); };
    std::mt19937 random(1);
    std::vector<int> asked;
    for (int i = 0; i < 100; ++i)
      asked.push_back(static_cast<int>(kBase + random() % static_cast<unsigned>(files * kSeconds)));
    const auto list = [&] {
      if (ListAll(manager) < static_cast<size_t>(files) - 20) Stop("recordings are missing");
    };
    const auto lookUp = [&] {
      std::string path;
      for (const int time : asked) manager.GetFilePath(time, path, 1);
    };
    const int rounds = settings.quick ? 3 : 7;
    const std::string of = " of " + std::to_string(files);
    Times times = TakeTurns(rounds, {{1, list, with}, {1, list, without}});
    report->Add({"list of all" + of, "s", times.Median(0), "without it", times.Median(1), times.Ratio(0, 1),
                 Goal::kRatioAtMost, 1.5});
    times = TakeTurns(rounds * 3, {{100, lookUp, with}, {100, lookUp, without}});
    report->Add({"GetFilePath, one" + of, "s", times.Median(0), "without it", times.Median(1),
                 times.Ratio(0, 1), Goal::kRatioAtMost, 1.5});
  }
}

void MeasureListMode(const Settings& settings, Report* report) {
  report->Begin("List mode: the library keeps the list itself");
  constexpr int kEach = 2000;
  Stage stage(settings);
  std::list<FmgrRepositoryGroup*> disks[2];
  for (const int directories : {25, 50}) {
    const std::string disk = stage.MakeDisk("d" + std::to_string(directories));
    for (int index = 1; index <= directories; ++index) {
      MakeRecordings(Stage::MakeDirectory(disk, index), kBase + static_cast<uint32_t>(index * kEach * kSeconds),
                     kEach, kSeconds);
    }
    FmgrFileManager& manager = stage.Make();
    manager.mAltMode = 1;
    stage.Add(disk);
    manager.mAltGroups.swap(disks[directories == 25 ? 0 : 1]);
  }
  FmgrFileManager& manager = stage.Manager();
  const auto list = [&] {
    if (ListAll(manager) % (25 * kEach) != 0) Stop("recordings are missing");
  };
  const auto of = [&](int which) {
    return Contender{1, list, [&, which] { manager.mAltGroups = disks[which]; }};
  };
  const Times times = TakeTurns(settings.quick ? 1 : 5, {of(0), of(1)});
  report->Add({"list of all, 50 x 2000", "s", times.Median(1), "25 x 2000", times.Median(0), times.Ratio(1, 0),
               Goal::kRatioAtMost, 2.5});
  report->Add({"  in all", "s", times.Median(1), "", 0, 0, Goal::kOursAtMost, 0.1});
  manager.mAltGroups = disks[0];
  manager.mAltGroups.insert(manager.mAltGroups.end(), disks[1].begin(), disks[1].end());
}

}  // namespace bench
