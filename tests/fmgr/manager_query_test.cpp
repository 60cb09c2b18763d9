// The file manager's answers for playback, search and menus, over several disks.
#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>

#include "SearchDb.h"
#include "tests/support/FlcSpy.h"
#include "tests/support/ManagerFixture.h"

namespace {

class ManagerQueryTest : public ManagerTest {
 protected:
  // Data directories 1 to 6, five recordings each, on disks a and b in turn. Their paths, oldest first.
  std::vector<std::string> BeginWalk() {
    const auto text = [](int i) { return Text("%d:%d-%d", i / 5 + 1, 100 * i, 100 * i + 90); };
    std::string disks[] = {"a 0", "b 0"};
    for (int i = 0; i < 30; ++i) disks[i / 5 % 2] += " " + text(i);
    const std::vector<std::string> added = Begin({disks[0], disks[1]});
    std::vector<std::string> paths;
    for (int i = 0; i < 30; ++i) paths.push_back(PathOf(added[i / 5 % 2], text(i)));
    return paths;
  }

  // Goes on until there is no more, at most for a hundred recordings.
  std::vector<std::string> Walk(std::string path, bool back = false) {
    std::vector<std::string> visited;
    unsigned result = 0;
    do {
      visited.push_back(path);
      result = back ? mManager->GetPrevFilePath(path, path) : mManager->GetNextFilePath(path, path);
    } while (result == 0 && visited.size() < 100);
    return visited;
  }
};

TEST_F(ManagerQueryTest, NextAndPreviousVisitEachRecordingOnce) {
  std::vector<std::string> paths = BeginWalk();
  std::string path;
  ASSERT_EQ(0, mManager->GetFilePath(kT - 1000, path, 1));
  EXPECT_EQ(paths, Walk(path));
  std::reverse(paths.begin(), paths.end());
  EXPECT_EQ(paths, Walk(paths.front(), true));
  EXPECT_EQ(12u, mManager->GetNextFilePath("/tmp/5f5e1000_5f5e105a_cm1.imf", path));
}

// Without the driver a directory knows only its own files; going back, the manager crosses to the one before.
TEST_F(ManagerQueryTest, BackOverDisksInListMode) {
  mManager->mAltMode = 1;
  const std::string a = Add("a 0 2:30-40 2:40-50");
  const std::string b = Add("b 0 1:10-20 9:60-70");
  const std::vector<std::string> expected = {PathOf(b, "9:60-70"), PathOf(a, "2:40-50"), PathOf(a, "2:30-40"),
                                             PathOf(b, "1:10-20")};
  EXPECT_EQ(expected, Walk(expected[0], true));
  EXPECT_EQ(1u, Walk(expected[1]).size());
  std::list<std::string> files{"/x/5f5e1028_0.imf", "/x/5f5e1000_0.imf"};
  EXPECT_EQ(0, mManager->CollectFileList(files, {0, (kT + 100) * 1000000LL, 0, 1}));
  EXPECT_EQ((std::list<std::string>{expected[3], expected[2], expected[1], "/x/5f5e1028_0.imf",
                                    "/x/5f5e1000_0.imf", expected[0]}),
            files);
}

TEST_F(ManagerQueryTest, ChoiceAmongDisksByMode) {
  const std::tuple<std::string, std::string, int, int, std::string> rows[] = {
      // the recordings of both disks, time, mode, the disk that is chosen
      {"1:100-200", "1:150-180", 160, 1, "b"},  // ends first
      {"1:100-200", "1:150-180", 160, 0, "a"},  // ends last
      {"1:100-200", "1:150-200", 160, 1, "a"},  // of equal ends the first in start order
      {"1:100-200", "1:150-200", 160, 0, "b"},  // the last
      {"1:100-200", "1:100-200", 160, 0, "a"},  // of equal starts too: the last in rotation order
      {"1:150-200", "1:100-140", 145, 1, "a"},  // the next one; the other disk has none
      {"1:150-200", "1:100-140", 145, -1, "b"}, {"1:150-200", "1:100-140", 201, 1, ""},
  };
  for (const auto& [a, b, time, mode, chosen] : rows) {
    SCOPED_TRACE(a + " " + b + Text(" %d %d", time, mode));
    const std::vector<std::string> disks = Begin({"a 0 " + a, "b 0 " + b});
    std::string path;
    EXPECT_EQ(chosen.empty() ? 12 : 0, mManager->GetFilePath(kT + time, path, mode));
    EXPECT_EQ(chosen, path == PathOf(disks[0], a) ? "a" : path == PathOf(disks[1], b) ? "b" : path);
  }
}

TEST_F(ManagerQueryTest, TimeRangeAndCounts) {
  const std::vector<std::string> disks = Begin({"a 2 1:30-40 3:50-60", "b 3 4:10-20 4:20-30"});
  using Pair = std::pair<int, int>;
  Pair range;
  EXPECT_EQ(1, mManager->GetTimeRange(range.first, range.second));
  EXPECT_EQ(Pair(kT + 10, kT + 60), range);
  EXPECT_EQ(5, mManager->GetFreeFileCount());
  EXPECT_EQ(3, mManager->GetFreeFileCount(disks[1]));
  EXPECT_EQ(4, mManager->GetTotalFileCount(disks[0]));
  // Deliberate: a directory that was just made has start -1, the smallest of all.
  ASSERT_EQ(1, mManager->CreateDataRepository(5));
  EXPECT_EQ(1, mManager->GetTimeRange(range.first, range.second));
  EXPECT_EQ(Pair(-1, kT + 60), range);
}

TEST_F(ManagerQueryTest, SearchChartAndFileList) {
  const std::vector<std::string> disks = Begin({"a 0 1:100-200 3:500-600", "b 0 2:300-400 4:700-800"});
  ASSERT_EQ(0, unlink((DataDir(disks[1], 2) + "search.fdb").c_str()));
  ASSERT_TRUE(SearchDb(DataDir(disks[1], 2), SEARCH_DB_WRITE).Add({kT + 300, kT + 400, 5}));
  TimeSearchChart chart;
  chart.startTime = kT + 250;
  chart.endTime = kT + 450;
  EXPECT_EQ(1, mManager->CollectSearchData(&chart));
  EXPECT_EQ(kT + 200, chart.latestEndBefore);
  EXPECT_EQ(kT + 500, chart.earliestStartAfter);
  EXPECT_EQ(1u, chart.recordings.size());

  ImfSearchCondition condition;
  condition.startTime = (kT + 150) * 1000000LL;
  condition.endTime = (kT + 550) * 1000000LL;
  std::list<std::string> files{"from before"};
  EXPECT_EQ(0, mManager->CollectFileList(files, condition));
  EXPECT_EQ((std::list<std::string>{"from before", PathOf(disks[0], "1:100-200"), PathOf(disks[1], "2:300-400"),
                                    PathOf(disks[0], "3:500-600")}),
            files);
  condition.channelMask = 2;
  EXPECT_EQ(0, mManager->CollectFileList(files, condition));  // deliberate: the list is not empty
  files.clear();
  EXPECT_EQ(12, mManager->CollectFileList(files, condition));
}

TEST_F(ManagerQueryTest, StorageMenu) {
  const std::string idle = Add("a 0 1:10-20 2:20-30", 2000000000);  // 4000 MB: beyond 32 bits
  const std::string empty = Add("c 1");
  const std::string current = Add("usbdisk1 0 3:30-40", 1999999);
  ipc_menu_disk_stream_t menu;
  std::memset(&menu, 0x55, sizeof menu);
  for (ipc_menu_disk_entry_t& entry : menu.entries) entry.inUse = 0;
  ipc_menu_disk_stream_t expected = menu;
  expected.kind = 2;
  constexpr int kAsBefore = 0x55555555;
  const std::tuple<int, int, std::string, std::string, int, int, int, int> rows[] = {
      {0, 1, "a", idle, 4000, 0, kT + 10, kT + 30},
      {2, 0, "unused", idle, kAsBefore, kAsBefore, kAsBefore, kAsBefore},
      {3, 1, "usbdisk1", current, 1, 1, kT + 30, kT + 40},
      {4, 1, "no", "/tmp/not/managed", kAsBefore, kAsBefore, kAsBefore, kAsBefore},
      {5, 1, "c", empty, 0, 0, 0, 0}};
  for (const auto& [i, inUse, name, path, size, writing, start, end] : rows) {
    ipc_menu_disk_entry_t& entry = menu.entries[i];
    entry.inUse = inUse;
    std::memcpy(entry.diskName, name.c_str(), std::min<size_t>(8, name.size() + 1));  // 8 bytes: no terminator
    std::memcpy(entry.diskPath, path.c_str(), path.size() + 1);
    expected.entries[i] = entry;
    std::tie(expected.entries[i].recordedSize, expected.entries[i].writing) = std::tie(size, writing);
    std::tie(expected.entries[i].startTime, expected.entries[i].endTime) = std::tie(start, end);
  }
  EXPECT_EQ(1, mManager->CollectTimeRange(menu));
  EXPECT_EQ(0, std::memcmp(&expected, &menu, sizeof menu));
  mManager->mAltGroups = mManager->mGroups;  // whether a disk outside the rotation is written to is not known
  mManager->mAltMode = menu.entries[0].writing = 1;
  EXPECT_EQ(1, mManager->CollectTimeRange(menu));
  EXPECT_EQ(1, menu.entries[0].writing);
  mManager->mAltMode = 0;
}

class MonthTest : public ManagerQueryTest {
 protected:
  MonthTest() { SetZone("UTC"); }
  static void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static std::string At(time_t start, time_t end) {
    return Text("1:%d-%d", static_cast<int>(start - kT), static_cast<int>(end - kT));
  }
  // Months are counted from year 0. 0: none.
  int Ask(int month, int direction) {
    int year = -1, found = -1;
    const bool any = mManager->GetRecentlyMonthInfo(month / 12, month % 12 + 1, year, found, direction);
    return any ? year * 12 + found - 1 : 0;
  }
};

// Recordings right before and right after the midnight that begins a month: an hour's error finds the wrong
// one.
TEST_F(MonthTest, FollowLocalTimeOverBothChangesOfTheClock) {
  const std::tuple<const char*, int, time_t, int> rows[] = {
      // zone, month, midnight that begins it, seconds until it comes once more
      {"Europe/Berlin", 2024 * 12, 1704063600, 0},
      {"Europe/Berlin", 2024 * 12 + 3, 1711922400, 0},         // summer time since the day before
      {"Europe/Berlin", 2024 * 12 + 10, 1730415600, 0},        // winter time since four days
      {"America/St_Johns", 2009 * 12 + 10, 1257042600, 3600},  // set back one minute after this midnight
  };
  for (const auto& [zone, month, midnight, repeated] : rows) {
    SCOPED_TRACE(zone + std::to_string(month));
    SetZone(zone);
    const time_t last = midnight + repeated;
    Begin({"a 0 " + At(midnight - 20, midnight - 10), "b 0 " + At(last, last + 20)});
    const std::vector<int> months = {Ask(month - 2, 1), Ask(month - 1, 1), Ask(month, 1),
                                     Ask(month - 1, 0), Ask(month, -1),    Ask(month + 1, 0)};
    EXPECT_EQ((std::vector<int>{month - 1, month, 0, 0, month - 1, month}), months);
    Begin({"a 0 " + At(midnight - 5, last + 5)});  // across the midnight: belongs to both months
    EXPECT_EQ(month, Ask(month - 1, 1));
    EXPECT_EQ(month - 1, Ask(month, 0));
  }
}

// To the driver, that is; so it is the answer for later months as well, but for no other.
TEST_F(MonthTest, ARecordingInProgressGoesOnForEver) {
  constexpr int kNewYear = 1704067200;
  Add("usbdisk1 0 " + Text("7:%d", kNewYear + 60 - kT));
  EXPECT_EQ(2024 * 12, Ask(2024 * 12 + 4, 1));
  EXPECT_EQ(2024 * 12, Ask(2024 * 12 + 4, 0));
  EXPECT_EQ(0, Ask(2024 * 12, 0));
  const std::pair<int, int> months[] = {{2024, 0},        {2024, 13},      {2024, INT_MIN}, {2024, INT_MAX},
                                        {INT_MAX, 12},    {INT_MIN, 1},    {INT_MIN, 12},   {INT_MAX, 1},
                                        {-2147481749, 1}, {2147483646, 6}, {2107, 1},       {1969, 6}};
  for (const auto& [year, month] : months) {
    for (const int direction : {0, 1}) {
      int foundYear = -1, foundMonth = -1;
      EXPECT_EQ(0u, mManager->GetRecentlyMonthInfo(year, month, foundYear, foundMonth, direction))
          << year << " " << month << " " << direction;
    }
  }
}

// What one call asks once stands only while it can: not after a failure, nor after a change of a directory's
// twin.
TEST_F(ManagerQueryTest, AsksAgainWhatMayHaveChanged) {
  Begin({"sda1 1 1:0-10 1:20"});
  int out = 0, last = 0, counts = 0;
  flc_spy::gAnswer = [&](unsigned long number, void*, int& result) {
    result = -1;
    return number == FLC_FILE_COUNT && counts++ == 0;
  };
  EXPECT_EQ(1, mManager->GetTimeRange(out, last));
  flc_spy::gAnswer = nullptr;
  EXPECT_EQ(kT + 10, last);

  Begin({"sda1 1"});
  EXPECT_EQ(0, mManager->MakeCheckInitDataRepository());
  FmgrRepositoryGroup* group = mManager->CurrentRepositoryGroup();
  EXPECT_EQ(1, group->DataRepositoryListUp(group->Path()));
  EXPECT_EQ(0, mManager->RemoveOldestRecordFile());
  EXPECT_EQ(1, group->GetDataRepositoryCount());
}

// What a call costs: the driver's requests, which a board pays for with system calls. None is made twice.
TEST_F(ManagerQueryTest, RequestsPerCall) {
  const std::vector<std::string> paths = BeginWalk();
  int out = 0, last = 0;
  std::string path;
  std::list<std::string> files;
  TimeSearchChart chart;
  chart.endTime = 1;
  ipc_menu_disk_stream_t menu{};
  menu.entries[3].inUse = mManager->mOverwrite = 1;
  timeval next{kT + 3000, 0};
  const ImfSearchCondition second{kT * 1000000LL, (kT + 1) * 1000000LL, 0, 1};
  const std::string disk = mManager->mGroups.front()->Path();
  std::memcpy(menu.entries[3].diskPath, disk.c_str(), disk.size());
  // Six directories: of each the start (its count and its oldest file), then its answer.
  const std::pair<size_t, std::function<int()>> rows[] = {
      {6 * 3, [&] { return mManager->GetFilePath(kT + 2, path, 1); }},
      {6 * 3, [&] { return mManager->GetTimeRange(out, last) - 1; }},
      {6 * 3, [&] { return mManager->CollectSearchData(&chart); }},
      {6 * 3, [&] { return mManager->CollectFileList(files, second); }},
      {3 * 3, [&] { return mManager->CollectTimeRange(menu) - 1; }},
      {6, [&] { return static_cast<int>(mManager->GetRecentlyMonthInfo(2010, 1, out, last, 1)) - 1; }},
      {1, [&] { return static_cast<int>(mManager->GetNextFilePath(paths[12], path)); }},
      {1, [&] { return static_cast<int>(mManager->GetPrevFilePath(paths[12], path)); }},
      {6 * 2 + 1, [&] { return mManager->CheckRepositoryChangeCondition(kT + 3000), 0; }},
      // Whether a disk is without recordings, the next one's oldest file out, its place in the pool; then in.
      {6 + 6, [&] { return mManager->MakeRecordFile(next, path); }},
      {2, [&] { return mManager->RenameRecordFile(path, kT + 3090, 1, path); }},
  };
  for (const auto& [requests, call] : rows) {
    flc_spy::Clear();
    EXPECT_EQ(0, call()) << "of " << requests << " requests";
    const std::vector<std::string> sent = flc_spy::Sent();
    EXPECT_EQ(requests, sent.size()) << testing::PrintToString(sent);
    const std::set<std::string> different(sent.begin(), sent.end());
    EXPECT_EQ(requests == 12 ? 10 : requests, different.size());
  }
}

}  // namespace
