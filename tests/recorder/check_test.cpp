// The check of the disks: a healthy disk is found healthy, each fault is found and named without touching the
// disk, and no repair loses a file.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "SearchDb.h"
#include "apps/recorder/check/Checker.h"
#include "apps/recorder/disks/RootLock.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/searchdb/SearchDbRebuild.h"
#include "tests/support/RecorderProgram.h"
#include "tests/support/TestDisk.h"

namespace fs = std::filesystem;
using recorder::CheckDisk;
using recorder::DiskReport;
using recorder::Fault;

namespace {

constexpr int kSize = 256 * 1024;
constexpr uint32_t kStart = 0x65000000;
const std::string kFirst = "65000000_6500000a_cm1.imf";
const std::string kSecond = "6500000a_65000014_cm1.imf";
const std::string kThird = "65000014_6500001e_cm1.imf";

// Lays ten seconds of channel 0 down in a new file and leaves it unfinished.
void WriteRecording(const std::string& path, uint32_t start) {
  MakeTestFile(path, kSize);
  ImfWriter writer;
  ASSERT_TRUE(writer.Open(path, start)) << path;
  ASSERT_EQ(ImfWriteResult::kWritten, writer.AddStream({}));
  for (int second = 0; second < 10; ++second) {
    ImfPacket packet;
    packet.time = (int64_t{start} + second) * 1000000;
    packet.duration = 1000000;
    packet.data.assign(1000, static_cast<uint8_t>(second));
    ASSERT_EQ(ImfWriteResult::kWritten, writer.Write(packet));
  }
  ASSERT_TRUE(writer.Close());
}

void Rebuild(const std::string& directory) {
  SearchDbRebuildReport report;
  RebuildSearchDb(directory, nullptr, &report);
}

// A disk of seven files: three recordings in data_00000001 and one in data_00000002, two free, one quarantined.
std::string MakeHealthyDisk(TestRoot& root, const std::string& name) {
  std::string disk = root.AddDisk(name, 2, kSize);
  const std::string data = disk + "/data_00000001/";
  WriteRecording(data + kFirst, kStart);
  WriteRecording(data + kSecond, kStart + 10);
  WriteRecording(data + kThird, kStart + 20);
  WriteRecording(disk + "/data_00000002/6500001e_65000028_cm1.imf", kStart + 30);
  MakeTestFile(disk + "/imf_error/64000000_00000000.imf", kSize);
  Rebuild(data);
  Rebuild(disk + "/data_00000002/");
  return disk;
}

// Everything that a check could touch.
std::string Snapshot(const std::string& directory) {
  std::string all;
  std::set<fs::path> paths = {directory};
  for (const auto& entry : fs::recursive_directory_iterator(directory)) paths.insert(entry.path());
  for (const fs::path& path : paths) {
    struct stat info = {};
    EXPECT_EQ(0, lstat(path.c_str(), &info));
    all += path.string() + " " + std::to_string(info.st_ino) + " " + std::to_string(info.st_mode) + " " +
           std::to_string(info.st_nlink) + " " + std::to_string(info.st_size) + " " +
           std::to_string(info.st_mtim.tv_sec) + "." + std::to_string(info.st_mtim.tv_nsec) + "\n";
  }
  return all;
}

struct Planted {
  const char* name;
  Fault fault;
  const char* path;  // within the disk
  std::function<void(const std::string& disk)> plant;
  bool keepsDb = false;  // the search databases are made anew after planting, unless they are the fault
};

void Move(const std::string& disk, const std::string& from, const std::string& to) {
  fs::create_directories(fs::path(disk + to).parent_path());
  fs::rename(disk + from, disk + to);
}
void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

const std::string kData = "/data_00000001/";

const Planted kFaults[] = {
    {"InPoolAndInUse", Fault::kTwoPlaces, "/imf_free/00000002.imf",
     [](const std::string& d) { fs::create_hard_link(d + kData + kFirst, d + "/imf_free/00000002.imf"); }},
    {"LinkedOutsideTheDisk", Fault::kTwoPlaces, "/data_00000001/65000000_6500000a_cm1.imf",
     [](const std::string& d) { fs::create_hard_link(d + kData + kFirst, d + "/../../kept.imf"); }},
    {"PreallocNameLeft", Fault::kLeftover, "/imf_prealloc/00000000.imf",
     [](const std::string& d) {
       fs::create_directory(d + "/imf_prealloc");
       fs::create_hard_link(d + "/imf_free/00000000.imf", d + "/imf_prealloc/00000000.imf");
     }},
    {"NeverPutIntoPool", Fault::kLeftover, "/imf_prealloc/00000002.imf",
     [](const std::string& d) { MakeTestFile(d + "/imf_prealloc/00000002.imf", kSize); }},
    {"InLostAndFound", Fault::kOutside, "/lost+found/sub/#123",
     [](const std::string& d) { Move(d, "/imf_free/00000001.imf", "/lost+found/sub/#123"); }},
    {"Truncated", Fault::kSize, "/data_00000001/6500000a_65000014_cm1.imf",
     [](const std::string& d) { fs::resize_file(d + kData + kSecond, 1); }},
    {"GapInPool", Fault::kGap, "/imf_free",
     [](const std::string& d) { MakeTestFile(d + "/imf_free/00000007.imf", kSize); }},
    {"LinkAsRecord", Fault::kNoRegularFile, "/data_00000001/65000100_00000000.imf",
     [](const std::string& d) { fs::create_symlink(d + kData + kFirst, d + kData + "65000100_00000000.imf"); }},
    {"NoDirectoryNumber", Fault::kDirectoryName, "/data_old copy",
     [](const std::string& d) { fs::create_directory(d + "/data_old copy"); }},
    {"Foreign", Fault::kForeign, "/data_00000001/it's \"notes\".txt",
     [](const std::string& d) { Write(d + kData + "it's \"notes\".txt", "x"); }},
    {"OddSpelling", Fault::kName, "/data_00000001/65000000_6500000a_cm01.imf",
     [](const std::string& d) { Move(d, kData + kFirst, kData + "65000000_6500000a_cm01.imf"); }},
    {"Unfinished", Fault::kUnfinished, "/data_00000001/65000014_00000000.imf",
     [](const std::string& d) { Move(d, kData + kThird, kData + "65000014_00000000.imf"); }},
    {"OtherStart", Fault::kHeader, "/data_00000001/64000000_64000010_cm1.imf",
     [](const std::string& d) { Move(d, kData + kFirst, kData + "64000000_64000010_cm1.imf"); }},
    {"NoHeader", Fault::kHeader, "/data_00000001/65000100_65000200_cm1.imf",
     [](const std::string& d) { MakeTestFile(d + kData + "65000100_65000200_cm1.imf", kSize); }},
    {"TwoOfOneStart", Fault::kTwoStarts, "/data_00000001/65000000_00000000.imf",
     [](const std::string& d) { MakeTestFile(d + kData + "65000000_00000000.imf", kSize); }},
    {"DbMissing", Fault::kSearchDb, "/data_00000001/search.fdb",
     [](const std::string& d) { fs::remove(d + kData + "search.fdb"); }, true},
    {"DbMarked", Fault::kSearchDb, "/data_00000001/search.fdb",
     [](const std::string& d) { Write(d + kData + "search.fdb.0.err", ""); }, true},
    {"DbJournal", Fault::kSearchDb, "/data_00000001/search.fdb",
     [](const std::string& d) { Write(d + kData + "search.fdb-journal", std::string(600, '\1')); }, true},
    {"DbOutOfStep", Fault::kSearchDb, "/data_00000001/search.fdb",
     [](const std::string& d) {
       SearchDb db(d + kData, SEARCH_DB_WRITE);
       db.Remove(kStart);
       db.Add({kStart + 10, kStart + 11, 1});
       db.Add({kStart + 500, kStart + 510, 1});
     },
     true},
};

void PrintTo(const Planted& planted, std::ostream* out) { *out << planted.name; }

class CheckFault : public testing::TestWithParam<Planted> {};

TEST_P(CheckFault, IsFoundAndTheDiskIsLeftAlone) {
  TestRoot root;
  const std::string disk = MakeHealthyDisk(root, "d");
  GetParam().plant(disk);
  if (!GetParam().keepsDb) Rebuild(disk + kData);
  const std::string before = Snapshot(root.Path());
  const DiskReport report = CheckDisk(disk);
  EXPECT_EQ(before, Snapshot(root.Path()));
  ASSERT_EQ(1u, report.findings.size()) << report.findings[1].path << ": " << report.findings[1].what;
  EXPECT_EQ(GetParam().fault, report.findings[0].fault) << report.findings[0].what;
  EXPECT_EQ(disk + GetParam().path, report.findings[0].path);
  EXPECT_FALSE(report.missing);
}

INSTANTIATE_TEST_SUITE_P(Planted, CheckFault, testing::ValuesIn(kFaults),
                         [](const auto& planted) { return std::string(planted.param.name); });

class CheckCommand : public testing::Test {
 protected:
  int Check(const std::string& options) { return mProgram.Run(mRoot.Path(), "check " + options); }

  TestRoot mRoot;
  const std::string mDisk = MakeHealthyDisk(mRoot, "d");
  RecorderProgram mProgram{mRoot.Path()};
};

TEST_F(CheckCommand, HealthyDisk) {
  EXPECT_EQ(0, Check("--json"));
  const auto line = mProgram.JsonLines().at(0);
  EXPECT_EQ(7, line["files"]);
  EXPECT_EQ(2, line["free"]);
  EXPECT_EQ(4, line["recorded"]);
  EXPECT_EQ(1, line["quarantined"]);
  EXPECT_EQ(0, line["findings"]);
}

TEST_F(CheckCommand, FindingsAreLinesOfJsonWhateverTheNames) {
  Write(mDisk + kData + "a\n\xff'b", "x");
  EXPECT_EQ(1, Check("--json"));
  EXPECT_EQ("foreign", mProgram.JsonLines().at(0)["finding"]);
}

TEST_F(CheckCommand, ReturnsOrphansAndKeepsRecordings) {
  MakeTestFile(mDisk + "/imf_free/spare.imf", kSize);  // the pool would count on from it, and lose another
  const std::set<unsigned long> all = InodesOf(mDisk);
  fs::create_directory(mDisk + "/imf_prealloc");
  fs::create_hard_link(mDisk + "/imf_free/00000000.imf", mDisk + "/imf_prealloc/00000000.imf");
  Move(mDisk, "/imf_free/00000001.imf", "/imf_prealloc/00000001.imf");
  Move(mDisk, kData + kFirst, "/saved/" + kFirst);
  EXPECT_EQ(1, Check("--return-orphans")) << "the search database still lists what was moved";
  EXPECT_EQ(0, Check("--rebuild-index"));
  ExpectEachInOnePlace(mDisk, all);
  EXPECT_EQ((std::vector<std::string>{"00000000.imf", "00000001.imf", "00000002.imf"}),
            NamesIn(mDisk + "/imf_free"));
  EXPECT_TRUE(fs::exists(mDisk + "/imf_error/" + kFirst)) << "a recording must not be handed out";
}

TEST_F(CheckCommand, RepairsNames) {
  const std::set<unsigned long> all = InodesOf(mDisk);
  Move(mDisk, kData + kThird, kData + "65000014_00000000.imf");
  Move(mDisk, "/imf_error/64000000_00000000.imf", kData + "65000100_00000000.imf");  // nothing in it
  EXPECT_EQ(0, Check("--repair-names"));
  ExpectEachInOnePlace(mDisk, all);
  EXPECT_TRUE(fs::exists(mDisk + kData + kThird));
  EXPECT_TRUE(fs::exists(mDisk + "/imf_free/00000002.imf"));
}

TEST_F(CheckCommand, RebuildsSearchDatabases) {
  fs::remove(mDisk + kData + "search.fdb");
  Write(mDisk + "/data_00000002/search.fdb.0.err", "");
  EXPECT_EQ(1, Check("--repair-names")) << "one flag a kind of repair";
  EXPECT_EQ(0, Check("--rebuild-index"));
}

TEST_F(CheckCommand, RefusesWhatLooksMissingOrMostlyWrong) {
  fs::create_directory(mRoot.Path() + "/disk/gone");
  EXPECT_EQ(2, Check("")) << "one looks missing";
  EXPECT_EQ(0, Check("--disk d"));
  EXPECT_EQ(2, Check("--disk nosuch"));

  for (const std::string& name : {kFirst, kSecond, kThird})
    Move(mDisk, kData + name, kData + name.substr(0, 8) + "_00000000.imf");
  Move(mDisk, "/imf_free/00000001.imf", "/other.imf");
  const std::string before = Snapshot(mDisk);
  EXPECT_EQ(2, Check("--disk d --repair-names --rebuild-index --return-orphans"));
  EXPECT_EQ(before, Snapshot(mDisk));
  EXPECT_EQ(0, Check("--disk d --repair-names --rebuild-index --return-orphans --force"));
}

TEST_F(CheckCommand, BesideARecorderTheFileBeingWrittenIsNoFault) {
  recorder::RootLock lock;
  ASSERT_FALSE(lock.Take(mRoot.Path(), "record"));
  Move(mDisk, "/imf_free/00000000.imf", kData + "65000020_00000000.imf");
  Write(mDisk + kData + "65000020_00000000.imf", std::string(kSize, 'x'));
  EXPECT_EQ(0, Check(""));
  EXPECT_EQ(2, Check("--repair-names"));
  Move(mDisk, "/imf_free/00000001.imf", kData + "65000030_00000000.imf");  // not written to
  EXPECT_EQ(1, Check("--json"));
  EXPECT_EQ(1, mProgram.JsonLines().back()["findings"]);
}

}  // namespace
