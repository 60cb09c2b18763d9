#include "apps/recorder/base/Units.h"

#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace recorder {

namespace {

// Reads exactly `digits` decimal digits at `at` and moves behind them.
bool ReadDigits(const std::string& text, size_t* at, int digits, int* out) {
  int value = 0;
  for (int i = 0; i < digits; i++, (*at)++) {
    if (*at >= text.size() || !std::isdigit(static_cast<unsigned char>(text[*at]))) return false;
    value = value * 10 + (text[*at] - '0');
  }
  *out = value;
  return true;
}

bool ReadChar(const std::string& text, size_t* at, const char* oneOf) {
  if (*at >= text.size() || text[*at] == '\0' || std::string(oneOf).find(text[*at]) == std::string::npos)
    return false;
  (*at)++;
  return true;
}

// Up to six digits of a fraction count, more are read over.
bool ReadFraction(const std::string& text, size_t* at, int64_t* micros) {
  const size_t begin = *at;
  int64_t unit = kMicros / 10;
  *micros = 0;
  for (; *at < text.size() && std::isdigit(static_cast<unsigned char>(text[*at])); (*at)++, unit /= 10) {
    *micros += (text[*at] - '0') * unit;
  }
  return *at > begin;
}

std::optional<int64_t> ParseEpoch(const std::string& text) {
  size_t at = 0;
  int64_t seconds = 0;
  for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); at++) {
    if (at >= 12) return std::nullopt;  // no time that a recording could have
    seconds = seconds * 10 + (text[at] - '0');
  }
  if (at == 0) return std::nullopt;
  int64_t micros = 0;
  if (ReadChar(text, &at, ".") && !ReadFraction(text, &at, &micros)) return std::nullopt;
  if (at != text.size()) return std::nullopt;
  return seconds * kMicros + micros;
}

// "now", and what is taken off or added: "-2h", "+1h30m".
std::optional<int64_t> ParseNow(const std::string& text) {
  if (text.rfind("now", 0) != 0) return std::nullopt;
  const int64_t now =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  size_t at = 3;
  if (at == text.size()) return now;
  const bool back = text[at] == '-';
  if (!ReadChar(text, &at, "+-")) return std::nullopt;
  int64_t seconds = 0;
  do {
    int64_t number = 0;
    const size_t begin = at;
    for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); at++) {
      if (at - begin >= 9) return std::nullopt;
      number = number * 10 + (text[at] - '0');
    }
    if (at == begin || at == text.size()) return std::nullopt;
    const int64_t unit = text[at] == 's' ? 1 : text[at] == 'm' ? 60 : text[at] == 'h' ? 3600 : 86400;
    if (!ReadChar(text, &at, "smhd")) return std::nullopt;
    seconds += number * unit;
    if (seconds > 99999999999) return std::nullopt;  // as for epoch seconds
  } while (at < text.size());
  return now + (back ? -seconds : seconds) * kMicros;
}

}  // namespace

std::optional<uint64_t> ParseSize(const std::string& text) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  while (*end == ' ') end++;
  std::string unit;
  for (; *end != '\0'; end++) unit += static_cast<char>(std::tolower(static_cast<unsigned char>(*end)));
  static const char* const kUnits[][4] = {{"", "b", "", ""},
                                          {"k", "kib", "kb", ""},
                                          {"m", "mib", "mb", ""},
                                          {"g", "gib", "gb", ""},
                                          {"t", "tib", "tb", ""}};
  double factor = 1;
  for (const auto& names : kUnits) {
    for (const char* name : names) {
      if (unit != name) continue;
      const double bytes = number * factor;
      if (!std::isfinite(bytes) || bytes >= 9.2e18 || bytes != std::floor(bytes)) return std::nullopt;
      return static_cast<uint64_t>(bytes);
    }
    factor *= 1024;
  }
  return std::nullopt;
}

std::string FormatSize(uint64_t bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof kUnits / sizeof *kUnits) {
    value /= 1024;
    unit++;
  }
  char text[64];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::optional<int64_t> ParseTime(const std::string& text) {
  if (std::optional<int64_t> epoch = ParseEpoch(text)) return epoch;
  if (std::optional<int64_t> now = ParseNow(text)) return now;
  std::tm tm{};
  size_t at = 0;
  if (!ReadDigits(text, &at, 4, &tm.tm_year) || !ReadChar(text, &at, "-") ||
      !ReadDigits(text, &at, 2, &tm.tm_mon) || !ReadChar(text, &at, "-") ||
      !ReadDigits(text, &at, 2, &tm.tm_mday) || !ReadChar(text, &at, "T ") ||
      !ReadDigits(text, &at, 2, &tm.tm_hour) || !ReadChar(text, &at, ":") ||
      !ReadDigits(text, &at, 2, &tm.tm_min)) {
    return std::nullopt;
  }
  int64_t micros = 0;
  if (ReadChar(text, &at, ":")) {
    if (!ReadDigits(text, &at, 2, &tm.tm_sec)) return std::nullopt;
    if (ReadChar(text, &at, ".,") && !ReadFraction(text, &at, &micros)) return std::nullopt;
  }
  if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
      tm.tm_min > 59 || tm.tm_sec > 60) {
    return std::nullopt;
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  const int day = tm.tm_mday;

  int64_t seconds;
  if (at == text.size()) {
    tm.tm_isdst = -1;
    seconds = mktime(&tm);
  } else {
    int offset = 0;
    if (!ReadChar(text, &at, "Zz")) {
      const bool west = text[at] == '-';
      int hours = 0;
      int minutes = 0;
      if (!ReadChar(text, &at, "+-") || !ReadDigits(text, &at, 2, &hours)) return std::nullopt;
      ReadChar(text, &at, ":");
      if (at < text.size() && !ReadDigits(text, &at, 2, &minutes)) return std::nullopt;
      if (hours > 15 || minutes > 59) return std::nullopt;
      offset = (hours * 60 + minutes) * 60 * (west ? -1 : 1);
    }
    if (at != text.size()) return std::nullopt;
    seconds = timegm(&tm) - offset;
  }
  if (tm.tm_mday != day) return std::nullopt;  // 31 June
  return seconds * kMicros + micros;
}

std::string FormatTime(int64_t seconds) {
  const time_t time = seconds;
  std::tm tm{};
  if (localtime_r(&time, &tm) == nullptr) return std::to_string(seconds);
  char text[64];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &tm);
  return std::string(text).insert(std::string(text).size() - 2, ":");
}

std::string FormatExactTime(int64_t micros) {
  const int64_t millis = micros / 1000;
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(millis % 1000));
  return FormatTime(millis / 1000).insert(19, fraction);
}

std::string FormatDuration(double seconds) {
  const auto whole = static_cast<long long>(std::llround(seconds < 0 ? 0 : seconds));
  char text[64];
  if (whole >= 3600) {
    std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
  } else {
    std::snprintf(text, sizeof text, "%lld:%02lld", whole / 60, whole % 60);
  }
  return text;
}

std::string FormatChannels(uint32_t mask) {
  std::string text;
  for (int first = 0; first < 32; first++) {
    if ((mask >> first & 1) == 0) continue;
    int last = first;
    while (last < 31 && (mask >> (last + 1) & 1) != 0) last++;
    text += (text.empty() ? "" : ",") + std::to_string(first);
    if (last > first) text += "-" + std::to_string(last);
    first = last;
  }
  return text.empty() ? "-" : text;
}

}  // namespace recorder
