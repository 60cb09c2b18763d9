// Names of record files and data directories: what a name yields, what a record or an index is called, and that
// the file list cache reads from a name what the library finds again by it.
#include "platform/host/imf/RecordName.h"

#include <gtest/gtest.h>

#include <climits>
#include <tuple>

#include "fmgr/FmgrDataRepository.h"

namespace {

using Repository = FmgrDataRepository;

TEST(RecordFileName, WhatANameYields) {
  enum Cache { kSame, kInProgress, kRefused };  // how the cache reads the name; in progress: the start alone
  const std::tuple<std::string, unsigned, int, int, unsigned, Cache> rows[] = {
      // name, whether it is valid, start, end, mask
      {"5f5e1000_00000000.imf", 1, 1600000000, 0, 0, kSame},
      {"5f5e1000_5f5e1258_cmf.imf", 1, 1600000000, 1600000600, 0xf, kSame},
      {"7ffffffe_7fffffff_cmffffffff.imf", 1, INT_MAX - 1, INT_MAX, UINT_MAX, kSame},
      {"ffffffff_fffffffe_cmffffffff.imf", 1, -1, -2, UINT_MAX, kRefused},  // after 2038 a time is negative
      {"7fffffff_00000000.imf", 1, INT_MAX, 0, 0, kRefused},
      {"5f5e1000_80000000_cm1.imf", 1, 1600000000, INT_MIN, 1, kRefused},
      {"1_2_cm0.imf", 1, 1, 2, 0, kSame},  // no fixed widths
      // Foreign and damaged names. Nothing but ".imf", wherever it stands, makes a name valid.
      {"5f5e1000.imf", 1, 1600000000, 0, 0, kSame},
      {"", 0, 0, 0, 0, kRefused},
      {"x.imf.part", 1, 0, 0, 0, kRefused},
      {"5f5e1000_00000000.IMF", 0, 1600000000, 0, 0, kRefused},
      {"5f5e1000__5f5e1258_cmf.imf", 1, 1600000000, 0, 0xf, kInProgress},
      {"5f5e1000_00000000_cmf.imf", 1, 1600000000, 0, 0xf, kInProgress},
      {"5f5e1000_1ffffffff_cmf.imf", 1, 1600000000, -1, 0xf, kInProgress},  // no such end time
      {"5f5e1000_5f5e1258_cm3_cmf.imf", 1, 1600000000, 1600000600, 3, kSame},
      {"5f5e1000 (copy)_12_cm1.imf", 1, 1600000000, 0x12, 1, kSame},
      {"cm7_5f5e1258.imf", 1, 0xc, 1600000600, 7, kSame},
      {"0_00000000.imf", 1, 0, 0, 0, kRefused},
      {"05f5e100_00000000.imf", 1, 0x5f5e100, 0, 0, kRefused},  // the library would look for 5f5e100
      {"5F5E1000_00000000.imf", 1, 1600000000, 0, 0, kRefused},
      {"5F5E1000 8_1.imf", 1, 1600000000, 1, 0, kRefused},
      {"_5f5e1258_cmf.imf", 1, 0, 1600000600, 0xf, kRefused},
      {"%s%n_%s_cm%n.imf", 1, 0, 0, 0, kRefused},
  };
  Repository repository("/mnt/x", 3, nullptr, nullptr, 0);
  for (const auto& [name, valid, start, end, mask, cache] : rows) {
    EXPECT_EQ(valid, repository.IsValidFileName(name)) << name;
    EXPECT_EQ(start, Repository::FileNameToStartTimeSec(name)) << name;
    EXPECT_EQ(end, Repository::FileNameToEndTimeSec(name)) << name;
    EXPECT_EQ(mask, Repository::FileNameToChannelMask(name)) << name;
    EXPECT_EQ(end != 0, repository.IsCompletedFile(name)) << name;
    RecordName read{};
    EXPECT_EQ(cache != kRefused, ParseRecordName(name, &read)) << name;
    RecordName expected{};
    if (cache != kRefused) expected.startTime = static_cast<uint32_t>(start);
    if (cache == kSame) std::tie(expected.endTime, expected.channelMask) = std::tuple(end, mask);
    EXPECT_EQ(std::tie(expected.startTime, expected.endTime, expected.channelMask),
              std::tie(read.startTime, read.endTime, read.channelMask))
        << name;
  }
}

TEST(RecordFileName, DirectoriesAndPaths) {
  Repository repository("/mnt/sda1", 3, nullptr, nullptr, 0);
  EXPECT_EQ("data_123456789", repository.MakeRepositoryName(123456789));
  const std::pair<const char*, int> rows[] = {{"/mnt/x/data_00000012/", 12},
                                              {"/mnt/data_7/data_00000012/a.imf", 7},  // the first one counts
                                              {"/mnt/x/data_2147483647", INT_MAX},
                                              {"/mnt/x/data_/5f", -1},
                                              {"/mnt/x/data_old", -1}};
  for (const auto& [path, index] : rows) EXPECT_EQ(index, Repository::PathToRepositoryId(path)) << path;
  EXPECT_EQ(12, ParseDataDirectoryName("data_00000012"));
  for (const char* name : {"data_2147483648", "data_", "data_-1", "data_1x"})
    EXPECT_EQ(-1, ParseDataDirectoryName(name)) << name;

  repository.mLinkRoot = "/run/rec";
  EXPECT_EQ("/mnt/sda1/data_00000003/n.imf", repository.FileNameToPath("n.imf", -1, "usb"));
  EXPECT_EQ("/mnt/sda1/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, nullptr));
  EXPECT_EQ("/run/rec/disk/usb/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, "usb"));

  EXPECT_EQ("sda1", repository.GetDiskName());
  EXPECT_EQ("", Repository("/mnt/", 3, nullptr, nullptr, 0).GetDiskName());
  EXPECT_EQ("", Repository("sda1", 3, nullptr, nullptr, 0).GetDiskName());
}

}  // namespace
