// Names of record files and data directories: what a name yields, what a record or an index is called.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "TestDisk.h"
#include "fmgr/FmgrDataRepository.h"

namespace {

using Repository = FmgrDataRepository;

TEST(RecordFileName, WhatANameYields) {
  const struct {
    const char* name;
    unsigned valid;
    int start, end;
    unsigned mask;
    int lines;  // invalid-name lines: one for no ".imf", two (end, completed) for no "_"
  } rows[] = {
      {"5f5e1000_00000000.imf", 1, 1600000000, 0, 0, 0},
      {"5f5e1000_5f5e1258_cmf.imf", 1, 1600000000, 1600000600, 0xf, 0},
      {"5f5e1000_5f5e1258_cm10.imf", 1, 1600000000, 1600000600, 0x10, 0},
      {"ffffffff_fffffffe_cmffffffff.imf", 1, -1, -2, UINT_MAX, 0},  // after 2038 a time is negative
      {"1_2_cm0.imf", 1, 1, 2, 0, 0},                                // no fixed widths
      // Foreign and damaged names. Nothing but ".imf", wherever it stands, makes a name valid.
      {"5f5e1000.imf", 1, 1600000000, 0, 0, 2},
      {"abc.txt", 0, 0xabc, 0, 0, 3},
      {"", 0, 0, 0, 0, 3},
      {"x.imf.part", 1, 0, 0, 0, 2},
      {"5f5e1000_00000000.IMF", 0, 1600000000, 0, 0, 1},
      {"search_5.imf", 1, 0, 5, 0, 0},
      {"5f5e1000__5f5e1258_cmf.imf", 1, 1600000000, 0, 0xf, 0},
      {"5f5e1000_5f5e1258_cm.imf", 1, 1600000000, 1600000600, 0, 0},
      {"5f5e1000_5f5e1258_cm3_cmf.imf", 1, 1600000000, 1600000600, 3, 0},
      {"cm7_5f5e1258.imf", 1, 0xc, 1600000600, 7, 0},
      {"5F5E1000 8_1.imf", 1, 1600000000, 1, 0, 0},
      {"%s%n_%s_cm%n.imf", 1, 0, 0, 0, 0},
  };
  Repository repository("/mnt/x", 3, nullptr, nullptr, 0);
  for (const auto& row : rows) {
    const std::string name = row.name;
    std::string expected;
    for (int i = 0; i < row.lines; ++i) expected += DbgLine("Invalid file name '" + name + "'\n");
    EXPECT_EQ(expected, StderrOf([&] {
                EXPECT_EQ(row.valid, repository.IsValidFileName(name)) << name;
                EXPECT_EQ(row.start, Repository::FileNameToStartTimeSec(name)) << name;
                EXPECT_EQ(row.end, Repository::FileNameToEndTimeSec(name)) << name;
                EXPECT_EQ(row.mask, Repository::FileNameToChannelMask(name)) << name;
                EXPECT_EQ(row.end != 0, repository.IsCompletedFile(name)) << name;
              }));
  }
}

TEST(RecordFileName, RecordsThereAndBack) {
  const struct {
    uint32_t start, end, mask;
    const char* name;
  } rows[] = {{1600000000, 1600000600, 0xf, "5f5e1000_5f5e1258_cmf.imf"},
              {0xffffffff, 0xfffffffe, 0xffffffff, "ffffffff_fffffffe_cmffffffff.imf"},
              {0xa, 0xb, 0, "a_b_cm0.imf"},
              {1600000000, 0, 0xf, "5f5e1000_00000000.imf"}};  // in progress: no mask, whatever the record says
  for (const auto& row : rows) {
    std::string name = "old";
    Repository::FlcFileInfoToFileName(name, FlcFileParam("disk", 9, row.start, row.end, row.mask, 5));
    EXPECT_EQ(row.name, name);
    EXPECT_EQ(row.start, static_cast<uint32_t>(Repository::FileNameToStartTimeSec(name)));
    EXPECT_EQ(row.end, static_cast<uint32_t>(Repository::FileNameToEndTimeSec(name)));
    EXPECT_EQ(row.end == 0 ? 0 : row.mask, Repository::FileNameToChannelMask(name));
  }
}

TEST(RecordFileName, DirectoriesAndPaths) {
  Repository repository("/mnt/sda1", 3, nullptr, nullptr, 0);
  EXPECT_EQ("data_00000000", repository.MakeRepositoryName(0));
  EXPECT_EQ("data_123456789", repository.MakeRepositoryName(123456789));
  const std::pair<const char*, int> rows[] = {{"/mnt/x/data_00000012/", 12},
                                              {"data_0", 0},
                                              {"/mnt/data_7/data_00000012/a.imf", 7},  // the first one counts
                                              {"/mnt/x/data_2147483647", INT_MAX},
                                              {"/mnt/x/", -1},
                                              {"/mnt/x/data_/5f", -1},
                                              {"/mnt/x/data_old", -1}};
  for (const auto& [path, index] : rows) EXPECT_EQ(index, Repository::PathToRepositoryId(path)) << path;

  repository.mLinkRoot = "/run/rec";
  EXPECT_EQ("/mnt/sda1/data_00000003/n.imf", repository.FileNameToPath("n.imf", -1, "usb"));
  EXPECT_EQ("/mnt/sda1/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, nullptr));
  EXPECT_EQ("/run/rec/disk/usb/data_00000007/n.imf", repository.FileNameToPath("n.imf", 7, "usb"));

  EXPECT_EQ("sda1", repository.GetDiskName());
  EXPECT_EQ("", Repository("/mnt/", 3, nullptr, nullptr, 0).GetDiskName());
  EXPECT_EQ(DbgLine("Invalid repo group path 'sda1'\n"),
            StderrOf([] { EXPECT_EQ("", Repository("sda1", 3, nullptr, nullptr, 0).GetDiskName()); }));
}

}  // namespace
