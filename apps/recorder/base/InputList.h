// What the values of --input say: [CHANNEL:][NAME=]ADDRESS, as "front=rtsp://camera1/stream", "3:video.mp4".
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace recorder {

// By channel number; channels without a name are not in it.
using ChannelNames = std::map<int, std::string>;

struct InputSpec {
  int channel = -1;     // -1: the lowest that is free
  std::string name;     // empty: none
  std::string address;  // as given, with its secrets
};

// Reads one value. What does not look like a number or a name belongs to the address; a file of an odd name is
// written as "./3:a=b.mp4".
InputSpec ParseInput(const std::string& text);

// Reads all values and gives each input its channel below `limit`. Nothing, or why it can't be: `inputs` is
// undefined then.
std::optional<std::string> ParseInputs(const std::vector<std::string>& texts, int limit,
                                       std::vector<InputSpec>* inputs);

ChannelNames NamesOf(const std::vector<InputSpec>& inputs);

// "channel 3 (front)", or "channel 3".
std::string DescribeChannel(int channel, const ChannelNames& names);

// The mask of "0-3,7,front", or of "all". Nothing for any other text.
std::optional<uint32_t> ParseChannels(const std::string& text, const ChannelNames& names);

}  // namespace recorder
