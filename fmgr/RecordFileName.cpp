#include "fmgr/RecordFileName.h"

#include <cstdio>

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/Log.h"

namespace fmgr {
namespace {

constexpr char kExtension[] = ".imf";

std::string Hex(uint32_t value) {
  char digits[9];
  std::snprintf(digits, sizeof digits, "%x", value);
  return digits;
}

}  // namespace

std::string InProgressName(uint32_t start) { return Hex(start) + "_00000000" + kExtension; }

std::string CompletedName(uint32_t start, uint32_t end, uint32_t mask) {
  return Hex(start) + "_" + Hex(end) + "_cm" + Hex(mask) + kExtension;
}

std::string StartPrefix(uint32_t start) { return Hex(start); }

std::string DataDirectoryName(int index) {
  char name[32];
  std::snprintf(name, sizeof name, "data_%08d", index);
  return name;
}

uint32_t ScanHex(const char* text) {
  unsigned value = 0;
  return std::sscanf(text, "%x", &value) == 1 ? value : 0;
}

int PathToStartTime(const std::string& path) {
  const size_t slash = path.rfind('/');
  return static_cast<int>(ScanHex(path.c_str() + (slash == std::string::npos ? 0 : slash + 1)));
}

}  // namespace fmgr

// --- FmgrDataRepository's operations on names ---

unsigned FmgrDataRepository::IsValidFileName(std::string name) {
  if (name.rfind(fmgr::kExtension) != std::string::npos) return 1;
  fmgr::LogDebug("Invalid file name '%s'\n", name.c_str());
  return 0;
}

int FmgrDataRepository::FileNameToStartTimeSec(const std::string& name) {
  return static_cast<int>(fmgr::ScanHex(name.c_str()));
}

int FmgrDataRepository::FileNameToEndTimeSec(const std::string& name) {
  const size_t separator = name.find('_');
  if (separator == std::string::npos) {
    fmgr::LogDebug("Invalid file name '%s'\n", name.c_str());
    return 0;
  }
  return static_cast<int>(fmgr::ScanHex(name.c_str() + separator + 1));
}

unsigned FmgrDataRepository::FileNameToChannelMask(const std::string& name) {
  const size_t marker = name.find("cm");
  return marker == std::string::npos ? 0 : fmgr::ScanHex(name.c_str() + marker + 2);
}

bool FmgrDataRepository::IsCompletedFile(const std::string& name) const {
  return FileNameToEndTimeSec(name) != 0;
}

void FmgrDataRepository::FlcFileInfoToFileName(std::string& out, flc_file_info_param_t info) {
  out = info.endTime != 0 ? fmgr::CompletedName(info.startTime, info.endTime, info.channelMask)
                          : fmgr::InProgressName(info.startTime);
}

std::string FmgrDataRepository::MakeRepositoryName(int index) const { return fmgr::DataDirectoryName(index); }

int FmgrDataRepository::PathToRepositoryId(const std::string& path) {
  const size_t found = path.find("data_");
  int index = -1;
  if (found == std::string::npos || std::sscanf(path.c_str() + found, "data_%d", &index) != 1) return -1;
  return index;
}

std::string FmgrDataRepository::GetDiskName() const {
  const size_t slash = mGroupPath.rfind('/');
  if (slash == std::string::npos) {
    fmgr::LogDebug("Invalid repo group path '%s'\n", mGroupPath.c_str());
    return "";
  }
  return mGroupPath.substr(slash + 1);
}

std::string FmgrDataRepository::FileNameToPath(const std::string& name, int index, const char* diskName) const {
  if (index == -1) return mPath + name;
  const std::string base = diskName == nullptr ? mGroupPath : mLinkRoot + "/disk/" + diskName;
  return base + "/" + fmgr::DataDirectoryName(index) + "/" + name;
}
