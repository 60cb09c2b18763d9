#include "fmgr/FmgrErrorRepository.h"

#include <cstdio>
#include <vector>

#include "SystemHelper.h"
#include "fmgr/FileListing.h"
#include "fmgr/Log.h"

namespace {
constexpr char kUnit[] = "FmgrErrorRepository";
}

FmgrErrorRepository::FmgrErrorRepository(std::string mount) : mPath(mount + "/imf_error/") {
  if (!ListUp()) fmgr::LogError(kUnit, 21, "error repo list-up failure!");
}

FmgrErrorRepository::~FmgrErrorRepository() = default;

int FmgrErrorRepository::ListUp() {
  if (!IsExistDir(mPath)) return 1;
  std::vector<std::string> paths;
  const int error = fmgr::Expand(fmgr::RecordFilePattern(mPath), paths);
  if (error != 0) {
    fmgr::LogError(kUnit, 45, "glob failure! (%d)\n", error);
    return 0;
  }
  for (const std::string& path : paths) files.push_back(PathToFileName(path));
  return 1;
}

int FmgrErrorRepository::GetFileCount() const { return static_cast<int>(files.size()); }

std::string FmgrErrorRepository::FileNameToPath(const std::string& name) { return mPath + name; }

std::string FmgrErrorRepository::Pop() {
  const std::string name = files.front();
  files.pop_front();
  return mPath + name;
}

int FmgrErrorRepository::Push(std::string& source) {
  if (!IsExistDir(mPath) && !CreateDir(mPath)) {
    fmgr::LogError(kUnit, 82, "Can't create error repository! (%s)\n", mPath.c_str());
    return 0;
  }
  const std::string sourceName = PathToFileName(source);
  std::string name = sourceName;
  // The number comes behind ".imf", so a renamed file drops out of the next listing: deliberate, the list
  // answers "which recordings are damaged", not "how often".
  for (int n = 2; ::IsExistFile(FileNameToPath(name).c_str()) == 1; ++n) name = sourceName + std::to_string(n);
  // Deliberately not checked: quarantine is best effort, and the caller goes on to the next file either way.
  (void)std::rename(source.c_str(), FileNameToPath(name).c_str());
  files.push_back(name);
  return 1;
}
