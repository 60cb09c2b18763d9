// The months that have recordings, in local time.
#pragma once

#include <set>
#include <utility>

#include "apps/recorder/disks/Disks.h"

namespace recorder {

using Month = std::pair<int, int>;  // year, month from 1

std::set<Month> FindMonths(const Disks& disks);

}  // namespace recorder
