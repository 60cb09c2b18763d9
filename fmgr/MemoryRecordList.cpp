#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "ImfFile.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/RecordFileName.h"
#include "fmgr/RecordList.h"

namespace fmgr {

bool ReadEndTime(const std::string& path, int& end) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  imf_error_code_e error = IMF_ERROR_NONE;
  ImfFile file(error, path, IMF_OPEN_READ, "", "", 0, nullptr);
  if (error != IMF_ERROR_NONE) return false;
  end = file.GetEndTime();
  return true;
}

int MemoryRecordList::EndBeforeNewest(int) const {
  return FmgrDataRepository::FileNameToEndTimeSec(*std::prev(mNames.end(), 2));
}

void MemoryRecordList::Rename(const std::string& oldName, const std::string& newName) {
  const auto entry = std::find(mNames.begin(), mNames.end(), oldName);
  if (entry != mNames.end()) *entry = newName;
}

void MemoryRecordList::DropOldest() {
  if (!mNames.empty()) mNames.pop_front();
}

void MemoryRecordList::DropNewest() {
  if (!mNames.empty()) mNames.pop_back();
}

// The limit is not looked at: deliberate. List mode serves disks that were attached for reading out, which are
// emptied from the oldest file on whatever its time.
bool MemoryRecordList::DropOldestBefore(long) {
  DropOldest();
  return true;
}

std::list<std::string>::const_iterator MemoryRecordList::FindStart(int start) const {
  return std::find_if(mNames.cbegin(), mNames.cend(), [start](const std::string& name) {
    return FmgrDataRepository::FileNameToStartTimeSec(name) == start;
  });
}

bool MemoryRecordList::NextFilePath(const std::string& path, std::string& next) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  const int start = FmgrDataRepository::FileNameToStartTimeSec(name);
  const auto same = FindStart(start);
  if (!mOwner.IsCompletedFile(name)) {
    if (std::find(mNames.cbegin(), mNames.cend(), name) != mNames.cend()) {
      next = path;
      return true;
    }
    if (same != mNames.cend()) {
      next = mOwner.FileNameToPath(*same, -1, nullptr);
      return true;
    }
  }
  if (same == mNames.cend()) return false;
  const auto following = std::next(same);
  if (following == mNames.cend()) return false;
  next = mOwner.FileNameToPath(*following, -1, nullptr);
  return true;
}

// By whole name, not by start time as the next file is found, and without a case for the file being recorded:
// deliberate, a player that goes back holds a name it was given.
bool MemoryRecordList::PrevFilePath(const std::string& path, std::string& prev) const {
  const std::string name = FmgrRepository::PathToFileName(path);
  const auto entry = std::find(mNames.crbegin(), mNames.crend(), name);
  if (entry == mNames.crend() || std::next(entry) == mNames.crend()) return false;
  prev = mOwner.FileNameToPath(*std::next(entry), -1, nullptr);
  return true;
}

int MemoryRecordList::FilePath(int time, std::string& path, int) const {
  // A time equal to the directory's end is refused here, while a file whose end equals the time is accepted
  // below: deliberate, the moment belongs to the file that follows in the next directory, if there is one.
  const int directoryEnd = mOwner.GetEndTimeSec();
  if (directoryEnd <= time || directoryEnd <= 0) return 0;
  for (const std::string& name : mNames) {
    const std::string candidate = mOwner.FileNameToPath(name, -1, nullptr);
    int end = FmgrDataRepository::FileNameToEndTimeSec(name);
    if (end == 0) ReadEndTime(candidate, end);
    if (end >= time) {
      path = candidate;
      return end;
    }
  }
  return 0;
}

int MemoryRecordList::Collect(std::list<std::string>& paths, int from, int to, uint32_t channelMask) const {
  if (mOwner.GetStartTimeSec() >= to || from >= mOwner.GetEndTimeSec()) return 0;

  // `paths` may hold entries of other directories; they take part in the ordering. Their starts are read once.
  struct Entry {
    uint32_t start;
    std::list<std::string>::iterator position;
  };
  std::vector<Entry> entries;
  for (auto position = paths.begin(); position != paths.end(); ++position) {
    entries.push_back({static_cast<uint32_t>(PathToStartTime(*position)), position});
  }

  int count = 0;
  for (const std::string& name : mNames) {
    const int start = FmgrDataRepository::FileNameToStartTimeSec(name);
    const int end = FmgrDataRepository::FileNameToEndTimeSec(name);
    const uint32_t mask = FmgrDataRepository::FileNameToChannelMask(name);
    // OR, not AND: only a file without any channel is rejected, and only by a search for none. Deliberate: a
    // disk attached for reading out shows everything.
    if (start >= to || end <= from || (mask | channelMask) == 0) continue;
    const auto before = std::find_if(entries.begin(), entries.end(), [start](const Entry& entry) {
      return entry.start >= static_cast<uint32_t>(start);
    });
    const auto position = paths.insert(before == entries.end() ? paths.end() : before->position,
                                       mOwner.FileNameToPath(name, -1, nullptr));
    entries.insert(before, {static_cast<uint32_t>(start), position});
    ++count;
  }
  return count;
}

}  // namespace fmgr
