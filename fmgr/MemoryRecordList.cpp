#include <sys/stat.h>

#include <algorithm>

#include "ImfFile.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/PathOrder.h"
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

int MemoryRecordList::OldestStart() const { return FmgrDataRepository::FileNameToStartTimeSec(Oldest()); }

int MemoryRecordList::OldestEnd() const { return FmgrDataRepository::FileNameToEndTimeSec(Oldest()); }

int MemoryRecordList::NewestEnd(std::string& name) const {
  name = Newest();
  return FmgrDataRepository::FileNameToEndTimeSec(name);
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

int MemoryRecordList::FilePath(int time, std::string& path, int, const FileChoice*) const {
  // A time equal to the directory's end is refused here, while a file whose end equals the time is accepted
  // below: deliberate, the moment belongs to the file that follows in the next directory, if there is one.
  const int directoryEnd = mOwner.GetEndTimeSec();
  if (directoryEnd <= time || directoryEnd <= 0) return 0;
  for (const std::string& name : mNames) {
    int end = FmgrDataRepository::FileNameToEndTimeSec(name);
    if (end == 0) ReadEndTime(mOwner.FileNameToPath(name, -1, nullptr), end);
    if (end >= time) {
      path = mOwner.FileNameToPath(name, -1, nullptr);
      return end;
    }
  }
  return 0;
}

int MemoryRecordList::Collect(PathOrder& paths, int from, int to, uint32_t channelMask) const {
  if (mOwner.GetStartTimeSec() >= to || from >= mOwner.GetEndTimeSec()) return 0;
  int count = 0;
  for (const std::string& name : mNames) {
    const int start = FmgrDataRepository::FileNameToStartTimeSec(name);
    const int end = FmgrDataRepository::FileNameToEndTimeSec(name);
    const uint32_t mask = FmgrDataRepository::FileNameToChannelMask(name);
    // OR, not AND: only a file without any channel is rejected, and only by a search for none. Deliberate: a
    // disk attached for reading out shows everything.
    if (start >= to || end <= from || (mask | channelMask) == 0) continue;
    // `paths` may hold entries of other directories; they take part in the ordering.
    mOwner.AppendPath(paths.Insert(static_cast<uint32_t>(start)), name, -1, nullptr);
    ++count;
  }
  return count;
}

}  // namespace fmgr
