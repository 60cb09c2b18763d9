// What a segment costs on disks that are full: the oldest recording is recycled, its file handed out and
// completed.
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <vector>

#include "bench/Benches.h"
#include "bench/Rounds.h"
#include "bench/Sqlite.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrFreeRepository.h"
#include "fmgr/FmgrRepositoryGroup.h"

namespace bench {

namespace {

constexpr uint32_t kBase = 1600000000;
constexpr uint32_t kDirectorySeconds = 20000;  // from the start of one data directory to that of the next
constexpr int kFewFiles = 4;
constexpr int kSettling = 3;  // cycles until the rotation stays on one disk

void Rename(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) Stop(from + " -> " + to);
}

// A full recorder: data directories are numbered over its disks in turn, as rotation leaves them. The first
// one, from which is recycled, holds `stock` recordings, so that it is not emptied meanwhile.
class FullRecorder {
 public:
  FullRecorder(const Settings& settings, int disks, int perDisk, int stock) : mStage(settings) {
    std::vector<std::string> paths;
    for (int i = 0; i < disks; ++i)
      paths.push_back(mStage.MakeDisk(std::string(1, static_cast<char>('a' + i))));
    uint32_t start = kBase;
    for (int index = 1; index <= disks * perDisk; ++index, start += kDirectorySeconds) {
      const std::string directory =
          Stage::MakeDirectory(paths[static_cast<size_t>((index - 1) % disks)], index);
      MakeRecordings(directory, start, index == 1 ? stock : kFewFiles, 4);
      MakeStubOfDatabase(directory);
    }
    mNow = start;
    mFiles = stock + (disks * perDisk - 1) * kFewFiles;
    for (const std::string& path : paths) mStage.Add(path);
    for (int i = 0; i < kSettling; ++i) Segment();
  }
  ~FullRecorder() { mStage.Manager().ClearLink(); }
  FullRecorder(const FullRecorder&) = delete;
  FullRecorder& operator=(const FullRecorder&) = delete;

  void Segment() {
    FmgrFileManager& manager = mStage.Manager();
    timeval start = {mNow, 0};
    manager.CheckRepositoryChangeCondition(static_cast<int>(mNow));
    if (manager.MakeRecordFile(start, mPath) != FMGR_DONE) Stop("no record file");
    manager.RenameRecordFile(mPath, static_cast<int>(mNow) + 60, 0xf, mPath);
    mNow += 60;
  }
  const FmgrRepositoryGroup& Disk() { return *mStage.Manager().CurrentRepositoryGroup(); }
  int Files() const { return mFiles; }

 private:
  Stage mStage;
  int64_t mNow = 0;
  int mFiles = 0;
  std::string mPath;
};

// The calls that the same can't do without, in the same directories and with names of the same length, which
// the library takes for none of its files.
class BareCalls {
 public:
  BareCalls(const FmgrRepositoryGroup& disk, int count)
      : mDisk(disk.Path()),
        mOldest(disk.mDataRepositories.front()->Path()),
        mNewest(disk.mDataRepositories.back()->Path()) {
    for (int i = 0; i < count; ++i) MakeFile(Complete(mOldest, i));
    mCount = count;
  }

  void Segment() {
    const std::string free = mDisk + "/imf_free/00000001.ext";
    const std::string open = Path(mNewest, mNext, "00000000.ext");
    Rename(Complete(mOldest, mNext), free);
    Rename(free, open);
    unlink("/tmp/curr_disk");
    unlink("/tmp/curr_rep");
    if (symlink(mDisk.c_str(), "/tmp/curr_disk") != 0 || symlink(mNewest.c_str(), "/tmp/curr_rep") != 0) {
      Stop("/tmp/curr_disk");
    }
    Rename(open, Complete(mNewest, mNext));
    ++mNext;
  }
  void Reset() {
    for (int i = 0; i < mCount && mOldest != mNewest; ++i) Rename(Complete(mNewest, i), Complete(mOldest, i));
    mNext = 0;
  }

 private:
  static std::string Path(const std::string& directory, int number, const char* end) {
    char name[64];
    std::snprintf(name, sizeof name, "%08x_%s", number, end);
    return directory + name;
  }
  static std::string Complete(const std::string& directory, int number) {
    return Path(directory, number, "5f5e1258_cmf.ext");
  }

  std::string mDisk, mOldest, mNewest;
  int mCount = 0;
  int mNext = 0;
};

void Measure(const Settings& settings, Report* report, int disks, int perDisk, double limit, bool withBooks) {
  const int rounds = settings.quick ? 9 : 31;
  const int cycles = disks * perDisk > 100 ? 20 : 60;
  FullRecorder recorder(settings, disks, perDisk, (rounds + 1) * cycles + 20);
  BareCalls bare(recorder.Disk(), cycles);
  Bookkeeping books(settings.directory + "/books.db", recorder.Files());
  const auto repeat = [cycles](auto&& segment) {
    for (int i = 0; i < cycles; ++i) segment();
  };
  const Times times =
      TakeTurns(rounds, {{cycles, [&] { repeat([&] { recorder.Segment(); }); }},
                         {cycles, [&] { repeat([&] { bare.Segment(); }); }, {}, [&] { bare.Reset(); }},
                         {cycles, [&] { repeat([&] { books.Cycle(); }); }}});
  const std::string what = disks == 1 ? std::to_string(perDisk) + " data directories"
                                      : std::to_string(disks) + " disks x " + std::to_string(perDisk);
  report->Add({"hand-out cycle, " + what, "s", times.Median(0), "bare calls", times.Median(1),
               times.Ratio(0, 1), Goal::kRatioAtMost, limit});
  if (!withBooks) return;
  report->Add({"  the library's own share", "s", times.MedianOfDifference(0, 1), "SQLite, 3 transactions",
               times.Median(2), times.RatioOfDifference(0, 1, 2), Goal::kRatioAtMost, 0.2});
}

}  // namespace

void MeasureHandOut(const Settings& settings, Report* report) {
  report->Begin("Hand-out on full disks");
  Measure(settings, report, 1, 2, 1.25, true);
  Measure(settings, report, 1, 10, 1.4, false);
  Measure(settings, report, 1, 100, 2, false);
  Measure(settings, report, 1, 1000, 8, false);
  Measure(settings, report, 4, 250, 8, false);
}

// A file goes back and is taken out again; one like it is renamed within the pool's directory beside it.
void MeasurePool(const Settings& settings, Report* report) {
  report->Begin("Giving a file back to the pool");
  constexpr int kFiles = 50;
  const int rounds = settings.quick ? 7 : 21;
  for (const int size : {10000, 100000, 200000}) {
    if (settings.quick && size == 200000) continue;
    Stage stage(settings);
    const std::string disk = stage.MakeDisk("a");
    const std::string pool = disk + "/imf_free/";
    const std::string directory = Stage::MakeDirectory(disk, 1);
    for (int i = 1; i <= size; ++i) MakeFile(pool + FmgrFreeRepository::MakeFileName(i));
    FmgrFreeRepository library(disk);
    std::vector<std::string> given, taken, bare;
    for (int i = 0; i < kFiles; ++i) {
      given.push_back(directory + CompletedName(kBase + static_cast<uint32_t>(i), kBase + 60, 0xf));
      MakeFile(given.back());
      taken.push_back(directory + "x" + std::to_string(i));
      MakeFile(taken.back());
      bare.push_back(pool + "x" + FmgrFreeRepository::MakeFileName(i));
    }
    const Times times = TakeTurns(rounds, {{kFiles,
                                            [&] {
                                              for (std::string& path : given) {
                                                if (library.Push(path) != 1) Stop("not taken: " + path);
                                              }
                                            },
                                            {},
                                            [&] {
                                              for (const std::string& path : given) Rename(library.Pop(), path);
                                            }},
                                           {kFiles,
                                            [&] {
                                              for (size_t i = 0; i < taken.size(); ++i)
                                                Rename(taken[i], bare[i]);
                                            },
                                            {},
                                            [&] {
                                              for (size_t i = 0; i < taken.size(); ++i)
                                                Rename(bare[i], taken[i]);
                                            }}});
    report->Add({"a pool of " + std::to_string(size), "s", times.Median(0), "one rename", times.Median(1),
                 times.Ratio(0, 1), Goal::kRatioAtMost, 2});
  }
}

}  // namespace bench
