// What the library's operations cost: driver requests and system calls an operation (exact, they repeat), and
// time as measured beside the bare system calls and beside what recorders do that make and delete a file per
// segment.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "SyscallCounter.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/flc/FlcHost.h"
#include "tests/support/FlcSpy.h"

namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 256;  // on a disk
constexpr int kBase = 1600000000;
constexpr int kFileMiB = 1;

// A root with one prepared disk; the manager with it.
class Recorder {
 public:
  explicit Recorder(int files = kFiles) {
    char path[] = "/tmp/fb.XXXXXX";
    if (mkdtemp(path) == nullptr) std::abort();
    mRoot = path;
    mDisk = mRoot + "/disk/a";
    fs::create_directories(mDisk);
    FmgrFileManager::BuildRepositoryGroup(mDisk, kFileMiB, static_cast<unsigned>(files), nullptr);
    fs::remove_all(mDisk + "/imf_prealloc");
    FlcAttachDisk("a", mDisk.c_str());
    mManager = FmgrFileManager::GetInstance(0);
    mManager->SetRootDirOfTemp(mRoot);
    mManager->mOverwrite = 1;
    mManager->AddRepositoryGroup(mDisk);
  }
  ~Recorder() {
    FmgrFileManager::ReleaseInstance();
    FlcDetachDisk("a");
    fs::remove_all(mRoot);
  }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  FmgrFileManager& Manager() { return *mManager; }
  int Now() const { return mNow; }

  // One segment: a file is handed out (recycled, once the disk is full) and completed.
  void Segment() {
    timeval start{mNow, 0};
    std::string path;
    mManager->CheckRepositoryChangeCondition(mNow);
    if (mManager->MakeRecordFile(start, path) != FMGR_DONE) std::abort();
    mManager->RenameRecordFile(path, mNow + 60, 0xf, path);
    mNow += 60;
  }
  void Fill() {
    for (int i = 0; i < kFiles; ++i) Segment();
  }

 private:
  std::string mRoot;
  std::string mDisk;
  FmgrFileManager* mManager = nullptr;
  int mNow = kBase;
};

// The same three renames without any management.
class BareFiles {
 public:
  BareFiles() {
    char path[] = "/tmp/fb.XXXXXX";
    if (mkdtemp(path) == nullptr) std::abort();
    mRoot = path;
    Make(mRoot + "/free");
  }
  ~BareFiles() { fs::remove_all(mRoot); }
  BareFiles(const BareFiles&) = delete;
  BareFiles& operator=(const BareFiles&) = delete;

  void ThreeRenames() {
    Rename("/free", "/open");
    Rename("/open", "/done");
    Rename("/done", "/free");
  }
  void MakeAndDelete() {
    Make(mRoot + "/new");
    Rename("/new", "/done");
    unlink((mRoot + "/done").c_str());
  }

 private:
  static void Make(const std::string& path) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor < 0 || fallocate(descriptor, 0, 0, kFileMiB << 20) != 0) std::abort();
    close(descriptor);
  }
  void Rename(const char* from, const char* to) {
    if (std::rename((mRoot + from).c_str(), (mRoot + to).c_str()) != 0) std::abort();
  }
  std::string mRoot;
};

// Requests and system calls of one `operation`, counted once outside the timed loop.
void AddCounts(benchmark::State& state, Recorder& recorder, const std::function<void()>& operation) {
  flc_spy::Clear();
  operation();
  state.counters["requests"] = static_cast<double>(flc_spy::Requests().size());
  state.counters["syscalls"] = static_cast<double>(CountSystemCalls([] {}, operation));
  recorder.Manager().ClearLink();
}

void SegmentOnFullDisk(benchmark::State& state) {
  Recorder recorder;
  recorder.Fill();
  for (auto _ : state) {
    recorder.Segment();
    state.PauseTiming();
    flc_spy::Clear();
    state.ResumeTiming();
  }
  AddCounts(state, recorder, [&] { recorder.Segment(); });
}

void BareThreeRenames(benchmark::State& state) {
  BareFiles files;
  for (auto _ : state) files.ThreeRenames();
}

void FilePerSegmentMadeAndDeleted(benchmark::State& state) {
  BareFiles files;
  for (auto _ : state) files.MakeAndDelete();
}

void FileForTime(benchmark::State& state) {
  Recorder recorder;
  recorder.Fill();
  std::string path;
  const auto ask = [&] { recorder.Manager().GetFilePath(kBase + 6000, path, 1); };
  for (auto _ : state) ask();
  AddCounts(state, recorder, ask);
}

void NextFile(benchmark::State& state) {
  Recorder recorder;
  recorder.Fill();
  std::string path;
  std::string next;
  recorder.Manager().GetFilePath(kBase + 6000, path, 1);
  const auto ask = [&] { recorder.Manager().GetNextFilePath(path, next); };
  for (auto _ : state) ask();
  AddCounts(state, recorder, ask);
}

void OverallTimeRange(benchmark::State& state) {
  Recorder recorder;
  recorder.Fill();
  int start = 0;
  int end = 0;
  const auto ask = [&] { recorder.Manager().GetTimeRange(start, end); };
  for (auto _ : state) ask();
  AddCounts(state, recorder, ask);
}

void StartWithFilledDisk(benchmark::State& state) {
  Recorder recorder;
  recorder.Fill();
  const std::string disk = recorder.Manager().CurrentRepositoryGroup()->Path();
  const auto restart = [&] {
    recorder.Manager().CleanUpRepositoryGroup();
    FlcForget("a", -1);
    recorder.Manager().AddRepositoryGroup(disk);
  };
  for (auto _ : state) restart();
  AddCounts(state, recorder, restart);
}

BENCHMARK(SegmentOnFullDisk);
BENCHMARK(BareThreeRenames);
BENCHMARK(FilePerSegmentMadeAndDeleted);
BENCHMARK(FileForTime);
BENCHMARK(NextFile);
BENCHMARK(OverallTimeRange);
BENCHMARK(StartWithFilledDisk);

}  // namespace

BENCHMARK_MAIN();
