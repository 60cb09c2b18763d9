// The search database, the tool that rebuilds it, and the helpers that run the tool.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "SearchDb.h"
#include "SystemHelper.h"
#include "platform/host/HostSystem.h"
#include "tests/support/TestDisk.h"

static bool operator==(const TimeSearchRecording& a, const TimeSearchRecording& b) {
  return a.startTime == b.startTime && a.endTime == b.endTime && a.channelMask == b.channelMask;
}

namespace {

namespace fs = std::filesystem;
using Recordings = std::vector<TimeSearchRecording>;

class SearchDbTest : public testing::Test {
 protected:
  SearchDbTest() {
    mDirectory = mRoot.Path() + "/it's #1 100% \"so\"?/";  // nothing may mean anything to a database or a shell
    mPath = mDirectory + "search.fdb";
    fs::create_directory(mDirectory);
  }

  // The recordings found, by start; one with start -1 when the search fails.
  Recordings Search(int32_t from = 0, int32_t to = INT32_MAX) const {
    TimeSearchChart chart;
    chart.startTime = from;
    chart.endTime = to;
    if (!SearchDb(mDirectory, SEARCH_DB_READ).CollectData(&chart)) return {{-1, 0, 0}};
    std::sort(chart.recordings.begin(), chart.recordings.end(),
              [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
    return chart.recordings;
  }
  void Write(const std::string& name, const std::string& content) const {
    std::ofstream(mDirectory + name, std::ios::binary) << content;
  }
  std::string Content() const {
    std::ifstream file(mPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  bool IsMarked() const { return fs::exists(mPath + ".0.err"); }
  pid_t StartTool() const {
    const pid_t child = fork();
    if (child != 0) return child;
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    execl(FILEDB_TOOL, FILEDB_TOOL, "-f", mDirectory.c_str(), nullptr);
    _exit(127);
  }
  static int Result(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int Rebuild() const { return Result(StartTool()); }
  TestRoot mRoot;
  std::string mDirectory;
  std::string mPath;
};

TEST_F(SearchDbTest, FindsWhatOverlapsTheInterval) {
  SearchDb db(mDirectory, SEARCH_DB_WRITE);
  for (const TimeSearchRecording& recording :
       Recordings{{100, 199, 1}, {200, 299, 0x80000001u}, {300, 340, 4}, {300, 399, 6}}) {
    EXPECT_TRUE(db.Add(recording)) << db.Error();
  }
  const Recordings all = {{100, 199, 1}, {200, 299, 0x80000001u}, {300, 399, 6}};
  EXPECT_EQ(Search(), all) << "the same start twice is one recording";
  EXPECT_EQ(Search(199, 200), Recordings(all.begin(), all.begin() + 2)) << "ends included";
  // A data directory whose last recording goes may go with it: the database is not made anew for a removal.
  fs::remove(mPath);
  EXPECT_TRUE(db.Remove(100));
  EXPECT_FALSE(fs::exists(mPath));
}

// Whatever lies there under the name is answered by a clear failure, is not destroyed, and is marked for the
// next start when a recording could not be added.
TEST_F(SearchDbTest, HostileDatabases) {
  ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({100, 199, 1}));
  const std::string good = Content();
  const struct {
    const char* what;
    std::string content;
    bool isUsable;
  } cases[] = {
      {"a rebuild that was cut off", "", true},
      {"a text file", std::string(5000, 'x'), false},
      {"the first half", good.substr(0, good.size() / 2), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fs::remove(mPath + ".0.err");
    Write("search.fdb", c.content);
    EXPECT_EQ(Search() != Recordings(1, {-1, 0, 0}), c.isUsable);
    EXPECT_FALSE(IsMarked());
    EXPECT_TRUE(Content() == c.content);
    EXPECT_EQ(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({300, 399, 1}), c.isUsable);
    EXPECT_TRUE(IsMarked());
    if (!c.isUsable) {
      EXPECT_TRUE(Content() == c.content);
    }
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_EQ(Search(), Recordings());
  }
  fs::remove(mPath);
  Write("elsewhere", good);
  fs::create_symlink("elsewhere", mPath);
  EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({300, 399, 1}));
  EXPECT_EQ(Rebuild(), 2);
  EXPECT_EQ(fs::file_size(mDirectory + "elsewhere"), good.size());
}

TEST_F(SearchDbTest, LockedOrReadOnlyIsAFailureAndNoLoss) {
  ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({100, 199, 1}));
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(mPath.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Remove(100));
  EXPECT_TRUE(IsMarked()) << "a change that could not be made: the next start rebuilds";
  sqlite3_close(holder);

  fs::permissions(mPath, fs::perms::owner_read | fs::perms::others_read);
  if (geteuid() == 0) {
    fs::permissions(mRoot.Path(), fs::perms::owner_all | fs::perms::others_exec);
    ASSERT_EQ(seteuid(65534), 0);
  }
  EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({300, 399, 1}));
  EXPECT_EQ(seteuid(getuid()), 0);
  EXPECT_EQ(Search(), Recordings(1, {100, 199, 1}));
}

// A recorder that dies in mid-change leaves SQLite's journal beside the database, and searches have to go on.
TEST_F(SearchDbTest, ChangeCutOffIsTakenBackByTheNextSearch) {
  ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({100, 199, 1}));
  const pid_t child = fork();
  if (child == 0) {
    sqlite3* db = nullptr;
    if (sqlite3_open(mPath.c_str(), &db) != SQLITE_OK) _exit(1);
    const char* change =
        "PRAGMA cache_size=1; BEGIN; UPDATE recording SET end_time=0;"
        "WITH RECURSIVE n(i) AS (VALUES(200) UNION ALL SELECT i + 1 FROM n WHERE i < 9000)"
        "INSERT INTO recording SELECT i, i, 1 FROM n";
    _exit(sqlite3_exec(db, change, nullptr, nullptr, nullptr));
  }
  ASSERT_EQ(Result(child), 0);
  ASSERT_TRUE(fs::exists(mPath + "-journal"));
  ASSERT_GT(fs::file_size(mPath), 50000u) << "the change is to be half in the database";
  EXPECT_EQ(Search(), Recordings(1, {100, 199, 1}));
}

TEST_F(SearchDbTest, ToolTakesNamesAndOnlyAsksHeadersForWhatIsMissing) {
  for (const char* name : {"5f5e1000_5f5e1258_cmf.imf", "5f5e1300_5f5e1400_cm80000000.imf", "notes.imf",
                           "5f5e1600_5f5e1500_cm1.imf", "80000000_80000001_cm1.imf"}) {
    Write(name, "");
  }
  fs::create_symlink("notes.imf", mDirectory + "5f5e1701_5f5e1800_cm1.imf");
  const auto record = [this](const std::string& name, unsigned start) {
    WriteTestRecording(MakeTestFile(mDirectory + name, 65536), start, 5, 4);
  };
  record("5f5e2000_00000000.imf", 0x5f5e2000);  // left unfinished long ago
  record("60000000_00000000.imf", 0x60000000);  // newest in progress: nobody knows its end yet
  EXPECT_EQ(Rebuild(), 0);
  EXPECT_EQ(Search(), (Recordings{{0x5f5e1000, 0x5f5e1258, 15},
                                  {0x5f5e1300, 0x5f5e1400, 0x80000000u},
                                  {0x5f5e2000, 0x5f5e2005, 4}}));
}

TEST_F(SearchDbTest, RebuildCutOffIsSeenAndDoneAgain) {
  constexpr size_t kCount = 2000;
  for (size_t i = 0; i < kCount; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "%zx_%zx_cm1.imf", 0x5f5e1000 + 10 * i, 0x5f5e1009 + 10 * i);
    Write(name, "");
  }
  ASSERT_EQ(Rebuild(), 0);
  ASSERT_EQ(Search().size(), kCount);
  int cut = 0;
  for (int round = 0; round < 40; ++round) {
    const pid_t tool = StartTool();
    siginfo_t ended = {};
    while (GetFileSize(mPath.c_str()) != 0 && ended.si_pid == 0) {
      waitid(P_PID, static_cast<id_t>(tool), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(250 * round));  // it takes some ten milliseconds
    kill(tool, SIGKILL);
    if (Result(tool) == 0) continue;
    const size_t found = Search().size();
    if (GetFileSize(mPath.c_str()) == 0) {
      ++cut;
      EXPECT_EQ(found, 0u);
    } else {
      EXPECT_EQ(found, kCount) << "in round " << round << ": a database in part would never be rebuilt";
    }
  }
  EXPECT_GT(cut, 0) << "no rebuild was cut off half-way";
  EXPECT_EQ(Rebuild(), 0);
  EXPECT_EQ(Search().size(), kCount);
  EXPECT_FALSE(fs::exists(mDirectory + ".search.fdb.rebuild"));
}

TEST_F(SearchDbTest, Commands) {
  const std::string text(200000, 'x');  // a pipe's worth and more: neither buffers nor limits may cut it
  const std::string out = mRoot.Path() + "/out";
  EXPECT_EQ(SystemFmt("for i in 1 2; do printf %%s %.100000s; done > %s", text.c_str(), out.c_str()), 0);
  EXPECT_EQ(GetFileSize(out.c_str()), 200000);
  HostAllowCommands(false);
  EXPECT_EQ(SystemFmt("rm %s", out.c_str()), 0);
  HostAllowCommands(true);
  EXPECT_TRUE(fs::exists(out));
}

}  // namespace
