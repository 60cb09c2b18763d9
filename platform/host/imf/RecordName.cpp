#include "platform/host/imf/RecordName.h"

namespace {

bool IsLowerHex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }
bool IsUpperHex(char c) { return c >= 'A' && c <= 'F'; }

// The hexadecimal number, in either case, that stands at `position`; 0 when there is none or it is too large.
uint32_t HexAt(const std::string& text, size_t position) {
  uint64_t value = 0;
  for (; position < text.size() && (IsLowerHex(text[position]) || IsUpperHex(text[position])); ++position) {
    const char c = text[position];
    const int digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    value = value * 16 + static_cast<unsigned>(digit);
    if (value > UINT32_MAX) return 0;
  }
  return static_cast<uint32_t>(value);
}

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

}  // namespace

bool ParseRecordName(const std::string& name, RecordName* out) {
  if (!EndsWith(name, ".imf")) return false;
  size_t digits = 0;
  while (digits < name.size() && IsLowerHex(name[digits])) ++digits;
  // A leading zero is start time 0 or zero fill, neither of which the library would ever look for.
  if (digits < 1 || digits > 8 || name[0] == '0' || IsUpperHex(name[digits])) return false;

  RecordName parsed{HexAt(name, 0), 0, 0};
  const size_t separator = name.find('_');
  if (separator != std::string::npos) parsed.endTime = HexAt(name, separator + 1);
  const size_t marker = name.find("cm");
  // Nobody records at such times, and the library's are signed: to it they lie before everything else.
  if (parsed.startTime >= INT32_MAX || parsed.endTime > INT32_MAX) return false;
  if (parsed.endTime != 0 && marker != std::string::npos) parsed.channelMask = HexAt(name, marker + 2);
  *out = parsed;
  return true;
}

int ParseDataDirectoryName(const std::string& name) {
  const std::string prefix = "data_";
  if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size()) return -1;
  int64_t number = 0;
  for (size_t i = prefix.size(); i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return -1;
    number = number * 10 + (name[i] - '0');
    if (number > INT32_MAX) return -1;
  }
  return static_cast<int>(number);
}
