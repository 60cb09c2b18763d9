// What the recorder refuses before anything is touched, and how it reads sizes and times.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Refusals.h"

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
  const std::pair<std::string, const char*> kCases[] = {
      {"/rec/disk/sda1", nullptr},
      {"/" + std::string(38, 'a'), nullptr},
      {"/" + std::string(39, 'a'), "40 bytes"},
      {"/rec/disk/sda1/", "slash"},
      {"/rec/data_0/disk/a", "data_"},
      {"/rec/disk/data_1", "data_"},
      {"/rec/metadata/disk/a", nullptr},
      {"", "absolute"},
      {"/rec/disk/a b", "letters"},
      {"/rec/disk/a'b", "letters"},
      {"/rec/disk/a\nb", "letters"},
      {"/rec-1/disk/a_b.c", nullptr},
  };
  for (const auto& [path, expected] : kCases) Expect(expected, RefuseDiskPath(path), path);
  for (const char* root : {"", "/rec/", "/r ec", "/rec/data_1", "/"}) EXPECT_TRUE(RefuseRoot(root)) << root;
  EXPECT_FALSE(RefuseRoot("rec"));
}

TEST(Refusals, DiskName) {
  const struct {
    std::string name;
    std::vector<std::string> others;
    const char* expected;
  } kCases[] = {
      {"sda1", {"sda1", "sdb1"}, nullptr},
      {"sda1", {"sda1", "sda1"}, "twice"},
      {"sda", {"sda1"}, "'sda' is contained in disk name 'sda1'"},
      {"sda1", {"sda"}, "'sda' is contained in disk name 'sda1'"},
      {"12345678", {}, nullptr},
      {"123456789", {}, "9 bytes"},
      {"..", {}, "letters"},
      {"a/b", {}, "letters"},
  };
  for (const auto& c : kCases) Expect(c.expected, RefuseDiskName(c.name, c.others), c.name);
}

TEST(Refusals, Geometry) {
  const struct {
    uint64_t size;
    int64_t count;
    const char* expected;
  } kCases[] = {
      {64 * kMiB, -1, "at least 3"}, {64 * kMiB, 2, "at least 3"}, {2047 * kMiB, 3, nullptr},
      {2048 * kMiB, 3, "smaller"},   {4097 * kMiB, 3, "smaller"},  {kMiB, 99999999, nullptr},
      {kMiB, 100000000, "at most"},  {kMiB + 1, 3, "whole MiB"},   {0, 3, "whole MiB"},
  };
  for (const auto& c : kCases) Expect(c.expected, RefuseGeometry(c.size, c.count), std::to_string(c.size));
}

TEST(Refusals, ClockAndKeep) {
  Expect("before", RefuseClock(0x0fffffff), "last second with seven digits");
  Expect(nullptr, RefuseClock(0x10000000), "first with eight");
  Expect(nullptr, RefuseClock(0x7ffffffe), "last");
  Expect("not before", RefuseClock(0x7fffffff), "2038");

  ipc_preserve_limit_e limit = IPC_PRESERVE_RESERVED;
  Expect(nullptr, RefuseKeepHours(0, &limit), "no limit");
  EXPECT_EQ(limit, IPC_PRESERVE_UNLIMITED);
  Expect(nullptr, RefuseKeepHours(336, &limit), "two weeks");
  EXPECT_EQ(limit, IPC_PRESERVE_336_HOURS);
  for (int hours : {1, 504, -12}) Expect("672, 720, 1440", RefuseKeepHours(hours, &limit), "list");
}

TEST(Units, Sizes) {
  const std::pair<const char*, int64_t> kCases[] = {
      {"1048576", 1048576},
      {"1.5 GiB", 1610612736},
      {"512kB", 524288},
      {"2T", 2199023255552},
      {"", -1},
      {"-1M", -1},
      {"64X", -1},
      {"64MM", -1},
      {"0.3", -1},
      {"1e300G", -1},
  };
  for (const auto& [text, bytes] : kCases)  // -1: refused
    EXPECT_EQ(ParseSize(text).value_or(UINT64_MAX), static_cast<uint64_t>(bytes)) << text;
  EXPECT_EQ(FormatSize(64 * kMiB), "64.0 MiB");
}

TEST(Units, Times) {
  setenv("TZ", "EST5EDT", 1);
  tzset();
  constexpr int64_t kNoon = 1714564800;  // 2024-05-01T12:00:00Z
  const std::pair<const char*, int64_t> kCases[] = {
      // -1: refused
      {"2024-05-01T12:00:00Z", kNoon * kMicros},
      {"2024-05-01T14:00:00+02:00", kNoon * kMicros},
      {"2024-05-01 06:30-0530", kNoon * kMicros},
      {"2024-05-01T08:00:00", kNoon * kMicros},    // local time, summer
      {"2024-01-01T07:00", 1704110400 * kMicros},  // and winter
      {"1714564800.5", kNoon * kMicros + 500000},
      {"2024-05-01", -1},
      {"2024-13-01T12:00:00Z", -1},
      {"2023-02-29T12:00:00Z", -1},
      {"2024-05-01T12:00:00Zulu", -1},
      {"-5", -1},
      {"", -1},
  };
  for (const auto& [text, micros] : kCases) EXPECT_EQ(ParseTime(text).value_or(-1), micros) << text;
  EXPECT_EQ(FormatTime(kNoon), "2024-05-01T08:00:00-04:00");
  EXPECT_EQ(FormatDuration(3599.7), "1:00:00");
  EXPECT_EQ(FormatChannels(0x8000008f), "0-3,7,31");
}

}  // namespace
}  // namespace recorder
