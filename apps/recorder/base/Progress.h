// Progress of preparing a disk: a bar on a terminal, a line every ten percent elsewhere.
#pragma once

#include <chrono>
#include <cstdint>

#include "ProgressIndicator.h"

namespace recorder {

class Progress : public ProgressIndicator {
 public:
  // `fileSize` in bytes; progress goes to standard error.
  explicit Progress(uint64_t fileSize);
  ~Progress() override;

  void BeginStage(int total, int stage) override;
  void Refresh() override;
  void EndStage() override { End(true); }

  // Ends the stage under way: with all of it done, or where it failed.
  void End(bool complete);

 private:
  using Clock = std::chrono::steady_clock;

  void Draw(bool last);

  const uint64_t mFileSize;
  const bool mTerminal;
  int mStage = 0;  // 0: none under way
  int mTotal = 0;
  int mDone = 0;
  int mNextPercent = 0;
  Clock::time_point mBegin;
  Clock::time_point mDrawn;
};

}  // namespace recorder
