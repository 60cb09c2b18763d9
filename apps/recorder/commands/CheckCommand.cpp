// recorder check: holds the disks against what every disk keeps to, and repairs on request.
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/check/Checker.h"
#include "apps/recorder/check/Repairs.h"
#include "apps/recorder/commands/Command.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/disks/RootLock.h"

namespace recorder {

namespace {

constexpr int kLooks = 4;  // what is seen as often while somebody records is not his moving of files
constexpr useconds_t kBetweenLooks = 200000;  // microseconds

struct Options {
  std::vector<std::string> disks;
  bool json = false;
  bool repairNames = false;
  bool rebuildIndex = false;
  bool returnOrphans = false;
  bool force = false;

  bool Repairs() const { return repairNames || rebuildIndex || returnOrphans; }
};

using Reports = std::vector<DiskReport>;

// Names come from disks that others have been at: nothing of them may act on a terminal or break a line.
std::string Printable(std::string text) {
  for (char& c : text) c = static_cast<unsigned char>(c) < ' ' || c == 0x7f ? '?' : c;
  return text;
}

std::string ShellWord(const std::string& path) {
  const bool plain = std::all_of(path.begin(), path.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || std::strchr("/._-", c) != nullptr;
  });
  if (plain) return path;
  std::string word = "'";
  for (const char c : path) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

// What a person does about it.
std::string NextStep(const std::string& root, const std::string& disk, const Finding& finding) {
  const std::string check = "recorder --root " + root + " check --disk " + ShellWord(NameOf(disk));
  const std::string path = ShellWord(finding.path);
  switch (finding.fault) {
    case Fault::kUnfinished:
      return check + " --repair-names";
    case Fault::kSearchDb:
      return check + " --rebuild-index";
    case Fault::kLeftover:
    case Fault::kOutside:
    case Fault::kPoolName:
      return check + " --return-orphans";
    case Fault::kTwoPlaces:
      return "look which name is the right one, and remove the other: rm " + path;
    case Fault::kGap:
      return "find the file that was taken out; without it the disk records a little less";
    case Fault::kSize:
    case Fault::kHeader:
      return "keep it from being used: mkdir -p " + ShellWord(disk + "/imf_error") + " && mv -n " + path + " " +
             ShellWord(disk + "/imf_error/");
    case Fault::kTwoDirectories:
    case Fault::kDirectoryName:
      return "give it a number of its own: mv -n " + path + " " + ShellWord(disk) + "/data_00000000";
    case Fault::kUnreadable:
      return "look at the rights and the health of the disk: ls -ld " + path + "; dmesg; fsck";
    case Fault::kNoRegularFile:
    case Fault::kForeign:
    case Fault::kName:
    case Fault::kTwoStarts:
      break;
  }
  return "save it elsewhere: mv -n " + path + " ELSEWHERE";
}

// The file that a recorder is writing is the unfinished one that was written to last.
void DropBeingWritten(Reports* reports) {
  DiskReport* owner = nullptr;
  size_t position = 0;
  timespec newest = {};
  for (DiskReport& report : *reports) {
    for (size_t i = 0; i < report.findings.size(); ++i) {
      struct stat info = {};
      if (report.findings[i].fault != Fault::kUnfinished) continue;
      if (lstat(report.findings[i].path.c_str(), &info) != 0) continue;
      const timespec written = info.st_mtim;
      const bool isNewer =
          std::make_pair(written.tv_sec, written.tv_nsec) > std::make_pair(newest.tv_sec, newest.tv_nsec);
      if (!isNewer) continue;
      owner = &report;
      position = i;
      newest = written;
    }
  }
  if (owner == nullptr) return;
  owner->notes.push_back(owner->findings[position].path + " is being written");
  owner->findings.erase(owner->findings.begin() + static_cast<std::ptrdiff_t>(position));
}

void KeepCommon(const DiskReport& before, DiskReport* now) {
  std::set<std::pair<Fault, std::string>> known;
  for (const Finding& finding : before.findings) known.emplace(finding.fault, finding.path);
  const auto isNew = [&](const Finding& finding) { return known.count({finding.fault, finding.path}) == 0; };
  now->findings.erase(std::remove_if(now->findings.begin(), now->findings.end(), isNew), now->findings.end());
}

Reports CheckAll(const std::vector<Disk>& disks) {
  Reports reports;
  for (const Disk& disk : disks) reports.push_back(CheckDisk(disk.path));
  return reports;
}

Reports CheckBeside(const std::string& root, const std::vector<Disk>& disks) {
  Reports before;
  for (int look = 1;; ++look) {
    Reports reports = CheckAll(disks);
    const std::optional<std::string> holder = HolderOfRoot(root);
    if (!holder && look == 1) return reports;
    const bool isPreparing = holder && holder->rfind("recorder prepare", 0) == 0;
    for (DiskReport& report : reports) {
      if (!isPreparing || !Exists(report.path + "/imf_prealloc")) continue;
      report.findings.clear();
      report.notes.push_back("is being prepared by " + *holder);
    }
    if (holder && holder->rfind("recorder record", 0) == 0) DropBeingWritten(&reports);
    for (size_t i = 0; i < before.size(); ++i) KeepCommon(before[i], &reports[i]);
    const bool isClean = std::all_of(reports.begin(), reports.end(),
                                     [](const DiskReport& report) { return report.findings.empty(); });
    if (isClean || look == kLooks) return reports;
    usleep(kBetweenLooks);
    before = std::move(reports);
  }
}

double Percent(int64_t part, int64_t whole) {
  return whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

void PrintLine(const nlohmann::ordered_json& line) {
  // Names need not be valid UTF-8.
  std::printf("%s\n", line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
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
  std::printf("disk %s at %s: %" PRId64 " files of %s\n", Printable(NameOf(report.path)).c_str(),
              Printable(report.path).c_str(), report.Files(), FormatSize(report.fileSize).c_str());
  const auto line = [&](const char* what, int64_t count) {
    std::printf("  %-12s %8" PRId64 "  %5.1f %%\n", what, count, Percent(count, report.Files()));
  };
  line("free", report.free);
  line("recorded", report.recorded);
  line("quarantined", report.quarantined);
  line("outside", report.outside);
  line("wrong", report.Wrong());
  std::set<std::string> steps;
  for (const Finding& finding : report.findings) {
    std::printf("  %s: %s: %s\n", FaultName(finding.fault), Printable(finding.path).c_str(),
                Printable(finding.what).c_str());
    steps.insert(Printable(NextStep(root, report.path, finding)));
  }
  for (const std::string& note : report.notes) std::printf("  note: %s\n", Printable(note).c_str());
  for (const std::string& step : steps) std::printf("  next: %s\n", step.c_str());
  if (report.findings.empty()) std::printf("  nothing is wrong\n");
  if (report.IsMostlyWrong()) {
    std::printf(
        "  more than half of the disk looks wrong: is it the right disk, and whole? Repairs need --force\n");
  }
}

int Repair(const Options& options, const Disk& disk, DiskReport* report) {
  Refusal refusal = RefuseDiskName(disk.name, {});
  if (!refusal) refusal = RefuseDiskPath(disk.path);
  if (!refusal && report->IsMostlyWrong() && !options.force) {
    refusal = "disk " + disk.name + ": more than half of it looks wrong; nothing is repaired without --force";
  }
  if (refusal) {
    Complain("%s", Printable(*refusal).c_str());
    return kRefused;
  }
  const Say say = [&](const std::string& path, const std::string& what) {
    if (options.json) {
      PrintLine({{"disk", disk.name}, {"repair", what}, {"path", path}});
    } else {
      std::printf("%s %s\n", Printable(path).c_str(), Printable(what).c_str());
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

Refusal ChooseDisks(const Options& options, const std::string& root, std::vector<Disk>* disks) {
  for (const std::string& name : options.disks.empty() ? ListDisks(root) : options.disks) {
    disks->push_back({name, DiskPath(root, name)});
    const bool isDisk = !name.empty() && name.find('/') == std::string::npos && IsDirectory(disks->back().path);
    if (!isDisk) return "there is no disk " + Printable(name) + " under " + root + "/disk";
  }
  if (disks->empty()) return "there is no disk under " + root + "/disk";
  return std::nullopt;
}

int Check(const Options& options, std::string root) {
  std::vector<Disk> disks;
  RootLock lock;
  Refusal refusal = ResolveRoot(&root, true);
  if (!refusal) refusal = ChooseDisks(options, root, &disks);
  if (!refusal && options.Repairs()) refusal = lock.Take(root, "check");
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  Reports reports = options.Repairs() ? CheckAll(disks) : CheckBeside(root, disks);
  int status = kDone;
  for (size_t i = 0; i < reports.size(); ++i) {
    DiskReport& report = reports[i];
    if (report.missing && !options.force) {
      Complain("disk %s looks missing: there is nothing of a disk at %s, is it mounted?",
               Printable(disks[i].name).c_str(), Printable(disks[i].path).c_str());
      status = kRefused;
      continue;
    }
    if (options.Repairs()) status = std::max(status, Repair(options, disks[i], &report));
    options.json ? PrintJson(root, report) : PrintText(root, report);
    if (!report.findings.empty()) status = std::max<int>(status, kFound);
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
  command->add_flag("--repair-names", options->repairNames, "Complete recordings that were cut off");
  command->add_flag("--rebuild-index", options->rebuildIndex, "Make search databases anew that aren't right");
  command->add_flag("--return-orphans", options->returnOrphans, "Put laid-down files back that lie outside");
  command->add_flag("--force", options->force, "Repair a disk of which more than half looks wrong");
  command->footer("No repair deletes a file. Exit status: 0 nothing is wrong, 1 something is, 2 refused.");
  command->callback(
      [options, &context] { context.run = [options, &context] { return Check(*options, context.root); }; });
}

}  // namespace recorder
