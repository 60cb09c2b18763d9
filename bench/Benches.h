// The groups of rows, a file each.
#pragma once

#include "bench/Report.h"
#include "bench/Stage.h"

namespace bench {

// HandOutBench.cpp: a recording's way through the library on full disks, and the pool.
void MeasureHandOut(const Settings& settings, Report* report);
void MeasurePool(const Settings& settings, Report* report);
// QuestionBench.cpp: playback, search and menus over many recordings.
void MeasureQuestions(const Settings& settings, Report* report);
// ListBench.cpp: recordings that overlap, and the list that the library keeps itself.
void MeasureOverlap(const Settings& settings, Report* report);
void MeasureListMode(const Settings& settings, Report* report);
// DiskBench.cpp: adding disks, starting up, preparing.
void MeasureAdding(const Settings& settings, Report* report);
void MeasureStartUp(const Settings& settings, Report* report);
void MeasurePreparing(const Settings& settings, Report* report);
// RecorderBench.cpp: what the recorder's commands cost that only look.
void MeasureRecorder(const Settings& settings, Report* report);
// LatencyBench.cpp: how long a camera waits while others write.
void MeasureLatency(const Settings& settings, Report* report);
// RecordFileBench.cpp: what becomes of packets, on a disk that is full and cold.
void MeasureRecordFile(const Settings& settings, Report* report);

}  // namespace bench
