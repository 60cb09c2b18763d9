// The arithmetic of timelines: what a cell shows, what counts as a gap, and where the marks of the time axis
// stand.
#include <cairo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Timeline.h"

namespace recorder {
namespace {

// '.' nothing, '1' to '3' a part, '#' all of it, 'w' being recorded.
std::string Cells(const std::vector<Span>& spans, int64_t since, int64_t until, int width) {
  std::string text;
  Timeline timeline;
  timeline.since = since;
  timeline.until = until;
  for (const Cell& cell : CellsOf({"", spans}, timeline, width))
    text += cell.growing ? 'w' : ".123#"[cell.level];
  return text;
}

TEST(Timeline, CellsShowEveryGap) {
  const std::tuple<std::vector<Span>, int64_t, int64_t, int, const char*> cases[] = {
      {{{20, 31}, {30, 50}}, 0, 100, 10, "..###....."},  // ends are rounded up: no overlap counts twice
      {{{0, 50000}, {50001, 100000}}, 0, 100000, 10, "#####3####"},  // one second of a day
      {{{-50, 5}, {44, 45}, {95, 200}}, 0, 100, 10, "2...1....2"},
      {{{0, 1}, {2, 3}}, 0, 3, 7, "##2.2##"},  // no whole number of cells a second
      {{{0, 60}, {60, 75, true}}, 0, 100, 10, "######ww.."},
      {{{100, 200}, {0, 10}}, 0, 100, 10, "#........."},  // in any order
  };
  for (const auto& [spans, since, until, width, cells] : cases)
    EXPECT_EQ(Cells(spans, since, until, width), cells);
}

TEST(Timeline, GapsLieBetweenRecordings) {
  Timeline timeline;
  timeline.since = 100;
  timeline.until = 200;
  const TimelineRow row = {"", {{110, 121}, {120, 130}, {131, 150}, {150, 160, true}}};
  EXPECT_EQ(GapsOf(row, timeline), (std::vector<Span>{{130, 131}}));
  EXPECT_DOUBLE_EQ(CoverageOf(row, timeline), 0.49);
  timeline.before = 90;  // then it is known that something was recorded around the timeline
  timeline.after = 300;
  EXPECT_EQ(GapsOf(row, timeline), (std::vector<Span>{{100, 110}, {130, 131}, {160, 200}}));
}

TEST(Timeline, SaysWhatAColumnIs) {
  const std::pair<int64_t, const char*> cases[] = {
      {1, ", 0.014 s a column"}, {710, ", 10.0 s a"}, {36000, ", 8:27 a"}, {36000000, ", 5.9 days a"}};
  for (const auto& [length, step] : cases) {
    const std::string text = DrawText({0, length, {}, {}, 0, 0}, 80, false);
    EXPECT_NE(text.find(step), std::string::npos) << text;
  }
}

TEST(Timeline, LongNamesKeepWithinAPicture) {
  const std::string path = testing::TempDir() + "/timeline_test.png";
  for (const size_t length : {1, 16, 32}) {
    ASSERT_EQ(DrawPicture({0, 10, {{std::string(length, 'W'), {}}}, {}, 0, 0}, path, false), "");
    cairo_surface_t* const picture = cairo_image_surface_create_from_png(path.c_str());
    const unsigned char* const rows = cairo_image_surface_get_data(picture);
    for (int y = 0; y < cairo_image_surface_get_height(picture); y++) {
      const unsigned char* const row = rows + y * cairo_image_surface_get_stride(picture);
      EXPECT_EQ(std::count(row, row + 18 * 4, 0xff), 18 * 4) << y;
    }
    cairo_surface_destroy(picture);
  }
}

// Marks are round on the clock on the wall, in each zone, also over a change of clock, and neither too few nor
// too many whatever the length.
TEST(Timeline, TicksAreRoundInLocalTime) {
  for (const char* zone : {"UTC", "Europe/Berlin", "America/St_Johns", "Asia/Kathmandu"}) {
    setenv("TZ", zone, 1);
    tzset();
    for (const char* start : {"2024-03-30T13:07:11", "2024-10-26T22:59:59", "2024-11-02T21:00:00"}) {
      const int64_t since = *ParseTime(start) / kMicros;
      for (int64_t length = 10; length < 2000000000; length = length * 7 / 5) {
        const std::vector<Tick> ticks = TicksOf(since, since + length, 11);
        ASSERT_LE(ticks.size(), 13u) << zone << " " << length;  // an hour that comes twice may add one
        ASSERT_TRUE(ticks.size() >= 2 || length > 150000000) << zone << " " << length;
        for (size_t i = 0; i < ticks.size(); i++) {
          const time_t time = ticks[i].time;
          SCOPED_TRACE(zone + FormatTime(time));
          std::tm local{};
          localtime_r(&time, &local);
          ASSERT_TRUE(time >= since && time <= since + length);
          ASSERT_TRUE(i == 0 || time > ticks[i - 1].time);
          ASSERT_TRUE(local.tm_sec == 0 || length < 600);
          ASSERT_TRUE(local.tm_min % 30 == 0 || length < int64_t{3} * 3600);
          ASSERT_TRUE(local.tm_min == 0 || length < int64_t{20} * 3600);
          const int hours = length < int64_t{11} * 3600 ? 1 : length < int64_t{22} * 3600 ? 2 : 3;
          ASSERT_EQ(local.tm_hour % hours, 0);
          ASSERT_TRUE(local.tm_hour == 0 || length < int64_t{14} * 86400);
          ASSERT_TRUE(local.tm_mday == 1 || length < int64_t{400} * 86400);
        }
      }
    }
  }
}

}  // namespace
}  // namespace recorder
