// What it takes to add a disk: with many data directories, with many recordings, and to prepare one.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "bench/Benches.h"
#include "bench/Rounds.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrFreeRepository.h"
#include "platform/host/flc/FlcHost.h"

namespace bench {

namespace {

namespace fs = std::filesystem;
constexpr uint32_t kBase = 1600000000;

size_t CountEntries(const std::string& directory) {
  DIR* const stream = opendir(directory.c_str());
  if (stream == nullptr) Stop(directory);
  size_t count = 0;
  while (readdir(stream) != nullptr) ++count;
  closedir(stream);
  return count;
}

size_t AllocatedBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

}  // namespace

void MeasureAdding(const Settings& settings, Report* report) {
  report->Begin("Adding a disk with many data directories (AddRepositoryGroup)");
  Stage stage(settings);
  std::vector<Contender> contenders;
  const std::vector<int> counts = {2000, 4000, 8000};
  for (const int count : counts) {
    const std::string name = "d" + std::to_string(count);
    const std::string disk = stage.MakeDisk(name);
    for (int index = 1; index <= count; ++index) Stage::MakeDirectory(disk, index);
    contenders.push_back({1, [&stage, disk] { stage.Add(disk); },
                          [name, &stage] {
                            stage.Make().CleanUpRepositoryGroup();
                            FlcForget(name.c_str(), -1);
                          }});
  }
  const Times times = TakeTurns(settings.quick ? 3 : 7, contenders);
  for (size_t i = 1; i < counts.size(); ++i) {
    const double times2000 = counts[i] / 2000.0;
    report->Add({std::to_string(counts[i]) + " directories, each 2,000 of them", "s",
                 times.Median(i) / times2000, "2,000 directories", times.Median(0),
                 times.Ratio(i, 0) / times2000, Goal::kRatioAtMost, 1.25});
  }
}

void MeasureStartUp(const Settings& settings, Report* report) {
  report->Begin("Starting up with recordings");
  const int directories = 10;
  const int each = settings.quick ? 2000 : 10000;
  Stage stage(settings);
  const std::string disk = stage.MakeDisk("a");
  std::vector<std::string> all;
  for (int index = 1; index <= directories; ++index) {
    all.push_back(Stage::MakeDirectory(disk, index));
    MakeRecordings(all.back(), kBase + static_cast<uint32_t>(index * each * 60), each, 60);
    MakeStubOfDatabase(all.back());
  }
  const auto forget = [&] {
    stage.Make().CleanUpRepositoryGroup();
    FlcForget("a", -1);
  };
  const Times times = TakeTurns(settings.quick ? 5 : 15, {{1, [&] { stage.Add(disk); }, forget},
                                                          {1, [&] {
                                                             for (const std::string& directory : all)
                                                               CountEntries(directory);
                                                           }}});
  const std::string count = std::to_string(directories * each);
  report->Add({"start-up with " + count + " recordings", "s", times.Median(0), "reading the directories",
               times.Median(1), times.Ratio(0, 1), Goal::kRatioAtMost, 1.5});
  // What goes with the list is what it took.
  stage.Make().CleanUpRepositoryGroup();
  stage.Add(disk);
  const size_t loaded = AllocatedBytes();
  FlcForget("a", -1);
  report->Add({"memory of the file list cache, a recording", "bytes",
               static_cast<double>(loaded - AllocatedBytes()) / (directories * each), "", 0, 0,
               Goal::kOursAtMost, 48});
}

void MeasurePreparing(const Settings& settings, Report* report) {
  report->Begin("Preparing a disk");
  const int files = settings.quick ? 200 : 1000;
  Stage stage(settings);
  const std::string ours = stage.MakeDisk("a");
  const std::string theirs = stage.MakeDisk("b");
  const auto clear = [](const std::string& disk) {
    return [disk] {
      fs::remove_all(disk);
      fs::create_directory(disk);
    };
  };
  const auto prepare = [&] {
    if (FmgrFileManager::BuildRepositoryGroup(ours, 1, static_cast<unsigned>(files), nullptr) != 1) Stop(ours);
    fs::remove_all(ours + "/imf_prealloc");
  };
  const auto bare = [&] {
    const std::string first = theirs + "/imf_prealloc/";
    const std::string pool = theirs + "/imf_free/";
    mkdir(first.c_str(), 0755);
    for (int i = 0; i < files; ++i) {
      const int file =
          open((first + FmgrFreeRepository::MakeFileName(i)).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
      if (file < 0 || fallocate(file, 0, 0, 1 << 20) != 0) Stop(first);
      close(file);
    }
    mkdir(pool.c_str(), 0755);
    for (int i = 0; i < files; ++i) {
      const std::string name = FmgrFreeRepository::MakeFileName(i);
      if (link((first + name).c_str(), (pool + name).c_str()) != 0) Stop(pool);
    }
    for (int i = 0; i < files; ++i) unlink((first + FmgrFreeRepository::MakeFileName(i)).c_str());
    rmdir(first.c_str());
  };
  const Times times =
      TakeTurns(settings.quick ? 5 : 11, {{files, prepare, clear(ours)}, {files, bare, clear(theirs)}});
  report->Add({"a file", "s", times.Median(0), "bare calls", times.Median(1), times.Ratio(0, 1),
               Goal::kRatioAtMost, 1.25});
}

}  // namespace bench
