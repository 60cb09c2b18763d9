#include <cctype>
#include <chrono>
#include <ctime>
#include <utility>

#include "apps/recorder/base/Units.h"

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

// "2h", "1d12h30m" from `at` to the end.
std::optional<int64_t> ParseUnits(const std::string& text, size_t at) {
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
  return seconds;
}

// "now", and what is taken off or added: "-2h", "+1h30m", which may also stand alone.
std::optional<int64_t> ParseNow(const std::string& text, int64_t now) {
  size_t at = text.rfind("now", 0) == 0 ? 3 : 0;
  if (at == 3 && at == text.size()) return now;
  const bool back = text[at] == '-';
  if (!ReadChar(text, &at, "+-")) return std::nullopt;
  const std::optional<int64_t> seconds = ParseUnits(text, at);
  if (!seconds) return std::nullopt;
  return now + (back ? -*seconds : *seconds) * kMicros;
}

bool ReadDate(const std::string& text, size_t* at, std::tm* tm) {
  if (!ReadDigits(text, at, 4, &tm->tm_year) || !ReadChar(text, at, "-") ||
      !ReadDigits(text, at, 2, &tm->tm_mon) || !ReadChar(text, at, "-") ||
      !ReadDigits(text, at, 2, &tm->tm_mday)) {
    return false;
  }
  if (tm->tm_mon < 1 || tm->tm_mon > 12 || tm->tm_mday < 1 || tm->tm_mday > 31) return false;
  tm->tm_year -= 1900;
  tm->tm_mon -= 1;
  return true;
}

bool ReadClock(const std::string& text, size_t* at, std::tm* tm, int64_t* micros) {
  if (!ReadDigits(text, at, 2, &tm->tm_hour) || !ReadChar(text, at, ":") ||
      !ReadDigits(text, at, 2, &tm->tm_min)) {
    return false;
  }
  if (ReadChar(text, at, ":")) {
    if (!ReadDigits(text, at, 2, &tm->tm_sec)) return false;
    if (ReadChar(text, at, ".,") && !ReadFraction(text, at, micros)) return false;
  }
  return tm->tm_hour <= 23 && tm->tm_min <= 59 && tm->tm_sec <= 60;
}

// Seconds since the epoch of a local time of which the C library finds out whether it is summer time; nothing
// for a day that its month does not have.
std::optional<int64_t> FromLocal(std::tm tm) {
  const int day = tm.tm_mday;
  tm.tm_isdst = -1;
  const int64_t seconds = mktime(&tm);
  if (tm.tm_mday != day) return std::nullopt;  // 31 June
  return seconds;
}

// The beginning of the local day that lies `days` after that of `now`.
std::tm DayOf(int64_t now, int days) {
  const time_t seconds = static_cast<time_t>(now / kMicros);
  std::tm tm{};
  localtime_r(&seconds, &tm);
  tm.tm_hour = 12;  // no change of clock moves noon into another day
  tm.tm_min = tm.tm_sec = 0;
  tm.tm_mday += days;
  tm.tm_isdst = -1;
  mktime(&tm);
  tm.tm_hour = 0;
  return tm;
}

// "today", "yesterday", "tomorrow": their beginning. "23:47": the last one that has come.
std::optional<int64_t> ParseDay(const std::string& text, int64_t now) {
  static constexpr std::pair<const char*, int> kDays[] = {{"yesterday", -1}, {"today", 0}, {"tomorrow", 1}};
  for (const auto& [name, days] : kDays) {
    if (text == name) return *FromLocal(DayOf(now, days)) * kMicros;
  }
  for (const int days : {0, -1}) {
    std::tm tm = DayOf(now, days);
    int64_t micros = 0;
    size_t at = 0;
    if (!ReadClock(text, &at, &tm, &micros) || at != text.size()) return std::nullopt;
    const std::optional<int64_t> seconds = FromLocal(tm);
    if (seconds && *seconds * kMicros + micros <= now) return *seconds * kMicros + micros;
  }
  return std::nullopt;
}

}  // namespace

std::optional<int64_t> ParseSpan(const std::string& text) {
  const bool isHours = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  return ParseUnits(isHours ? text + "h" : text, 0);
}

std::optional<int64_t> ParseTime(const std::string& text) {
  return ParseTime(text, std::chrono::duration_cast<std::chrono::microseconds>(
                             std::chrono::system_clock::now().time_since_epoch())
                             .count());
}

std::optional<int64_t> ParseTime(const std::string& text, int64_t now) {
  if (std::optional<int64_t> epoch = ParseEpoch(text)) return epoch;
  if (std::optional<int64_t> near = ParseNow(text, now)) return near;
  if (std::optional<int64_t> day = ParseDay(text, now)) return day;
  std::tm tm{};
  size_t at = 0;
  int64_t micros = 0;
  if (!ReadDate(text, &at, &tm)) return std::nullopt;
  if (at < text.size() && (!ReadChar(text, &at, "T ") || !ReadClock(text, &at, &tm, &micros)))
    return std::nullopt;
  std::optional<int64_t> seconds;
  if (at == text.size()) {
    seconds = FromLocal(tm);
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
    const int day = tm.tm_mday;
    seconds = timegm(&tm) - offset;
    if (at != text.size() || tm.tm_mday != day) return std::nullopt;
  }
  if (!seconds) return std::nullopt;
  return *seconds * kMicros + micros;
}

bool IsTimeOfDay(const std::string& text) {
  std::tm tm{};
  int64_t micros = 0;
  size_t at = 0;
  return ReadClock(text, &at, &tm, &micros) && at == text.size();
}

int64_t NextDay(int64_t micros) {
  const time_t seconds = static_cast<time_t>(micros / kMicros);
  std::tm tm{};
  localtime_r(&seconds, &tm);
  tm.tm_mday++;
  tm.tm_isdst = -1;
  return int64_t{mktime(&tm)} * kMicros + micros % kMicros;
}

}  // namespace recorder
