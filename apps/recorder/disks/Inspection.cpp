#include "apps/recorder/disks/Inspection.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/disks/SetAside.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrRepository.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr int64_t kClockTolerance =
    24 * 3600;                             // seconds: a clock that took local time for UTC is not that far off
constexpr int kLargestNumber = 999999999;  // leaves room for as many again

using OpenDirectory = std::unique_ptr<DIR, int (*)(DIR*)>;

// Null with errno set, EXDEV for a directory of another file system than `device`.
OpenDirectory Open(int parent, const std::string& name, dev_t device) {
  const int fd = openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  struct stat st;
  OpenDirectory directory(nullptr, closedir);
  if (fd < 0) return directory;
  int error = 0;
  if (fstat(fd, &st) != 0) error = errno;
  if (error == 0 && st.st_dev != device) error = EXDEV;
  if (error == 0) directory.reset(fdopendir(fd));
  if (directory == nullptr) {
    if (error == 0) error = errno;
    close(fd);
    errno = error;
  }
  return directory;
}

// DT_REG and so on; some file systems leave it out of the directory.
unsigned char TypeOf(DIR* directory, const dirent& entry) {
  struct stat st;
  if (entry.d_type != DT_UNKNOWN) return entry.d_type;
  if (fstatat(dirfd(directory), entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0) return IFTODT(st.st_mode);
  return DT_UNKNOWN;
}

std::string KindText(unsigned char type) {
  switch (type) {
    case DT_DIR:
      return "is a directory";
    case DT_LNK:
      return "is a symbolic link";
    case DT_FIFO:
      return "is a fifo";
    case DT_REG:
      return "is a file";
    default:
      return "is no regular file";
  }
}

// Calls use(name, type, inode) for each entry but "." and "..". 0, or the errno of a listing that broke off.
template <typename Use>
int ForEach(DIR* directory, Use use) {
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory);
    if (entry == nullptr) return errno;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") use(name, TypeOf(directory, *entry), entry->d_ino);
  }
}

// Whether names in it, or its own, can't be changed by anybody, as chattr +i makes it.
bool IsImmutable(const struct statx& st) {
  return (st.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
}
bool IsImmutable(int fd) {
  struct statx st = {};
  return statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &st) == 0 && IsImmutable(st);
}

// Why a directory that was opened takes no changes from this process; empty when it does. What makes the whole
// file system read-only is no matter of one directory.
std::string WhyFixed(int fd) {
  if (IsImmutable(fd)) return "is immutable";
  if (faccessat(fd, ".", W_OK | X_OK, AT_EACCESS) != 0 && errno == EACCES)
    return "can't be changed: " + std::string(std::strerror(errno));
  return "";
}

bool HoldsRecording(const std::string& path, const RecordName& name) {
  ImfReader reader;
  return reader.Open(path) && reader.StartTime() == name.startTime;
}

class DiskInspection {
 public:
  DiskInspection(const std::string& disk, int64_t now) : mDisk(disk), mNow(now) {}
  Inspection Run();

 private:
  std::string PathOf(const std::string& name) const { return mDisk + "/" + name; }
  void LookAtPool();
  void LookAtData(const std::map<int, std::vector<std::string>>& numbers);
  void LookInto(const std::string& name);
  int CountFiles(int parent, const std::string& name, int depth, int64_t* entries);

  const std::string mDisk;
  const int64_t mNow;
  OpenDirectory mDirectory{nullptr, closedir};
  dev_t mDevice = 0;
  std::vector<ino_t> mRecorded;  // of record files in data directories; in order once the pool is looked at
  Inspection mFound;
};

void DiskInspection::LookAtPool() {
  const std::string pool = PathOf("imf_free");
  const OpenDirectory directory = Open(dirfd(mDirectory.get()), "imf_free", mDevice);
  if (directory == nullptr) {
    mFound.unusable = pool + (errno == EXDEV ? " is another file system"
                                             : " can't be read: " + std::string(std::strerror(errno)));
    return;
  }
  const std::string fixed = WhyFixed(dirfd(directory.get()));
  if (!fixed.empty()) mFound.unusable = pool + " " + fixed;
  std::sort(mRecorded.begin(), mRecorded.end());
  const int error = ForEach(directory.get(), [&](const std::string& name, unsigned char type, ino_t) {
    if (!HasSuffix(name, ".imf") || name[0] == '.') return;
    ++mFound.pool;
    struct statx st = {};
    const std::string path = pool + "/" + name;
    if (type != DT_REG) {
      mFound.odd.push_back({path, KindText(type)});
    } else if (statx(dirfd(directory.get()), name.c_str(), AT_SYMLINK_NOFOLLOW,
                     STATX_SIZE | STATX_NLINK | STATX_INO, &st) != 0) {
      if (errno != ENOENT)
        mFound.fixed.push_back({path, "can't be looked at: " + std::string(std::strerror(errno))});
    } else if (IsImmutable(st)) {
      ++mFound.files;
      mFound.fixed.push_back({path, "is immutable"});
    } else if (st.stx_nlink > 1 && std::binary_search(mRecorded.begin(), mRecorded.end(), st.stx_ino)) {
      mFound.odd.push_back({path, "is a recording's second name"});
    } else if (st.stx_size == 0) {
      mFound.odd.push_back({path, "is empty"});
    } else if (mFound.manifest && st.stx_size != mFound.manifest->fileBytes) {
      mFound.odd.push_back({path, "has " + std::to_string(st.stx_size) + " bytes instead of " +
                                      std::to_string(mFound.manifest->fileBytes)});
    } else {
      ++mFound.files;
      // The pool would go on counting from it.
      if (PoolNumber(name) < 0) mFound.odd.push_back({path, "has a name that is not a number of eight digits"});
    }
  });
  if (error != 0) mFound.isBrokenOff = true;
  if (error != 0) mFound.unusable = pool + " can't be read to its end: " + std::strerror(error);
}

void DiskInspection::LookInto(const std::string& name) {
  const std::string path = PathOf(name) + "/";
  const OpenDirectory directory = Open(dirfd(mDirectory.get()), name, mDevice);
  if (directory == nullptr) {
    if (errno == ENOENT) return;
    mFound.closed.push_back({path, errno == EXDEV ? "is another file system"
                                                  : "can't be read: " + std::string(std::strerror(errno))});
    return;
  }
  std::vector<std::string> unfinished;
  std::vector<OddEntry> odd;
  int64_t files = 0;
  const int error = ForEach(directory.get(), [&](const std::string& entry, unsigned char type, ino_t inode) {
    if (entry.rfind("search.fdb", 0) == 0) {
      const std::string why = WhyNoDatabase(path + entry);
      if (!why.empty()) odd.push_back({path + entry, why});
    }
    if (type != DT_REG || !HasSuffix(entry, ".imf")) return;
    ++files;
    mRecorded.push_back(inode);
    RecordName record{};
    if (!ParseRecordName(entry, &record)) return;  // nobody looks for such a one
    if (record.startTime > mNow + kClockTolerance && !HoldsRecording(path + entry, record)) {
      odd.push_back({path + entry, "starts ahead of the clock and holds no recording of that time"});
      return;
    }
    if (record.endTime != 0) return;
    if (IsForeignRecord(path + entry, record)) {
      odd.push_back({path + entry, "has no recording's name and holds none"});
    } else {
      unfinished.push_back(path + entry);
    }
  });
  if (error != 0) {
    mFound.isBrokenOff = true;
    mFound.closed.push_back({path, "can't be read to its end: " + std::string(std::strerror(error))});
    return;
  }
  const std::string fixed = WhyFixed(dirfd(directory.get()));
  if (!fixed.empty()) {
    mFound.fixed.push_back({path, fixed});
  } else {
    mFound.odd.insert(mFound.odd.end(), odd.begin(), odd.end());
    mFound.unfinished.insert(mFound.unfinished.end(), unfinished.begin(), unfinished.end());
  }
  mFound.files += files;
}

void DiskInspection::LookAtData(const std::map<int, std::vector<std::string>>& numbers) {
  for (const auto& [number, names] : numbers) {
    const std::string usual = DataDirectoryName(number);
    const bool hasUsual = std::find(names.begin(), names.end(), usual) != names.end();
    bool isFirst = true;
    for (const std::string& name : names) {
      if (!IsUsualNumber(number)) {
        mFound.odd.push_back({PathOf(name), "has a number that leaves none for further ones"});
      } else if (hasUsual ? name != usual : !isFirst) {
        mFound.odd.push_back({PathOf(name), "has the number of another one"});
      } else {
        LookInto(name);
      }
      isFirst = false;
    }
  }
}

// Counts a directory's entries, and the record files in it down to `depth` directories more.
int DiskInspection::CountFiles(int parent, const std::string& name, int depth, int64_t* entries) {
  const OpenDirectory directory = Open(parent, name, mDevice);
  if (directory == nullptr) return errno;
  return ForEach(directory.get(), [&](const std::string& entry, unsigned char type, ino_t) {
    ++*entries;
    int64_t inner = 0;
    // A number may have been appended.
    if (type == DT_REG && entry.find(".imf") != std::string::npos) ++mFound.files;
    if (type == DT_DIR && depth > 0) CountFiles(dirfd(directory.get()), entry, depth - 1, &inner);
  });
}

Inspection DiskInspection::Run() {
  // The disk's own directory may be a link that its owner has made.
  mDirectory.reset(opendir(mDisk.c_str()));
  struct stat st;
  if (mDirectory == nullptr || fstat(dirfd(mDirectory.get()), &st) != 0) {
    mFound.unusable = mDisk + " can't be read: " + std::strerror(errno);
    return mFound;
  }
  mDevice = st.st_dev;
  mFound.manifest = ReadManifest(mDisk);
  std::map<int, std::vector<std::string>> numbers;
  std::vector<std::string> asides;
  bool hasPool = false;
  bool hasErrors = false;
  const int error = ForEach(mDirectory.get(), [&](const std::string& name, unsigned char type, ino_t) {
    if (IsSetAsideName(name) && type == DT_DIR) asides.push_back(name);
    if (name == "imf_free" || name == "imf_error") {
      if (type != DT_DIR) mFound.odd.push_back({PathOf(name), KindText(type)});
      if (type == DT_DIR) (name == "imf_free" ? hasPool : hasErrors) = true;
    } else if (name.rfind("data_", 0) == 0) {
      const int number = ParseDataDirectoryName(name);
      if (type != DT_DIR || number < 0) {
        mFound.odd.push_back({PathOf(name), type != DT_DIR ? KindText(type) : "has no data directory's name"});
      } else {
        numbers[number].push_back(name);
      }
    }
  });
  if (error != 0) mFound.isBrokenOff = true;
  if (error != 0) mFound.unusable = mDisk + " can't be read to its end: " + std::strerror(error);
  if (!mFound.unusable.empty()) return mFound;
  for (auto& entry : numbers) std::sort(entry.second.begin(), entry.second.end());
  LookAtData(numbers);
  // What is on its way from the pool into a data directory meanwhile is counted twice rather than missed.
  if (hasPool) LookAtPool();
  int64_t ignored = 0;
  if (hasErrors) CountFiles(dirfd(mDirectory.get()), "imf_error", 0, &ignored);
  for (const std::string& name : asides) CountFiles(dirfd(mDirectory.get()), name, 1, &mFound.setAside);
  return mFound;
}

}  // namespace

int64_t Inspection::Missing() const {
  return manifest && closed.empty() ? std::max<int64_t>(0, manifest->files - files) : 0;
}

std::string WhyFixed(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return "";
  std::string why = WhyFixed(fd);
  close(fd);
  return why;
}

bool IsImmutable(const std::string& path) {
  struct statx st = {};
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &st) == 0 && IsImmutable(st);
}

bool IsForeignRecord(const std::string& path, const RecordName& name) {
  if (name.endTime != 0) return false;
  std::string inProgress;
  FmgrDataRepository::FlcFileInfoToFileName(inProgress, FlcFileParam(nullptr, 0, name.startTime));
  return NameOf(path) != inProgress && !HoldsRecording(path, name);
}

std::string WhyNoDatabase(const std::string& path) {
  struct stat st = {};
  if (lstat(path.c_str(), &st) != 0) return "";
  if (!S_ISREG(st.st_mode)) return KindText(IFTODT(st.st_mode));
  return NameOf(path) == "search.fdb" && st.st_nlink > 1 ? "has a second name" : "";
}

Inspection Inspect(const std::string& disk, int64_t now) {
  Inspection found = DiskInspection(disk, now).Run();
  // A device that stumbles once is no reason to do without anything.
  return found.isBrokenOff ? DiskInspection(disk, now).Run() : found;
}

int64_t PoolNumber(const std::string& name) {
  const int64_t number = std::strtol(name.c_str(), nullptr, 10);
  const bool isName =
      number >= 0 && number < INT32_MAX && name == FmgrRepository::MakeFileName(static_cast<int>(number));
  return isName ? number : -1;
}

std::string DataDirectoryName(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "data_%08d", index);
  return name;
}

bool IsUsualNumber(int index) { return index >= 0 && index <= kLargestNumber; }

}  // namespace recorder
