// What the recorder refuses before anything is touched, and how it reads sizes and times.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "apps/recorder/Refusals.h"
#include "apps/recorder/Units.h"

namespace recorder {
namespace {

// `expected` is a part of the refusal; null when there is to be none.
void Expect(const char* expected, const Refusal& refusal, const std::string& what) {
  SCOPED_TRACE(what);
  if (expected == nullptr) {
    EXPECT_FALSE(refusal) << *refusal;
    return;
  }
  ASSERT_TRUE(refusal) << "expected a refusal with: " << expected;
  EXPECT_NE(refusal->find(expected), std::string::npos) << *refusal;
  EXPECT_EQ(refusal->find('\n'), std::string::npos) << "one line";
}

TEST(Refusals, DiskPath) {
  const struct {
    std::string path;
    const char* expected;
  } kCases[] = {
      {"/rec/disk/sda1", nullptr},
      {"/" + std::string(38, 'a'), nullptr},
      {"/" + std::string(39, 'a'), "40 bytes"},
      {"/rec/disk/sda1/", "slash"},
      {"/rec/data_0/disk/a", "data_"},
      {"/rec/disk/data_1", "data_"},
      {"/rec/metadata/disk/a", nullptr},
      {"rec/disk/a", "absolute"},
      {"", "absolute"},
      {"/rec/disk/a b", "letters"},
      {"/rec/disk/a;b", "letters"},
      {"/rec/disk/a'b", "letters"},
      {"/rec/disk/a*", "letters"},
      {"/rec/disk/$a", "letters"},
      {"/rec/disk/a\nb", "letters"},
      {"/rec/disk/\xc3\xa4", "letters"},
      {"/rec-1/disk/a_b.c", nullptr},
  };
  for (const auto& c : kCases) Expect(c.expected, RefuseDiskPath(c.path), c.path);
  for (const char* root : {"", "/rec/", "/r ec", "/rec/data_1", "/"}) EXPECT_TRUE(RefuseRoot(root)) << root;
  EXPECT_FALSE(RefuseRoot("rec"));
}

TEST(Refusals, DiskName) {
  const struct {
    std::string name;
    std::vector<std::string> others;
    const char* expected;
  } kCases[] = {
      {"sda1", {}, nullptr},
      {"sda1", {"sda1"}, nullptr},
      {"sda1", {"sda1", "sdb1"}, nullptr},
      {"sda1", {"sda1", "sda1"}, "twice"},
      {"sda", {"sda1"}, "'sda' is contained in disk name 'sda1'"},
      {"sda1", {"sda"}, "'sda' is contained in disk name 'sda1'"},
      {"12345678", {}, nullptr},
      {"123456789", {}, "9 bytes"},
      {"", {}, "letters"},
      {".", {}, "letters"},
      {"..", {}, "letters"},
      {"a/b", {}, "letters"},
      {"a`b", {}, "letters"},
  };
  for (const auto& c : kCases) Expect(c.expected, RefuseDiskName(c.name, c.others), c.name);
}

TEST(Refusals, Geometry) {
  const struct {
    uint64_t size;
    int64_t count;
    const char* expected;
  } kCases[] = {
      {64 * kMiB, 3, nullptr},     {64 * kMiB, 2, "at least 3"}, {64 * kMiB, -1, "at least 3"},
      {2047 * kMiB, 3, nullptr},   {2048 * kMiB, 3, "smaller"},  {4096 * kMiB, 3, "smaller"},
      {4097 * kMiB, 3, "smaller"}, {kMiB, 99999999, nullptr},    {kMiB, 100000000, "at most"},
      {kMiB + 1, 3, "whole MiB"},  {0, 3, "whole MiB"},          {kMiB / 2, 3, "whole MiB"},
  };
  for (const auto& c : kCases) Expect(c.expected, RefuseGeometry(c.size, c.count), std::to_string(c.size));
}

TEST(Refusals, ClockAndKeep) {
  Expect("before", RefuseClock(0), "1970");
  Expect("before", RefuseClock(0x0fffffff), "last second with seven digits");
  Expect(nullptr, RefuseClock(0x10000000), "first with eight");
  Expect(nullptr, RefuseClock(0x7ffffffe), "last");
  Expect("not before", RefuseClock(0x7fffffff), "2038");

  ipc_preserve_limit_e limit = IPC_PRESERVE_RESERVED;
  Expect(nullptr, RefuseKeepHours(0, &limit), "no limit");
  EXPECT_EQ(limit, IPC_PRESERVE_UNLIMITED);
  Expect(nullptr, RefuseKeepHours(336, &limit), "two weeks");
  EXPECT_EQ(limit, IPC_PRESERVE_336_HOURS);
  for (int hours : {1, 13, 504, -12}) {
    Expect("0, 12, 24, 48, 72, 96, 120, 144, 168, 336, 672, 720, 1440, 2160", RefuseKeepHours(hours, &limit),
           "list");
  }
}

TEST(Units, Sizes) {
  const struct {
    const char* text;
    int64_t bytes;  // -1: refused
  } kCases[] = {
      {"1048576", 1048576}, {"64M", 67108864},     {"1G", 1073741824}, {"1.5 GiB", 1610612736},
      {"512kB", 524288},    {"2T", 2199023255552}, {"", -1},           {"M", -1},
      {"-1M", -1},          {"64X", -1},           {"64MM", -1},       {"0.3", -1},
      {"inf", -1},          {"1e300G", -1},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(ParseSize(c.text).value_or(UINT64_MAX), static_cast<uint64_t>(c.bytes)) << c.text;
  }
  EXPECT_EQ(FormatSize(1023), "1023 B");
  EXPECT_EQ(FormatSize(64 * kMiB), "64.0 MiB");
  EXPECT_EQ(FormatSize(uint64_t{3} << 40), "3.0 TiB");
}

TEST(Units, Times) {
  setenv("TZ", "EST5EDT", 1);
  tzset();
  constexpr int64_t kNoon = 1714564800;  // 2024-05-01T12:00:00Z
  const struct {
    const char* text;
    int64_t micros;  // -1: refused
  } kCases[] = {
      {"2024-05-01T12:00:00Z", kNoon * kMicros},
      {"2024-05-01T14:00:00+02:00", kNoon * kMicros},
      {"2024-05-01 06:30-0530", kNoon * kMicros},
      {"2024-05-01T08:00:00", kNoon * kMicros},    // local time, summer
      {"2024-01-01T07:00", 1704110400 * kMicros},  // and winter
      {"2024-05-01T12:00:00.25Z", kNoon * kMicros + 250000},
      {"1714564800", kNoon * kMicros},
      {"1714564800.5", kNoon * kMicros + 500000},
      {"2024-05-01", -1},
      {"2024-13-01T12:00:00Z", -1},
      {"2024-06-31T12:00:00Z", -1},
      {"2023-02-29T12:00:00Z", -1},
      {"2024-05-01T24:00:00Z", -1},
      {"2024-05-01T12:00:00+2", -1},
      {"2024-05-01T12:00:00Zulu", -1},
      {"-5", -1},
      {"yesterday", -1},
      {"", -1},
  };
  for (const auto& c : kCases) EXPECT_EQ(ParseTime(c.text).value_or(-1), c.micros) << c.text;
  EXPECT_EQ(FormatTime(kNoon), "2024-05-01T08:00:00-04:00");
  EXPECT_EQ(ParseTime(FormatTime(kNoon)), kNoon * kMicros);
  EXPECT_EQ(FormatDuration(3599.7), "1:00:00");
  EXPECT_EQ(FormatDuration(59), "0:59");
  EXPECT_EQ(FormatChannels(0x8000008f), "0-3,7,31");
  EXPECT_EQ(FormatChannels(0), "-");
}

}  // namespace
}  // namespace recorder
