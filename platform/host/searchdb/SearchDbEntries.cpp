#include "platform/host/searchdb/SearchDbEntries.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "ImfFile.h"

namespace searchdb {

namespace {

constexpr uint32_t kTimeLimit = 2147483647;  // charts have signed times

bool IsRegular(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_REG;
  struct stat info = {};
  return fstatat(directory, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

bool ListEntries(int parent, std::vector<Entry>* entries) {
  const int descriptor = openat(parent, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return false;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(fdopendir(descriptor), closedir);
  if (!directory) {
    close(descriptor);
    return false;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory.get());
    if (entry == nullptr) return errno == 0;
    Entry next = {entry->d_name, {}, false};
    const size_t length = next.name.size();
    if (length < 4 || next.name.compare(length - 4, 4, ".imf") != 0) continue;
    next.isRecord = IsRegular(dirfd(directory.get()), *entry) && ParseRecordName(next.name, &next.record);
    entries->push_back(next);
  }
}

uint32_t NewestStart(const std::vector<Entry>& entries) {
  uint32_t newest = 0;
  for (const Entry& entry : entries) {
    if (entry.record.startTime <= kTimeLimit) newest = std::max(newest, entry.record.startTime);
  }
  return newest;
}

RowKind RowOf(const std::string& directory, const Entry& entry, uint32_t newestStart,
              TimeSearchRecording* row) {
  RecordName record = entry.record;
  if (entry.isRecord && record.endTime == 0 && record.startTime == newestStart) return RowKind::kInProgress;
  if (entry.isRecord && (record.endTime == 0 || record.channelMask == 0)) {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, directory + entry.name, IMF_OPEN_READ, "", "", 0, nullptr);
    if (record.endTime == 0) record.endTime = static_cast<uint32_t>(file.GetEndTime());
    if (record.channelMask == 0) record.channelMask = file.GetStreamCountSummary().GetVideoChannelMask(0);
  }
  if (!entry.isRecord || record.endTime < record.startTime || record.endTime > kTimeLimit) {
    return RowKind::kSkipped;
  }
  *row = {static_cast<int32_t>(record.startTime), static_cast<int32_t>(record.endTime), record.channelMask};
  return RowKind::kRow;
}

}  // namespace searchdb
