// When the channels of recordings really have pictures, by the search databases, or by the files where these
// can't tell.
#pragma once

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "SearchDb.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Recordings.h"

namespace recorder {

// A shorter one between two spans is none: they may be of two files.
constexpr int64_t kShortGap = 2 * kMicros;
// What a recording's channel may lack at its begin and end: names have whole seconds, and only one channel's
// key frame begins a recording.
constexpr int64_t kWholeMargin = 3 * kMicros;

// In seconds.
inline int64_t RoundedUp(int64_t micros) { return (micros + kMicros - 1) / kMicros; }

class Coverage {
 public:
  // Asks the search databases for the range, once. `disks` are open.
  Coverage(const Disks& disks, const Range& range);

  // In the order of channels, and of time within each. Of a recording that neither its database nor its file
  // tells of, what its name says: every channel, from its start to its end. Valid as long as the object.
  const std::vector<PictureSpan>& Of(const Recording& recording) const;
  // How many recordings that overlap the range are in a database and not among `recordings`, or the other way
  // round. Names are the truth; a recorder at work completes a recording in one step and adds it to its
  // database in the next, so those from the first that is not complete on don't count.
  size_t CountDifferences(const Recordings& recordings) const;

 private:
  const Range mRange;
  std::vector<TimeSearchRecording> mKnown;            // ascending
  mutable std::list<std::vector<PictureSpan>> mRead;  // from files, and from names
};

// Whether a channel, or any of them, has pictures in the range.
bool HasPictures(const std::vector<PictureSpan>& spans, int channel, const Range& range);
// The spans of the channels that do not have pictures all through the recording; of one without any pictures,
// an empty list. Microseconds since the epoch.
PartlyRecorded PartlyCovered(const Recording& recording, const std::vector<PictureSpan>& spans);
// A moment, microseconds since the epoch, and the recording that it is in.
struct Moment {
  int64_t time;
  std::string path;
};
// When the last pictures that begin before the time are over, and when the first begin that are not over by
// then: of the channel, or any. Nothing when there are none.
std::optional<Moment> LastPictureBefore(const Disks& disks, const Recordings& recordings, int64_t time,
                                        int channel);
std::optional<Moment> FirstPictureAfter(const Disks& disks, const Recordings& recordings, int64_t time,
                                        int channel);

}  // namespace recorder
