// The search database, the tool that rebuilds it, and the helpers that run the tool.
#include <sqlite3.h>

#include <algorithm>
#include <functional>
#include <random>
#include <thread>

#include "SearchDb.h"
#include "SystemHelper.h"
#include "platform/host/HostSystem.h"
#include "platform/host/searchdb/SearchDbRebuild.h"
#include "tests/support/Process.h"
#include "tests/support/TestDisk.h"

static bool operator==(const TimeSearchRecording& a, const TimeSearchRecording& b) {
  return a.startTime == b.startTime && a.endTime == b.endTime && a.channelMask == b.channelMask &&
         a.spans == b.spans;
}

namespace {

using Recordings = std::vector<TimeSearchRecording>;
const Recordings kFailed = {{-1, 0, 0}};

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
    if (!SearchDb(mDirectory, SEARCH_DB_READ).CollectData(&chart)) return kFailed;
    std::sort(chart.recordings.begin(), chart.recordings.end(),
              [](const auto& a, const auto& b) { return a.startTime < b.startTime; });
    return chart.recordings;
  }
  void Write(const std::string& name, const std::string& content) const {
    WriteText(mDirectory + name, content);
  }
  std::string Content() const { return ReadText(mPath); }
  bool IsMarked() const { return fs::exists(mPath + ".0.err"); }
  // By the tool; a shell starts it, which the directory's name must not reach.
  int Rebuild() const {
    setenv("FILEDB_TEST_DIRECTORY", mDirectory.c_str(), 1);
    return Process(FILEDB_TOOL " -f \"$FILEDB_TEST_DIRECTORY\" 2>/dev/null").Stop(0);
  }
  // By SQLite as it is, without any caution.
  void Run(
      const std::string& statements, const std::function<void()>& whileOpen = [] {}) const {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(mPath.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    whileOpen();
    sqlite3_close(db);
  }
  static std::string Number(size_t number, int size = 4) {
    std::string text;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) text += static_cast<char>(number >> shift);
    return text;
  }
  void CutOffChange() const {
    const pid_t child = fork();
    if (child == 0) {
      Run("PRAGMA cache_size=1; BEGIN; UPDATE recording SET end_time=0;"
          "WITH RECURSIVE n(i) AS (VALUES(200) UNION ALL SELECT i + 1 FROM n WHERE i < 9000)"
          "INSERT INTO recording SELECT i, i, 1 FROM n",
          [] { _exit(0); });
      _exit(1);
    }
    waitpid(child, nullptr, 0);
    ASSERT_GT(fs::file_size(mPath), 50000u) << "the change is to be half in the database";
    ASSERT_TRUE(fs::exists(mPath + "-journal"));
  }
  // Small pages, each of which lists the next one fifty times: the last one comes 50 to the power of 8 times.
  void MakeEndless() const {
    Run("PRAGMA page_size=512; VACUUM");
    std::string content = Content();
    const std::string leaf = content.substr(512, 512);
    content.resize(512);
    for (size_t next = 3; next < 11; ++next) {
      std::string page = "\x05" + Number(0, 2) + Number(50, 2) + Number(262, 2) + '\0' + Number(next);
      for (size_t i = 0; i < 50; ++i) page += Number(262 + 5 * i, 2);
      page.resize(262);
      for (size_t i = 0; i < 50; ++i) page += Number(next) + '\x64';
      content += page;
    }
    content += leaf;
    content.replace(28, 4, Number(content.size() / 512));
    Write("search.fdb", content);
  }

  TestRoot mRoot;
  std::string mDirectory;
  std::string mPath;
};

TEST_F(SearchDbTest, FindsWhatOverlapsTheInterval) {
  const std::vector<PictureSpan> both = {{0, 200000000, 250000000}, {0, 258000000, 299000000}, {31, 1, 2}};
  SearchDb db(mDirectory, SEARCH_DB_WRITE);
  for (const TimeSearchRecording& recording : Recordings{{100, 199, 1},
                                                         {200, 299, 0x80000001u, both},
                                                         {300, 340, 4, {{2, 300, 330}, {2, 335, 340}}},
                                                         {300, 399, 6, {{1, 310, 399}}}}) {
    EXPECT_TRUE(db.Add(recording)) << db.Error();
  }
  const Recordings all = {{100, 199, 1}, {200, 299, 0x80000001u, both}, {300, 399, 6, {{1, 310, 399}}}};
  EXPECT_EQ(Search(), all) << "the same start twice is one recording";
  EXPECT_EQ(Search(199, 200), Recordings(all.begin(), all.begin() + 2)) << "ends included";
  Run("INSERT INTO span VALUES(100, 32, 1, 2), (100, 1, -1, 2), (100, 1, 5, 5), (50, 1, 1, 2),"
      "(100, 1, 9000000000000000000, 9000000000000000001)");
  EXPECT_EQ(Search(), all) << "spans that can't be";
  // A data directory whose last recording goes may go with it: the database is not made anew for a removal.
  fs::remove(mPath);
  EXPECT_TRUE(db.Remove(100));
  EXPECT_FALSE(fs::exists(mPath));
}

// A database that lies still is remembered, and how long its recordings are: searches don't read all before the
// interval then. Whatever is known by then, the answers are the same.
TEST_F(SearchDbTest, FindsTheSameInWhatIsRemembered) {
  std::mt19937 random(7);
  const auto below = [&random](unsigned limit) { return static_cast<int32_t>(random() % limit); };
  std::string rows = "INSERT INTO recording VALUES(1, 2, 1)";
  Recordings all = {{1, 2, 1}};
  for (int32_t start = 100; start < 100000; start += 100) {
    all.push_back({start, start + (below(100) == 0 ? below(20000) : below(200)), 1});
    rows += ",(" + std::to_string(start) + "," + std::to_string(all.back().endTime) + ",1)";
  }
  ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).IsOpen());
  Run(rows);
  std::this_thread::sleep_for(std::chrono::seconds(4));  // the times of a file just changed say little
  const auto compare = [&] {
    const int32_t from = below(100000), to = from + below(3000);
    Recordings expected;
    for (const TimeSearchRecording& each : all) {
      if (each.startTime <= to && each.endTime >= from) expected.push_back(each);
    }
    EXPECT_EQ(Search(from, to), expected) << from << " to " << to;
  };
  for (int i = 0; i < 100; ++i) compare();
  all[0].endTime = 99999;
  Run("UPDATE recording SET end_time = 99999 WHERE start_time = 1");
  for (int i = 0; i < 10; ++i) compare();
  Run("CREATE VIEW another AS SELECT 1");
  EXPECT_EQ(Search(), kFailed);
}

TEST_F(SearchDbTest, LockedOrReadOnlyIsAFailureAndNoLoss) {
  Write("search.fdb", "");  // a rebuild that was cut off
  EXPECT_EQ(Search(), Recordings());
  EXPECT_FALSE(IsMarked());
  ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({100, 199, 1}));
  EXPECT_TRUE(fs::remove(mPath + ".0.err")) << "what the empty one should have held is missing";
  Run("BEGIN EXCLUSIVE", [&] { EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Remove(100)); });
  EXPECT_TRUE(IsMarked()) << "a change that could not be made: the next start rebuilds";

  SearchDb db(mDirectory, SEARCH_DB_WRITE);
  EXPECT_TRUE(db.Add({100, 199, 1}));
  Write("search.fdb-journal", "");
  EXPECT_FALSE(db.Remove(100)) << "a journal that came meanwhile may be a stranger's";
  EXPECT_TRUE(fs::remove(mPath + "-journal"));

  fs::permissions(mPath, fs::perms::owner_read | fs::perms::others_read);
  if (geteuid() == 0) {
    fs::permissions(mRoot.Path(), fs::perms::owner_all | fs::perms::others_exec);
    ASSERT_EQ(seteuid(65534), 0);
  }
  EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({300, 399, 1}));
  EXPECT_EQ(seteuid(getuid()), 0);
  EXPECT_EQ(Search(), Recordings(1, {100, 199, 1}));
}

// What is damaged, runs, loops or lies elsewhere: passed over while looking, marked while recording, made anew
// by a rebuild. A recorder that dies in mid-change leaves SQLite's journal beside the database; nothing takes
// the change back.
TEST_F(SearchDbTest, UnsoundDatabases) {
  const auto run = [this](const std::string& statements) { return [=] { Run(statements); }; };
  const std::pair<std::string, std::function<void()>> cases[] = {
      {"a text file", [&] { Write("search.fdb", std::string(5000, 'x')); }},
      {"the first half", [&] { fs::resize_file(mPath, fs::file_size(mPath) / 2); }},
      {"a change cut off", [&] { CutOffChange(); }},
      {"a trigger", run("CREATE TRIGGER t BEFORE INSERT ON recording BEGIN SELECT 1; END")},
      {"a table too many", run("CREATE TABLE more(x)")},
      {"another table", run("PRAGMA writable_schema=1; UPDATE sqlite_schema SET sql = sql || ' '")},
      {"the version before", run("DROP TABLE span; PRAGMA user_version=1")},
      {"a write-ahead log", run("PRAGMA journal_mode=WAL")},
      {"a recording's second name",
       [&] {
         fs::rename(mPath, mDirectory + "60000000_60000010_cm1.imf");
         fs::create_hard_link(mDirectory + "60000000_60000010_cm1.imf", mPath);
       }},
      {"pages that come over and over", [&] { MakeEndless(); }},
  };
  for (const auto& [what, make] : cases) {
    SCOPED_TRACE(what);
    for (const auto& entry : fs::directory_iterator(mDirectory)) fs::remove_all(entry);
    ASSERT_TRUE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({100, 199, 1}));
    make();
    const std::string content = Content();
    EXPECT_EQ(Search(), kFailed);
    EXPECT_FALSE(IsMarked());
    if (what != "pages that come over and over") {
      EXPECT_FALSE(SearchDb(mDirectory, SEARCH_DB_WRITE).Add({300, 399, 1}));
      EXPECT_TRUE(IsMarked());
    }
    EXPECT_TRUE(Content() == content);
    EXPECT_EQ(fs::exists(mPath + "-journal"), what == "a change cut off");
    const std::string name = "60000000_60000010_cm1.imf";
    const bool isRecording = fs::exists(mDirectory + name);
    Write(".search.fdb.rebuild", "of a rebuild that was cut off");
    EXPECT_EQ(Rebuild(), 0);
    EXPECT_FALSE(fs::exists(mDirectory + ".search.fdb.rebuild"));
    EXPECT_EQ(Search(), isRecording ? (Recordings{{0x60000000, 0x60000010, 1}}) : Recordings());
    EXPECT_TRUE(!isRecording || ReadText(mDirectory + name) == content);
  }
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
  constexpr int64_t kPicture = 0x5f5e2005 * int64_t{1000000};
  EXPECT_EQ(Rebuild(), 0);
  EXPECT_EQ(Search(), (Recordings{{0x5f5e1000, 0x5f5e1258, 15},
                                  {0x5f5e1300, 0x5f5e1400, 0x80000000u},
                                  {0x5f5e2000, 0x5f5e2005, 4, {{2, kPicture, kPicture + 1}}}}));

  // Of a database out of step with them only the rows that differ are changed: the first one here, which its
  // file bears out as little as the names do, stays.
  Run("INSERT INTO span VALUES(0x5f5e1300, 31, 0x5f5e1300 * 1000000, 0x5f5e1301 * 1000000)");
  const Recordings before = Search();
  Run("DELETE FROM recording WHERE start_time = 0x5f5e2000; DELETE FROM span WHERE channel = 2;"
      "INSERT INTO recording VALUES(-8, -7, 1), (0x60000000, 0x60000009, 1), (0x5f5e1600, 0x5f5e1500, 1);"
      "UPDATE recording SET end_time = 0x5f5e1257, channel_mask = 7 WHERE start_time = 0x5f5e1000");
  EXPECT_TRUE(MendSearchDb(mDirectory));
  EXPECT_EQ(Search(), before);
  Write("5f5e1000_5f5e1259_cmf.imf", "");
  EXPECT_FALSE(MendSearchDb(mDirectory)) << "which of two counts is for a rebuild to say";
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
