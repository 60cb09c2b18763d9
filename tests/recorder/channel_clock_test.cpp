// What gives pictures their times, fed with streams as cameras and networks really deliver them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include "apps/recorder/capture/ChannelCapture.h"
#include "apps/recorder/capture/ChannelClock.h"
#include "apps/recorder/capture/ChannelHealth.h"
#include "apps/recorder/capture/PacketMerger.h"
#include "apps/recorder/capture/StampFiller.h"

namespace recorder {
namespace {

constexpr int64_t kSecond = 1000000;
constexpr int64_t kStart = 1000 * kSecond;  // monotonic
constexpr int64_t kNever = INT64_MAX;

struct Sent {
  int64_t taken;    // monotonic
  int64_t arrival;  // monotonic
  StreamStamps stamps;
  std::optional<int64_t> camera;
  int channel;
  int64_t time;  // given by the clock under test
};

// 25 pictures a second by a camera whose clock runs `ppm` fast, decoded in the order I P b b P b b when
// `reordered`. Nothing of [stallFrom, stallTo) arrives before its end.
struct Camera {
  double ppm = 0;
  bool reordered = false;
  int64_t jitter = 0;
  int64_t stallFrom = kNever;
  int64_t stallTo = kNever;
  int64_t jumpAt = kNever;  // stream time moves by `jump` from there on
  int64_t jump = 0;
  int64_t store = 0;  // what was taken before the connection is given within its first 0.4 s
  std::optional<int64_t> cameraOff = std::nullopt;
  int64_t uneven = 0;  // what a reference picture is shown nearer to the one after it

  std::vector<Sent> Send(int64_t seconds, int channel = 0) const {
    std::vector<Sent> all;
    std::mt19937 random(7);
    const int64_t step = kSecond / 25;
    for (int64_t i = 0; i < seconds * 25; i++) {
      Sent sent = {};
      sent.channel = channel;
      const int64_t shown = !reordered || i == 0 ? i : i % 3 == 1 ? i + 2 : i - 1;
      const int64_t late = reordered && i % 3 == 1 ? uneven : 0;
      sent.taken = kStart - store + shown * step + late;
      const auto stamp = [&](int64_t picture) {
        const auto passed = static_cast<double>(picture * step);
        const int64_t at = kStart - store + i * step;
        return static_cast<int64_t>(passed * (1 + ppm / 1e6)) + 5000 * kSecond + (at >= jumpAt ? jump : 0);
      };
      sent.stamps = {stamp(shown) + late, stamp(reordered ? i - 1 : i)};
      sent.arrival = std::max(kStart - store + i * step, sent.taken);
      if (sent.arrival < kStart) sent.arrival = kStart + i * kSecond * 2 / 5 * kSecond / 25 / store;
      if (jitter > 0) sent.arrival += static_cast<int64_t>(random() % static_cast<uint64_t>(jitter));
      if (sent.arrival >= stallFrom && sent.arrival < stallTo) sent.arrival = stallTo + i;
      if (!all.empty()) sent.arrival = std::max(sent.arrival, all.back().arrival);
      if (cameraOff) sent.camera = sent.taken + *cameraOff;
      all.push_back(sent);
    }
    return all;
  }
};

// As the merger uses the clock: a packet is placed when a quarter of a second has passed, or all is learned.
std::vector<Sent> Place(ChannelClock* clock, std::vector<Sent> packets) {
  std::vector<ChannelClock::Tie> ties;
  size_t next = 0;
  const auto placeUntil = [&](int64_t now) {
    for (; next < ties.size(); next++) {
      Sent& sent = packets[next];
      if (now < std::max(sent.arrival + kSecond / 4, clock->LearnedAt(ties[next]))) return;
      sent.time = clock->Place(ties[next], sent.arrival, sent.stamps);
    }
  };
  for (const Sent& sent : packets) {
    placeUntil(sent.arrival);
    ties.push_back(clock->Arrive(sent.arrival, sent.stamps, sent.camera));
  }
  placeUntil(kNever);
  EXPECT_EQ(next, packets.size());
  return packets;
}

// Milliseconds between a picture's time and when it was taken, at most, from `from` seconds after the start.
double LargestError(const std::vector<Sent>& placed, int64_t from = 0) {
  int64_t error = 0;
  for (const Sent& p : placed) {
    if (p.taken >= kStart + from * kSecond) error = std::max(error, std::abs(p.time - p.taken));
  }
  return static_cast<double>(error) / 1000;
}

// By the monotonic clock, and so by a time of day that is set back before the first picture and followed
// slowly.
void ExpectOrder(std::vector<Sent> placed, bool isOfDay = false) {
  const auto decoded = [](const Sent& p) { return p.time - (p.stamps.pts - p.stamps.dts); };
  for (size_t i = 1; i < placed.size(); i++) ASSERT_GT(decoded(placed[i]), decoded(placed[i - 1])) << i;
  MachineClock machine;
  ChannelDay day;
  machine.Look(0, 0);
  std::vector<Sent> ofDay = placed;
  for (Sent& p : ofDay) {
    machine.Look(p.arrival, p.arrival - 4 * kSecond);
    p.time = day.TimeOfDay(machine, p.time, decoded(p));
  }
  std::sort(placed.begin(), placed.end(), [](const Sent& a, const Sent& b) { return a.taken < b.taken; });
  for (size_t i = 1; i < placed.size(); i++) ASSERT_GT(placed[i].time, placed[i - 1].time) << i;
  if (!isOfDay) ExpectOrder(ofDay, true);
}

TEST(ChannelClock, TellsWhenPicturesWereTaken) {
  const std::tuple<const char*, Camera, int64_t, int64_t, double> cases[] = {
      // name, camera, seconds, seconds after which, the largest error in milliseconds
      {"good", {}, 60, 0, 1},
      {"jitter", {0, false, kSecond / 5}, 60, 10, 20},
      {"fast", {500}, 7200, 0, 25},
      {"slow, reordered", {-500, true}, 7200, 0, 25},
      {"stall", {0, true, 0, kStart + 20 * kSecond, kStart + 25 * kSecond}, 60, 0, 5},
      {"in store", {0, true, 0, kNever, kNever, kNever, 0, 7 * kSecond}, 60, 0, 5},
      {"set forward", {0, false, 0, kNever, kNever, kStart + 20 * kSecond, 3600 * kSecond}, 60, 0, 5},
      {"set back", {0, false, 0, kNever, kNever, kStart + 20 * kSecond, -30 * kSecond}, 60, 0, 5},
      {"camera knows better", {0, false, 2 * kSecond, kNever, kNever, kNever, 0, 0, 0}, 60, 20, 1},
      {"camera is not believed", {0, false, 0, kNever, kNever, kNever, 0, 0, -3600 * kSecond}, 60, 0, 1},
  };
  for (const auto& [name, camera, seconds, from, largest] : cases) {
    SCOPED_TRACE(name);
    ChannelClock clock;
    const std::vector<Sent> placed = Place(&clock, camera.Send(seconds));
    EXPECT_LE(LargestError(placed, from), largest);
    ExpectOrder(placed);
    EXPECT_EQ(clock.IsCameraRefused(), camera.cameraOff.value_or(0) != 0);
  }
}

// A connection that begins in a stall is known to be late as soon as a packet comes on time. One whose packets
// are late for good is not, and its pictures move over slowly, or as quickly as their order allows when it is
// by more than a second.
TEST(ChannelClock, CorrectsWhatItLearnedWrong) {
  for (const auto& [late, from] : {std::pair(kSecond * 3 / 5, 30), std::pair(3 * kSecond, 19)}) {
    Camera camera;
    camera.reordered = true;
    std::vector<Sent> packets = camera.Send(60);
    for (Sent& sent : packets) {
      if (sent.taken < kStart + 5 * kSecond) sent.arrival += late;
    }
    for (size_t i = packets.size() - 1; i > 0; i--)
      packets[i - 1].arrival = std::min(packets[i - 1].arrival, packets[i].arrival);
    ChannelClock clock;
    const std::vector<Sent> placed = Place(&clock, packets);
    EXPECT_LE(LargestError(placed, from), 1) << "gone " << from << " s after the start";
    EXPECT_GE(LargestError(placed), static_cast<double>(late) / 1000 - 1) << "nobody could know";
    ExpectOrder(placed);
  }
  // The source stood still: its stamps go on as if nothing had been.
  std::vector<Sent> packets = Camera().Send(120);
  for (Sent& sent : packets) {
    if (sent.taken < kStart + 20 * kSecond) continue;
    sent.taken += 5 * kSecond;
    sent.arrival += 5 * kSecond;
  }
  ChannelClock clock;
  const std::vector<Sent> placed = Place(&clock, packets);
  EXPECT_LE(LargestError(placed, 60), 1);
  ExpectOrder(placed);
}

// After a reconnect a camera may send once more what was recorded already. Connected again in an instant, what
// is decoded first is shown after what was shown last.
TEST(ChannelClock, StartsAnewBehindWhatWas) {
  for (const auto& [atOnce, uneven, from] : {std::tuple(false, 0, 15), {true, 0, 15}, {false, 20000, 16}}) {
    SCOPED_TRACE(testing::Message() << atOnce << " " << uneven);
    ChannelClock clock;
    Camera camera;
    camera.reordered = true;
    camera.uneven = uneven;
    std::vector<Sent> placed = Place(&clock, camera.Send(10));
    if (!atOnce) camera.store = 2 * kSecond;
    std::vector<Sent> packets = camera.Send(10);
    const int64_t later = atOnce ? 10 * kSecond - kSecond / 10 : 11 * kSecond;
    for (Sent& sent : packets) {
      sent.taken += later;
      sent.arrival += later;
      if (atOnce) continue;
      sent.stamps.pts -= 4000 * kSecond;
      sent.stamps.dts -= 4000 * kSecond;
    }
    clock.Reconnected();
    const std::vector<Sent> more = Place(&clock, packets);
    for (Sent again : more) {
      again.taken += 3 * kSecond;  // some of them were there before
      placed.push_back(again);
    }
    ExpectOrder(placed);
    EXPECT_LE(LargestError(more, atOnce ? 0 : from), 150);
    EXPECT_LE(LargestError(more, from), 1);
  }
}

TEST(MachineClock, FollowsTheTimeOfDay) {
  MachineClock clock;
  ChannelDay day;
  const int64_t wall = 1700000000 * kSecond;
  int64_t set = 0;
  int64_t last = 0;
  int64_t lastOfDay = 0;
  const auto run = [&](int64_t from, int64_t to) {
    int jumps = 0;
    for (int64_t now = from * kSecond; now < to * kSecond; now += kSecond / 25) {
      jumps += clock.Look(now, wall + set + now) ? 1 : 0;
      EXPECT_TRUE(jumps > 0 || clock.TimeOfDay(now) > last);
      last = clock.TimeOfDay(now);
      const int64_t burst = day.TimeOfDay(clock, now / 1000, now / 1000);
      EXPECT_TRUE(jumps > 0 || burst > lastOfDay);
      lastOfDay = burst;
    }
    return jumps;
  };
  EXPECT_EQ(run(0, 10), 0);
  set = -4 * kSecond;
  EXPECT_EQ(run(10, 150), 0) << "slowly, and never back";
  EXPECT_EQ(clock.TimeOfDay(0), wall + set);
  set = -3600 * kSecond;
  EXPECT_EQ(run(150, 160), 1);
  EXPECT_EQ(clock.TimeOfDay(0), wall + set);
}

TEST(StampFiller, CompletesWhatSourcesLeaveOut) {
  using Given = StampFiller::Given;
  constexpr std::nullopt_t kNone = std::nullopt;
  using Stamps = std::vector<std::pair<int64_t, int64_t>>;  // pts, dts
  const std::tuple<const char*, StampFiller::Options, std::vector<Given>, Stamps> cases[] = {
      {"complete", {true, 1, 10, 100}, {{0, -10}, {30, 0}, {10, 10}}, {{0, -10}, {30, 0}, {10, 10}}},
      {"RTP: the first is missing",
       {false, 1, 10, 100},
       {{kNone, kNone}, {30, kNone}, {10, 5}, {20, kNone}, {60, kNone}},
       {{0, -10}, {30, 0}, {10, 10}, {20, 20}, {60, 30}}},
      {"a picture in two packets",
       {false, 0, 10, 100},
       {{0, kNone}, {0, kNone}, {10, kNone}},
       {{0, 0}, {0, 1}, {10, 10}}},
      {"RTP: nothing reordered",
       {false, 0, 10, 100},
       {{kNone, kNone}, {10, kNone}, {20, kNone}},
       {{0, 0}, {10, 10}, {20, 20}}},
      {"deeper than known",
       {false, 1, 10, 1000},
       {{0, kNone}, {40, kNone}, {20, kNone}, {10, kNone}, {30, kNone}, {80, kNone}, {60, kNone}, {50, kNone}},
       {{0, -10}, {40, 0}, {20, 20}, {10, 21}, {30, 22}, {80, 30}, {60, 40}, {50, 50}}},
      {"the clock is set back",
       {false, 0, 10, 100},
       {{1000, kNone}, {1010, kNone}, {0, kNone}, {10, kNone}},
       {{1000, 1000}, {1010, 1010}, {0, 0}, {10, 10}}},
      {"nothing at all", {true, 0, 10, 100}, {{kNone, kNone}, {kNone, kNone}}, {{0, 0}, {10, 10}}},
  };
  for (const auto& [name, options, all, expected] : cases) {
    StampFiller filler(options);
    Stamps stamps;
    for (const Given& given : all) {
      filler.Put(given);
      while (auto next = filler.Take(false)) stamps.push_back({next->pts, next->dts});
    }
    while (auto next = filler.Take(true)) stamps.push_back({next->pts, next->dts});
    EXPECT_EQ(stamps, expected) << name;
  }
}

// Two cameras, one of which stalls: its packets come late, but hold nobody up for longer than a moment.
TEST(PacketMerger, WritesInOrderOfTime) {
  PacketMerger merger(2);
  Camera stalled, early;
  stalled.stallFrom = kStart + 3 * kSecond;
  stalled.stallTo = kStart + 6 * kSecond;
  early.jitter = kSecond / 10;
  std::vector<Sent> puts = early.Send(10, 0);
  for (const Sent& sent : stalled.Send(10, 1)) puts.push_back(sent);
  std::stable_sort(puts.begin(), puts.end(),
                   [](const Sent& a, const Sent& b) { return a.arrival < b.arrival; });
  int64_t latest = 0, longest = 0;
  size_t taken = 0;
  const auto take = [&](int64_t now, bool drain) {
    SourceEvent event;
    for (int64_t again = kNever; merger.Take(now, drain, &event, &again); taken++) {
      const Sample& sample = event.sample;
      if (!drain && now > kStart + kSecond) longest = std::max(longest, now - sample.arrival);
      const int64_t sinceStall = sample.arrival - stalled.stallTo;
      if (event.channel == 1 && sinceStall >= 0 && sinceStall < 1000) continue;  // late for the order
      EXPECT_GE(sample.packet.time, latest) << event.channel;
      latest = sample.packet.time;
    }
  };
  for (const Sent& put : puts) {
    take(put.arrival, false);
    Sample sample;
    sample.packet.channel = put.channel;
    sample.packet.data.resize(10);
    std::tie(sample.arrival, sample.stamps) = std::tie(put.arrival, put.stamps);
    merger.PutPacket(std::move(sample), std::nullopt);
  }
  take(kNever, true);
  EXPECT_EQ(taken, puts.size());
  EXPECT_LE(longest, kSecond * 2 / 5);
  EXPECT_EQ(merger.WaitingBytes(0), 0u);
}

TEST(RetryPlan, WaitsLongerEachTime) {
  RetryPlan plan;
  for (const int seconds : {0, 1, 2, 4, 8, 16, 30, 30}) EXPECT_EQ(plan.AfterFailure(0), seconds * kSecond);
  EXPECT_EQ(plan.AfterFailure(kSecond), 30 * kSecond) << "one picture is no connection";
  EXPECT_EQ(plan.AfterFailure(60 * kSecond), 0);
  EXPECT_EQ(plan.AfterFailure(0), kSecond);
}

TEST(ChannelHealth, TellsRatesAndSilence) {
  const auto at = [](int64_t seconds) {
    return ChannelHealthBoard::Moment{(1700000000 + seconds) * kSecond, seconds * kSecond};
  };
  ChannelHealthBoard board({"rtsp://***@a/1"}, at(100));
  for (int64_t i = 0; i < 100; i++) board.NotePicture(0, 1000, at(110 + i / 10));
  const ChannelHealth health = board.Look(at(120))[0];
  EXPECT_EQ(health.since, at(110).wall);
  EXPECT_DOUBLE_EQ(health.picturesPerSecond, 10);
  EXPECT_DOUBLE_EQ(health.bytesPerSecond, 10000);
  EXPECT_EQ(board.Look(at(130))[0].state, ChannelHealth::State::kSilent);
}

}  // namespace
}  // namespace recorder
