// Preparing looks before it lays anything down, and what was cut off by an earlier version is finished, too.
#include <sys/mount.h>

#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/DiskManifest.h"
#include "apps/recorder/disks/PreparationPlan.h"
#include "tests/support/RecorderProgram.h"

using recorder::kMiB;
using recorder::PreparationPlan;
using recorder::PrepareOptions;
using recorder::Room;

namespace {

constexpr uint64_t kGiB = 1024 * kMiB;

Room MakeRoom(uint64_t total, uint64_t free, int64_t files = -1) { return {total, free, files, true}; }

PrepareOptions Options(const std::string& size, int64_t count, const std::string& reserve = "") {
  PrepareOptions options;
  options.size = size;
  if (count != 0) options.count = count;
  options.fill = count == 0;
  options.reserve = reserve;
  return options;
}

TEST(PreparationPlan, CountsAndReserves) {
  Room system = MakeRoom(100 * kGiB, 100 * kGiB), directory = system, copying = MakeRoom(10 * kGiB, 10 * kGiB);
  system.isSystem = copying.copiesOnWrite = true;
  directory.isMountPoint = false;
  const std::tuple<const char*, Room, PrepareOptions, int64_t, double, const char*> kCases[] = {
      // what, room, options, count (0: refused), MiB of the reserve: three quarters of what is kept, refusal
      {"1 % is kept", MakeRoom(1000 * kGiB, 1000 * kGiB), Options("256M", 0), 3959, 7680, ""},
      {"at least 64 MiB", MakeRoom(kGiB, kGiB), Options("64M", 0), 14, 48, ""},
      {"as asked for", MakeRoom(kGiB, kGiB), Options("64M", 0, "600M"), 6, 450, ""},
      {"too many", MakeRoom(100 * kGiB, 58 * kGiB), Options("256M", 400), 0, 0,
       "400 files of 256.0 MiB do not fit: 58.0 GiB are free at /d, where 227 files"},
      {"a count takes of the reserve", MakeRoom(kGiB, kGiB), Options("64M", 15), 15, 47, ""},
      {"but not of one that was named", MakeRoom(kGiB, kGiB), Options("64M", 15, "100M"), 0, 0,
       "where 14 files"},
      {"too small", MakeRoom(kGiB, 70 * kMiB), Options("64M", 0), 0, 0, "not even 3 files of 64.0 MiB"},
      {"few inodes", MakeRoom(kGiB, kGiB, 74), Options("1M", 0), 10, 48, ""},
      {"the system's", system, Options("64M", 3), 0, 0, "--on-system-disk"},
      {"a directory keeps none", directory, Options("64M", 3), 3, 0, ""},
      {"of less than a MiB", directory, Options("64M", 3, "1M"), 3, 0.75, ""},
      {"a tenth to copy", copying, Options("64M", 0), 142, 76, ""},
      {"too few", system, Options("64M", 2), 0, 0, "2 record files: a disk needs at least 3"},
      {"neither count nor fill", MakeRoom(kGiB, kGiB), PrepareOptions(), 0, 0, "--count and --fill"},
  };
  for (const auto& [what, room, options, count, reserveMiB, part] : kCases) {
    SCOPED_TRACE(what);
    PreparationPlan plan;
    plan.path = "/d";
    const recorder::Refusal refusal = PlanFiles(options, room, &plan);
    EXPECT_EQ(count == 0, refusal.has_value());
    EXPECT_TRUE(Has(refusal.value_or(""), part));
    if (refusal) continue;
    EXPECT_EQ(count, plan.count);
    EXPECT_EQ(reserveMiB * static_cast<double>(kMiB), plan.reserve);
  }
}

TEST(PreparationPlan, ABitRateGivesASizeAndHours) {
  PrepareOptions options = Options("", 100);
  const std::pair<const char*, uint64_t> kCases[] = {
      {"8M", 72}, {"8Mbit/s", 72}, {"8000 kbps", 72}, {"100", 1}, {"300M", 0}, {"8MB", 0}, {"0", 0}};
  for (const auto& [rate, size] : kCases) {
    options.bitRate = rate;
    PreparationPlan plan;
    EXPECT_EQ(size == 0, PlanFiles(options, MakeRoom(100 * kGiB, 100 * kGiB), &plan).has_value()) << rate;
    if (size == 0) continue;
    EXPECT_EQ(size * kMiB, plan.size) << rate;
    EXPECT_EQ(6000, plan.seconds);
  }
}

class Preparation : public RecorderFixture {
 protected:
  const std::string mDisk = DiskPath("a");
};

TEST_F(Preparation, FillsADiskOfItsOwnAndMakesTheRoot) {
  fs::create_directory(mDisk);
  if (mount("none", mDisk.c_str(), "tmpfs", 0, "size=100M") != 0) GTEST_SKIP() << "nothing can be mounted here";
  EXPECT_EQ(2, Run("prepare --disk a --size 1M --count 101"));
  EXPECT_TRUE(Has(mProgram.err, "100.0 MiB are free at " + mDisk + ", where 35 files of 1.0 MiB fit"));
  EXPECT_TRUE(NamesIn(mDisk).empty()) << "nothing was touched";
  EXPECT_EQ(0, Run("prepare --disk a --size 1M --fill")) << mProgram.err;
  EXPECT_EQ(35u, NamesIn(mDisk + "/imf_free").size());
  EXPECT_EQ(48 * kMiB, fs::file_size(mDisk + "/recorder.reserve"));
  EXPECT_EQ(0, Run("check")) << mProgram.out;
  EXPECT_EQ(2, Run("prepare --disk a --size 1M --fill"));
  EXPECT_TRUE(Has(mProgram.err, "prepared already"));
  EXPECT_EQ(2, Run("prepare --disk a --undo")) << "what is finished stays";
  umount(mDisk.c_str());

  const std::string fresh = mRoot.Path() + "/x/y";
  EXPECT_EQ(0, mProgram.Run(fresh, "prepare --on-system-disk --disk b --size 1M --count 3")) << mProgram.err;
  EXPECT_TRUE(Has(mProgram.out, "is no mount point of its own"));
  EXPECT_EQ(3u, NamesIn(fresh + "/disk/b/imf_free").size());
}

// A manifest is there since this version; what is left by earlier ones is finished with the files that are
// there.
TEST_F(Preparation, WhatAnEarlierVersionLeftIsFinishedOrUndone) {
  for (const bool undo : {false, true}) {
    const std::string command = undo ? "prepare --disk a --undo" : "prepare --disk a --resume";
    fs::remove_all(mDisk);
    for (int i = 0; i < 5; ++i) MakeTestFile(mDisk + Text("/imf_prealloc/%08d.imf", i), kMiB);
    MakeTestFile(mDisk + "/imf_prealloc/00000005.imf", 0);  // the disk was full
    WriteText(mDisk + "/imf_prealloc/notes", "mine");
    ASSERT_EQ("", recorder::WriteManifest(mDisk, {40, kMiB}));
    EXPECT_EQ(1, Run("check"));
    EXPECT_TRUE(Has(mProgram.out, "prepare --disk a --resume"));
    EXPECT_EQ(mProgram.out.find("next:"), mProgram.out.rfind("next:")) << mProgram.out;
    fs::remove(mDisk + "/recorder.disk");
    EXPECT_EQ(1, Run("check --return-orphans")) << "names the command";
    EXPECT_EQ(2, Run("prepare --disk a --resume --count 4"));
    EXPECT_TRUE(Has(mProgram.err, "5 files are laid down"));
    EXPECT_EQ(2, Run(command)) << "foreign files stay";
    EXPECT_EQ("mine", ReadText(mDisk + "/imf_prealloc/notes"));
    fs::remove(mDisk + "/imf_prealloc/notes");
    EXPECT_EQ(0, Run(command)) << mProgram.err;
    EXPECT_EQ(undo ? 0u : 5u, NamesIn(mDisk + "/imf_free").size());
    EXPECT_FALSE(fs::exists(mDisk + "/imf_prealloc"));
    EXPECT_EQ(!undo, fs::exists(mDisk + "/recorder.disk"));
  }
}

}  // namespace
