// One odd thing on a disk is set aside or passed over, and everything else goes on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "apps/recorder/disks/DiskManifest.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/SetAside.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "tests/support/TestDisk.h"

namespace {

namespace fs = std::filesystem;
using namespace recorder;

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

TEST(DiskManifest, IsReadBackAndPassedOverWhenItIsNoManifest) {
  TestRoot root;
  const std::string disk = root.AddDisk("d");
  const std::string path = disk + "/" + kManifestName;
  EXPECT_FALSE(ReadManifest(disk));
  ASSERT_EQ("", WriteManifest(disk, {1, 1}));
  ASSERT_EQ("", WriteManifest(disk, {3500, 268435456}));
  EXPECT_EQ(3500, ReadManifest(disk)->files);
  EXPECT_EQ(268435456u, ReadManifest(disk)->fileBytes);
  EXPECT_EQ(std::vector<std::string>({"imf_free", kManifestName}), NamesIn(disk));

  const std::string whole = "recorder disk 1\nfiles 35\nfile-bytes 4096\n";
  for (const std::string& text :
       {std::string(), std::string("files 35\n"), whole.substr(0, whole.size() - 1), whole.substr(0, 20),
        std::string("recorder disk 2\nfiles 35\nfile-bytes 4096\n"), "x" + whole, std::string(5000, '9'),
        std::string("recorder disk 1\nfiles -3\nfile-bytes 4096\n")}) {
    Write(path, text);
    EXPECT_FALSE(ReadManifest(disk)) << text;
  }
  Write(path, whole + "reserve 1\n");
  EXPECT_TRUE(ReadManifest(disk)) << "later versions may know more";

  fs::rename(path, root.Path() + "/elsewhere");
  fs::create_symlink(root.Path() + "/elsewhere", path);
  EXPECT_FALSE(ReadManifest(disk));
  fs::remove(path);
  mkfifo(path.c_str(), 0600);
  EXPECT_FALSE(ReadManifest(disk)) << "nor does it hang";
}

constexpr int kSize = 65536;
constexpr unsigned kStart = 1700000000;  // 0x6553f100
const std::string kRecording = "/data_00000002/6553f100_6553f10a_cm1.imf";

// Two free files, one data directory with one recording.
std::string MakeDisk(TestRoot& root) {
  const std::string disk = root.AddDisk("d", 2, kSize);
  MakeTestFile(disk + kRecording, kSize);
  WriteTestRecording(disk + kRecording, kStart, 10, 1);
  EXPECT_EQ("", WriteManifest(disk, {3, kSize}));
  root.ForgetAll();
  return disk;
}

struct Odd {
  const char* name;
  std::string path;  // on the disk
  bool isMoved;      // into set_aside; else it stays and does no harm
  std::function<void(const std::string& path)> make;
  int recordings = 1;
};

void MakeFile(const std::string& path) { MakeTestFile(path, kSize); }

void MakeDirectory(const std::string& path) { fs::create_directory(path); }
void MakeEmpty(const std::string& path) { Write(path, ""); }
void MakeSmall(const std::string& path) { MakeTestFile(path, 99); }
void MakeFifo(const std::string& path) { mkfifo(path.c_str(), 0600); }
void MakeLink(const std::string& path) {
  fs::create_symlink(path[path.size() - 1] == '9' ? "data_00000002" : "/etc/passwd", path);
}
void MakeAhead(const std::string& path) {
  MakeFile(path);
  WriteTestRecording(path, 0x7ffffff0, 8, 1);
}

const Odd kOdd[] = {
    {"NumberBelowZero", "/data_-1", true, MakeDirectory},
    {"NumberTooLarge", "/data_4294967295", true, MakeDirectory},
    {"TwoNumbers", "/data_x_-1", true, MakeDirectory},
    {"LastNumber", "/data_2147483647", true, MakeDirectory},
    {"SameNumber", "/data_2", true, MakeDirectory},
    {"LinkedDirectory", "/data_00000009", true, MakeLink},
    {"FileAsDirectory", "/data_00000010", true, MakeEmpty},
    {"FileAsQuarantine", "/imf_error", true, MakeEmpty},
    {"AheadOfTheClock", "/data_00000002/7ffffff0_7ffffff8_cm1.imf", true, MakeFile},
    {"AheadOfTheClockAndReal", "/data_00000002/7ffffff0_7ffffff8_cm1.imf", false, MakeAhead, 2},
    {"BehindAllTimes", "/data_00000002/ffffffff_ffffffff_cm1.imf", false, MakeFile},
    {"FifoInPool", "/imf_free/00000000a.imf", true, MakeFifo},
    {"FifoBeforePool", "/imf_free/0.imf", true, MakeFifo},
    {"LinkInPool", "/imf_free/00000007.imf", true, MakeLink},
    {"DirectoryInPool", "/imf_free/00000007.imf", true, MakeDirectory},
    {"EmptyInPool", "/imf_free/00000007.imf", true, MakeEmpty},
    {"OtherSizeInPool", "/imf_free/00000007.imf", true, MakeSmall},
    {"NumberBelowZeroInPool", "/imf_free/-5.imf", true, MakeFile},
};

void PrintTo(const Odd& odd, std::ostream* out) { *out << odd.name; }

class OddDisk : public testing::TestWithParam<Odd> {};

TEST_P(OddDisk, IsUsedWithoutIt) {
  TestRoot root;
  const std::string disk = MakeDisk(root);
  GetParam().make(disk + GetParam().path);
  const auto use = [&](Refusal (*open)(Disks&)) {
    Disks disks;
    ASSERT_FALSE(disks.Choose(root.Path(), {}));
    ASSERT_FALSE(open(disks));
    const FmgrRepositoryGroup* group = disks.Group(disks.All().at(0));
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(2, group->GetFreeFileCount());
    EXPECT_EQ(GetParam().recordings, group->GetRecordFileCount());
    EXPECT_EQ(2, group->GetLastIndex());
    EXPECT_EQ(kSize, group->GetFileSize());
  };
  const auto isThere = [&](const std::string& path) {
    return fs::symlink_status(disk + path).type() != fs::file_type::not_found;
  };
  use([](Disks& disks) { return disks.OpenForLooking(); });
  EXPECT_TRUE(isThere(GetParam().path)) << "looking moves nothing";
  use([](Disks& disks) {
    const std::vector<Disk> all = disks.All();
    Refusal refusal = disks.OpenForRecording({});
    return refusal ? refusal : disks.Add(all.at(0));
  });
  EXPECT_EQ(GetParam().isMoved, !isThere(GetParam().path));
  EXPECT_EQ(GetParam().isMoved, isThere("/set_aside/" + fs::path(GetParam().path).filename().string()));
  EXPECT_EQ(0, Inspect(disk, kStart).Missing());
}

INSTANTIATE_TEST_SUITE_P(Planted, OddDisk, testing::ValuesIn(kOdd),
                         [](const auto& odd) { return std::string(odd.param.name); });

TEST(SetAside, ReplacesNothingAndFollowsNothing) {
  TestRoot root;
  const std::string disk = MakeDisk(root);
  const std::string outside = root.Path() + "/outside";
  fs::create_directory(outside);
  fs::create_directory_symlink(outside, disk + "/set_aside");
  for (int i = 0; i < 2; ++i) {
    MakeEmpty(disk + "/data_-1");
    EXPECT_EQ(disk + "/set_aside.2/data_-1" + (i == 0 ? "" : ".2"), SetAside(disk, disk + "/data_-1").to);
  }
  fs::create_directory_symlink(disk + "/data_00000002", disk + "/data_00000003");
  EXPECT_NE(0, SetAside(disk, disk + "/data_00000003/6553f100_6553f10a_cm1.imf").error);
  EXPECT_TRUE(fs::is_empty(outside));
  EXPECT_EQ(2, Inspect(disk, kStart).setAside);
}

TEST(Inspection, KnowsOfMissingFiles) {
  TestRoot root;
  const std::string disk = MakeDisk(root);
  EXPECT_EQ(0, Inspect(disk, kStart).Missing());
  fs::remove(disk + "/imf_free/00000001.imf");
  EXPECT_EQ(1, Inspect(disk, kStart).Missing());
  fs::remove(disk + "/" + kManifestName);
  EXPECT_EQ(0, Inspect(disk, kStart).Missing()) << "prepared before anybody noted it";
}

}  // namespace
