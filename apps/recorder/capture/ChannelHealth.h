// How each channel is doing: written by the threads that capture, read by whoever shows it.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace recorder {

struct ChannelHealth {
  enum class State {
    kConnecting,  // has not given a picture yet
    kRecording,
    kSilent,  // connected, but no picture for a while; `since` is when the last one came
    kLost,    // is being tried again; `since` is when it was lost, or first tried
    kEnded,   // a file that is over, or an address that can't work: not tried again
  };
  State state = State::kConnecting;
  int64_t since = 0;    // of the state, microseconds since the epoch
  std::string address;  // without its secrets
  std::string reason;   // of kLost and kEnded, one line; the latest one otherwise, empty when there was none
  int64_t lastPicture = 0;       // its arrival, microseconds since the epoch; 0: none yet
  double picturesPerSecond = 0;  // over the last seconds
  double bytesPerSecond = 0;
  std::string codec;  // libavcodec's name, empty while not known
  int width = 0;      // pixels
  int height = 0;
  int64_t pictures = 0;  // since the start
  int64_t bytes = 0;
  int reconnects = 0;  // how often it came back
  int attempts = 0;    // that failed, to connect or to go on
};

// "recording", "silent" and so on, as messages and files have it.
const char* NameOf(ChannelHealth::State state);

// May be used by any number of threads. Channels are numbered from 0; one that does not exist must not be asked
// for. Times are microseconds: `wall` since the epoch, `monotonic` of CLOCK_MONOTONIC, both taken by the caller
// at the same moment.
class ChannelHealthBoard {
 public:
  struct Moment {
    int64_t wall = 0;
    int64_t monotonic = 0;
    static Moment Now();
  };

  // Addresses as they may be shown.
  explicit ChannelHealthBoard(const std::vector<std::string>& addresses, Moment now = Moment::Now());

  void NotePicture(int channel, size_t bytes, Moment now);
  void NoteCoding(int channel, const std::string& codec, int width, int height);
  void NoteLost(int channel, const std::string& reason, Moment now);
  // Connected again; how it is found recording is by its pictures.
  void NoteBack(int channel);
  void NoteEnded(int channel, const std::string& reason, Moment now);

  // All channels, as they are `now`.
  std::vector<ChannelHealth> Look(Moment now = Moment::Now()) const;

 private:
  struct Second {
    int64_t number = -1;  // monotonic
    int64_t pictures = 0;
    int64_t bytes = 0;
  };
  static constexpr int kSeconds = 6;  // the one under way and those that rates are made from

  struct Channel {
    ChannelHealth health;
    int64_t firstPicture = 0;  // of the present connection, monotonic
    int64_t lastArrival = 0;   // monotonic
    Second seconds[kSeconds];
  };

  mutable std::mutex mMutex;
  std::vector<Channel> mChannels;
};

}  // namespace recorder
