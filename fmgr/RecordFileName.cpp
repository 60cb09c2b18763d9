#include "fmgr/RecordFileName.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "fmgr/FmgrDataRepository.h"
#include "fmgr/Log.h"

namespace fmgr {
namespace {

constexpr char kExtension[] = ".imf";
constexpr char kNoEnd[] = "_00000000";
constexpr char kMaskMark[] = "_cm";
constexpr int kTimeDigits = 8;

// Each writes at `out` and returns where it ended.
char* PutHex(char* out, uint32_t value) { return std::to_chars(out, out + kTimeDigits, value, 16).ptr; }

template <size_t size>
char* PutText(char* out, const char (&text)[size]) {
  std::memcpy(out, text, size - 1);
  return out + size - 1;
}

// -1 for any other character.
int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

}  // namespace

RecordName::RecordName(uint32_t start, uint32_t end, uint32_t mask) {
  char* at = PutHex(mText, start);
  if (end == 0) {
    at = PutText(at, kNoEnd);
  } else {
    *at++ = '_';
    at = PutText(PutHex(at, end), kMaskMark);
    at = PutHex(at, mask);
  }
  mSize = static_cast<size_t>(PutText(at, kExtension) - mText);
}

std::string InProgressName(uint32_t start) { return std::string(RecordName(start, 0, 0).Text()); }

// An end of 0 is written as it is here: a recording that was closed without one isn't in progress.
std::string CompletedName(uint32_t start, uint32_t end, uint32_t mask) {
  if (end == 0) return StartPrefix(start) + "_0" + kMaskMark + StartPrefix(mask) + kExtension;
  return std::string(RecordName(start, end, mask).Text());
}

std::string StartPrefix(uint32_t start) {
  char digits[kTimeDigits];
  return std::string(digits, PutHex(digits, start));
}

std::string DataDirectoryName(int index) {
  char digits[16];
  if (index < 0) {  // printf counts the sign among the eight
    std::snprintf(digits, sizeof digits, "%08d", index);
    return std::string("data_") + digits;
  }
  const auto length = static_cast<size_t>(std::to_chars(digits, std::end(digits), index).ptr - digits);
  std::string name("data_");
  if (length < 8) name.append(8 - length, '0');
  return name.append(digits, length);
}

uint32_t ScanHex(const char* text) {
  // What stands in nearly every name: up to eight digits, and then something else. All that scanf also takes
  // (blanks, a sign, "0x", more digits) is left to it.
  uint32_t number = 0;
  int digits = 0;
  for (int digit; digits <= kTimeDigits && (digit = HexDigit(text[digits])) >= 0; ++digits) {
    number = number << 4 | static_cast<uint32_t>(digit);
  }
  const bool isMarked = digits == 1 && number == 0 && (text[1] == 'x' || text[1] == 'X');
  if (digits >= 1 && digits <= kTimeDigits && !isMarked) return number;
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
  out = fmgr::RecordName(info.startTime, info.endTime, info.channelMask).Text();
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

void FmgrDataRepository::AppendPath(std::string& out, std::string_view name, int index,
                                    const char* diskName) const {
  if (index == -1) {
    out.reserve(out.size() + mPath.size() + name.size());
    out += mPath;
  } else {
    if (diskName == nullptr) {
      out += mGroupPath;
    } else {
      out.append(mLinkRoot).append("/disk/").append(diskName);
    }
    out.append("/").append(fmgr::DataDirectoryName(index)).append("/");
  }
  out += name;
}

std::string FmgrDataRepository::FileNameToPath(const std::string& name, int index, const char* diskName) const {
  std::string path;
  AppendPath(path, name, index, diskName);
  return path;
}
