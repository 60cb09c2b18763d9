#include "apps/recorder/base/Progress.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr int kBarWidth = 30;

const char* NameOfStage(int stage) {
  return stage == PROGRESS_STAGE_FILL_FREE_POOL ? "filling the pool" : "laying down files";
}

}  // namespace

Progress::Progress(uint64_t fileSize) : mFileSize(fileSize), mTerminal(isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() { End(false); }

void Progress::BeginStage(int total, int stage) {
  End(true);  // the file manager begins stages but never ends one
  mStage = stage;
  mTotal = total;
  mDone = 0;
  mNextPercent = 10;
  mBegin = Clock::now();
  mDrawn = mBegin - kRedraw;
  // Every step is wanted, so the limit is one that no step reaches.
  mGate = 1;
  mActive = 1;
  mCurrent = 0;
  mLimit = total;
}

void Progress::Refresh() {
  mDone = mCurrent + 1;  // steps count from 0 and are reported when they are done
  Draw(false);
}

void Progress::End(bool complete) {
  if (mStage == 0) return;
  if (complete) mDone = mTotal;
  Draw(true);
  mStage = 0;
  mActive = 0;
}

void Progress::Draw(bool last) {
  const Clock::time_point now = Clock::now();
  const int percent = mTotal > 0 ? static_cast<int>(int64_t{100} * mDone / mTotal) : 100;
  const double seconds = std::chrono::duration<double>(now - mBegin).count();
  const uint64_t done = mFileSize * static_cast<uint64_t>(mDone);
  std::string amount = std::to_string(mDone) + " of " + std::to_string(mTotal) + " files";
  if (mStage == PROGRESS_STAGE_PRE_ALLOCATE) {  // the other stage writes names only
    char rate[32];
    std::snprintf(rate, sizeof rate, ", %.0f MiB/s",
                  seconds > 0 ? static_cast<double>(done) / static_cast<double>(kMiB) / seconds : 0);
    amount += ", " + FormatSize(done) + " of " + FormatSize(mFileSize * static_cast<uint64_t>(mTotal)) + rate;
  }
  const char* name = NameOfStage(mStage);
  if (!mTerminal) {
    if (percent < mNextPercent) return;
    std::fprintf(stderr, "%s: %d %% (%s)\n", name, percent, amount.c_str());
    mNextPercent = percent / 10 * 10 + 10;
    return;
  }
  if (!last && now - mDrawn < kRedraw) return;
  mDrawn = now;
  const int filled = kBarWidth * percent / 100;
  const std::string bar = std::string(filled, '#') + std::string(kBarWidth - filled, '.');
  const std::string time = last        ? FormatDuration(seconds)
                           : mDone > 0 ? FormatDuration(seconds / mDone * (mTotal - mDone)) + " left"
                                       : std::string();
  std::fprintf(stderr, "\r%s [%s] %3d %%  %s  %s\033[K%s", name, bar.c_str(), percent, amount.c_str(),
               time.c_str(), last ? "\n" : "");
  std::fflush(stderr);
}

}  // namespace recorder
