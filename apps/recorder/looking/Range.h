// The span of time and the channel that a command is asked about.
#pragma once

#include <cstdint>
#include <string>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/disks/Refusals.h"

namespace CLI {
class App;
}

namespace recorder {

constexpr int kAnyChannel = -1;

// Microseconds since the epoch; `until` itself is outside.
struct Range {
  int64_t since = 0;
  int64_t until = kLatestTime * 1000000;

  bool operator==(const Range& other) const { return since == other.since && until == other.until; }
};

struct RangeOptions {
  std::string since;
  std::string until;
  std::string channelText;    // as given, empty: it wasn't
  int channel = kAnyChannel;  // set by ChooseChannel(), or what is meant without it
  bool json = false;
};

// Adds --since, --until, --channel and --json.
void AddRangeOptions(CLI::App* command, RangeOptions* options, bool required);
// Finds the channel whose number or name was given.
Refusal ChooseChannel(const ChannelNames& names, RangeOptions* options);
// An end that is left out stays as it is in `range`. No disk access.
Refusal ParseRange(const RangeOptions& options, Range* range);
// `what` is the option, for the message.
Refusal ParseMoment(const std::string& what, const std::string& text, int64_t* micros);
// `known` has a bit for each channel that was ever recorded; without any, every possible channel will do.
Refusal RefuseChannel(int channel, uint32_t known);

}  // namespace recorder
