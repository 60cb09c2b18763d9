#include <cairo-svg.h>
#include <cairo.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Timeline.h"

namespace recorder {

namespace {

struct Colour {
  int rgb;
};
constexpr Colour kPaper = {0xffffff};
constexpr Colour kInk = {0x24292f};
constexpr Colour kFaintInk = {0x6a737d};
constexpr Colour kGrid = {0xdfe3e8};
constexpr Colour kEmpty = {0xf1f3f5};
constexpr Colour kRecorded = {0x2f6fb7};
constexpr Colour kGrowing = {0xf08c1a};
constexpr Colour kGap = {0xc8322b};
constexpr Colour kGapPaper = {0xfbe4e1};
constexpr Colour kDisks[] = {{0x2a9d8f}, {0x8e6bb8}, {0xa9742f}, {0xc9589a}, {0x6b8e23}};

// Pixels.
constexpr double kWidth = 1200;
constexpr double kMargin = 20;
constexpr double kLabelsLeast = 78;          // labels stand in front of the rows
constexpr double kLabelsMost = 300;          // what is longer is cut off
constexpr double kLabelDistance = 12;        // from the rows
constexpr double kRowsRight = kWidth - 150;  // of the rows; how much is recorded stands behind them
constexpr double kTop = 66;
constexpr double kChannelHeight = 24;
constexpr double kDiskHeight = 12;
constexpr double kRowDistance = 9;
constexpr double kFooter = 80;  // axis and legend
constexpr double kHints = 24;
constexpr double kText = 13;
constexpr double kTickDistance = 84;

enum class Align { kLeft, kCentre, kRight };

class Picture {
 public:
  Picture(const Timeline& timeline, const std::string& path, bool svg)
      : mTimeline(timeline), mSvg(svg), mFile(std::fopen(path.c_str(), "wb")) {
    mError = mFile == nullptr ? errno : 0;
    mBottom = kTop + RowsHeight(timeline.channels, kChannelHeight) + kRowDistance +
              RowsHeight(timeline.disks, kDiskHeight);
    mHints = timeline.before != 0 || timeline.after != 0 ? kHints : 0;
    const double height = mBottom + kFooter + mHints;
    mSurface.reset(svg ? cairo_svg_surface_create_for_stream(&Picture::Write, this, kWidth, height)
                       : cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(kWidth),
                                                    static_cast<int>(height)));
    if (svg) cairo_svg_surface_set_document_unit(mSurface.get(), CAIRO_SVG_UNIT_PX);
    mCairo.reset(cairo_create(mSurface.get()));
    for (const auto* rows : {&timeline.channels, &timeline.disks}) {
      for (const TimelineRow& row : *rows) mLabels.push_back(Elided(Printable(row.label)));
    }
    double widest = kLabelsLeast;
    for (const std::string& label : mLabels) widest = std::max(widest, WidthOf(label));
    mRowsLeft = std::ceil(kMargin + widest + kLabelDistance);
    Fill(kPaper, 0, 0, kWidth, height);
  }

  std::string Draw() {
    DrawTitle();
    DrawGrid();
    double y = kTop;
    const std::string* label = mLabels.data();
    for (const TimelineRow& row : mTimeline.channels) {
      DrawRow(row, *label++, kRecorded, y, kChannelHeight, true);
      y += kChannelHeight + kRowDistance;
    }
    y += kRowDistance;
    size_t disk = 0;
    for (const TimelineRow& row : mTimeline.disks) {
      DrawRow(row, *label++, kDisks[disk++ % std::size(kDisks)], y, kDiskHeight, false);
      y += kDiskHeight + kRowDistance;
    }
    DrawAxis();
    DrawHints();
    DrawLegend();
    return Finish();
  }

 private:
  struct SurfaceDeleter {
    void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  };
  struct FileDeleter {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  struct CairoDeleter {
    void operator()(cairo_t* cairo) const { cairo_destroy(cairo); }
  };

  static double RowsHeight(const std::vector<TimelineRow>& rows, double height) {
    return static_cast<double>(rows.size()) * (height + kRowDistance);
  }

  double X(int64_t time) const {
    const double share =
        static_cast<double>(time - mTimeline.since) / static_cast<double>(mTimeline.until - mTimeline.since);
    return mRowsLeft + (kRowsRight - mRowsLeft) * share;
  }

  void SetColour(Colour colour) {
    cairo_set_source_rgb(mCairo.get(), (colour.rgb >> 16) / 255.0, (colour.rgb >> 8 & 255) / 255.0,
                         (colour.rgb & 255) / 255.0);
  }

  void Fill(Colour colour, double x, double y, double width, double height) {
    SetColour(colour);
    cairo_rectangle(mCairo.get(), x, y, width, height);
    cairo_fill(mCairo.get());
  }

  void Line(Colour colour, double x, double top, double bottom) {
    Fill(colour, static_cast<int>(x), top, 1, bottom - top);
  }

  // Chooses the font as well.
  double WidthOf(const std::string& text, bool bold = false, double size = kText) {
    cairo_t* cairo = mCairo.get();
    cairo_select_font_face(cairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cairo, size);
    cairo_text_extents_t extents;
    cairo_text_extents(cairo, text.c_str(), &extents);
    return extents.x_advance;
  }

  // The text, or as much of it as there is room for before an ellipsis.
  std::string Elided(std::string text) {
    if (WidthOf(text) <= kLabelsMost) return text;
    while (!text.empty() && WidthOf(text + "\u2026") > kLabelsMost) {
      while ((text.back() & 0xc0) == 0x80) text.pop_back();  // the rest of a character
      text.pop_back();
    }
    return text + "\u2026";
  }

  // `y` is the middle of the line. Returns the width.
  double Text(Colour colour, double x, double y, const std::string& text, Align align, bool bold = false,
              double size = kText) {
    cairo_t* cairo = mCairo.get();
    const double width = WidthOf(text, bold, size);
    const double shift = align == Align::kLeft ? 0 : align == Align::kRight ? width : width / 2;
    SetColour(colour);
    cairo_move_to(cairo, x - shift, y + size * 0.36);
    cairo_show_text(cairo, text.c_str());
    return width;
  }

  // A triangle that points to the left (direction -1) or right (1), its tip at `x`.
  void Arrow(Colour colour, double x, double y, int direction) {
    SetColour(colour);
    cairo_move_to(mCairo.get(), x, y);
    cairo_line_to(mCairo.get(), x - 8 * direction, y - 5);
    cairo_line_to(mCairo.get(), x - 8 * direction, y + 5);
    cairo_fill(mCairo.get());
  }

  // Wide gaps are hatched, narrow ones are a line that can't be overlooked.
  void Gap(double x, double y, double width, double height) {
    constexpr double kNarrow = 6;
    if (width < kNarrow) return Fill(kGap, x, y, std::max(width, 2.0), height);
    cairo_t* cairo = mCairo.get();
    Fill(kGapPaper, x, y, width, height);
    cairo_save(cairo);
    cairo_rectangle(cairo, x, y, width, height);
    cairo_clip(cairo);
    SetColour(kGap);
    cairo_set_line_width(cairo, 0.8);
    constexpr double kDistance = 7;
    for (int line = 0; line < (width + height) / kDistance; line++) {
      const double at = x - height + line * kDistance;
      cairo_move_to(cairo, at, y + height);
      cairo_line_to(cairo, at + height, y);
    }
    cairo_stroke(cairo);
    cairo_restore(cairo);
    Fill(kGap, x, y, 1, height);
    Fill(kGap, x + width - 1, y, 1, height);
  }

  void DrawTitle() {
    const double width = Text(kInk, kMargin, 28, "Recordings", Align::kLeft, true, 18);
    Text(kFaintInk, kMargin + width + 14, 29,
         FormatTime(mTimeline.since) + "  to  " + FormatTime(mTimeline.until), Align::kLeft);
    Text(kFaintInk, kWidth - kMargin, kTop - 14, "recorded", Align::kRight, false, 11);
  }

  void DrawGrid() {
    mTicks =
        TicksOf(mTimeline.since, mTimeline.until, static_cast<int>((kRowsRight - mRowsLeft) / kTickDistance));
    for (const Tick& tick : mTicks) Line(kGrid, X(tick.time), kTop - 6, mBottom + 4);
  }

  void DrawRow(const TimelineRow& row, const std::string& label, Colour colour, double y, double height,
               bool isChannel) {
    const double middle = y + height / 2;
    Text(kInk, mRowsLeft - kLabelDistance, middle, label, Align::kRight);
    Fill(kEmpty, mRowsLeft, y, kRowsRight - mRowsLeft, height);
    const std::vector<Span> merged = Merge(row.spans, mTimeline.since, mTimeline.until);
    for (const Span& span : merged) {
      if (span.growing) continue;
      Fill(colour, X(span.begin), y, std::max(X(span.end) - X(span.begin), 1.0), height);
    }
    // Where a record file begins, unless it is so narrow that the mark would hide it.
    for (const Span& span : row.spans) {
      if (span.begin > mTimeline.since && X(span.end) - X(span.begin) >= 8)
        Line(kPaper, X(span.begin), y, y + height);
    }
    for (const Span& span : merged) {
      if (span.growing) Fill(kGrowing, X(span.begin), y, std::max(X(span.end) - X(span.begin), 3.0), height);
    }
    if (!isChannel) return;
    const std::vector<Span> gaps = GapsOf(row, mTimeline);
    for (const Span& gap : gaps) Gap(X(gap.begin), y, X(gap.end) - X(gap.begin), height);
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %%%s", 100 * CoverageOf(row, mTimeline),
                  gaps.empty() ? "" : (", " + FormatCount(static_cast<int64_t>(gaps.size()), "gap")).c_str());
    Text(kInk, kWidth - kMargin, middle, text, Align::kRight);
  }

  void DrawAxis() {
    const double y = mBottom + 4;
    Fill(kFaintInk, mRowsLeft, y, kRowsRight - mRowsLeft, 1);
    double dayEnd = 0;
    for (const Tick& tick : mTicks) {
      const double x = X(tick.time);
      Line(kFaintInk, x, y, y + 6);
      Text(kInk, x, y + 16, tick.label, Align::kCentre);
      if (tick.day.empty() || x - 10 < dayEnd || x > kRowsRight - 80) continue;
      dayEnd = x - 17 + Text(kFaintInk, x - 17, y + 33, tick.day, Align::kLeft, false, 12);
    }
  }

  void DrawHints() {
    const double y = mBottom + 60;
    if (mTimeline.before != 0) {
      Arrow(kRecorded, mRowsLeft, y, -1);
      Text(kInk, mRowsLeft + 14, y, HintBefore(mTimeline), Align::kLeft);
    }
    if (mTimeline.after != 0) {
      Arrow(kRecorded, kRowsRight, y, 1);
      Text(kInk, kRowsRight - 14, y, HintAfter(mTimeline), Align::kRight);
    }
  }

  void DrawLegend() {
    const double y = mBottom + 60 + mHints;
    double x = mRowsLeft;
    const auto entry = [&](const char* meaning) {
      x += 34 + Text(kFaintInk, x + 28, y, meaning, Align::kLeft) + 22;
    };
    Fill(kRecorded, x, y - 6, 22, 12);
    entry("recorded");
    Fill(kGrowing, x, y - 6, 22, 12);
    entry("being recorded");
    Gap(x, y - 6, 22, 12);
    entry("gap");
    Fill(kEmpty, x, y - 6, 22, 12);
    entry("nothing");
    if (mTimeline.disks.empty()) return;
    const size_t colours = std::min(mTimeline.disks.size(), std::size(kDisks));
    for (size_t i = 0; i < colours; i++) {
      const double width = 22.0 / static_cast<double>(colours);
      Fill(kDisks[i], x + width * static_cast<double>(i), y - 6, width, 12);
    }
    entry("recorded, by disk");
  }

  static cairo_status_t Write(void* self, const unsigned char* data, unsigned int size) {
    auto* const picture = static_cast<Picture*>(self);
    if (picture->mError == 0 && std::fwrite(data, 1, size, picture->mFile.get()) != size)
      picture->mError = errno;
    return picture->mError == 0 ? CAIRO_STATUS_SUCCESS : CAIRO_STATUS_WRITE_ERROR;
  }

  std::string Finish() {
    cairo_status_t status = cairo_status(mCairo.get());
    mCairo.reset();
    if (status == CAIRO_STATUS_SUCCESS && !mSvg)
      status = cairo_surface_write_to_png_stream(mSurface.get(), &Picture::Write, this);
    cairo_surface_finish(mSurface.get());
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_status(mSurface.get());
    if (mError == 0 && std::fclose(mFile.release()) != 0) mError = errno;
    if (mError != 0) return std::strerror(mError);
    return status == CAIRO_STATUS_SUCCESS ? std::string() : cairo_status_to_string(status);
  }

  const Timeline& mTimeline;
  const bool mSvg;
  std::unique_ptr<std::FILE, FileDeleter> mFile;  // outlives the surface that writes to it
  int mError = 0;                                 // of opening or writing the file
  std::vector<std::string> mLabels;               // of the channels, then of the disks
  double mRowsLeft = 0;
  double mBottom = 0;  // of the rows
  double mHints = 0;   // height
  std::vector<Tick> mTicks;
  std::unique_ptr<cairo_surface_t, SurfaceDeleter> mSurface;
  std::unique_ptr<cairo_t, CairoDeleter> mCairo;
};

}  // namespace

std::string DrawPicture(const Timeline& timeline, const std::string& path, bool svg) {
  return Picture(timeline, path, svg).Draw();
}

}  // namespace recorder
