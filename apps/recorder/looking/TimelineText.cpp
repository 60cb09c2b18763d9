#include <algorithm>
#include <cstdio>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Timeline.h"

namespace recorder {

namespace {

constexpr int kTickColumns = 12;     // for a label and some room
constexpr int kCoverageColumns = 9;  // behind a row: "  100.0 %"

constexpr const char* kBlocks[] = {"\u00b7", "\u2591", "\u2592", "\u2593", "\u2588"};  // · ░ ▒ ▓ █
constexpr const char* kGrowing = "\u259e";                                             // ▞
constexpr const char* kLeft = "\u25c0";                                                // ◀
constexpr const char* kRight = "\u25b6";                                               // ▶

class Pen {
 public:
  explicit Pen(bool colours) : mColours(colours) {}
  // Text in a colour of the terminal, changed only where it has to be.
  void Put(const char* colour, const std::string& text) {
    if (mColours && colour != mColour) mText += std::string("\033[") + colour + "m";
    mColour = colour;
    mText += text;
  }
  void EndLine() {
    Put(kPlain, "");
    mText += "\n";
  }
  const std::string& Text() const { return mText; }

  static constexpr const char* kPlain = "0";
  static constexpr const char* kFaint = "2";
  static constexpr const char* kRecorded = "32";
  static constexpr const char* kPart = "33";
  static constexpr const char* kHot = "31";

 private:
  const bool mColours;
  const char* mColour = kPlain;
  std::string mText;
};

size_t ColumnsOf(const std::string& text) {
  return static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string Padded(const std::string& text, size_t width) {
  return text + std::string(width > ColumnsOf(text) ? width - ColumnsOf(text) : 0, ' ');
}

// What a column stands for: from thousandths of a second to weeks.
std::string FormatStep(double seconds) {
  constexpr double kMinute = 60;
  constexpr double kDay = 86400;
  if (seconds >= kMinute && seconds < 2 * kDay) return FormatDuration(seconds);
  char text[32];
  std::snprintf(text, sizeof text,
                seconds < 1         ? "%.2g s"
                : seconds < kMinute ? "%.1f s"
                                    : "%.1f days",
                seconds < kMinute ? seconds : seconds / kDay);
  return text;
}

void PutCells(const TimelineRow& row, const Timeline& timeline, int width, Pen* pen) {
  for (const Cell& cell : CellsOf(row, timeline, width)) {
    const char* colour = cell.growing               ? Pen::kHot
                         : cell.level == 0          ? Pen::kFaint
                         : cell.level == kFullLevel ? Pen::kRecorded
                                                    : Pen::kPart;
    pen->Put(colour, cell.growing ? kGrowing : kBlocks[cell.level]);
  }
}

// A line of labels that start in the columns of their ticks; one that would touch the one before is left out.
std::string TickLine(const std::vector<Tick>& ticks, std::string Tick::*text, const Timeline& timeline,
                     int width) {
  std::string line;
  for (const Tick& tick : ticks) {
    const auto column =
        static_cast<size_t>((tick.time - timeline.since) * width / (timeline.until - timeline.since));
    const std::string& label = tick.*text;
    if (label.empty() || (column < line.size() + 1 && !line.empty()) ||
        column + label.size() > static_cast<size_t>(width)) {
      continue;
    }
    line.resize(column, ' ');
    line += label;
  }
  return line;
}

}  // namespace

std::string DrawText(const Timeline& timeline, int width, bool colours) {
  size_t labels = 0;
  for (const auto* rows : {&timeline.channels, &timeline.disks}) {
    for (const TimelineRow& row : *rows) labels = std::max(labels, ColumnsOf(Printable(row.label)) + 1);
  }
  const int cells = std::max(20, width - static_cast<int>(labels) - kCoverageColumns);
  const std::string margin(labels, ' ');
  const std::vector<Tick> ticks = TicksOf(timeline.since, timeline.until, cells / kTickColumns);

  Pen pen(colours);
  char text[160];
  std::snprintf(text, sizeof text, "%s to %s, %s a column", FormatTime(timeline.since).c_str(),
                FormatTime(timeline.until).c_str(),
                FormatStep(static_cast<double>(timeline.until - timeline.since) / cells).c_str());
  pen.Put(Pen::kPlain, text);
  pen.EndLine();
  for (std::string Tick::*what : {&Tick::day, &Tick::label}) {
    const std::string line = TickLine(ticks, what, timeline, cells);
    if (line.empty()) continue;
    pen.Put(Pen::kPlain, margin + line);
    pen.EndLine();
  }
  for (const auto* rows : {&timeline.channels, &timeline.disks}) {
    for (const TimelineRow& row : *rows) {
      pen.Put(Pen::kPlain, Padded(Printable(row.label), labels));
      PutCells(row, timeline, cells, &pen);
      std::snprintf(text, sizeof text, "  %5.1f %%", 100 * CoverageOf(row, timeline));
      pen.Put(Pen::kPlain, text);
      pen.EndLine();
    }
  }
  if (timeline.before != 0) {
    pen.Put(Pen::kPlain, margin + kLeft + " " + HintBefore(timeline));
    pen.EndLine();
  }
  if (timeline.after != 0) {
    pen.Put(Pen::kPlain, margin + kRight + " " + HintAfter(timeline));
    pen.EndLine();
  }
  pen.Put(Pen::kPlain, margin);
  const auto key = [&](const char* colour, const std::string& block, const char* meaning) {
    pen.Put(colour, block);
    pen.Put(Pen::kPlain, meaning);
  };
  key(Pen::kRecorded, kBlocks[kFullLevel], " recorded  ");
  key(Pen::kPart, std::string(kBlocks[3]) + kBlocks[2] + kBlocks[1], " in part  ");
  key(Pen::kFaint, kBlocks[0], " nothing  ");
  key(Pen::kHot, kGrowing, " being recorded");
  pen.EndLine();
  return pen.Text();
}

}  // namespace recorder
