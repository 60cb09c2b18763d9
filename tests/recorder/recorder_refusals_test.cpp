// What the recorder refuses before anything is touched, and how it reads sizes and times.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <map>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Refusals.h"

namespace recorder {
namespace {

TEST(Refusals, SayInOneLineWhatIsWrong) {
  const auto& path = RefuseDiskPath;
  const auto& name = RefuseDiskName;
  const auto& geometry = RefuseGeometry;
  ipc_preserve_limit_e limit = IPC_PRESERVE_RESERVED;
  // By a part of the refusal; empty: there is to be none.
  const std::pair<std::string, std::vector<Refusal>> kCases[] = {
      {"",
       {path("/rec/disk/sda1"), path("/" + std::string(38, 'a')), path("/rec/metadata/disk/a"),
        path("/rec-1/disk/a_b.c"), name("sda1", {"sda1", "sdb1"}), name("12345678", {}),
        geometry(2047 * kMiB, 3), geometry(kMiB, 99999999), RefuseClock(0x10000000), RefuseClock(0x7ffffffe),
        RefuseRoot("rec")}},
      {"40 bytes", {path("/" + std::string(39, 'a'))}},
      {"slash", {path("/rec/disk/sda1/"), RefuseRoot("/rec/"), RefuseRoot("/")}},
      {"data_", {path("/rec/data_0/disk/a"), path("/rec/disk/data_1"), RefuseRoot("/rec/data_1")}},
      {"absolute", {path("")}},
      {"empty", {RefuseRoot("")}},
      {"letters",
       {path("/rec/disk/a b"), path("/rec/disk/a'b"), path("/rec/disk/a\nb"), name("..", {}), name("a/b", {}),
        RefuseRoot("/r ec")}},
      {"twice", {name("sda1", {"sda1", "sda1"})}},
      {"'sda' is contained in disk name 'sda1'", {name("sda", {"sda1"}), name("sda1", {"sda"})}},
      {"'da' is contained in disk name 'sda1'", {name("sda1", {"da"})}},
      {"9 bytes", {name("123456789", {})}},
      {"at least 3", {geometry(64 * kMiB, -1), geometry(64 * kMiB, 2)}},
      {"smaller", {geometry(2048 * kMiB, 3), geometry(4097 * kMiB, 3)}},
      {"at most", {geometry(kMiB, 100000000)}},
      {"whole MiB", {geometry(kMiB + 1, 3), geometry(0, 3)}},
      {"which is before", {RefuseClock(0x0fffffff)}},  // the last second with seven digits
      {"not before", {RefuseClock(0x7fffffff)}},
      {"an hour at least", {RefuseKeep(1, &limit), RefuseKeep(3599, &limit)}},
  };
  for (const auto& [part, refusals] : kCases) {
    for (const Refusal& refusal : refusals) {
      SCOPED_TRACE(part + ", number " + std::to_string(&refusal - refusals.data()));
      const std::string said = refusal.value_or("");
      EXPECT_TRUE(said.empty() == part.empty() && said.find(part) != std::string::npos) << said;
      EXPECT_EQ(said.find('\n'), std::string::npos) << "one line";
    }
  }
  const std::pair<const char*, ipc_preserve_limit_e> kKept[] = {
      {"0", IPC_PRESERVE_UNLIMITED},    {"1", IPC_PRESERVE_12_HOURS},      {"7d", IPC_PRESERVE_168_HOURS},
      {"169", IPC_PRESERVE_336_HOURS},  {"20d1h", IPC_PRESERVE_672_HOURS}, {"90d", IPC_PRESERVE_2160_HOURS},
      {"2161h", IPC_PRESERVE_UNLIMITED}};
  for (const auto& [text, expected] : kKept) {
    EXPECT_FALSE(RefuseKeep(ParseSpan(text).value_or(-1), &limit)) << text;
    EXPECT_EQ(expected, limit) << text;
  }
  for (const char* text : {"", "-1", "7w", "7 d", "d"}) EXPECT_FALSE(ParseSpan(text)) << text;
}

constexpr int64_t kRefused = -1;

TEST(Units, Sizes) {
  const std::map<int64_t, std::vector<const char*>> kCases = {
      {1048576, {"1048576"}},
      {1610612736, {"1.5 GiB"}},
      {524288, {"512kB"}},
      {2199023255552, {"2T"}},
      {kRefused, {"", "-1M", "64X", "64MM", "0.3", "1e300G"}}};
  for (const auto& [bytes, texts] : kCases) {
    for (const char* text : texts)
      EXPECT_EQ(ParseSize(text).value_or(UINT64_MAX), static_cast<uint64_t>(bytes)) << text;
  }
  EXPECT_EQ(FormatSize(64 * kMiB), "64.0 MiB");
}

TEST(Units, Channels) {
  const std::map<uint32_t, const char*> kMasks = {{1, "0"}, {0x8000000d, "0,2-3,31"}, {UINT32_MAX, "0-31"}};
  for (const auto& [mask, text] : kMasks) {
    EXPECT_EQ(ParseChannels(text, {}).value_or(0), mask) << text;
    EXPECT_EQ(FormatChannels(mask), text);
  }
  const ChannelNames names = {{3, "front"}, {5, "the yard"}};
  EXPECT_EQ(ParseChannels("all", names), UINT32_MAX);
  EXPECT_EQ(ParseChannels("the yard,0,front", names), 0x29U);
  for (const char* text : {"", "32", "3-1", "1-", "-1", "1,,2", "01", "1 ", "a", "0-front"})
    EXPECT_FALSE(ParseChannels(text, names)) << text;
}

TEST(Units, Times) {
  setenv("TZ", "EST5EDT", 1);
  tzset();
  constexpr int64_t kNoon = 1714564800;  // 2024-05-01T12:00:00Z
  const std::map<int64_t, std::vector<const char*>> kCases = {
      {kNoon * kMicros,
       {"2024-05-01T12:00:00Z", "2024-05-01T14:00:00+02:00", "2024-05-01 06:30-0530",
        "2024-05-01T08:00:00"}},                     // local summer time
      {1704110400 * kMicros, {"2024-01-01T07:00"}},  // and winter time
      {kNoon * kMicros + 500000, {"1714564800.5"}},
      {kRefused,
       {"2024-05-32", "2024-06-31", "2024-05-01T", "2024-13-01T12:00:00Z", "2023-02-29T12:00:00Z",
        "2024-05-01T12:00:00Zulu", "-5", ""}}};
  for (const auto& [micros, texts] : kCases) {
    for (const char* text : texts) EXPECT_EQ(ParseTime(text).value_or(kRefused), micros) << text;
  }
  // The night in which summer time begins: 2024-03-10T01:30:00-05:00, one and a half hours after midnight.
  const int64_t now = 1710052200 * kMicros;
  const std::map<std::string, int64_t> kNear = {{"now", 0},
                                                {"-1h", -3600},
                                                {"now+90s", 90},
                                                {"01:30", 0},
                                                {"00:15:30", -4470},
                                                {"01:31", 60 - 86400},
                                                {"today", -5400},
                                                {"yesterday", -5400 - 86400},
                                                {"tomorrow", -5400 + 23 * 3600},
                                                {"2024-03-11", -5400 + 23 * 3600}};
  for (const auto& [text, seconds] : kNear) {
    EXPECT_EQ(ParseTime(text, now).value_or(kRefused), now + seconds * kMicros) << text;
  }
  for (const char* text : {"25:00", "1h", "-", "-1", "todays"})
    EXPECT_EQ(ParseTime(text, now).value_or(kRefused), kRefused) << text;
  EXPECT_EQ(NextDay(now - 5400 * kMicros), now + (23 * 3600 - 5400) * kMicros);
  EXPECT_EQ(FormatTime(kNoon), "2024-05-01T08:00:00-04:00");
  EXPECT_EQ(FormatDuration(3599.7), "1:00:00");
}

}  // namespace
}  // namespace recorder
