// What a preparation that was cut off has left behind: finishing it, or taking it back. Whoever changes
// anything holds the locks.
#pragma once

#include <cstdint>
#include <string>

#include "ProgressIndicator.h"
#include "apps/recorder/disks/PreparationPlan.h"

namespace recorder {

// Whether the disk at `path` has data directories or a quarantine: then it is in use, however much of its
// preparation is missing.
bool HoldsRecordings(const std::string& path);
// How many of the numbered files in `directory` have `size` bytes.
int64_t CountLaidDown(const std::string& directory, uint64_t size);

// Refuses to finish or undo what is finished, in use, or was never begun.
Refusal RefuseNothingLeft(const PreparationPlan& plan, bool undo);

// Completes the plan from what is on the disk: size and count as they were first asked for, or `count` when it
// is given. Refuses when the rest does not fit, or more is there than asked for.
Refusal PlanRest(const std::optional<int64_t>& count, PreparationPlan* plan);
// Lays down the files that are missing, and gives each its name in the pool.
bool LayDownRest(const PreparationPlan& plan, ProgressIndicator* progress);
// The names in the pre-allocation directory go, the files stay in the pool. Nothing goes that isn't in both.
bool RemovePrealloc(const PreparationPlan& plan);
// Removes the files that were laid down, and what says so. What preparing did not make stays.
Refusal UndoPreparation(const PreparationPlan& plan);

// Makes the file, or completes it, with all its blocks reserved. False: `error` tells why; what is there
// already and no regular file with one name is left alone.
bool LayDownFile(const std::string& path, uint64_t size, std::string* error);

}  // namespace recorder
