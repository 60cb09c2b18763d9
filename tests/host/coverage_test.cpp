// When a channel has pictures: what ends a span.
#include "platform/host/imf/ImfCoverage.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

constexpr int64_t kSecond = 1000000;

void AddPicture(ImfCoverage* coverage, int64_t time, int64_t duration) {
  ImfEntry entry;
  entry.isPacket = true;
  entry.time = time;
  entry.duration = static_cast<uint32_t>(duration);
  coverage->Add(entry);
}

// Times and durations in tenths of a second; "0-50/1" is a picture at each tenth from 0 to 49, each lasting
// one.
struct Pictures {
  int64_t first, end, step, duration;
};

TEST(Coverage, SpansEndWherePicturesStayAway) {
  using Spans = std::vector<std::pair<int64_t, int64_t>>;
  const std::tuple<const char*, std::vector<Pictures>, Spans> cases[] = {
      {"ends early", {{0, 50, 1, 1}}, {{0, 50}}},
      {"two seconds are none", {{0, 50, 1, 1}, {69, 200, 1, 1}}, {{0, 200}}},
      {"the last picture claims to last all the gap",
       {{0, 49, 1, 1}, {49, 50, 1, 80}, {130, 200, 1, 1}},
       {{0, 49 + 1}, {130, 200}}},
      {"a picture every five seconds, once late", {{0, 300, 50, 0}, {320, 600, 50, 0}}, {{0, 620}}},
      {"one of these is missing", {{0, 300, 50, 1}, {350, 600, 50, 1}}, {{0, 251}, {350, 551}}},
      {"few pictures that say how long they last", {{0, 600, 300, 300}}, {{0, 600}}},
      {"few pictures of a fast camera", {{0, 160, 80, 1}}, {{0, 1}, {80, 81}}},
      {"shown in another order than written",
       {{0, 1, 1, 10}, {30, 31, 1, 10}, {10, 30, 10, 10}, {40, 70, 10, 10}},
       {{0, 70}}},
      {"backwards", {{130, 200, 1, 1}, {0, 50, 1, 1}}, {{0, 50}, {130, 200}}},
  };
  for (const auto& [what, pictures, expected] : cases) {
    SCOPED_TRACE(what);
    ImfCoverage coverage;
    for (const Pictures& each : pictures) {
      for (int64_t at = each.first; at < each.end; at += each.step)
        AddPicture(&coverage, at * kSecond / 10, each.duration * kSecond / 10);
    }
    const std::vector<PictureSpan> spans = coverage.Spans();
    ASSERT_EQ(spans.size(), expected.size());
    for (size_t i = 0; i < spans.size(); ++i) {
      EXPECT_EQ(spans[i].begin, expected[i].first * kSecond / 10);
      EXPECT_NEAR(static_cast<double>(spans[i].end - expected[i].second * kSecond / 10), 0, 60000);
    }
  }
}

// However many gaps there are, memory is bounded; forged times overflow nothing.
TEST(Coverage, IsBounded) {
  ImfCoverage coverage;
  for (int64_t i = 0; i < 50000; ++i) AddPicture(&coverage, (i * 7919 % 50000) * 10 * kSecond, i % 3);
  for (const int64_t time : {INT64_MIN, int64_t{-1}, INT64_MAX}) AddPicture(&coverage, time, UINT32_MAX);
  const std::vector<PictureSpan> spans = coverage.Spans();
  ASSERT_TRUE(!spans.empty() && spans.size() <= 4096) << spans.size();
  EXPECT_EQ(spans.front().begin, 0);
  EXPECT_GE(spans.back().end, 499990 * kSecond);
  EXPECT_LE(spans.back().end, 500100 * kSecond);
}

}  // namespace
