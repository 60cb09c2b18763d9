// Puts a timeline together from what the disks hold.
#pragma once

#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"

namespace recorder {

// Whatever is recorded, where the options leave an end open.
Refusal ChooseRange(const RangeOptions& options, const Recordings& recordings, Range* range);
// When there are pictures, by search databases and files; one line on standard error when the databases know of
// other recordings than the names, which count.
Timeline CollectTimeline(const Disks& disks, const Recordings& recordings, const Range& range, int channel,
                         const ChannelNames& names);

}  // namespace recorder
