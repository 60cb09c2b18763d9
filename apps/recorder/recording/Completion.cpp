#include "apps/recorder/recording/Completion.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Flc.h"
#include "ImfFile.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

int IndexOf(const std::string& path) {
  const std::string directory = DirectoryOf(path);
  return ParseDataDirectoryName(NameOf(directory.substr(0, directory.size() - 1)));
}

}  // namespace

Completed CompleteRecording(const std::string& path) {
  RecordName record = {};
  imf_error_code_e error = IMF_ERROR_NONE;
  if (!ParseRecordName(NameOf(path), &record)) return {};
  const ImfFile file(error, path, IMF_OPEN_REPAIR, "", "", 0, nullptr);
  if (error == IMF_ERROR_UNREPAIRABLE) return {Completed::Outcome::kNothingUsable, path, 0};
  if (error == IMF_ERROR_IO) return {Completed::Outcome::kUnreadable, path, 0};
  if (error != IMF_ERROR_REPAIRED) return {};
  flc_file_info_param_t info = {};
  info.startTime = record.startTime;
  info.endTime = static_cast<uint32_t>(file.GetEndTime());
  info.channelMask = file.GetStreamCountSummary().GetVideoChannelMask(0);
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, info);
  const std::string target = DirectoryOf(path) + name;
  const int moved = RenameToNew(path, target) ? 0 : errno;
  return {moved == 0 ? Completed::Outcome::kDone : Completed::Outcome::kNotNamed, target, moved};
}

void Completion::TryAll(Disks& disks) {
  for (size_t i = 0; i < mPending.size();) {
    Pending& pending = mPending[i];
    bool settled = false;
    for (const Disk& disk : disks.All()) {
      FmgrRepositoryGroup* group = disks.Group(disk);
      if (group == nullptr || pending.path.rfind(disk.path + "/", 0) != 0) continue;
      settled = !Exists(pending.path) || Try(&pending, disk, *group);
    }
    if (!settled) {
      ++i;
      continue;
    }
    mPending.erase(mPending.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

void Completion::AddUnnamed(const std::string& path, const std::string& target, int error) {
  mPending.push_back({path, target, false});
  if (error != 0) SayNotNamed(&mPending.back(), target, error);
}

void Completion::SayNotNamed(Pending* pending, const std::string& target, int error) {
  if (!std::exchange(pending->isSaid, true)) {
    Complain("cannot rename %s to %s: %s; it is tried again", pending->path.c_str(), target.c_str(),
             std::strerror(error));
  }
}

// True when there is nothing left to do.
bool Completion::Try(Pending* pending, const Disk& disk, FmgrRepositoryGroup& group) {
  const bool wasUnfinished = pending->target.empty();
  Completed completed;
  if (wasUnfinished) {
    completed = CompleteRecording(pending->path);
  } else {
    const int error = RenameToNew(pending->path, pending->target) ? 0 : errno;
    completed = {error == 0 ? Completed::Outcome::kDone : Completed::Outcome::kNotNamed, pending->target,
                 error};
  }
  std::string path = pending->path;
  RecordName record{};
  switch (completed.outcome) {
    case Completed::Outcome::kDone:
      pending->target = completed.path;
      return Finish(*pending, disk, wasUnfinished);
    case Completed::Outcome::kNothingUsable:
    case Completed::Outcome::kUnreadable:
      if (completed.outcome == Completed::Outcome::kUnreadable) {
        group.mErrorRepository.Push(path);  // whether the file moved has to be looked up
      } else {
        group.mFreeRepository.Push(path);
      }
      if (Exists(path)) break;
      if (ParseRecordName(NameOf(path), &record)) {
        FlcRemoveFile(disk.name.c_str(), IndexOf(path), record.startTime);
      }
      Print(completed.outcome == Completed::Outcome::kUnreadable ? "quarantined %s: it can't be read\n"
                                                                 : "discarded %s: nothing usable was in it\n",
            path.c_str());
      return true;
    case Completed::Outcome::kNotNamed:
      SayNotNamed(pending, completed.path, completed.error);
      return false;
    case Completed::Outcome::kLeft:
      break;
  }
  if (!pending->isSaid) Complain("left unfinished %s; it is tried again", path.c_str());
  pending->isSaid = true;
  return false;
}

bool Completion::Finish(const Pending& pending, const Disk& disk, bool wasUnfinished) {
  RecordName record{};
  const std::string& path = pending.target;
  ParseRecordName(NameOf(path), &record);
  if (!SyncDirectory(DirectoryOf(path))) {
    Complain("cannot write %s back: %s", DirectoryOf(path).c_str(), std::strerror(errno));
  }
  if (FlcRemoveFile(disk.name.c_str(), IndexOf(path), record.startTime) == 0) {
    FlcAddFile(disk.name.c_str(), IndexOf(path), record.startTime, record.endTime, record.channelMask);
  }
  Print("%s %s: %s, %s, channels %s\n", wasUnfinished ? "repaired" : "completed", path.c_str(),
        FormatTime(record.startTime).c_str(),
        FormatDuration(record.endTime - double{0} - record.startTime).c_str(),
        FormatChannels(record.channelMask).c_str());
  mIndex.AddRepaired(path);
  return true;
}

}  // namespace recorder
