// What is recorded on the disks, asked of the file manager by the commands that only look.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "PictureSpan.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/looking/Range.h"

namespace recorder {

// Of a recording from `start` to `end`, seconds since the epoch; it takes a second at least.
bool Overlaps(int64_t start, int64_t end, const Range& range);

struct Recording {
  enum class State {
    kComplete,
    kGrowing,     // being recorded right now
    kUnfinished,  // a recorder was cut off; the next one repairs it
  };

  std::string path;
  std::string disk;
  int64_t start = 0;  // seconds since the epoch
  int64_t end = 0;    // of one that is not complete: as far as its file tells
  uint32_t mask = 0;  // bit n: channel n is in it
  State state = State::kComplete;

  bool HasChannel(int channel) const { return channel == kAnyChannel || (mask >> channel & 1) != 0; }
  bool Overlaps(const Range& range) const { return recorder::Overlaps(start, end, range); }
};

// Makes `root` absolute and opens all of its disks for looking.
Refusal OpenToLook(std::string* root, Disks* disks);

// Start and end, in seconds since the epoch, that the name in a path tells; end 0 for a file in progress.
int64_t StartOf(const std::string& path);
int64_t EndOf(const std::string& path);

class Recordings {
 public:
  // `disks` are open and outlive the object.
  explicit Recordings(const Disks& disks);

  // Every one, in ascending order, the ones in progress included. Listed once: what is recorded afterwards is
  // not in it, nor in what is found from then on.
  const std::vector<Recording>& All() const;
  // Those that overlap the range and hold the channel, in ascending order, the ones in progress included.
  std::vector<Recording> Find(const Range& range, int channel) const;
  // The same, one after another, and not copied where all are listed.
  void ForEach(const Range& range, int channel, const std::function<void(const Recording&)>& use) const;
  // Those that are not complete, in ascending order.
  const std::vector<Recording>& Open() const { return mOpen; }
  // Every channel that is recorded, as a mask.
  uint32_t Channels() const;
  // The last that starts before the time, the first that ends after it (microseconds since the epoch).
  std::optional<Recording> LastBefore(int64_t time, int channel) const;
  std::optional<Recording> FirstAfter(int64_t time, int channel) const;

  Recording Describe(std::string path) const;

  // The recording's neighbour over all disks; nothing at the first and last one.
  std::optional<Recording> Previous(const Recording& recording) const;
  std::optional<Recording> Next(const Recording& recording) const;

  // One line on standard error: there are no pictures in the range, and what is nearest to it.
  void ComplainOfNothing(const Range& range, int channel) const;

 private:
  void FindOpen();
  std::vector<Recording> List(const Range& range, int channel) const;

  const Disks& mDisks;
  std::vector<Recording> mOpen;
  mutable std::optional<std::vector<Recording>> mAll;
};

// Channels that do not have pictures all through a recording, and when they have (microseconds since the
// epoch).
using PartlyRecorded = std::map<int, std::vector<PictureSpan>>;

// One line, or one JSON object, on standard output, with the channels that are only partly in it. `note` is put
// behind the line, or into its "note"; `names` stand beside the numbers of their channels.
void PrintRecording(const Recording& recording, const PartlyRecorded& partly, bool json,
                    const std::string& note, const ChannelNames& names);
const char* NameOfState(Recording::State state);

}  // namespace recorder
