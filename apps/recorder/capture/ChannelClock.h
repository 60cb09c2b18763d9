// When the pictures of a channel were taken, by the machine's monotonic clock: its stream's own clock, tied to
// the machine's by the packets that were delayed least. docs/DESIGN.md "Time" has what is promised.
//
// Knows nothing of threads, of reading clocks and of media libraries: all times are given, in microseconds.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

namespace recorder {

// A packet's time stamps by its stream's clock. In order of decoding, `dts` ascends while the clock is not set.
struct StreamStamps {
  int64_t pts = 0;
  int64_t dts = 0;
};

// Keeps pictures in order whose offsets, from stamps to other times, change as they are decoded.
class PictureOrder {
 public:
  // The offset nearest to the given one that leaves a picture in its place among the last ones, both in
  // decoding and in presentation; in decoding, where it can't be had in both. To be asked for each picture, in
  // order of decoding.
  int64_t Keep(const StreamStamps& stamps, int64_t offset);
  void Clear() { mKept.clear(); }

 private:
  std::deque<std::pair<StreamStamps, int64_t>> mKept;  // with the offset
};

class ChannelClock {
 public:
  // A tie of the stream's clock to the machine's: another one after a reconnect, and after either clock has
  // jumped.
  using Tie = int64_t;

  // A packet has come at `arrival`. Without stamps the arrival is all that is known of its time. `camera` is
  // when its picture was taken by the word of a source that is trusted with it. Packets come in order of
  // decoding.
  Tie Arrive(int64_t arrival, std::optional<StreamStamps> stamps, std::optional<int64_t> camera = std::nullopt);
  // The next packet is from a new connection: its stamps have nothing to do with those before.
  void Reconnected() { mConnected = false; }

  // When the packet's picture was taken. To be asked once for each packet, in the order of Arrive(), and with
  // advantage some time after it: until LearnedAt() the packets are late that a source had in store for whoever
  // connects.
  int64_t Place(Tie tie, int64_t arrival, std::optional<StreamStamps> stamps);
  int64_t LearnedAt(Tie tie) const;

  // When sound was heard; to be asked after the pictures before it were placed. It goes by their clock and
  // teaches it nothing. What is too far from the last one to be by the same clock was heard when it arrived.
  int64_t PlaceSound(int64_t arrival, std::optional<StreamStamps> stamps) const;

  // A `camera` was given that is too far from the arrival to be believed, lately.
  bool IsCameraRefused() const { return mCameraRefused; }

 private:
  struct Bucket {
    int64_t begin = 0;       // arrival
    int64_t difference = 0;  // the least of arrival minus pts
  };
  struct State {
    Tie number = 0;
    int64_t firstArrival = 0;
    std::deque<Bucket> window;
    std::optional<int64_t> camera;  // `camera` minus pts, the latest
    int64_t cameraArrival = 0;

    bool placed = false;
    int64_t offset = 0;  // recording time minus stream time
    int64_t lastDts = 0;
    // What would overlap the tie before comes behind it, later than it should by this, and less and less so:
    int64_t behind = 0;
    bool hurries = false;
  };

  bool HasJumped(const State& tie, int64_t arrival, const StreamStamps& stamps) const;
  void NoteOrder(const StreamStamps& stamps);
  void NoteDifference(State* tie, int64_t arrival, int64_t difference);
  static int64_t Least(const State& tie);
  static int64_t Target(const State& tie);
  void Correct(State* tie, int64_t step) const;
  double Haste() const;

  std::deque<State>
      mTies;  // of which packets are still to be placed; the last is the one that packets arrive in
  Tie mNextTie = 0;
  bool mConnected = false;
  std::optional<StreamStamps> mLastArrived;  // by the last tie
  int64_t mInterval = 0;                     // the least between pictures, 0: not known
  int64_t mLeastDelay = INT64_MAX;           // from decoding to presentation
  int64_t mMostDelay = INT64_MIN;
  PictureOrder mOrder;  // of the tie that is being placed
  bool mCameraRefused = false;
  bool mAnyPlaced = false;
  int64_t mLatest = 0;  // recording time placed so far
};

// Recording time, which follows the machine's time of day, from its monotonic clock.
class MachineClock {
 public:
  // The clocks as both are now. True: the time of day was set by so much that what follows is another timeline.
  bool Look(int64_t monotonic, int64_t wall);
  int64_t TimeOfDay(int64_t monotonic) const { return monotonic + mOffset; }
  int Timeline() const { return mTimeline; }

 private:
  bool mKnown = false;
  int mTimeline = 0;
  int64_t mOffset = 0;
  int64_t mLast = 0;  // monotonic
};

// How a channel follows it: by a part of the time that its pictures take, not of the machine's, so that they
// stay in order however many are taken at one moment.
class ChannelDay {
 public:
  // Of a packet of `time`, by the monotonic clock. `decodeTime`: of a picture; sound has none and goes by them.
  int64_t TimeOfDay(const MachineClock& machine, int64_t time, std::optional<int64_t> decodeTime);

 private:
  int mTimeline = -1;
  int64_t mOffset = 0;
  int64_t mLast = 0;  // decodeTime
  PictureOrder mOrder;
};

}  // namespace recorder
