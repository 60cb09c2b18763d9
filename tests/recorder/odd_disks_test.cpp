// One odd thing on a disk is set aside or passed over, and everything else goes on.
#include <sys/stat.h>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/disks/DiskManifest.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/SetAside.h"
#include "apps/recorder/recording/Completion.h"
#include "apps/recorder/recording/SearchIndex.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/HostSystem.h"
#include "tests/support/RecorderProgram.h"

namespace {

using namespace recorder;

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
    WriteText(path, text);
    EXPECT_FALSE(ReadManifest(disk)) << text;
  }
  WriteText(path, whole + "reserve 1\n");
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

// A copy that somebody made beside a disk stops nothing.
TEST(Disks, LeavesOutWhatHasNoDisksName) {
  TestRoot root;
  const std::string disk = MakeDisk(root);
  for (const char* copy : {".old", " 2", "isk-of-mine"})
    fs::copy(disk, disk + copy, fs::copy_options::recursive);
  Disks all, named;
  ASSERT_FALSE(all.Choose(root.Path(), {}));
  EXPECT_EQ(disk, all.Chosen().at(0).path);
  EXPECT_EQ(1u, all.Chosen().size());
  EXPECT_FALSE(named.Choose(root.Path(), {"d.old"}));
  EXPECT_TRUE(named.Choose(root.Path(), {"d", "d.old"}));
}

struct Odd {
  const char* name;
  std::string path;  // on the disk
  bool isMoved;      // into set_aside; else it stays and does no harm
  void (*make)(const std::string& path);
  int recordings = 1;
};

void MakeFile(const std::string& path) { MakeTestFile(path, kSize); }
void MakeDirectory(const std::string& path) { fs::create_directory(path); }
void MakeEmpty(const std::string& path) { WriteText(path, ""); }
void MakeFifo(const std::string& path) { mkfifo(path.c_str(), 0600); }
void MakeLink(const std::string& path) {
  fs::create_symlink(path.back() == '9' ? "data_00000002" : "/etc/passwd", path);
}
void MakeSecondName(const std::string& path) {
  fs::create_hard_link(fs::path(path).parent_path().parent_path().string() + kRecording, path);
}
void MakeAhead(const std::string& path) { WriteTestRecording(MakeTestFile(path, kSize), 0x7ffffff0, 8, 1); }

const Odd kOdd[] = {
    {"NumberBelowZero", "/data_-1", true, MakeDirectory},
    {"NumberTooLarge", "/data_4294967295", true, MakeDirectory},
    {"TwoNumbers", "/data_x_-1", true, MakeDirectory},
    {"LastNumber", "/data_2147483647", true, MakeDirectory},
    {"SameNumber", "/data_2", true, MakeDirectory},
    {"LinkedDirectory", "/data_00000009", true, MakeLink},
    {"FileAsDirectory", "/data_00000010", true, MakeEmpty},
    {"FileAsQuarantine", "/imf_error", true, MakeEmpty},
    {"NoRecordingsName", "/data_00000002/face.imf", true, MakeFile},
    {"BesideItsRecording", "/data_00000002/6553f100_notes.imf", true, MakeFile},
    {"AheadOfTheClock", "/data_00000002/7ffffff0_7ffffff8_cm1.imf", true, MakeFile},
    {"AheadOfTheClockAndReal", "/data_00000002/7ffffff0_7ffffff8_cm1.imf", false, MakeAhead, 2},
    {"BehindAllTimes", "/data_00000002/ffffffff_ffffffff_cm1.imf", false, MakeFile},
    {"FifoInPool", "/imf_free/00000000a.imf", true, MakeFifo},
    {"FifoBeforePool", "/imf_free/0.imf", true, MakeFifo},
    {"LinkInPool", "/imf_free/00000007.imf", true, MakeLink},
    {"DirectoryInPool", "/imf_free/00000007.imf", true, MakeDirectory},
    {"EmptyInPool", "/imf_free/00000007.imf", true, MakeEmpty},
    {"OtherSizeInPool", "/imf_free/00000007.imf", true, [](const auto& path) { MakeTestFile(path, 99); }},
    {"NumberBelowZeroInPool", "/imf_free/-5.imf", true, MakeFile},
    {"RecordingInPool", "/imf_free/00000007.imf", true, MakeSecondName},
    {"LinkAsDatabase", "/data_00000002/search.fdb", true, MakeLink},
    {"FifoAsDatabase", "/data_00000002/search.fdb", true, MakeFifo},
    {"DirectoryAsDatabase", "/data_00000002/search.fdb", true, MakeDirectory},
    {"RecordingAsDatabase", "/data_00000002/search.fdb", true, MakeSecondName},
    {"FifoAsJournal", "/data_00000002/search.fdb-journal", true, MakeFifo},
};

void PrintTo(const Odd& odd, std::ostream* out) { *out << odd.name; }

class OddDisk : public testing::TestWithParam<Odd> {};

TEST_P(OddDisk, IsUsedWithoutIt) {
  const auto& [name, path, isMoved, make, recordings] = GetParam();
  TestRoot root;
  const std::string disk = MakeDisk(root);
  make(disk + path);
  for (const bool toRecord : {false, true}) {
    EXPECT_TRUE(fs::exists(fs::symlink_status(disk + path))) << "looking moves nothing";
    Disks disks;
    ASSERT_FALSE(disks.Choose(root.Path(), {}));
    const Disk first = disks.All().at(0);
    ASSERT_FALSE(toRecord ? disks.OpenForRecording({}) : disks.OpenForLooking());
    ASSERT_FALSE(toRecord ? disks.Add(first) : Refusal());
    const FmgrRepositoryGroup* group = disks.Group(first);
    ASSERT_NE(nullptr, group);
    EXPECT_EQ(2, group->GetFreeFileCount());
    EXPECT_EQ(recordings, group->GetRecordFileCount());
    EXPECT_EQ(2, group->GetLastIndex());
    EXPECT_EQ(kSize, group->GetFileSize());
  }
  EXPECT_EQ(isMoved, !fs::exists(fs::symlink_status(disk + path)));
  EXPECT_EQ(isMoved, fs::exists(fs::symlink_status(disk + "/set_aside/" + fs::path(path).filename().string())));
  EXPECT_EQ(0, Inspect(disk, kStart).Missing());
  HostAllowCommands(true);
  SearchIndex::Mend(disk);
  EXPECT_TRUE(fs::is_regular_file(disk + "/data_00000002/search.fdb"));
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

// A real ext4, since only there files can be made immutable; and a mount of its own.
class MountedDisk : public RecorderFixture {
 protected:
  void SetUp() override {
    const std::string image = mRoot.Path() + "/ext4";
    fs::create_directories(mDisk);
    if (Shell("truncate -s 64M " + image + " && mkfs.ext4 -q " + image + " && mount -o loop " + image + " " +
              mDisk) != 0)
      GTEST_SKIP() << "only root can mount an ext4 from a file, and not everywhere: " << mProgram.err;
    mProgram.MakeVideo(mRoot.Path() + "/v.mp4", 25, "200k");
    ASSERT_EQ(0, Run("prepare --disk d --size 1M --count 12")) << mProgram.err;
    ASSERT_EQ("", WriteManifest(mDisk, {12, 1 << 20}));
  }
  void TearDown() override {
    Shell("chattr -R -i " + mDisk + "; umount " + mDisk + "/data_*/mnt " + mDisk + "/data_*; umount -l " +
          mDisk);
  }
  int Shell(const std::string& command) { return mProgram.Shell(command); }
  // Eight segments, half a minute later than those before.
  void Record() {
    mStart += 60;
    ASSERT_EQ(0, Run("record --input " + mRoot.Path() + "/v.mp4 --clock stream --segment 5 --start " +
                     std::to_string(mStart)))
        << mProgram.err;
    EXPECT_TRUE(Has(mProgram.out, "recorded 8 segments"));
    mLines = mProgram.out + mProgram.err;
  }
  std::string Oldest() { return mDisk + "/data_00000001/" + NamesIn(mDisk + "/data_00000001").front(); }
  // The first disk, as status has it.
  nlohmann::json Status() {
    EXPECT_EQ(0, Run("status --json"));
    return mProgram.JsonLines().at(0);
  }

  const std::string mDisk = DiskPath("d");
  unsigned mStart = kStart;
  std::string mLines;
};

TEST_F(MountedDisk, PassesOverWhatCannotBeMoved) {
  Record();
  const std::string oldest = Oldest();
  const std::string pool = mDisk + "/imf_free/" + NamesIn(mDisk + "/imf_free").front();
  ASSERT_EQ(0, Shell("chattr +i " + oldest + " " + pool));
  Record();
  EXPECT_TRUE(Has(mLines, oldest + " cannot be recycled: Operation not permitted: it is passed over"));
  EXPECT_TRUE(Has(mLines, pool + " is immutable: it is passed over"));
  Record();
  EXPECT_TRUE(fs::exists(oldest));
  const nlohmann::json status = Status();
  EXPECT_EQ(2, status["setAside"]);
  EXPECT_EQ(12, status["free"].get<int>() + status["used"].get<int>());
  EXPECT_EQ(1, Run("check"));
  EXPECT_TRUE(Has(mProgram.out, "immovable: " + oldest));
  EXPECT_TRUE(Has(mProgram.out, "immovable: " + pool));
  Shell("chattr -i " + oldest + " " + pool);
  Record();
  Record();
  EXPECT_FALSE(fs::exists(oldest));
  EXPECT_EQ(0, Run("check")) << mProgram.out;
}

TEST_F(MountedDisk, GoesOnInAnotherFileWhenTheOpenOneCannotBeMoved) {
  ASSERT_EQ(0, Shell("(sleep 2; chattr +i " + mDisk + "/data_*/*_00000000.imf) & ffmpeg -v error -re -t 4 -i " +
                     mRoot.Path() + "/v.mp4 -c copy -f mpegts - | " RECORDER_PROGRAM " --root " + mRoot.Path() +
                     " record --segment 60 --input -"));
  EXPECT_TRUE(Has(mProgram.err, "_00000000.imf is immutable: it is passed over"));
  EXPECT_TRUE(Has(mProgram.out, "recorded 1 segment,") && Has(mProgram.out, "dropped 0 packets"))
      << mProgram.out;
}

// Not by the next start only: a recorder may run for years.
TEST_F(MountedDisk, CompletesRecordingsWhenTheyCanBeRenamed) {
  Record();
  const std::string named = Oldest();
  const std::string unfinished = named.substr(0, named.find("_", mDisk.size() + 6 + 9)) + "_00000000.imf";
  fs::rename(named, unfinished);
  ASSERT_EQ(0, Shell("chattr +i " + unfinished));
  Disks disks;
  SearchIndex index;
  Completion completion(index), closed(index);
  ASSERT_FALSE(disks.Choose(mRoot.Path(), {}));
  const std::vector<Disk> all = disks.All();
  ASSERT_FALSE(disks.OpenForRecording({}));
  ASSERT_FALSE(disks.Add(all.at(0)));
  EXPECT_TRUE(Has(StderrOf([&] { closed.AddUnnamed(unfinished, named, EPERM); }), "it is tried again"));
  EXPECT_EQ("", StderrOf([&] { closed.TryAll(disks); })) << "said already";
  completion.AddUnfinished(unfinished);
  for (const bool fixed : {true, false}) {
    if (!fixed) Shell("chattr -i " + unfinished);
    completion.TryAll(disks);
    EXPECT_EQ(fixed, fs::exists(unfinished));
    EXPECT_EQ(!fixed, fs::exists(named));
  }
  EXPECT_EQ(NameOf(named), disks.Group(all.at(0))->mDataRepositories.front()->GetOldestFile());
}

TEST_F(MountedDisk, RecordsWithoutAFreeBlock) {
  const std::string fill = "dd if=/dev/zero bs=4k of=" + mDisk + "/filler";
  EXPECT_NE(0, Shell(fill));
  Record();  // makes a data directory
  EXPECT_TRUE(Has(mLines, "the file system is full; "));
  EXPECT_NE(0, Shell(fill + "2")) << "the reserve, too";
  Record();  // recycles within it
  ASSERT_EQ(0, Shell("rm " + mDisk + "/filler*"));
  Record();
  EXPECT_TRUE(Has(mLines, " is laid down again"));
  EXPECT_EQ(12u, InodesOf(mDisk).size());
  EXPECT_EQ(0, Run("check")) << mProgram.out;
}

TEST_F(MountedDisk, LeavesADirectoryOutWhileSomethingIsMountedOverItAndNeverRemovesWhatIsMountedInIt) {
  Record();
  const std::string directory = mDisk + "/data_00000001", mount = directory + "/mnt";
  ASSERT_EQ(0, Shell("mount -t tmpfs none " + directory));
  Record();
  EXPECT_TRUE(Has(mLines, directory + "/ is another file system: it is passed over"));
  EXPECT_TRUE(fs::is_empty(directory));
  const nlohmann::json status = Status();
  EXPECT_EQ(1, status["setAside"]);
  EXPECT_EQ(4, status["used"]);
  EXPECT_EQ(0, status["missingFiles"]) << "nobody can tell";
  ASSERT_EQ(0, Shell("umount " + directory));
  EXPECT_EQ(0, Run("check")) << mProgram.out;

  ASSERT_EQ(
      0, Shell("mkdir " + mount + " && mount -t tmpfs none " + mount + " && echo x >" + mount + "/precious"));
  WriteText(mDisk + "/imf_error", "");
  for (int i = 0; i < 3; ++i) Record();
  EXPECT_TRUE(fs::exists(mount + "/precious"));
  EXPECT_TRUE(fs::exists(mDisk + "/set_aside/imf_error"));
  EXPECT_EQ(12u, InodesOf(mDisk).size());
}

}  // namespace
