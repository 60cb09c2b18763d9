// The record file's rows: recording, repair and export on an ext4 of their own. A script measures them, since
// most of it are programs held against programs.
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "bench/Benches.h"

namespace bench {

void MeasureRecordFile(const Settings& settings, Report* report) {
  report->Begin("Record files on a full, cold disk (processor time or, where said, time of day)");
  constexpr uint64_t kNeeded = uint64_t{8} << 30;
  struct statvfs space = {};
  statvfs("/tmp", &space);
  Row row;
  row.figure = "recording, repair, export";
  if (settings.quick) {
    row.left = "not in a quick run";
  } else if (geteuid() != 0) {
    row.left = "needs root";
  } else if (uint64_t{space.f_bavail} * space.f_frsize < kNeeded) {
    row.left = "needs 8 GiB in /tmp";
  }
  if (!row.left.empty()) {
    report->Add(row);
    return;
  }
  FILE* const script = popen((BENCH_SOURCE "/disk_bench.sh " + settings.programs).c_str(), "r");
  if (script == nullptr) Stop("disk_bench.sh");
  std::array<char, 512> line;
  bool sound = true;
  while (std::fgets(line.data(), line.size(), script) != nullptr)
    sound = report->AddLines(line.data()) && sound;
  if (pclose(script) == 0 && sound) return;
  row.left = "disk_bench.sh failed";
  report->Add(row);
}

}  // namespace bench
