#include "apps/recorder/base/InputList.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <set>
#include <sstream>

namespace recorder {

namespace {

constexpr size_t kNameLimit = 32;  // bytes

bool IsNumber(const std::string& text) {
  return !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
}

// Bytes above 127 are letters of other languages. Of the punctuation, none that has a meaning in addresses and
// lists of channels.
bool IsName(const std::string& text) {
  if (text.empty() || text.size() > kNameLimit || text.front() == ' ' || text.back() == ' ') return false;
  return std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x80 || std::isalnum(byte) != 0 || c == '-' || c == '_' || c == '.' || c == ' ';
  });
}

// What stands before the first '=' of an address, where it can only have been meant as a name: it is neither of
// a URL nor of a path.
std::optional<std::string> OddName(const std::string& address) {
  const size_t equals = address.find('=');
  if (equals == std::string::npos || address.find_first_of("/:?&|") < equals) return std::nullopt;
  return address.substr(0, equals);
}

// "1234" of "1234:front=rtsp://camera1": too long for a channel's number. Behind a number or a name it is the
// address's own.
std::optional<std::string> OddNumber(const InputSpec& input) {
  const size_t end = input.address.find_first_not_of("0123456789");
  if (input.channel >= 0 || !input.name.empty() || end == std::string::npos) return std::nullopt;
  if (end == 0 || input.address[end] != ':') return std::nullopt;
  return input.address.substr(0, end);
}

}  // namespace

InputSpec ParseInput(const std::string& text) {
  InputSpec input;
  input.address = text;
  const size_t colon = text.find(':');
  if (colon != std::string::npos && IsNumber(text.substr(0, colon))) {
    input.channel = std::stoi(text.substr(0, colon));
    input.address = text.substr(colon + 1);
  }
  const size_t equals = input.address.find('=');
  if (equals != std::string::npos && IsName(input.address.substr(0, equals))) {
    input.name = input.address.substr(0, equals);
    input.address = input.address.substr(equals + 1);
  }
  return input;
}

std::optional<std::string> ParseInputs(const std::vector<std::string>& texts, int limit,
                                       std::vector<InputSpec>* inputs) {
  inputs->clear();
  std::set<int> channels;
  std::set<std::string> names;
  if (texts.size() > static_cast<size_t>(limit)) {
    return std::to_string(texts.size()) + " inputs: at most " + std::to_string(limit) +
           " channels are possible";
  }
  for (const std::string& text : texts) {
    const InputSpec input = ParseInput(text);
    const std::string number = std::to_string(input.channel);
    if (input.address.empty()) return "an --input has no address";
    if (const auto odd = OddName(input.address)) {
      return "an input cannot be called '" + *odd + "': names are 1 to " + std::to_string(kNameLimit) +
             " bytes of letters, digits, -, _, . and blanks between them (a file of that name: ./" + *odd +
             "=...)";
    }
    const auto oddNumber = OddNumber(input);
    if (oddNumber || input.channel >= limit) {
      return "there is no channel " + oddNumber.value_or(number) + ": channels are numbered 0 to " +
             std::to_string(limit - 1);
    }
    if (input.channel >= 0 && !channels.insert(input.channel).second) {
      return "two inputs for channel " + number;
    }
    if (IsNumber(input.name)) return "an input cannot be called " + input.name + ": that is a channel's number";
    if (!input.name.empty() && !names.insert(input.name).second) return "two inputs are called " + input.name;
    inputs->push_back(input);
  }
  int next = 0;
  for (InputSpec& input : *inputs) {
    while (input.channel < 0 && !channels.insert(next).second) next++;
    if (input.channel < 0) input.channel = next;
  }
  return std::nullopt;
}

ChannelNames NamesOf(const std::vector<InputSpec>& inputs) {
  ChannelNames names;
  for (const InputSpec& input : inputs) {
    if (!input.name.empty()) names[input.channel] = input.name;
  }
  return names;
}

std::string DescribeChannel(int channel, const ChannelNames& names) {
  const auto name = names.find(channel);
  return "channel " + std::to_string(channel) + (name == names.end() ? "" : " (" + name->second + ")");
}

std::optional<uint32_t> ParseChannels(const std::string& text, const ChannelNames& names) {
  if (text == "all") return UINT32_MAX;
  uint32_t mask = 0;
  std::istringstream parts(text + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    unsigned first = 0;
    unsigned last = 0;
    const auto named =
        std::find_if(names.begin(), names.end(), [&](const auto& each) { return each.second == part; });
    if (named != names.end()) part = std::to_string(named->first);
    const int read = std::sscanf(part.c_str(), "%2u-%2u", &first, &last);
    if (read == 1 && part == std::to_string(first)) last = first;
    if (part != std::to_string(first) + (read == 1 ? "" : "-" + std::to_string(last))) return std::nullopt;
    if (read < 1 || first > last || last > 31) return std::nullopt;
    for (unsigned channel = first; channel <= last; channel++) mask |= uint32_t{1} << channel;
  }
  return mask;
}

}  // namespace recorder
