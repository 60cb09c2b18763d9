// Where the packets of all inputs come together in the order in which they are recorded.
#pragma once

#include <string>

#include "apps/recorder/capture/ChannelHealth.h"
#include "apps/recorder/capture/Input.h"

namespace recorder {

struct SourceEvent {
  enum Kind {
    kPacket,            // sample
    kChannelLost,       // channel, line, reason: it is being tried again
    kChannelStillLost,  // the same, a minute later
    kChannelBack,       // channel, line: its packets follow
    kChannelEnded,      // channel, line, reason: nothing more comes of it
    kNothing,           // nothing happened for a while
    kFinished,          // every channel has ended, or recording was stopped and nothing is left
  };
  Kind kind = kNothing;
  Sample sample;
  int channel = 0;
  std::string line;    // about it, for people; empty when recording was stopped
  std::string reason;  // why, alone
};

class Source {
 public:
  virtual ~Source() = default;
  // Waits for a short while at most.
  virtual void Next(SourceEvent* event) = 0;
  // How many inputs could be opened so far.
  virtual int Opened() const = 0;
  // How the channels are doing; lives as long as the source.
  virtual const ChannelHealthBoard& Health() const = 0;
};

}  // namespace recorder
