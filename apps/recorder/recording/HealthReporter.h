// Says how the recording is doing: in ROOT/.recorder.health.json, and to systemd. On threads of its own, so
// that it is said also while the disks keep the recording waiting; and so that stopping comes to an end
// whatever hangs.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/capture/ChannelHealth.h"
#include "apps/recorder/disks/Health.h"

namespace recorder {

class HealthReporter {
 public:
  struct Options {
    std::string root;  // empty: no file is written
    ChannelNames names;
    int64_t longestRetry = 0;  // microseconds from one attempt to connect to the next, at most
  };

  // `board` outlives the object. systemd is told that the recorder is ready.
  HealthReporter(const ChannelHealthBoard& board, Options options);
  // Writes the file for the last time.
  ~HealthReporter();
  HealthReporter(const HealthReporter&) = delete;
  HealthReporter& operator=(const HealthReporter&) = delete;

  // From the thread that records, in every round: it lives. True when it is time for Note().
  bool Move();
  // The members that the recording knows: segment, paused, the counts and disks. The rest is filled in here.
  void Note(Health health);

 private:
  void WriteFiles();
  void Watch();
  Health Collect();
  bool WaitForEnd(int64_t micros);
  std::string StatusLine();

  const ChannelHealthBoard& mBoard;
  const Options mOptions;
  const int64_t mStarted;
  std::atomic<int64_t> mMoved{0};  // monotonic
  std::atomic<bool> mNoted{false};
  std::mutex mMutex;  // guards what follows
  std::condition_variable mEnding;
  bool mEnd = false;
  Health mHealth;
  std::thread mWriter;
  std::thread mWatcher;
};

// Tells systemd, when it listens, that the recorder is up and waits for another one.
void NotifyStandby(const std::string& line);
// Ends the process when it does not end by itself in time after gStop: what is open then is repaired by the
// next start, as after a power cut. Once a process, lasts to its end.
void EndInTime();

}  // namespace recorder
