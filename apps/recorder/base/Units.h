// Sizes and times as people write and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace recorder {

constexpr uint64_t kMiB = uint64_t{1024} * 1024;
constexpr int64_t kMicros = 1000000;  // microseconds in a second

// "64M", "1G", "1.5G", "512 KiB", "1048576": bytes, units are powers of 1024. Nothing for any other text, for a
// size that is not a whole number of bytes, or for one of 2^63 bytes and more.
std::optional<uint64_t> ParseSize(const std::string& text);
// "58.2 MiB": one decimal from KiB on.
std::string FormatSize(uint64_t bytes);

// "8M", "2.5 Mbit/s", "800kbps", "4000000": bits a second, units are powers of 1000. Nothing for any other
// text, for 0, and for 10^12 and more.
std::optional<uint64_t> ParseBitRate(const std::string& text);

// "7d", "36h", "1d12h", "90m", and "36" for hours: seconds. Nothing for any other text.
std::optional<int64_t> ParseSpan(const std::string& text);

// Microseconds since the epoch of "2024-05-01T12:00:00+02:00", "...Z", the same in local time without an offset
// (with a space for the T; seconds and their fraction may be left out), of a local day's beginning
// ("2024-05-01", "today", "yesterday", "tomorrow"), of the last "23:47" or "23:47:10" that has come, of epoch
// seconds, or of "now", "now-2h", "-1h", "now-1d12h", "+90s" (d, h, m, s). Nothing for any other text.
std::optional<int64_t> ParseTime(const std::string& text);
std::optional<int64_t> ParseTime(const std::string& text, int64_t now);
// Whether it is one such as "23:47", that every day has; and the same one on the following day.
bool IsTimeOfDay(const std::string& text);
int64_t NextDay(int64_t micros);
// ISO 8601 in local time with its offset.
std::string FormatTime(int64_t seconds);
// The same with milliseconds.
std::string FormatExactTime(int64_t micros);

// "0:07", "12:34", "1:02:03".
std::string FormatDuration(double seconds);
// "1 packet", "2 packets".
std::string FormatCount(int64_t count, const char* noun);
// Channels of a mask: "0-3,7"; "-" for none.
std::string FormatChannels(uint32_t mask);

}  // namespace recorder
