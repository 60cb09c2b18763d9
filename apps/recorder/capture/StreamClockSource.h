// Recording time is a given moment plus the inputs' own time: everything is read in one thread, in order of
// time, as fast as it is taken.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "apps/recorder/capture/Source.h"

namespace recorder {

class StreamClockSource : public Source {
 public:
  // `start` in microseconds since the epoch, `timeout` and `audio` as Input's; `urls` by channel, empty where
  // there is no input.
  StreamClockSource(const std::vector<std::string>& urls, int64_t start, int64_t timeout, bool audio);
  void Next(SourceEvent* event) override;
  int Opened() const override { return mOpened; }
  const ChannelHealthBoard& Health() const override { return mHealth; }

 private:
  struct Channel {
    std::unique_ptr<Input> input;
    bool pending = false;
    bool ended = false;
    Sample sample;
    std::string reason;
  };

  void Advance(int number);
  void End(int number, const std::string& reason);

  const int64_t mStart;
  int mOpened = 0;
  std::vector<Channel> mChannels;
  ChannelHealthBoard mHealth;
};

}  // namespace recorder
