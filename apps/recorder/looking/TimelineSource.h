// Puts a timeline together from what the disks hold.
#pragma once

#include "apps/recorder/looking/Recordings.h"
#include "apps/recorder/looking/Timeline.h"

namespace recorder {

// Whatever is recorded, where the options leave an end open.
Refusal ChooseRange(const RangeOptions& options, const Recordings& recordings, Range* range);
// What the names say; one line on standard error when the search databases say something else.
Timeline CollectTimeline(const Disks& disks, const Recordings& recordings, const Range& range, int channel);

}  // namespace recorder
