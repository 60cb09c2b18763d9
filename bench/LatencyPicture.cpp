#include "bench/LatencyPicture.h"

#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {

namespace {

constexpr double kWidth = 1200;
constexpr double kHeight = 640;
constexpr double kLeft = 110;
constexpr double kRight = 60;
constexpr double kTop = 110;
constexpr double kBottom = 90;
constexpr double kFont = 17;

struct Colour {
  double red, green, blue;
};
constexpr Colour kInk = {0.13, 0.15, 0.18};
constexpr Colour kFaint = {0.42, 0.45, 0.5};
constexpr Colour kOurs = {0.05, 0.42, 0.72};
constexpr Colour kTheirs = {0.85, 0.37, 0.05};

class Plot {
 public:
  // Decades of seconds across, of shares up to 1.
  Plot(int firstDecade, int lastDecade, double leastShare)
      : mFirst(firstDecade), mLast(lastDecade), mLeast(std::log10(leastShare)) {
    mSurface =
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(kWidth), static_cast<int>(kHeight));
    mCairo = cairo_create(mSurface);
    cairo_set_source_rgb(mCairo, 1, 1, 1);
    cairo_paint(mCairo);
  }
  ~Plot() {
    cairo_destroy(mCairo);
    cairo_surface_destroy(mSurface);
  }
  Plot(const Plot&) = delete;
  Plot& operator=(const Plot&) = delete;

  void Axes() {
    static const char* const kTimes[] = {"1 \u00b5s", "10 \u00b5s", "100 \u00b5s", "1 ms",
                                         "10 ms",     "100 ms",     "1 s",         "10 s"};
    for (int decade = mFirst; decade <= mLast; ++decade) {
      Line(X(std::pow(10, decade)), kTop, X(std::pow(10, decade)), kHeight - kBottom, 0.82);
      Text(kTimes[decade + 6], X(std::pow(10, decade)), kHeight - kBottom + 26, 0.5, kFaint, kFont);
      for (int part = 2; decade < mLast && part < 10; ++part) {
        Line(X(part * std::pow(10, decade)), kTop, X(part * std::pow(10, decade)), kHeight - kBottom, 0.94);
      }
    }
    for (const double share : {1.0, 0.5, 0.2, 0.1, 0.05, 0.02, 0.01}) {
      if (std::log10(share) < mLeast) continue;
      char label[16];
      std::snprintf(label, sizeof label, "%.0f %%", share * 100);
      Line(kLeft, Y(share), kWidth - kRight, Y(share), 0.86);
      Text(label, kLeft - 12, Y(share) + 6, 1, kFaint, kFont);
    }
    Text("time until there is a file to write to", (kLeft + kWidth - kRight) / 2, kHeight - 28, 0.5, kInk,
         kFont);
  }
  // Steps down from all to the one that took longest, which is marked. The name stands beside `labelShare`.
  void Curve(std::vector<double> seconds, const Colour& colour, const std::string& name, double labelShare,
             bool isFirst) {
    std::sort(seconds.begin(), seconds.end());
    const auto count = static_cast<double>(seconds.size());
    Use(colour);
    cairo_set_line_width(mCairo, 3);
    cairo_move_to(mCairo, X(seconds.front()), Y(1));
    for (size_t i = 0; i < seconds.size(); ++i) {
      const double share = (count - static_cast<double>(i)) / count;
      cairo_line_to(mCairo, X(seconds[i]), Y(share));
      if (i + 1 < seconds.size()) cairo_line_to(mCairo, X(seconds[i]), Y(share - 1 / count));
    }
    cairo_stroke(mCairo);
    cairo_arc(mCairo, X(seconds.back()), Y(1 / count), 6, 0, 7);
    cairo_fill(mCairo);
    char worst[48];
    std::snprintf(worst, sizeof worst, "worst %.*f ms", seconds.back() < 0.1 ? 1 : 0, seconds.back() * 1e3);
    // Before the mark for the first curve, behind it for the other one where there is room: they may be close.
    const bool before = isFirst || X(seconds.back()) > kWidth - kRight - 130;
    Text(worst, X(seconds.back()) + (before ? -12 : 12), Y(1 / count) - 12, before ? 1 : 0, colour, kFont);
    const double at = seconds[static_cast<size_t>(count * (1 - labelShare))];
    Text(name, X(at) + 16, Y(labelShare) - 10, 0, colour, kFont + 1, true);
  }
  void Text(const std::string& text, double x, double y, double align, const Colour& colour, double size,
            bool bold = false) {
    cairo_select_font_face(mCairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(mCairo, size);
    cairo_text_extents_t extents;
    cairo_text_extents(mCairo, text.c_str(), &extents);
    // Readable where it lies on a curve.
    cairo_move_to(mCairo, x - align * extents.x_advance, y);
    cairo_text_path(mCairo, text.c_str());
    cairo_set_source_rgb(mCairo, 1, 1, 1);
    cairo_set_line_width(mCairo, 5);
    cairo_stroke_preserve(mCairo);
    Use(colour);
    cairo_fill(mCairo);
  }
  std::string Write(const std::string& path) const {
    const cairo_status_t status = cairo_surface_write_to_png(mSurface, path.c_str());
    return status == CAIRO_STATUS_SUCCESS ? "" : cairo_status_to_string(status);
  }

 private:
  double X(double seconds) const {
    const double share = (std::log10(seconds) - mFirst) / (mLast - mFirst);
    return kLeft + share * (kWidth - kLeft - kRight);
  }
  double Y(double share) const { return kTop + std::log10(share) / mLeast * (kHeight - kTop - kBottom); }
  void Use(const Colour& colour) { cairo_set_source_rgb(mCairo, colour.red, colour.green, colour.blue); }
  void Line(double x1, double y1, double x2, double y2, double grey) {
    cairo_set_source_rgb(mCairo, grey, grey, grey);
    cairo_set_line_width(mCairo, 1);
    cairo_move_to(mCairo, std::round(x1) + 0.5, std::round(y1) + 0.5);
    cairo_line_to(mCairo, std::round(x2) + 0.5, std::round(y2) + 0.5);
    cairo_stroke(mCairo);
  }

  int mFirst;
  int mLast;
  double mLeast;
  cairo_surface_t* mSurface;
  cairo_t* mCairo;
};

int DecadeOf(double seconds) { return std::clamp(static_cast<int>(std::floor(std::log10(seconds))), -6, 0); }

}  // namespace

std::string DrawLatencies(const std::string& path, std::vector<double> handOuts,
                          std::vector<double> creations) {
  const auto [ourLeast, ourMost] = std::minmax_element(handOuts.begin(), handOuts.end());
  const auto [theirLeast, theirMost] = std::minmax_element(creations.begin(), creations.end());
  const size_t count = std::min(handOuts.size(), creations.size());
  Plot plot(DecadeOf(std::min(*ourLeast, *theirLeast)), DecadeOf(std::max(*ourMost, *theirMost)) + 1,
            0.8 / static_cast<double>(count));
  plot.Axes();
  plot.Text("Waiting for the next file beside 4 writers", kLeft, 44, 0, kInk, 25, true);
  plot.Text("Share that took longer than a time, " + std::to_string(count) +
                " of each in turns; files of 256 MiB, written without pause; ext4",
            kLeft, 76, 0, kFaint, kFont);
  plot.Curve(creations, kTheirs, "a file created by fallocate", 0.4, false);
  plot.Curve(handOuts, kOurs, "a file handed out", 0.012, true);
  return plot.Write(path);
}

}  // namespace bench
