#include "apps/recorder/looking/Range.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "apps/recorder/base/Units.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

void AddRangeOptions(CLI::App* command, RangeOptions* options, bool required) {
  command
      ->add_option("--since", options->since,
                   "Begin: as 2024-05-01T12:00:00, 23:47, yesterday, -2h, or epoch seconds")
      ->required(required);
  command->add_option("--until", options->until, "End, in the same forms")->required(required);
  command->add_option("--channel", options->channelText, "Number, from 0, or name of the channel");
  command->add_flag("--json", options->json, "One JSON object a line");
}

Refusal ChooseChannel(const ChannelNames& names, RangeOptions* options) {
  const std::string& text = options->channelText;
  if (text.empty()) return std::nullopt;
  for (const auto& [number, name] : names) {
    options->channel = number;
    if (name == text) return std::nullopt;
  }
  const size_t digits = text.find_first_not_of("0123456789", text[0] == '-' ? 1 : 0);
  if (digits == std::string::npos && text.size() <= 4 && text != "-") {
    options->channel = std::stoi(text);
    return RefuseChannel(options->channel, 0);
  }
  std::string known;
  for (const auto& [number, name] : names) known += (known.empty() ? "" : ", ") + name;
  return "there is no channel " + text + ": " +
         (known.empty() ? "channels have no names here, but numbers" : "there are " + known);
}

Refusal ParseMoment(const std::string& what, const std::string& text, int64_t* micros) {
  const std::optional<int64_t> time = ParseTime(text);
  if (!time)
    return what + " " + text + " is not a time: 2024-05-01T12:00:00+02:00, 23:47, yesterday and -2h are";
  *micros = std::clamp<int64_t>(*time, 0, kLatestTime * kMicros);
  return std::nullopt;
}

Refusal ParseRange(const RangeOptions& options, Range* range) {
  if (options.channel != kAnyChannel) {
    if (Refusal refusal = RefuseChannel(options.channel, 0)) return refusal;
  }
  if (!options.since.empty()) {
    if (Refusal refusal = ParseMoment("--since", options.since, &range->since)) return refusal;
  }
  if (!options.until.empty()) {
    if (Refusal refusal = ParseMoment("--until", options.until, &range->until)) return refusal;
    // From 23:00 to 1:00 is over midnight, also when it is yet to come.
    if (range->until <= range->since && IsTimeOfDay(options.until)) range->until = NextDay(range->until);
  }
  if (range->since < range->until) return std::nullopt;
  return "the range ends at " + FormatExactTime(range->until) + ", " +
         (range->since == range->until ? "when" : "before") + " it begins at " + FormatExactTime(range->since);
}

Refusal RefuseChannel(int channel, uint32_t known) {
  if (channel < 0 || channel >= IMF_CHANNEL_LIMIT) {
    return "there is no channel " + std::to_string(channel) + ": channels are numbered 0 to " +
           std::to_string(IMF_CHANNEL_LIMIT - 1);
  }
  if (known == 0 || (known >> channel & 1) != 0) return std::nullopt;
  return "channel " + std::to_string(channel) + " was never recorded: there is " + FormatChannels(known);
}

}  // namespace recorder
