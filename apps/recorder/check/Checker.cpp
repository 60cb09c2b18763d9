#include "apps/recorder/check/Checker.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/check/RecordCheck.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/disks/Preparation.h"
#include "apps/recorder/disks/PreparationLeft.h"
#include "apps/recorder/disks/SetAside.h"
#include "apps/recorder/recording/SearchIndex.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr uint32_t kToleratedOverlap =
    5;                        // seconds by which the file manager lets one recording follow another
constexpr int kDeepest = 16;  // directories that are not the recorder's are looked through this far

enum class Place { kPool, kData, kError, kPrealloc, kForeign, kSetAside, kElsewhere };

struct FileName {
  std::string path;
  Place place;
};

struct File {
  uint64_t size = 0;
  uint64_t links = 0;
  std::vector<FileName> names;

  const FileName* Home() const {
    for (const FileName& name : names) {
      if (name.place == Place::kPool || name.place == Place::kData || name.place == Place::kError) return &name;
    }
    return nullptr;
  }
  bool IsIn(Place place) const {
    return std::any_of(names.begin(), names.end(),
                       [place](const FileName& name) { return name.place == place; });
  }
  bool IsCalledImf() const {
    return std::any_of(names.begin(), names.end(), [](const FileName& name) {
      return NameOf(name.path).find(".imf") != std::string::npos;
    });
  }
};

struct DataDirectory {
  std::string path;  // ends with "/"
  std::vector<std::string> records;
  std::vector<std::string> searchDb;
};

std::string Join(const std::string& directory, const std::string& name) { return directory + "/" + name; }

class DiskCheck {
 public:
  explicit DiskCheck(const std::string& disk) { mReport.path = disk; }
  DiskReport Run();

 private:
  void Find(Fault fault, const std::string& path, const std::string& what);
  bool List(const std::string& directory, std::vector<std::string>* names);
  bool Look(const std::string& path, struct stat* info, bool wantDirectory);
  void LookAtOwn(const std::string& name);
  void WalkPool(const std::string& directory);
  void WalkData(const std::string& name);
  void WalkSimple(const std::string& directory, Place place);
  void WalkSetAside(const std::string& directory);
  void WalkElsewhere(const std::string& directory, int depth);
  void Add(const std::string& path, const struct stat& info, Place place);
  uint64_t UsualSize() const;
  bool IsLaidDown(const File& file) const;
  bool IsHalfPrepared() const;
  void JudgePlace(const File& file);
  void JudgePoolNumbers();
  void JudgeCount();
  void NoteOverlaps();
  std::string SizeText(uint64_t size) const;

  DiskReport mReport;
  std::set<std::string> mBlamed;  // paths: of what is wrong with a file, only the first is told
  std::map<std::pair<dev_t, ino_t>, File> mFiles;
  std::vector<DataDirectory> mDirectories;
  std::map<int, std::string> mNumbers;  // of the data directories
  std::set<int64_t> mPoolNumbers;
  std::vector<std::string> mSetAside;  // paths
  std::optional<DiskManifest> mManifest;
  std::vector<CheckedRecording> mCompleted;
  dev_t mDevice = 0;
};

void DiskCheck::Find(Fault fault, const std::string& path, const std::string& what) {
  if (mBlamed.insert(path).second) mReport.findings.push_back({fault, path, what, false});
}

bool DiskCheck::List(const std::string& directory, std::vector<std::string>* names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), closedir);
  errno = stream ? 0 : errno;
  while (const dirent* entry = stream ? readdir(stream.get()) : nullptr) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names->push_back(name);
  }
  std::sort(names->begin(), names->end());
  if (errno == 0) return true;
  Find(Fault::kUnreadable, directory, std::strerror(errno));
  return false;
}

// False for what has gone since it was listed, and for what is not of the kind that its place calls for.
bool DiskCheck::Look(const std::string& path, struct stat* info, bool wantDirectory) {
  if (lstat(path.c_str(), info) != 0) {
    if (errno != ENOENT) Find(Fault::kUnreadable, path, std::strerror(errno));
    return false;
  }
  if (wantDirectory ? S_ISDIR(info->st_mode) : S_ISREG(info->st_mode)) {
    const bool isOther = wantDirectory && info->st_dev != mDevice;
    if (isOther) Find(Fault::kImmovable, path, "is another file system");
    if (IsImmutable(path)) Find(Fault::kImmovable, path, "is immutable");
    return !isOther;
  }
  const char* what = S_ISLNK(info->st_mode)   ? "is a symbolic link"
                     : S_ISDIR(info->st_mode) ? "is a directory in the place of a file"
                     : wantDirectory          ? "is not a directory"
                                              : "is not a regular file";
  Find(Fault::kNoRegularFile, path, what);
  if (S_ISDIR(info->st_mode)) WalkElsewhere(path, 0);
  return false;
}

void DiskCheck::Add(const std::string& path, const struct stat& info, Place place) {
  File& file = mFiles[{info.st_dev, info.st_ino}];
  file.size = static_cast<uint64_t>(info.st_size);
  file.links = info.st_nlink;
  file.names.push_back({path, place});
}

void DiskCheck::WalkPool(const std::string& directory) {
  struct stat info = {};
  std::vector<std::string> names;
  if (!Look(directory, &info, true) || !List(directory, &names)) return;
  for (const std::string& name : names) {
    const std::string path = Join(directory, name);
    if (!Look(path, &info, false)) continue;
    Add(path, info, HasSuffix(name, ".imf") ? Place::kPool : Place::kForeign);
    if (!HasSuffix(name, ".imf")) continue;
    if (PoolNumber(name) >= 0) {
      mPoolNumbers.insert(PoolNumber(name));
    } else {
      // The pool would go on counting from it, and give a number out a second time.
      Find(Fault::kPoolName, path, "its name is not a number of eight digits");
    }
  }
}

void DiskCheck::WalkData(const std::string& name) {
  struct stat info = {};
  DataDirectory directory;
  directory.path = mReport.path + "/" + name + "/";
  const std::string path = mReport.path + "/" + name;
  if (!Look(path, &info, true)) return;
  const int number = ParseDataDirectoryName(name);
  if (number < 0) {
    Find(Fault::kDirectoryName, path, "is not a data directory and is left alone");
    return WalkElsewhere(path, 0);
  }
  if (!IsUsualNumber(number)) {
    Find(Fault::kDirectoryName, path, "has a number that leaves none for further ones");
    return WalkElsewhere(path, 0);
  }
  const std::string proper = DataDirectoryName(number);
  const auto [other, isFirst] = mNumbers.emplace(number, name);
  if (!isFirst) {
    Find(Fault::kTwoDirectories, path, "has the same number as " + other->second);
  } else if (name != proper) {
    Find(Fault::kDirectoryName, path, "should be called " + proper);
  }

  std::vector<std::string> names;
  if (!List(path, &names)) return;
  for (const std::string& entry : names) {
    if (entry.rfind("search.fdb", 0) == 0) {
      directory.searchDb.push_back(entry);
      continue;
    }
    const bool isRecord = HasSuffix(entry, ".imf");
    if (entry.rfind(".search.fdb", 0) == 0 || !Look(Join(path, entry), &info, false)) continue;
    Add(Join(path, entry), info, isRecord ? Place::kData : Place::kForeign);
    if (isRecord) directory.records.push_back(entry);
  }
  mDirectories.push_back(directory);
}

// Quarantine takes whatever was in the way, directories too; what is in it is in its place.
void DiskCheck::WalkSimple(const std::string& directory, Place place) {
  struct stat info = {};
  std::vector<std::string> names;
  if (!Look(directory, &info, true) || !List(directory, &names)) return;
  for (const std::string& name : names) {
    const std::string path = Join(directory, name);
    if (lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) Add(path, info, place);
  }
  if (place == Place::kPrealloc && names.empty()) {
    Find(Fault::kLeftover, directory, "is empty: preparing the disk was cut off before its removal");
  }
}

void DiskCheck::WalkSetAside(const std::string& directory) {
  struct stat info = {};
  std::vector<std::string> names;
  if (!Look(directory, &info, true) || !List(directory, &names)) return;
  for (const std::string& name : names) {
    const std::string path = Join(directory, name);
    mSetAside.push_back(path);
    if (lstat(path.c_str(), &info) != 0) continue;
    if (S_ISREG(info.st_mode)) Add(path, info, Place::kSetAside);
    if (S_ISDIR(info.st_mode) && info.st_dev == mDevice) WalkElsewhere(path, 0);
  }
}

void DiskCheck::WalkElsewhere(const std::string& directory, int depth) {
  std::vector<std::string> names;
  if (access(directory.c_str(), R_OK | X_OK) != 0) {  // as lost+found for anybody but root
    mReport.notes.push_back(directory + " can't be looked through");
    return;
  }
  if (depth > kDeepest || !List(directory, &names)) return;
  for (const std::string& name : names) {
    const std::string path = Join(directory, name);
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0 || info.st_dev != mDevice) continue;
    if (S_ISREG(info.st_mode)) Add(path, info, Place::kElsewhere);
    if (S_ISDIR(info.st_mode)) WalkElsewhere(path, depth + 1);
  }
}

uint64_t DiskCheck::UsualSize() const {
  if (mManifest) return mManifest->fileBytes;
  std::map<uint64_t, int64_t> votes;
  for (const auto& [inode, file] : mFiles) {
    const FileName* home = file.Home();
    if (file.IsCalledImf() && (home != nullptr || file.IsIn(Place::kPrealloc))) votes[file.size] += 1;
  }
  uint64_t usual = 0;
  int64_t most = 0;
  for (const auto& [size, count] : votes) {
    if (count < most) continue;
    most = count;
    usual = size;
  }
  return usual;
}

// A laid-down file is known by its size as well, so that one that a file system check has put into lost+found,
// or that somebody has renamed, is found again.
bool DiskCheck::IsLaidDown(const File& file) const {
  if (file.IsIn(Place::kSetAside)) return file.size == mReport.fileSize;
  return file.IsCalledImf() || (file.size == mReport.fileSize && file.size > 0);
}

std::string DiskCheck::SizeText(uint64_t size) const {
  if (size == 0) return "is empty";
  return "has " + std::to_string(size) + " bytes instead of " + std::to_string(mReport.fileSize);
}

// Finishing it or taking it back, which its leftovers lead to, is all there is to do: what preparing has not
// come to is not missing.
bool DiskCheck::IsHalfPrepared() const {
  return !HoldsRecordings(mReport.path) &&
         std::any_of(mReport.findings.begin(), mReport.findings.end(),
                     [](const Finding& finding) { return finding.fault == Fault::kLeftover; });
}

void DiskCheck::JudgePlace(const File& file) {
  const FileName* home = file.Home();
  if (!IsLaidDown(file)) {
    for (const FileName& name : file.names) {
      if (name.place == Place::kForeign) Find(Fault::kForeign, name.path, "is not one of the recorder's files");
    }
    return;
  }
  for (const FileName& name : file.names) {
    if (&name == home) continue;
    if (name.place == Place::kPrealloc) {
      Find(Fault::kLeftover, name.path,
           home != nullptr                 ? "was left by preparing; the file is in its place at " + home->path
           : file.size != mReport.fileSize ? "was left by preparing and " + SizeText(file.size)
                                           : "was left by preparing and never put into the pool");
    } else if (home != nullptr) {
      Find(Fault::kTwoPlaces, name.path, "is also " + home->path);
    } else {
      Find(Fault::kOutside, name.path,
           name.place == Place::kForeign ? "nobody looks for a record file under this name"
                                         : "lies outside pool, data directories and quarantine");
    }
  }
  if (file.links > file.names.size()) {
    Find(Fault::kTwoPlaces, file.names.front().path,
         "has further names (" + std::to_string(file.links - file.names.size()) +
             ") outside the disk's directory");
  }
  if (home == nullptr) {
    mReport.outside += 1;
    return;
  }
  mReport.free += home->place == Place::kPool ? 1 : 0;
  mReport.recorded += home->place == Place::kData ? 1 : 0;
  mReport.quarantined += home->place == Place::kError ? 1 : 0;
  if (home->place != Place::kError && file.size != mReport.fileSize) {
    Find(Fault::kSize, home->path, SizeText(file.size));
  }
}

void DiskCheck::JudgePoolNumbers() {
  int64_t last = -1;
  for (const int64_t number : mPoolNumbers) {
    if (last >= 0 && number != last + 1) {
      Find(Fault::kGap, mReport.path + "/imf_free",
           "its numbers skip from " + std::to_string(last) + " to " + std::to_string(number) +
               ": something has been taken out of it");
    }
    last = number;
  }
}

void DiskCheck::NoteOverlaps() {
  std::sort(mCompleted.begin(), mCompleted.end(),
            [](const CheckedRecording& a, const CheckedRecording& b) { return a.start < b.start; });
  uint32_t latest = 0;
  int64_t count = 0;
  std::string first;
  for (const CheckedRecording& recording : mCompleted) {
    if (latest > recording.start && latest - recording.start > kToleratedOverlap && count++ == 0) {
      first = recording.path;
    }
    latest = std::max(latest, recording.end);
  }
  if (count == 0) return;
  mReport.notes.push_back(std::to_string(count) + " recordings overlap earlier ones in time, the first is " +
                          first + ": the clock was set back");
}

void DiskCheck::JudgeCount() {
  if (!mManifest) return JudgePoolNumbers();
  const auto count = std::count_if(mFiles.begin(), mFiles.end(), [this](const auto& file) {
    return file.second.size == mReport.fileSize && IsLaidDown(file.second);
  });
  if (count >= mManifest->files) return;  // files that couldn't be moved in their turn leave gaps as well
  Find(Fault::kMissing, Join(mReport.path, kManifestName),
       std::to_string(mManifest->files - count) + " of the " + std::to_string(mManifest->files) +
           " files that were laid down are not there");
  JudgePoolNumbers();
}

// What the recorder keeps beside its directories. The reserve may have any size, a record file's as well.
void DiskCheck::LookAtOwn(const std::string& name) {
  const std::string path = Join(mReport.path, name);
  struct stat info = {};
  // One that is there and can't be moved is no fault: nobody moves it.
  if (lstat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) Look(path, &info, false);
  if (!S_ISREG(info.st_mode)) return;
  if (name != kReserveFile) Add(path, info, Place::kElsewhere);
  if (name == kManifestName && !mManifest) {
    Find(Fault::kForeign, path, "can't be understood, so nobody notices when laid-down files are missing");
  }
}

DiskReport DiskCheck::Run() {
  std::vector<std::string> names;
  struct stat info = {};
  if (stat(mReport.path.c_str(), &info) == 0) {
    mDevice = info.st_dev;
  } else if (errno == ENOENT || errno == ENOTDIR) {
    mReport.missing = true;
    return mReport;
  }
  if (!List(mReport.path, &names)) return mReport;
  // Preparing makes the pre-allocation directory first.
  mReport.missing = std::none_of(names.begin(), names.end(), [](const std::string& name) {
    return name == "imf_free" || name == "imf_prealloc" || name.rfind("data_", 0) == 0;
  });
  if (mReport.missing) return mReport;
  mManifest = ReadManifest(mReport.path);
  for (const std::string& name : names) {
    const std::string path = Join(mReport.path, name);
    if (name == "imf_free") {
      WalkPool(path);
    } else if (name == "imf_error" || name == "imf_prealloc") {
      WalkSimple(path, name == "imf_error" ? Place::kError : Place::kPrealloc);
    } else if (name.rfind("data_", 0) == 0) {
      WalkData(name);
    } else if (IsSetAsideName(name)) {
      WalkSetAside(path);
    } else if (name == kManifestName || name == kReserveFile || name == kLockFile) {
      LookAtOwn(name);
    } else if (lstat(path.c_str(), &info) == 0) {
      if (S_ISREG(info.st_mode)) Add(path, info, Place::kElsewhere);
      if (S_ISDIR(info.st_mode) && info.st_dev == mDevice) WalkElsewhere(path, 0);
    }
  }

  mReport.fileSize = UsualSize();
  for (const auto& [inode, file] : mFiles) JudgePlace(file);
  if (!IsHalfPrepared()) {
    if (std::find(names.begin(), names.end(), "imf_free") == names.end()) {
      Find(Fault::kUnreadable, mReport.path + "/imf_free", "the pool is missing");
    }
    JudgeCount();
  }
  for (const std::string& path : mSetAside)
    Find(Fault::kSetAside, path, "was set aside: it is of no use where it was");
  const Blame blame = [this](Fault fault, const std::string& path, const std::string& what) {
    Find(fault, path, what);
  };
  for (const DataDirectory& directory : mDirectories) {
    CheckRecordings(directory.path, directory.records, blame, &mCompleted);
    const std::string what = SearchIndex::Disagreement(directory.path, directory.records, directory.searchDb);
    if (!what.empty()) blame(Fault::kSearchDb, directory.path + "search.fdb", what);
  }
  NoteOverlaps();

  std::set<std::string> laidDown;
  for (const auto& [inode, file] : mFiles) {
    for (const FileName& name : file.names) {
      if (IsLaidDown(file)) laidDown.insert(name.path);
    }
  }
  for (Finding& finding : mReport.findings) finding.isOfFile = laidDown.count(finding.path) != 0;
  mReport.missing = mReport.Files() == 0 && mReport.findings.empty();
  return mReport;
}

}  // namespace

int64_t DiskReport::Wrong() const {
  return std::count_if(findings.begin(), findings.end(), [](const Finding& finding) {
    return finding.isOfFile && finding.fault != Fault::kLeftover;
  });
}

DiskReport CheckDisk(const std::string& disk) { return DiskCheck(disk).Run(); }

}  // namespace recorder
