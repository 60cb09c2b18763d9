// What a timeline shows, and the arithmetic of drawing one. No disk access.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace recorder {

// All times are seconds since the epoch; an end is outside.
struct Span {
  int64_t begin = 0;
  int64_t end = 0;
  bool growing = false;  // being recorded right now

  bool operator==(const Span& other) const {
    return begin == other.begin && end == other.end && growing == other.growing;
  }
};

struct TimelineRow {
  std::string label;
  std::vector<Span> spans;  // in ascending order; neighbours may touch and, by rounding, overlap
};

struct Timeline {
  int64_t since = 0;
  int64_t until = 0;
  std::vector<TimelineRow> channels;
  std::vector<TimelineRow> disks;
  // Where the recordings before the timeline end and those after it start; 0 when there are none. What reaches
  // over an edge counts: then it is the edge itself.
  int64_t before = 0;
  int64_t after = 0;
};

// The spans as disjoint ones within the bounds; what is growing stays apart from what is not.
std::vector<Span> Merge(const std::vector<Span>& spans, int64_t since, int64_t until);
// What the row leaves open between recordings; the edges count where recordings lie beyond them.
std::vector<Span> GapsOf(const TimelineRow& row, const Timeline& timeline);
// Share of the timeline that is recorded, 0 to 1.
double CoverageOf(const TimelineRow& row, const Timeline& timeline);

constexpr int kFullLevel = 4;
struct Cell {
  int level = 0;  // 0: nothing recorded; 1 to 3: part of it; kFullLevel: all of it
  bool growing = false;

  bool operator==(const Cell& other) const { return level == other.level && growing == other.growing; }
};
// The row cut into `width` cells of equal length. A gap of a second shows, however long a cell is.
std::vector<Cell> CellsOf(const TimelineRow& row, const Timeline& timeline, int width);

struct Tick {
  int64_t time = 0;
  std::string label;
  std::string day;  // the date, at the first tick of a day (and of the timeline)
};
// Marks at round moments of local time, at most `limit` of them (at least 2), for a span of time of at least a
// second.
std::vector<Tick> TicksOf(int64_t since, int64_t until, int limit);

// What to say of recordings beyond the edges; empty when there are none.
std::string HintBefore(const Timeline& timeline);
std::string HintAfter(const Timeline& timeline);

// The timeline as lines of text, `width` columns wide. Colours are those of a terminal.
std::string DrawText(const Timeline& timeline, int width, bool colours);
// The timeline as a picture, 1200 pixels wide: an SVG when `svg`, else a PNG. Empty, or why it could not be
// written.
std::string DrawPicture(const Timeline& timeline, const std::string& path, bool svg);

}  // namespace recorder
