// How a recording is doing, told to other processes in ROOT/.recorder.health.json. The recorder replaces the
// file at most once a second; after its end the last one stays.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace recorder {

// Times are microseconds since the epoch, 0: there was none. The names of the members are those in the file.
struct Health {
  struct Channel {
    int channel = 0;
    std::string name;     // empty: none
    std::string address;  // without its secrets
    std::string state;    // connecting, recording, silent, lost, ended
    int64_t since = 0;    // of the state
    std::string reason;   // of being lost, the latest one
    int64_t lastPicture = 0;
    double picturesPerSecond = 0;
    double bytesPerSecond = 0;
    std::string codec;
    int width = 0;  // pixels
    int height = 0;
    int64_t pictures = 0;  // since the recording began
    int64_t bytes = 0;
    int reconnects = 0;
  };
  struct Disk {
    std::string name;
    std::string state;  // used, missing, aside
    std::string reason;
    int64_t since = 0;
  };

  int version = 1;
  int64_t written = 0;
  int64_t started = 0;
  int pid = 0;
  std::string host;
  bool stopped = false;  // recording came to its end
  bool paused = false;   // no disk can be recorded to
  int64_t moved = 0;     // when packets were last taken, or it was found that there are none
  std::string segment;   // path of the one under way, empty between two
  std::string lastError;
  int64_t lastErrorTime = 0;
  // Since the recording began.
  int64_t segments = 0;
  int64_t packets = 0;
  int64_t dropped = 0;
  int64_t recycled = 0;
  int64_t quarantined = 0;
  int64_t repaired = 0;
  std::vector<Channel> channels;
  std::vector<Disk> disks;
};

// False: errno tells why; the file says what it said before.
bool WriteHealth(const std::string& root, const Health& health);
// Nothing when there is no file, or none that makes sense.
std::optional<Health> ReadHealth(const std::string& root);

}  // namespace recorder
