// System calls repeat exactly: one that rises is a regression, one that falls is to be written down here.
#include "bench/SyscallCounter.h"
#include "tests/support/ManagerFixture.h"

namespace {

// Three renames, two links removed and two made, which it can't do without; and a line of the log each for the file
// that went and for the one that came.
TEST_F(ManagerTest, SystemCallsOfASegmentOnAFullDisk) {
  Begin({"a 0 1:0-60 1:60-120 2:120-180"});
  mManager->mOverwrite = 1;
  const auto segment = [this] {
    timeval start = {kT + 180, 0};
    std::string path;
    mManager->CheckRepositoryChangeCondition(kT + 180);
    mManager->MakeRecordFile(start, path);
    mManager->RenameRecordFile(path, kT + 240, 1, path);
  };
  const auto find = [this] {
    std::string path;
    mManager->GetFilePath(kT + 90, path, 1);
  };
  const long calls = CountSystemCalls([] {}, segment);
  if (calls < 0) GTEST_SKIP() << "processes can't be watched here";
  EXPECT_EQ(9, calls);
  EXPECT_EQ(0, CountSystemCalls([] {}, find));
}

}  // namespace
