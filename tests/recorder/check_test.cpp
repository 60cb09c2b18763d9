// The check of the disks: a healthy disk is found healthy, each fault is found and named without touching the
// disk, and no repair loses a file.
#include "SearchDb.h"
#include "apps/recorder/check/Checker.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/searchdb/SearchDbRebuild.h"
#include "tests/support/RecorderProgram.h"

using recorder::DiskReport;
using recorder::Fault;

namespace {

constexpr int kSize = 256 * 1024;
constexpr uint32_t kStart = 0x65000000;
const std::string kFirst = "65000000_6500000a_cm1.imf";
const std::string kThird = "65000014_6500001e_cm1.imf";
// For the shell, in the directory of the disk.
const std::string kVariables =
    "D=data_00000001; A=$D/" + kFirst + "; B=$D/6500000a_65000014_cm1.imf; C=$D/" + kThird + "; ";

class CheckTest : public RecorderFixture {
 protected:
  // A disk of seven files: three recordings in data_00000001 and one in data_00000002, two free, one
  // quarantined.
  CheckTest() {
    for (unsigned i = 0; i < 4; ++i) {
      const unsigned start = kStart + 10 * i;
      const std::string path = Text("/data_%08u/%x_%x_cm1.imf", 1 + i / 3, start, start + 10);
      WriteTestRecording(MakeTestFile(mDisk + path, kSize), start, 10, 1);
    }
    MakeTestFile(mDisk + "/imf_error/64000000_00000000.imf", kSize);
    Rebuild("/data_00000001/");
    Rebuild("/data_00000002/");
  }

  void Rebuild(const char* directory) const {
    SearchDbRebuildReport report;
    RebuildSearchDb(mDisk + directory, nullptr, &report);
  }
  // Runs a command in the disk's directory; false when it fails.
  bool Shell(const std::string& command) {
    return mProgram.Shell("set -e; cd " + mDisk + "; " + kVariables + command) == 0;
  }
  int Check(const std::string& options) { return Run("check " + options); }
  // Everything that a check could touch.
  std::string Snapshot(const std::string& directory) {
    EXPECT_EQ(0, mProgram.Shell("find " + directory +
                                " -mindepth 1 ! -name out ! -name err ! -name .recorder.lock"
                                " -printf '%p %y %i %m %n %s %T@\\n' | sort"));
    return mProgram.out;
  }

  const std::string mDisk = mRoot.AddDisk("d", 2, kSize);
};

struct Planted {
  const char* name;
  Fault fault;
  std::string path;      // within the disk
  std::string command;   // that plants it
  bool keepsDb = false;  // the search databases are made anew after planting, unless they are the fault
};

const std::string kData = "/data_00000001/";
const std::string kDb = kData + "search.fdb";
const Planted kFaults[] = {
    {"InPoolAndInUse", Fault::kTwoPlaces, "/imf_free/00000002.imf", "ln $A imf_free/00000002.imf"},
    {"LinkedOutsideTheDisk", Fault::kTwoPlaces, kData + kFirst, "ln $A ../../kept.imf"},
    {"PreallocNameLeft", Fault::kLeftover, "/imf_prealloc/00000000.imf",
     "mkdir imf_prealloc; ln imf_free/00000000.imf imf_prealloc"},
    {"NeverPutIntoPool", Fault::kLeftover, "/imf_prealloc/00000002.imf",
     "mkdir imf_prealloc; truncate -s 256K imf_prealloc/00000002.imf"},
    {"InLostAndFound", Fault::kOutside, "/lost+found/sub/#123",
     "mkdir -p lost+found/sub; mv imf_free/00000001.imf 'lost+found/sub/#123'"},
    {"Truncated", Fault::kSize, kData + "6500000a_65000014_cm1.imf", "truncate -s 1 $B"},
    {"GapInPool", Fault::kGap, "/imf_free", "truncate -s 256K imf_free/00000007.imf"},
    {"LinkAsRecord", Fault::kNoRegularFile, kData + "65000100_00000000.imf",
     "ln -s $PWD/$A $D/65000100_00000000.imf"},
    {"NoDirectoryNumber", Fault::kDirectoryName, "/data_old copy", "mkdir 'data_old copy'"},
    {"Foreign", Fault::kForeign, kData + "it's \"notes\".txt", "echo x >$D/it\\'s\\ '\"notes\".txt'"},
    {"OddManifest", Fault::kForeign, "/recorder.disk", "echo x >recorder.disk"},
    {"FifoAsLock", Fault::kNoRegularFile, "/.recorder.lock", "mkfifo .recorder.lock"},
    {"OddSpelling", Fault::kName, kData + "65000000_6500000a_cm01.imf", "mv $A $D/65000000_6500000a_cm01.imf"},
    {"Unfinished", Fault::kUnfinished, kData + "65000014_00000000.imf", "mv $C $D/65000014_00000000.imf"},
    {"OtherStart", Fault::kHeader, kData + "64000000_64000010_cm1.imf", "mv $A $D/64000000_64000010_cm1.imf"},
    {"NoHeader", Fault::kHeader, kData + "65000100_65000200_cm1.imf",
     "truncate -s 256K $D/65000100_65000200_cm1.imf"},
    {"TwoOfOneStart", Fault::kTwoStarts, kData + "65000000_00000000.imf",
     "truncate -s 256K $D/65000000_00000000.imf"},
    {"OddOneOfOneStart", Fault::kTwoStarts, kData + "65000000__6500000a_cm1.imf",
     "truncate -s 256K $D/65000000__6500000a_cm1.imf"},
    {"DbMissing", Fault::kSearchDb, kDb, "rm $D/search.fdb", true},
    {"DbMarked", Fault::kSearchDb, kDb, ": >$D/search.fdb.0.err", true},
    {"DbJournal", Fault::kSearchDb, kDb, "yes | head -c 600 >$D/search.fdb-journal", true},
    {"DbOutOfStep", Fault::kSearchDb, kDb, ":", true},  // planted below
};

void PrintTo(const Planted& planted, std::ostream* out) { *out << planted.name; }

class CheckFault : public CheckTest, public testing::WithParamInterface<Planted> {};

TEST_P(CheckFault, IsFoundAndTheDiskIsLeftAlone) {
  ASSERT_TRUE(Shell(GetParam().command));
  if (GetParam().name == std::string("DbOutOfStep")) {
    SearchDb db(mDisk + kData, SEARCH_DB_WRITE);
    db.Remove(kStart);
    db.Add({kStart + 10, kStart + 11, 1});
    db.Add({kStart + 500, kStart + 510, 1});
  }
  if (!GetParam().keepsDb) Rebuild("/data_00000001/");
  const std::string before = Snapshot(mRoot.Path());
  const DiskReport report = recorder::CheckDisk(mDisk);
  EXPECT_EQ(before, Snapshot(mRoot.Path()));
  ASSERT_EQ(1u, report.findings.size()) << (report.findings.empty() ? "" : report.findings.back().what);
  EXPECT_EQ(GetParam().fault, report.findings[0].fault) << report.findings[0].what;
  EXPECT_EQ(mDisk + GetParam().path, report.findings[0].path);
  EXPECT_FALSE(report.missing);
}

INSTANTIATE_TEST_SUITE_P(Planted, CheckFault, testing::ValuesIn(kFaults),
                         [](const auto& planted) { return std::string(planted.param.name); });

TEST_F(CheckTest, IsLinesOfJsonWhateverTheNames) {
  // All files are there; one of the pool could not be moved in its turn.
  ASSERT_TRUE(
      Shell("mv imf_free/00000001.imf imf_free/00000007.imf;"
            "printf 'recorder disk 1\\nfiles 7\\nfile-bytes 262144\\n' >recorder.disk"));
  EXPECT_EQ(0, Check("--json")) << mProgram.out;
  const auto line = mProgram.JsonLines().at(0);
  for (const auto& [name, count] : std::map<std::string, int>{
           {"files", 7}, {"free", 2}, {"recorded", 4}, {"quarantined", 1}, {"findings", 0}})
    EXPECT_EQ(count, line[name]) << name;
  ASSERT_TRUE(Shell("touch $D/\"$(printf 'a\\n\\377')'b\""));
  EXPECT_EQ(1, Check("--json"));
  EXPECT_EQ("foreign", mProgram.JsonLines().at(0)["finding"]);
}

// The packet of each recording is of channel 0 and stands behind its stream's parameters.
TEST_F(CheckTest, OnlyReadingEveryPacketFindsADamagedOne) {
  EXPECT_EQ(0, Check("--packets"));
  EXPECT_TRUE(Has(mProgram.out, "read 4 packets of 4 of 4 recordings"));
  ImfReader reader;
  ASSERT_TRUE(reader.Open(mDisk + kData + kFirst));
  uint64_t offset = 0;
  reader.List([&](const ImfEntry& entry) { offset = entry.offset; });
  const std::string at = std::to_string(offset);
  for (const int where : {64, 0}) {  // payload, header
    ASSERT_TRUE(
        Shell("printf x | dd of=$A bs=1 conv=notrunc status=none seek=" + std::to_string(offset + where)));
    EXPECT_EQ(0, Check("")) << "a quick look";
    EXPECT_EQ(1, Check("--packets --json"));
    const auto finding = mProgram.JsonLines().at(0);
    EXPECT_EQ("damaged", finding["finding"]);
    EXPECT_EQ(mDisk + kData + kFirst, finding["path"]);
    const std::string what = finding["what"];
    EXPECT_TRUE(Has(what, " at " + at + " (channel 0, 2023-09-12T"));
  }
}

TEST_F(CheckTest, ReturnsOrphansAndKeepsRecordings) {
  // The pool would count on from the first, and lose another.
  ASSERT_TRUE(Shell("truncate -s 256K imf_free/spare.imf"));
  const std::set<unsigned long> all = InodesOf(mDisk);
  ASSERT_TRUE(
      Shell("mkdir imf_prealloc saved; ln imf_free/00000000.imf imf_prealloc; mv imf_free/00000001.imf "
            "imf_prealloc; mv $A saved"));
  EXPECT_EQ(1, Check("--return-orphans")) << "the search database still lists what was moved";
  EXPECT_EQ(0, Check("--rebuild-index"));
  ExpectEachInOnePlace(mDisk, all);
  EXPECT_EQ((std::vector<std::string>{"00000000.imf", "00000001.imf", "00000002.imf"}),
            NamesIn(mDisk + "/imf_free"));
  EXPECT_TRUE(Shell("test -e imf_error/" + kFirst)) << "a recording must not be handed out";
}

TEST_F(CheckTest, RepairsNames) {
  const std::set<unsigned long> all = InodesOf(mDisk);
  // There is nothing in the second one.
  ASSERT_TRUE(
      Shell("mv $C $D/65000014_00000000.imf; mv imf_error/64000000_00000000.imf $D/65000100_00000000.imf"));
  EXPECT_EQ(0, Check("--repair-names"));
  ExpectEachInOnePlace(mDisk, all);
  EXPECT_TRUE(Shell("test -e $C && test -e imf_free/00000002.imf"));
}

TEST_F(CheckTest, RefusesWhatLooksMissingOrMostlyWrong) {
  const std::string conf = "--config " + mRoot.Path() + "/conf ";
  WriteText(mRoot.Path() + "/conf", "root = " + mRoot.Path() + "\ndisk = d\ndisk = named\n");
  EXPECT_EQ(1, Run(conf + "check") + Run("check"));
  ASSERT_EQ(0, Run(conf + "status --json"));
  EXPECT_EQ("missing", mProgram.JsonLines().at(1)["state"]);
  ASSERT_TRUE(Shell("mkdir ../gone"));
  EXPECT_EQ(1, Check("")) << "one looks missing";
  EXPECT_EQ(2, Check("--repair-names")) << "and is not repaired";
  EXPECT_EQ(0, Check("--disk d"));
  EXPECT_EQ(1, Check("--disk nosuch"));

  ASSERT_TRUE(
      Shell("for f in $A $B $C; do mv $f ${f%%_65*}_00000000.imf; done; mv imf_free/00000001.imf other.imf"));
  const std::string before = Snapshot(mDisk);
  EXPECT_EQ(2, Check("--disk d --repair-names --rebuild-index --return-orphans"));
  EXPECT_EQ(before, Snapshot(mDisk));
  EXPECT_EQ(0, Check("--disk d --repair-names --rebuild-index --return-orphans --force"));
}

TEST_F(CheckTest, BesideARecorderTheFileBeingWrittenIsNoFault) {
  recorder::DirectoryLock lock;
  ASSERT_FALSE(lock.Take(mRoot.Path(), "record"));
  ASSERT_TRUE(
      Shell("mv imf_free/00000000.imf $D/65000020_00000000.imf; yes | head -c 256K >$D/65000020_00000000.imf"));
  EXPECT_EQ(0, Check(""));
  EXPECT_EQ(2, Check("--repair-names"));
  ASSERT_TRUE(Shell("mv imf_free/00000001.imf $D/65000030_00000000.imf"));  // not written to
  EXPECT_EQ(1, Check("--json"));
  EXPECT_EQ(1, mProgram.JsonLines().back()["findings"]);
}

}  // namespace
