// How long a camera waits for its next file while four others write without pause: a hand-out, and the creation
// of a file of the same size, as recorders do that make one for each segment. The writers do likewise, so that
// each way has the load that it makes; the two take turns. Times of day, since waiting is what counts.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "bench/Benches.h"
#include "bench/LatencyPicture.h"
#include "fmgr/FmgrFileManager.h"

namespace bench {

namespace {

constexpr off_t kFileSize = off_t{256} << 20;
constexpr int kWriters = 4;
constexpr uint32_t kBase = 1600000000;
constexpr size_t kBlock = size_t{1} << 20;
constexpr auto kPause = std::chrono::milliseconds(50);  // between two measurements
constexpr auto kWarmUp = std::chrono::seconds(3);       // until memory is full of what is to be written

void Reserve(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (file < 0 || fallocate(file, 0, 0, kFileSize) != 0) Stop(path);
  close(file);
}

// Each a process that writes file after file: over one that is there, as the library's users do, or `anew`.
class Writers {
 public:
  Writers(const std::string& directory, bool anew) {
    for (int i = 0; i < kWriters; ++i) {
      const std::string path = directory + (anew ? "/new" : "/old") + std::to_string(i);
      if (!anew && access(path.c_str(), F_OK) != 0) Fill(path);
      const pid_t child = fork();
      if (child < 0) Stop("fork");
      if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        Write(path, anew);
      }
      mChildren.push_back(child);
    }
  }
  ~Writers() {
    for (const pid_t child : mChildren) kill(child, SIGKILL);
    for (const pid_t child : mChildren) waitpid(child, nullptr, 0);
  }
  Writers(const Writers&) = delete;
  Writers& operator=(const Writers&) = delete;

 private:
  static void Fill(const std::string& path) {
    const std::vector<char> block(kBlock, 'x');
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    for (off_t at = 0; at < kFileSize; at += static_cast<off_t>(kBlock)) {
      if (pwrite(file, block.data(), block.size(), at) != static_cast<ssize_t>(block.size())) Stop(path);
    }
    close(file);
  }
  [[noreturn]] static void Write(const std::string& path, bool anew) {
    for (;;) {
      if (anew) unlink(path.c_str());
      if (anew) Reserve(path);
      Fill(path);
    }
  }
  std::vector<pid_t> mChildren;
};

template <typename Work>
double SecondsOf(Work work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

class HandOuts {
 public:
  // Recordings of 256 MiB: `stock` in the first data directory, and then one in each of `alone`.
  HandOuts(const Settings& settings, int stock, int alone) : mStage(settings) {
    const std::string disk = mStage.MakeDisk("a");
    uint32_t start = kBase;
    for (int index = 1; index <= 1 + alone + 1; ++index) {
      const std::string directory = Stage::MakeDirectory(disk, index);
      for (int i = 0; i < (index == 1 ? stock : 1); ++i, start += 60) {
        Reserve(directory + CompletedName(start, start + 60, 0xf));
      }
      MakeStubOfDatabase(directory);
    }
    mNow = start + 60;
    mStage.Add(disk);
  }
  ~HandOuts() { mStage.Manager().ClearLink(); }
  HandOuts(const HandOuts&) = delete;
  HandOuts& operator=(const HandOuts&) = delete;

  // Seconds until there is a file to write to. It is completed afterwards.
  double Next() {
    FmgrFileManager& manager = mStage.Manager();
    timeval start = {mNow, 0};
    std::string path;
    const double seconds = SecondsOf([&] {
      manager.CheckRepositoryChangeCondition(static_cast<int>(mNow));
      if (manager.MakeRecordFile(start, path) != FMGR_DONE) Stop("no record file");
    });
    manager.RenameRecordFile(path, static_cast<int>(mNow) + 60, 0xf, path);
    mNow += 60;
    return seconds;
  }

 private:
  Stage mStage;
  int64_t mNow = 0;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double Most(const std::vector<double>& values) { return *std::max_element(values.begin(), values.end()); }

}  // namespace

void MeasureLatency(const Settings& settings, Report* report) {
  report->Begin("Waiting for a file of 256 MiB beside 4 writers (time of day)");
  constexpr int kRounds = 5;
  constexpr int kSamples = 100;  // of each, in each round
  constexpr int kAlone = 20;
  struct statvfs space = {};
  statvfs(settings.directory.c_str(), &space);
  const bool roomy = space.f_bavail * space.f_frsize / kFileSize > kRounds * kSamples + kAlone + 20;
  if (settings.quick || !roomy) {
    Row row;
    row.figure = "hand-out";
    row.left = settings.quick ? "not in a quick run" : "needs 140 GiB, which a sparse image can have";
    report->Add(row);
    return;
  }
  HandOuts handOuts(settings, kRounds * kSamples + 10, kAlone);
  std::vector<double> ours;
  std::vector<double> theirs;
  const std::string made = settings.directory + "/made";
  std::vector<double> worst[2];  // of each round
  std::vector<double> ratios;
  for (int turn = 0; turn < 2 * kRounds; ++turn) {
    const bool anew = turn % 2 != 0;
    const Writers writers(settings.directory, anew);
    std::this_thread::sleep_for(kWarmUp);
    std::vector<double> round;
    for (int i = 0; i < kSamples; ++i) {
      round.push_back(anew ? SecondsOf([&] { Reserve(made); }) : handOuts.Next());
      if (anew) unlink(made.c_str());
      std::this_thread::sleep_for(kPause);
    }
    std::vector<double>& all = anew ? theirs : ours;
    all.insert(all.end(), round.begin(), round.end());
    worst[turn % 2].push_back(Most(round));
    if (anew) ratios.push_back(worst[0].back() / worst[1].back());
  }
  const auto row = [](const char* figure, double our, double their, double ratio, Goal goal) {
    return Row{figure, "s", our, "creating by fallocate", their, ratio, goal, 0.1};
  };
  report->Add(
      row("hand-out, median of 500", Median(ours), Median(theirs), Median(ours) / Median(theirs), Goal::kNone));
  // The one that waits for the journal's device is drawn by lot; a round's worst says more than the worst of
  // all.
  report->Add(row("hand-out, worst of 100, median of 5 rounds", Median(worst[0]), Median(worst[1]),
                  Median(ratios), Goal::kRatioAtMost));
  report->Add(
      row("hand-out, worst of all 500", Most(ours), Most(theirs), Most(ours) / Most(theirs), Goal::kNone));
  if (!settings.picture.empty()) {
    const std::string error = DrawLatencies(settings.picture, ours, theirs);
    if (!error.empty()) Say(settings.picture + ": " + error);
  }
  // What is left in the first data directory goes; from then on each hand-out empties one.
  std::vector<double> emptying;
  for (int i = 0; i < 10; ++i) handOuts.Next();
  for (int i = 0; i < kAlone; ++i) emptying.push_back(handOuts.Next());
  report->Add({"hand-out that removes an emptied data directory by the shell, without writers, median", "s",
               Median(emptying), "", 0, 0, Goal::kNone, 0});
}

}  // namespace bench
