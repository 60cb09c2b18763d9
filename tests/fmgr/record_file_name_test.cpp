// Names of record files and data directories: what a name yields, what a record or an index is called.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "fmgr/FmgrDataRepository.h"

namespace {

using Repository = FmgrDataRepository;

TEST(RecordFileName, WhatANameYields) {
  const struct {
    const char* name;
    unsigned valid;
    int start, end;
    unsigned mask;
  } rows[] = {
      {"5f5e1000_00000000.imf", 1, 1600000000, 0, 0},
      {"5f5e1000_5f5e1258_cmf.imf", 1, 1600000000, 1600000600, 0xf},
      {"ffffffff_fffffffe_cmffffffff.imf", 1, -1, -2, UINT_MAX},  // after 2038 a time is negative
      {"1_2_cm0.imf", 1, 1, 2, 0},                                // no fixed widths
      // Foreign and damaged names. Nothing but ".imf", wherever it stands, makes a name valid.
      {"5f5e1000.imf", 1, 1600000000, 0, 0},
      {"", 0, 0, 0, 0},
      {"x.imf.part", 1, 0, 0, 0},
      {"5f5e1000_00000000.IMF", 0, 1600000000, 0, 0},
      {"5f5e1000__5f5e1258_cmf.imf", 1, 1600000000, 0, 0xf},
      {"5f5e1000_5f5e1258_cm3_cmf.imf", 1, 1600000000, 1600000600, 3},
      {"cm7_5f5e1258.imf", 1, 0xc, 1600000600, 7},
      {"5F5E1000 8_1.imf", 1, 1600000000, 1, 0},
      {"%s%n_%s_cm%n.imf", 1, 0, 0, 0},
  };
  Repository repository("/mnt/x", 3, nullptr, nullptr, 0);
  for (const auto& row : rows) {
    const std::string name = row.name;
    EXPECT_EQ(row.valid, repository.IsValidFileName(name)) << name;
    EXPECT_EQ(row.start, Repository::FileNameToStartTimeSec(name)) << name;
    EXPECT_EQ(row.end, Repository::FileNameToEndTimeSec(name)) << name;
    EXPECT_EQ(row.mask, Repository::FileNameToChannelMask(name)) << name;
    EXPECT_EQ(row.end != 0, repository.IsCompletedFile(name)) << name;
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

  repository.mLinkRoot = "/run/rec";
  EXPECT_EQ("/mnt/sda1/data_00000003/n.imf", repository.FileNameToPath("n.imf", -1, "usb"));
  EXPECT_EQ("/mnt/sda1/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, nullptr));
  EXPECT_EQ("/run/rec/disk/usb/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, "usb"));

  EXPECT_EQ("sda1", repository.GetDiskName());
  EXPECT_EQ("", Repository("/mnt/", 3, nullptr, nullptr, 0).GetDiskName());
  EXPECT_EQ("", Repository("sda1", 3, nullptr, nullptr, 0).GetDiskName());
}

}  // namespace
