// A disk that somebody else made: links, second names and pipes in the places of files and directories.
// Whatever the command, nothing outside the disk changes, nothing waits for ever, and nothing acts on the
// terminal.
#include <sys/stat.h>

#include "tests/support/RecorderProgram.h"

namespace {

constexpr int kSize = 262144;
constexpr unsigned kStart = 0x5f5e1000;
const std::string kDirectory = "data_00000002/";
const std::string kRootLock = "../../.recorder.lock";
const std::string kRecording = kDirectory + "5f5e1000_5f5e100a_cm1.imf";

class StrangersDisk : public RecorderFixture {
 protected:
  StrangersDisk() {
    fs::create_directory(mOutside);
    MakeTestFile(mOutside + "00000007.imf", kSize);
    MakeTestFile(mOutside + "5f5e2000_00000000.imf", kSize);
    WriteTestRecording(mOutside + "5f5e2000_00000000.imf", 0x5f5e2000, 5, 1);
    WriteText(mOutside + "search.fdb", "somebody's text");
    WriteText(mOutside + "search.fdb.0.err", "more of it");
    mBefore = Outside();
  }

  void MakeDisk() {
    fs::remove_all(mRoot.Path() + "/disk");
    fs::remove(mRoot.Path() + "/.recorder.lock");
    fs::create_directories(mDisk + "imf_free");
    for (const char* name : {"00000000.imf", "00000001.imf", "00000002.imf"})
      MakeTestFile(mDisk + "imf_free/" + name, kSize);
    MakeTestFile(mDisk + kRecording, kSize);
    WriteTestRecording(mDisk + kRecording, kStart, 10, 1);
  }

  // Names, kinds, sizes, times of change and contents.
  std::string Outside() {
    EXPECT_EQ(0, mProgram.Shell("cd " + mOutside +
                                " && find . -mindepth 1 -printf '%p %y %m %s %T@\\n' | sort &&"
                                " find . -type f -exec cksum {} + | sort"));
    return mProgram.out;
  }

  const std::string mDisk = mRoot.Path() + "/disk/d/";
  const std::string mOutside = mRoot.Path() + "/outside/";
  std::string mBefore;
};

TEST_F(StrangersDisk, DoesNoHarm) {
  // In the place of `name` there is a link to `by` of outside, a second name of it, a pipe, or names.
  enum Kind { kLink, kSecond, kPipe, kNames };
  const std::tuple<std::string, Kind, std::string, std::string> cases[] = {
      {"a linked pool", kLink, "imf_free", ""},
      {"a linked quarantine", kLink, "imf_error", ""},
      {"a linked preparation", kLink, "imf_prealloc", ""},
      {"a linked data directory", kLink, "data_00000003", ""},
      {"the oldest data directory linked", kLink, "data_00000001", ""},
      {"a linked pool file", kLink, "imf_free/00000000.imf", "00000007.imf"},
      {"a linked recording", kLink, kDirectory + "5f5e2000_00000000.imf", "5f5e2000_00000000.imf"},
      {"a linked database", kLink, kDirectory + "search.fdb", "search.fdb"},
      {"a linked mark", kLink, kDirectory + "search.fdb.0.err", "search.fdb.0.err"},
      {"a linked new database", kLink, kDirectory + ".search.fdb.rebuild", "search.fdb"},
      {"a linked lock", kLink, ".recorder.lock", "search.fdb"},
      {"a lock linked to nothing", kLink, ".recorder.lock", "not there"},
      {"a database with a second name", kSecond, kDirectory + "search.fdb", "search.fdb"},
      {"a lock with a second name", kSecond, ".recorder.lock", "search.fdb"},
      {"a pipe as database", kPipe, kDirectory + "search.fdb", ""},
      {"a pipe as mark", kPipe, kDirectory + "search.fdb.0.err", ""},
      {"a pipe as journal", kPipe, kDirectory + "search.fdb-journal", ""},
      {"a pipe as lock", kPipe, ".recorder.lock", ""},
      {"a pipe as recording", kPipe, kDirectory + "5f5e2000_00000000.imf", ""},
      {"a linked lock of the root", kLink, kRootLock, "search.fdb"},
      {"a pipe as lock of the root", kPipe, kRootLock, ""},
      {"names for a terminal", kNames, "\x1b]0;x\x07.imf", ""},
  };
  const std::string video = mRoot.Path() + "/v.mp4";
  mProgram.MakeVideo(video, "-g 5", "testsrc2=size=64x48:rate=5 -t 3");
  for (const auto& [what, kind, name, by] : cases) {
    MakeDisk();
    fs::remove_all(mDisk + name);
    if (kind == kLink) fs::create_symlink(mOutside + by, mDisk + name);
    if (kind == kSecond) fs::create_hard_link(mOutside + by, mDisk + name);
    if (kind == kPipe) mkfifo((mDisk + name).c_str(), 0600);
    if (kind == kNames) {
      for (const char* place : {"", "imf_free/", "data_00000002/"}) MakeTestFile(mDisk + place + name);
      fs::create_directory(mDisk + "data_\x1b[2J_3");
    }
    for (const std::string& command :
         {std::string("status"), std::string("menu"), std::string("check"), std::string("timeline"),
          "record --clock stream --input " + video,
          std::string("check --repair-names --rebuild-index --return-orphans --force")}) {
      SCOPED_TRACE(what + ": " + command);
      const int status =
          mProgram.Shell("timeout -s KILL 20 " RECORDER_PROGRAM " --root " + mRoot.Path() + " " + command);
      const std::string said = mProgram.out + mProgram.err;
      EXPECT_LE(status, 2) << said;
      EXPECT_EQ(mBefore, Outside()) << said;
      for (const std::string& line : LinesOf(said)) {
        const bool isLibrarys = line.rfind("Dbg (", 0) == 0 || Has(line, "Err (");  // those are for logs
        const auto acts = [](unsigned char c) { return c < ' ' || c == 0x7f; };
        EXPECT_TRUE(isLibrarys || std::none_of(line.begin(), line.end(), acts)) << line;
      }
    }
  }
}

// An emptied data directory is removed by a shell, which would follow a link and empty what it leads to. While
// a recorder is at work, somebody puts a link in the place of the next directory to be emptied.
TEST_F(StrangersDisk, ADirectoryTurnedIntoALinkIsNotRemoved) {
  MakeDisk();
  for (int i = 3; i < 12; ++i) MakeTestFile(mDisk + "imf_free/0000010" + std::to_string(i) + ".imf", kSize);
  const std::string old = "5f5e0000_5f5e000a_cm1.imf";
  MakeTestFile(mDisk + "data_00000001/" + old, kSize);
  fs::copy(mDisk + "data_00000001/" + old, mOutside + old);
  mBefore = Outside();
  // Twenty segments in two halves, for twelve free files.
  mProgram.MakeVideo(mRoot.Path() + "/v.ts", "-preset ultrafast -g 25", "testsrc2=size=64x48:rate=25 -t 20");
  const std::string script =
      "cd " + mRoot.Path() + " && mkfifo in.ts && { timeout -s KILL 60 " RECORDER_PROGRAM " --root " +
      mRoot.Path() +
      " record --clock stream --start 1700000000 --segment 1 --input in.ts & exec 9>in.ts"
      "; head -c $(($(stat -c %s v.ts) / 2)) v.ts >&9"
      "; for i in $(seq 100); do ls disk/d/data_*/6553f104_*_cm1.imf && break; sleep 0.1; done"
      "; mv disk/d/data_00000001 gone; ln -s ../../outside disk/d/data_00000001"
      "; tail -c +$(($(stat -c %s v.ts) / 2 + 1)) v.ts >&9; exec 9>&-; wait $!; }";
  EXPECT_EQ(mProgram.Shell(script), 0) << mProgram.err;
  EXPECT_TRUE(Has(mProgram.out, "recycled "));
  EXPECT_EQ(mBefore, Outside());
}

}  // namespace
