#include "fmgr/FmgrRepository.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fmgr/Log.h"

namespace {
constexpr char kUnit[] = "FmgrRepository";
}

FmgrRepository::~FmgrRepository() = default;

int FmgrRepository::GetFileCount() const { return static_cast<int>(files.size()); }

unsigned FmgrRepository::IsValidFileName(std::string) { return 0; }

unsigned FmgrRepository::IsExistDir(std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? 1 : 0;
}

unsigned FmgrRepository::CreateDir(std::string& path) {
  if (mkdir(path.c_str(), 0755) == 0) return 1;
  fmgr::LogError(kUnit, 41, "Fail to mkdir \"%s\" (%s)\n", path.c_str(), std::strerror(errno));
  return 0;
}

std::string FmgrRepository::PathToFileName(std::string path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

int FmgrRepository::GetFileSize(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) return 0;
  if (std::fseek(file, 0, SEEK_END) != 0) fmgr::LogError(kUnit, 71, "fseek error occured!\n");
  const long size = std::ftell(file);
  std::fclose(file);
  return static_cast<int>(size);
}

std::string FmgrRepository::MakeFileName(int index) {
  // printf puts a minus sign in front of the zeros; a pool name has it behind them. No pool ever gets a
  // negative index, but the name of one is defined.
  std::string digits = std::to_string(index);
  if (digits.size() < 8) digits.insert(0, 8 - digits.size(), '0');
  return digits + ".imf";
}
