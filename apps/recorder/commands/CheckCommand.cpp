// recorder check: holds the disks against what every disk keeps to, and repairs on request.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <set>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/Input.h"
#include "apps/recorder/check/ConcurrentCheck.h"
#include "apps/recorder/check/NextStep.h"
#include "apps/recorder/check/PacketCheck.h"
#include "apps/recorder/check/Repairs.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/DiskState.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/looking/JsonLine.h"

namespace recorder {

namespace {

struct Options {
  std::vector<std::string> disks;
  bool json = false;
  bool repairNames = false;
  bool rebuildIndex = false;
  bool returnOrphans = false;
  bool force = false;
  bool packets = false;

  bool Repairs() const { return repairNames || rebuildIndex || returnOrphans; }
};

double Percent(int64_t part, int64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

void PrintJson(const std::string& root, const DiskReport& report) {
  for (const Finding& finding : report.findings) {
    PrintLine({{"disk", NameOf(report.path)},
               {"finding", FaultName(finding.fault)},
               {"path", finding.path},
               {"what", finding.what},
               {"next", NextStep(root, report.path, finding)}});
  }
  for (const std::string& note : report.notes) PrintLine({{"disk", NameOf(report.path)}, {"note", note}});
  PrintLine({{"disk", NameOf(report.path)},
             {"path", report.path},
             {"files", report.Files()},
             {"fileBytes", report.fileSize},
             {"free", report.free},
             {"recorded", report.recorded},
             {"quarantined", report.quarantined},
             {"outside", report.outside},
             {"wrong", report.Wrong()},
             {"wrongPercent", Percent(report.Wrong(), report.Files())},
             {"findings", report.findings.size()}});
}

void PrintText(const std::string& root, const DiskReport& report) {
  Print("disk %s at %s: %" PRId64 " files of %s\n", NameOf(report.path).c_str(), report.path.c_str(),
        report.Files(), FormatSize(report.fileSize).c_str());
  const auto line = [&](const char* what, int64_t count) {
    Print("  %-12s %8" PRId64 "  %5.1f %%\n", what, count, Percent(count, report.Files()));
  };
  line("free", report.free);
  line("recorded", report.recorded);
  line("quarantined", report.quarantined);
  line("outside", report.outside);
  line("wrong", report.Wrong());
  std::set<std::string> steps;
  for (const Finding& finding : report.findings) {
    Print("  %s: %s: %s\n", FaultName(finding.fault), finding.path.c_str(), finding.what.c_str());
    steps.insert(NextStep(root, report.path, finding));
  }
  for (const std::string& note : report.notes) Print("  note: %s\n", note.c_str());
  for (const std::string& step : steps) Print("  next: %s\n", step.c_str());
  if (report.findings.empty()) Print("  nothing is wrong\n");
  if (report.IsMostlyWrong()) {
    Print("  more than half of the disk looks wrong: is it the right disk, and whole? Repairs need --force\n");
  }
}

int Repair(const Options& options, const Disk& disk, DiskReport* report) {
  Refusal refusal = RefuseDiskName(disk.name, {});
  if (!refusal) refusal = RefuseDiskPath(disk.path);
  if (!refusal && report->IsMostlyWrong() && !options.force) {
    refusal = "disk " + disk.name + ": more than half of it looks wrong; nothing is repaired without --force";
  }
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  const Say say = [&](const std::string& path, const std::string& what) {
    if (options.json) {
      PrintLine({{"disk", disk.name}, {"repair", what}, {"path", path}});
    } else {
      Print("%s %s\n", path.c_str(), what.c_str());
    }
  };
  if (options.returnOrphans) ReturnOrphans(*report, say);
  if (options.repairNames) RepairNames(*report, say);
  *report = CheckDisk(disk.path);  // names have changed, so other databases may be out of step
  if (options.rebuildIndex) {
    RebuildSearchDbs(*report, say);
    *report = CheckDisk(disk.path);
  }
  return kDone;
}

// Without any named: all that there are, and those that are missed, by the configuration or by a recorder at
// work.
Refusal ChooseDisks(const Options& options, const std::string& root, const std::vector<std::string>& expected,
                    std::vector<Disk>* disks) {
  int error = 0;
  std::vector<std::string> names = options.disks;
  if (names.empty()) {
    names = ListDisks(root, &error);
    std::vector<std::string> missed = expected;
    if (HolderOf(root)) {
      for (const DiskState& state : ReadState(root).disks) missed.push_back(state.disk.name);
    }
    for (const std::string& name : missed) {
      if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
  }
  for (const std::string& name : names) {
    disks->push_back({name, DiskPath(root, name)});
    // One that is named and not there is missing, like one that is there and holds nothing.
    const bool isDisk = !name.empty() && name.find('/') == std::string::npos;
    if (!isDisk) return "there is no disk " + name + " under " + root + "/disk";
  }
  if (disks->empty()) return WhyNoDisk(root, error);
  return std::nullopt;
}

// One line on a terminal, nothing elsewhere.
class ReadingProgress {
 public:
  void Show(const std::string& disk, const PacketTotals& totals) {
    const Clock::time_point now = Clock::now();
    if (!mTerminal || now - mDrawn < std::chrono::milliseconds(200)) return;
    mDrawn = now;
    const double seconds = std::chrono::duration<double>(now - mBegin).count();
    const std::string left =
        totals.recordings > 0
            ? "  " + FormatDuration(seconds / totals.recordings * (totals.of - totals.recordings)) + " left"
            : "";
    std::fprintf(stderr, "\rreading disk %s: %" PRId64 " of %" PRId64 " recordings  %s  %.0f MiB/s%s\033[K",
                 Printable(disk).c_str(), totals.recordings, totals.of, FormatSize(totals.bytes).c_str(),
                 static_cast<double>(totals.bytes) / static_cast<double>(kMiB) / seconds, left.c_str());
    std::fflush(stderr);
  }
  ~ReadingProgress() {
    if (mDrawn != mBegin) std::fprintf(stderr, "\r\033[K");
  }

 private:
  using Clock = std::chrono::steady_clock;
  const bool mTerminal = isatty(STDERR_FILENO) != 0;
  const Clock::time_point mBegin = Clock::now();
  Clock::time_point mDrawn = mBegin;
};

// False: it was interrupted.
bool ReadPackets(const Disk& disk, DiskReport* report) {
  ReadingProgress progress;
  const PacketTotals totals = CheckPackets(report, [&](const PacketTotals& soFar) {
    progress.Show(disk.name, soFar);
    return !gStop;
  });
  return totals.recordings == totals.of;
}

int Check(const Options& options, std::string root, const std::vector<std::string>& expected) {
  std::vector<Disk> disks;
  LockSet locks("check");
  Refusal refusal = ResolveRoot(&root, true);
  if (!refusal) refusal = ChooseDisks(options, root, expected, &disks);
  if (!refusal && options.Repairs()) refusal = TakeLocks(root, disks, &locks);
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  if (options.packets) StopOnSignals();
  Reports reports = options.Repairs() ? CheckAll(disks) : CheckBeside(root, disks);
  int status = kDone;
  for (size_t i = 0; i < reports.size(); ++i) {
    DiskReport& report = reports[i];
    if (report.missing && !options.force) {
      Complain("disk %s looks missing: there is nothing of a disk at %s, is it mounted?", disks[i].name.c_str(),
               disks[i].path.c_str());
      if (options.json) PrintLine({{"disk", disks[i].name}, {"path", disks[i].path}, {"missing", true}});
      status = std::max<int>(status, options.Repairs() ? kRefused : kFound);
      continue;
    }
    if (options.Repairs()) status = std::max(status, Repair(options, disks[i], &report));
    const bool isInterrupted = options.packets && !ReadPackets(disks[i], &report);
    options.json ? PrintJson(root, report) : PrintText(root, report);
    if (!report.findings.empty()) status = std::max<int>(status, kFound);
    if (isInterrupted) {
      Complain("interrupted: not every packet of disk %s was read", disks[i].name.c_str());
      return kRefused;
    }
  }
  return status;
}

}  // namespace

void AddCheckCommand(CLI::App& app, Context& context) {
  auto options = std::make_shared<Options>();
  CLI::App* command = app.add_subcommand("check",
                                         "Look for whatever is wrong on the disks, also while recording goes "
                                         "on; changes nothing without a repair");
  command->add_option("--disk", options->disks, "Names of the disks, all by default");
  command->add_flag("--json", options->json, "One JSON object a finding and a disk, one a line");
  command->add_flag("--packets", options->packets, "Read every packet of every completed recording as well");
  command->add_flag("--repair-names", options->repairNames, "Complete recordings that were cut off");
  command->add_flag("--rebuild-index", options->rebuildIndex, "Make search databases anew that aren't right");
  command->add_flag("--return-orphans", options->returnOrphans, "Put laid-down files back that lie outside");
  command->add_flag("--force", options->force, "Repair a disk of which more than half looks wrong");
  command->footer("No repair deletes a file. Exit status: 0 nothing is wrong, 1 something is, 2 refused.");
  command->callback([options, &context] {
    context.run = [options, &context] { return Check(*options, context.root, context.disks); };
  });
}

}  // namespace recorder
