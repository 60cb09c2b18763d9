#include "apps/recorder/recording/Recovery.h"

#include <cinttypes>

#include "SystemHelper.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

bool DbIsDamaged(const std::string& directory) {
  const std::string db = directory + "search.fdb";
  return GetFileSize(db.c_str()) == 0 || Exists(db + ".0.err");
}

// What stays the same when a file in progress is completed.
std::string KeyOf(const std::string& path) {
  const std::string name = NameOf(path);
  return DirectoryOf(path) + name.substr(0, name.find('_'));
}

}  // namespace

void Recovery::NoteState(const std::vector<Disk>& joining) {
  for (const Disk& disk : joining) {
    for (const std::string& name : ListDirectory(disk.path)) {
      if (ParseDataDirectoryName(name) < 0) continue;
      const std::string directory = disk.path + "/" + name + "/";
      int files = 0;
      for (const std::string& file : ListDirectory(directory)) {
        RecordName parsed{};
        if (ParseRecordName(file, &parsed)) files++;
      }
      if (files > 1 && DbIsDamaged(directory)) mDamagedDbs.push_back(directory);
    }
  }
}

void Recovery::ReportState(Disks& disks, const std::vector<Disk>& joined) {
  for (const Disk& disk : joined) {
    const Inspection* found = disks.Vetted().Found(disk);
    if (found == nullptr || disks.Group(disk) == nullptr) continue;
    for (const std::string& path : found->unfinished) {
      if (mFixed.count(KeyOf(path)) != 0) continue;
      // The file manager looks at the newest one of each data directory only.
      if (Exists(path)) {
        mCompletion.AddUnfinished(path);
      } else {
        Print("discarded %s: nothing usable was in it\n", path.c_str());
      }
    }
  }
  mCompletion.TryAll(disks);
  for (const std::string& directory : mDamagedDbs) {
    if (!DbIsDamaged(directory)) {
      Print("rebuilt search database %ssearch.fdb\n", directory.c_str());
    } else if (Exists(directory)) {
      Complain("search database %ssearch.fdb could not be rebuilt", directory.c_str());
    }
  }
  mDamagedDbs.clear();
}

void Recovery::NotifyStage(int, int) {}  // what came of a stage is reported when it is known

void Recovery::NotifyFileFixed(ImfFile&, const std::string& newName, unsigned videoChannelMask) {
  mFixed.insert(KeyOf(newName));
  // The file manager does not look whether it could rename the file.
  if (!Exists(newName)) return mCompletion.AddUnnamed(KeyOf(newName) + "_00000000.imf", newName, 0);
  mRepaired++;
  RecordName parsed{};
  ParseRecordName(NameOf(newName), &parsed);
  Print("repaired %s: %s, %s, channels %s\n", newName.c_str(), FormatTime(parsed.startTime).c_str(),
        FormatDuration(parsed.endTime - double{0} - parsed.startTime).c_str(),
        FormatChannels(videoChannelMask).c_str());
  mIndex.AddRepaired(newName);
}

void Recovery::NotifyFileRemoved(const std::string& path, unsigned start, unsigned end, unsigned mask) {
  if (mQuarantining) {
    // Whoever does it knows whether it came to that.
    if (end != 0) mIndex.Remove(path, start);
    return;
  }
  Settle();
  mLeaving = {path, start, end, mask};
}

void Recovery::Settle() {
  const Leaving file = std::exchange(mLeaving, {});
  if (file.path.empty()) return;
  if (Exists(file.path)) {
    mStuck = file.path;
    return;
  }
  if (file.end == 0) {
    Print("discarded %s: it was never completed\n", file.path.c_str());
    return;
  }
  mRecycled++;
  Print("recycled %s: %s to %s, channels %s\n", file.path.c_str(), FormatTime(file.start).c_str(),
        FormatTime(file.end).c_str(), FormatChannels(file.mask).c_str());
  mIndex.Remove(file.path, file.start);
}

void Recovery::OnSegmentClosed(ImfFile&) {}  // NotifyFileFixed follows and knows the new name as well

}  // namespace recorder
