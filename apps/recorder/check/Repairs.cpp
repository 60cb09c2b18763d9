#include "apps/recorder/check/Repairs.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/recording/Completion.h"
#include "apps/recorder/recording/SearchIndex.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrErrorRepository.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

// Empty, or why not.
std::string Move(const std::string& from, const std::string& to) {
  if (!RenameToNew(from, to)) return std::strerror(errno);
  SyncDirectory(DirectoryOf(to));
  SyncDirectory(DirectoryOf(from));
  return "";
}

class Pool {
 public:
  explicit Pool(const DiskReport& report) : mPath(report.path + "/imf_free/"), mFileSize(report.fileSize) {
    for (const std::string& name : ListDirectory(mPath)) {
      mLast = std::max(mLast, PoolNumber(name));
    }
  }

  // Puts the file behind the others, or where its own number is free. Tells what became of it.
  std::string Put(const std::string& path) {
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0) return std::string("stays: ") + std::strerror(errno);
    if (!S_ISREG(info.st_mode) || static_cast<uint64_t>(info.st_size) != mFileSize) {
      return "stays: not a file of the disk's size";
    }
    std::string name = NameOf(path);
    if (PoolNumber(name) < 0 || Exists(mPath + name))
      name = FmgrRepository::MakeFileName(static_cast<int>(mLast + 1));
    const std::string error = Move(path, mPath + name);
    if (!error.empty()) return "stays: can't become " + mPath + name + ": " + error;
    mLast = std::max(mLast, PoolNumber(name));
    return "is free again as " + mPath + name;
  }

 private:
  const std::string mPath;
  const uint64_t mFileSize;
  int64_t mLast = 0;
};

std::string Quarantine(const std::string& disk, std::string path) {
  FmgrErrorRepository quarantine(disk);
  quarantine.Push(path);  // finds a free name; whether the file moved has to be looked up
  if (Exists(path)) return "stays: can't be moved into quarantine";
  SyncDirectory(disk + "/imf_error");
  return "is in quarantine in " + disk + "/imf_error";
}

bool HoldsRecording(const std::string& path) { return ImfReader().Open(path); }

using Inode = std::pair<dev_t, ino_t>;

// Where the files that are in one of the three places are.
std::map<Inode, std::string> ListPlaces(const std::string& disk) {
  std::map<Inode, std::string> places;
  for (const std::string& place : ListDirectory(disk)) {
    if (place != "imf_free" && place != "imf_error" && place.rfind("data_", 0) != 0) continue;
    std::string directory = disk;
    directory.append("/").append(place).append("/");
    for (const std::string& name : ListDirectory(directory)) {
      const std::string path = directory + name;
      struct stat info = {};
      if (lstat(path.c_str(), &info) == 0) places[{info.st_dev, info.st_ino}] = path;
    }
  }
  return places;
}

std::string RepairRecording(const std::string& disk, const std::string& path, Pool* pool, SearchIndex* index) {
  const Completed completed = CompleteRecording(path);
  switch (completed.outcome) {
    case Completed::Outcome::kNothingUsable:
      return "holds nothing usable and " + pool->Put(path);
    case Completed::Outcome::kUnreadable:
      return "can't be read and " + Quarantine(disk, path);
    case Completed::Outcome::kNotNamed:
      return "stays: can't become " + completed.path + ": " + std::strerror(completed.error);
    case Completed::Outcome::kLeft:
      return "stays: can't be opened";
    case Completed::Outcome::kDone:
      break;
  }
  SyncDirectory(DirectoryOf(completed.path));
  index->AddRepaired(completed.path);
  return "is repaired as " + completed.path;
}

}  // namespace

void ReturnOrphans(const DiskReport& report, const Say& say) {
  const std::string prealloc = report.path + "/imf_prealloc";
  const bool isInUse = report.recorded + report.quarantined > 0;
  // What preparing has not yet laid down is not to be had from here.
  if (!isInUse && Exists(prealloc) && !Exists(report.path + "/imf_free")) {
    return say(prealloc, "stays: preparing the disk has to be finished or undone first (recorder prepare)");
  }
  // Without a pool nothing could ever be recycled.
  if (isInUse && !Exists(report.path + "/imf_free") && mkdir((report.path + "/imf_free").c_str(), 0755) == 0) {
    say(report.path + "/imf_free", "is there again");
  }
  const std::map<Inode, std::string> places = ListPlaces(report.path);
  Pool pool(report);
  for (const Finding& finding : report.findings) {
    struct stat info = {};
    const std::string& path = finding.path;
    const bool isOrphan = finding.fault == Fault::kOutside || finding.fault == Fault::kPoolName;
    if ((!isOrphan && finding.fault != Fault::kLeftover) || lstat(path.c_str(), &info) != 0) continue;
    if (!S_ISREG(info.st_mode)) continue;
    const auto place = places.find({info.st_dev, info.st_ino});
    if (finding.fault == Fault::kLeftover && place != places.end()) {
      if (unlink(path.c_str()) == 0) say(path, "is gone; the file is still " + place->second);
    } else if (finding.fault == Fault::kOutside && PoolNumber(NameOf(path)) < 0 && HoldsRecording(path)) {
      say(path, Quarantine(report.path, path));
    } else if (finding.fault != Fault::kLeftover || PoolNumber(NameOf(path)) >= 0) {
      say(path, pool.Put(path));
    } else {
      say(path, "stays: preparing gives no such name");
    }
  }
  if (Exists(prealloc) && rmdir(prealloc.c_str()) == 0) say(prealloc, "is gone, it was empty");
  SyncDirectory(report.path);
}

void RepairNames(const DiskReport& report, const Say& say) {
  Pool pool(report);
  SearchIndex index;
  for (const Finding& finding : report.findings) {
    if (finding.fault != Fault::kUnfinished) continue;
    say(finding.path, RepairRecording(report.path, finding.path, &pool, &index));
  }
}

void RebuildSearchDbs(const DiskReport& report, const Say& say) {
  for (const Finding& finding : report.findings) {
    if (finding.fault != Fault::kSearchDb) continue;
    const std::string directory = DirectoryOf(finding.path);
    // Other names might mean something to the shell.
    const bool isPlain = ParseDataDirectoryName(NameOf(directory.substr(0, directory.size() - 1))) >= 0;
    say(finding.path, isPlain && SearchIndex::Rebuild(directory) ? "is rebuilt" : "stays: it can't be rebuilt");
  }
}

}  // namespace recorder
