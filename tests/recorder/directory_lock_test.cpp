// One process at a time works on a disk, whichever way it came there.
#include <fcntl.h>
#include <sys/stat.h>

#include "apps/recorder/disks/DirectoryLock.h"
#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

using recorder::DirectoryLock;
using recorder::HolderOf;
using recorder::LockSet;

namespace {

// Another process that holds the lock of `directory` for as long as the object lives.
class OtherHolder {
 public:
  explicit OtherHolder(const std::string& directory) {
    int ready[2];
    if (pipe(ready) != 0) std::abort();
    pid = fork();
    if (pid == 0) {
      DirectoryLock lock;
      if (lock.Take(directory, "record")) _exit(1);
      if (write(ready[1], "x", 1) != 1) _exit(1);
      for (;;) pause();
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(1, read(ready[0], &byte, 1));
    close(ready[0]);
  }
  ~OtherHolder() { End(); }
  void End() {
    if (pid <= 0) return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    pid = -1;
  }
  pid_t pid = -1;
};

// Whether another process is kept out.
bool IsLocked(const std::string& directory) {
  const pid_t pid = fork();
  if (pid == 0) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const int fd = open((directory + "/.recorder.lock").c_str(), O_RDWR);
    _exit(fcntl(fd, F_SETLK, &lock) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WEXITSTATUS(status) != 0;
}

class Locks : public testing::Test {
 protected:
  TestRoot mRoot;
  const std::string mDisk = mRoot.AddDisk("a", 3);
  const std::string mFile = mDisk + "/.recorder.lock";
};

TEST_F(Locks, ARefusalNamesWhoHasItAndAStaleTextIsNotBelieved) {
  WriteText(mFile, "1 record 1700000000 elsewhere\n");
  EXPECT_FALSE(HolderOf(mDisk)) << "a text without a lock";
  OtherHolder other(mDisk);
  char host[65] = "";
  gethostname(host, sizeof host - 1);
  const std::string name = "recorder record (pid " + std::to_string(other.pid) + " on " + host + " since 20";
  DirectoryLock lock;
  const std::string refusal = lock.Take(mDisk, "prepare").value_or("");
  EXPECT_TRUE(Has(refusal, mDisk + " is in use by " + name));
  EXPECT_EQ(0u, HolderOf(mDisk).value_or("").find(name));
  WriteText(mFile, std::string("1 record 1700000000 ") + host + "\n");  // not its holder's
  EXPECT_EQ("another process (pid " + std::to_string(other.pid) + ")", HolderOf(mDisk).value_or(""));
  other.End();
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
  OtherHolder first(mDisk);
  const std::string pid = std::to_string(first.pid);
  for (const char* command :
       {"record --input none", "check --repair-names", "prepare --disk a --size 1M --count 3"}) {
    EXPECT_EQ(2, program.Run(other.Path(), command));
    EXPECT_TRUE(Has(program.err, "pid " + pid));
  }
  EXPECT_EQ(0, program.Run(other.Path(), "status"));
  EXPECT_TRUE(Has(program.out, "in use by recorder record (pid " + pid));

  const std::string fifo = other.Path() + "/camera";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string log = other.Path() + "/log";
  const Process standby(RECORDER_PROGRAM " --root " + other.Path() + " record --standby --input " + fifo +
                        " 2>" + log);
  EXPECT_TRUE(Await([&] { return bool{Has(ReadText(log), "standing by: in use by")}; }));
  EXPECT_TRUE(Has(HolderOf(mDisk).value_or(""), "pid " + pid));
  EXPECT_FALSE(HolderOf(other.Path())) << "whoever waits holds nothing";
  first.End();
  const std::string next = "pid " + std::to_string(standby.Id());
  EXPECT_TRUE(Await([&] { return bool{Has(HolderOf(mDisk).value_or(""), next)}; })) << "within ten seconds";
}

}  // namespace
