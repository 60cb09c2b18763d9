// Completes the time stamps of a stream's packets: containers and protocols leave out what a recording needs to
// play again. Stamps are in the stream's time base; knows nothing of media libraries.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <queue>
#include <vector>

namespace recorder {

class StampFiller {
 public:
  struct Options {
    bool decodeStamps = true;  // the source gives decoding times; false: they are made from presentation times
    int reorder = 0;           // how many pictures are decoded at most before one that is shown earlier
    int64_t interval = 1;      // from picture to picture, as far as it is known
    int64_t jump = 1;          // presentation that goes back by more: the stream's clock was set
  };
  struct Given {
    std::optional<int64_t> pts;
    std::optional<int64_t> dts;
  };
  struct Stamps {
    int64_t pts;
    int64_t dts;  // ascends until the stream's clock is set; not above pts unless the source says so
  };

  explicit StampFiller(Options options) : mOptions(options) {}

  // Takes a packet's stamps, in order of decoding.
  void Put(Given given) { mGiven.push_back(given); }
  // The stamps of the oldest packet not yet taken. Nothing while more packets have to be seen for them; with
  // `last`, none come any more.
  std::optional<Stamps> Take(bool last);

 private:
  Stamps Decoded(const Given& given);
  Stamps Presented(const Given& given);
  bool CanStart(bool last) const;
  void Start();

  Options mOptions;
  std::deque<Given> mGiven;
  bool mStarted = false;
  int64_t mFirst = 0;  // the earliest presentation
  int64_t mLastPts = 0;
  int64_t mHighest = 0;  // presentation so far
  int64_t mLastDts = 0;
  std::priority_queue<int64_t, std::vector<int64_t>, std::greater<>>
      mShown;  // still to be used as decoding times
};

}  // namespace recorder
