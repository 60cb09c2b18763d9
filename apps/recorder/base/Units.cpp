#include "apps/recorder/base/Units.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>

namespace recorder {

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

std::optional<uint64_t> ParseBitRate(const std::string& text) {
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  while (*end == ' ') end++;
  const std::string letters = "kmg";
  const size_t unit = letters.find(static_cast<char>(std::tolower(static_cast<unsigned char>(*end))));
  const bool hasUnit = *end != '\0' && unit != std::string::npos;
  if (hasUnit) end++;
  const std::string rest = end;
  if (!rest.empty() && rest != "bit/s" && rest != "bps" && rest != "bit" && rest != "b/s") return std::nullopt;
  const double bits = number * (hasUnit ? std::pow(1000, static_cast<double>(unit) + 1) : 1);
  if (!(bits >= 1) || bits >= 1e12) return std::nullopt;
  return static_cast<uint64_t>(bits);
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

std::string FormatTime(int64_t seconds) {
  const time_t time = seconds;
  std::tm tm{};
  if (localtime_r(&time, &tm) == nullptr) return std::to_string(seconds);
  // Not by strftime(3), which takes five times as long: lists have hundreds of thousands of times.
  std::string text = std::to_string(tm.tm_year + 1900);
  const auto put = [&text](char before, int64_t number) {
    text += before;
    text += static_cast<char>('0' + number / 10 % 10);
    text += static_cast<char>('0' + number % 10);
  };
  put('-', tm.tm_mon + 1);
  put('-', tm.tm_mday);
  put('T', tm.tm_hour);
  put(':', tm.tm_min);
  put(':', tm.tm_sec);
  const int64_t minutes = std::abs(tm.tm_gmtoff) / 60;
  put(tm.tm_gmtoff < 0 ? '-' : '+', minutes / 60);
  put(':', minutes % 60);
  return text;
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

std::string FormatCount(int64_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
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
