// One process at a time works on a disk, whichever way it came there.
#include <sys/stat.h>

#include "apps/recorder/disks/DirectoryLock.h"
#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

using recorder::DirectoryLock;
using recorder::HolderOf;
using recorder::LockSet;

namespace {

// Whether another process is kept out.
bool IsLocked(const std::string& directory) {
  const std::string take = "import fcntl; fcntl.lockf(open('" + directory + "/.recorder.lock', 'r+'), 6)";
  return std::system(("python3 -c \"" + take + "\" 2>/dev/null").c_str()) != 0;
}

class Locks : public testing::Test {
 protected:
  // A recorder that has the disk and waits for its camera.
  std::unique_ptr<Process> Record(const std::string& root, const std::string& more = "") {
    mkfifo((root + "/camera").c_str(), 0600);
    return std::make_unique<Process>(RECORDER_PROGRAM " --root " + root + " record --input " + root +
                                     "/camera " + more + " >" + root + "/log 2>&1");
  }
  bool AwaitHolder(const Process& process) {
    const std::string pid = "pid " + std::to_string(process.Id()) + " ";
    return Await([&] { return bool{Has(HolderOf(mDisk).value_or(""), pid)}; });
  }

  TestRoot mRoot;
  const std::string mDisk = mRoot.AddDisk("a", 3);
  const std::string mFile = mDisk + "/.recorder.lock";
};

TEST_F(Locks, ARefusalNamesWhoHasItAndAStaleTextIsNotBelieved) {
  WriteText(mFile, "1 record 1700000000 elsewhere\n");
  EXPECT_FALSE(HolderOf(mDisk)) << "a text without a lock";
  const auto other = Record(mRoot.Path());
  ASSERT_TRUE(AwaitHolder(*other));
  char host[65] = "";
  gethostname(host, sizeof host - 1);
  const std::string name = "recorder record (pid " + std::to_string(other->Id()) + " on " + host + " since 20";
  DirectoryLock lock;
  const std::string refusal = lock.Take(mDisk, "prepare").value_or("");
  EXPECT_TRUE(Has(refusal, mDisk + " is in use by " + name));
  EXPECT_EQ(0u, HolderOf(mDisk).value_or("").find(name));
  WriteText(mFile, std::string("1 record 1700000000 ") + host + "\n");  // not its holder's
  EXPECT_EQ("another process (pid " + std::to_string(other->Id()) + ")", HolderOf(mDisk).value_or(""));
  other->Stop(SIGKILL);
  EXPECT_FALSE(HolderOf(mDisk));
  EXPECT_FALSE(lock.Take(mDisk, "prepare"));
}

TEST_F(Locks, NothingInThisProcessDropsOne) {
  fs::create_directory_symlink(mDisk, mRoot.Path() + "/again");
  LockSet locks("record");
  ASSERT_FALSE(locks.TakeAll({mRoot.Path(), mDisk}));
  DirectoryLock second;
  EXPECT_TRUE(second.Take(mRoot.Path() + "/again", "record")) << "the same disk by another name";
  EXPECT_EQ("this process", HolderOf(mDisk).value_or(""));
  EXPECT_FALSE(locks.Confirm(mDisk));
  EXPECT_TRUE(IsLocked(mDisk));
  EXPECT_TRUE(locks.TakeAll({mDisk, mRoot.Path() + "/nowhere"}));
  EXPECT_TRUE(IsLocked(mDisk)) << "what was held before stays";
  fs::rename(mFile, mDisk + "/gone");
  EXPECT_TRUE(locks.Confirm(mDisk)) << "another machine could make it anew";
  EXPECT_FALSE(locks.Take(mDisk));
  locks.Release(mDisk);
  EXPECT_FALSE(IsLocked(mDisk));
  EXPECT_TRUE(IsLocked(mRoot.Path()));
}

TEST_F(Locks, ADiskByTwoRootsIsRefusedAndAStandbyTakesOver) {
  TestRoot other;
  fs::remove(other.Path() + "/disk");
  fs::create_directory_symlink(mRoot.Path() + "/disk", other.Path() + "/disk");
  RecorderProgram program(other.Path());
  const auto first = Record(mRoot.Path());
  ASSERT_TRUE(AwaitHolder(*first));
  const std::string pid = std::to_string(first->Id());
  for (const char* command :
       {"record --input none", "check --repair-names", "prepare --disk a --size 1M --count 3"}) {
    EXPECT_EQ(2, program.Run(other.Path(), command));
    EXPECT_TRUE(Has(program.err, "pid " + pid));
  }
  EXPECT_EQ(0, program.Run(other.Path(), "status"));
  EXPECT_TRUE(Has(program.out, "in use by recorder record (pid " + pid));

  const auto standby = Record(other.Path(), "--standby");
  EXPECT_TRUE(Await([&] { return bool{Has(ReadText(other.Path() + "/log"), "standing by: in use by")}; }));
  EXPECT_TRUE(Has(HolderOf(mDisk).value_or(""), "pid " + pid));
  EXPECT_FALSE(HolderOf(other.Path())) << "whoever waits holds nothing";
  first->Stop(SIGKILL);
  EXPECT_TRUE(AwaitHolder(*standby)) << "within ten seconds";
}

}  // namespace
