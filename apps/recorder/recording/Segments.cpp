#include "apps/recorder/recording/Segments.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/disks/Inspection.h"
#include "apps/recorder/recording/ForeignFiles.h"
#include "apps/recorder/recording/Reserve.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

// Recordings past the time limit that a segment removes: more than it adds, and few enough for
// SaveForeignFiles.
constexpr int kPreserveRounds = 2;
constexpr int kFailureLimit = 3;          // in a row, then the disk is set aside
constexpr int kAskingLimit = 3;           // for a disk, where none is waited for
constexpr size_t kEarlySoundLimit = 256;  // packets

void Sync(const std::string& directory) {
  if (SyncDirectory(directory)) return;
  Complain("cannot write %s back: %s", directory.c_str(), std::strerror(errno));
}

static_assert(kPreserveRounds + 2 <= kSmallDirectory,
              "MakeRecordFile recycles one more, at a second try another");

}  // namespace

Segments::Segments(Disks& disks, DiskKeeper& keeper, Expiry& expiry, SearchIndex& index, Recovery& recovery,
                   Options options)
    : mDisks(disks),
      mKeeper(keeper),
      mExpiry(expiry),
      mIndex(index),
      mRecovery(recovery),
      mAllocation(disks, keeper, recovery),
      mOptions(options) {}

Segments::~Segments() = default;

// A segment begins with a picture, since its name tells of pictures only.
bool Segments::Put(const Sample& sample) {
  if (!mWriter && sample.packet.kind != ImfKind::kVideo) {
    if (mEarlySound.size() < kEarlySoundLimit) {
      mEarlySound.push_back(sample);
    } else {
      mTotals.dropped++;
    }
    return true;
  }
  if (!PutPacket(sample)) return false;
  for (const Sample& sound : std::exchange(mEarlySound, {})) {
    if (!Put(sound)) return false;
  }
  return true;
}

bool Segments::PutPacket(const Sample& sample) {
  const int channel = sample.packet.channel;
  auto& known = mStreams[{channel, sample.packet.kind, sample.packet.number}];
  bool changed = known != sample.stream;
  known = sample.stream;
  if (mWriter && (sample.newTimeline || IsDue(sample))) Complete();

  for (;;) {
    if (!mWriter && sample.packet.kind != ImfKind::kVideo) return Put(sample);
    if (!mWriter) {
      const Opened opened = Begin(sample);
      if (opened == Opened::kNo) return false;
      if (opened == Opened::kNoDisk) {
        mTotals.dropped += 1 + static_cast<int64_t>(mEarlySound.size());
        mEarlySound.clear();
        mPaused = true;
        mKeeper.SayNoDisk(mTotals.dropped);
        return mOptions.waitForDisks;
      }
      if (opened == Opened::kAgain) continue;
      changed = false;  // every channel's parameters were written
    }
    ImfWriteResult result = changed ? mWriter->AddStream(*sample.stream) : ImfWriteResult::kWritten;
    if (result == ImfWriteResult::kWritten) result = mWriter->Write(sample.packet);
    if (result == ImfWriteResult::kWritten) {
      NoteWritten(sample);
      return true;
    }
    if (result == ImfWriteResult::kFailed) {
      Quarantine("cannot write", errno);
    } else if (mPackets > 0 && sample.packet.data.size() < mWriter->Capacity()) {
      Complete();
    } else {
      mTotals.dropped++;
      if (mSaidTooLarge.insert(channel).second) {
        Complain("channel %d: a packet of %s does not fit into an empty file; such packets are dropped",
                 channel, FormatSize(sample.packet.data.size()).c_str());
      }
      return true;
    }
  }
}

void Segments::EndChannel(int channel) {
  mStreams.erase(mStreams.lower_bound({channel, ImfKind::kVideo, 0}),
                 mStreams.lower_bound({channel + 1, ImfKind::kVideo, 0}));
}

void Segments::Idle() {
  if (!mWriter) return mKeeper.Look();
  if (!mWriter->CheckpointIfDue()) Quarantine("cannot write", errno);
}

void Segments::Finish() {
  if (mWriter) Complete();
}

// Segments change on a key frame of the first open channel, so that at least that one can be played from its
// first packet. A channel that has fallen silent is not waited for for ever.
bool Segments::IsDue(const Sample& sample) const {
  if (!sample.packet.keyFrame || sample.packet.kind != ImfKind::kVideo || mPackets == 0) return false;
  const int64_t length = sample.packet.time - mFirstTime;
  const int64_t wanted = mOptions.seconds * kMicros;
  if (!IsLeading(sample.packet)) return length >= 2 * wanted;
  if (length >= wanted) return true;
  // Nearly full: a group of pictures that has no room here had better begin the next file.
  const uint64_t group = std::max({mLargestGroup, mLargestBefore, mWriter->Used() - mGroupBegin});
  const uint64_t room = mWriter->Capacity() - mWriter->Used();
  return group + group / 8 > room && group <= mWriter->Capacity() / 2;
}

// Of the first open channel's video.
bool Segments::IsLeading(const ImfPacket& packet) const {
  return packet.kind == ImfKind::kVideo && packet.channel == std::get<0>(mStreams.begin()->first);
}

void Segments::NoteWritten(const Sample& sample) {
  const ImfPacket& packet = sample.packet;
  mTotals.packets++;
  mPaused = false;
  if (mPackets++ == 0) mFirstTime = packet.time;
  mLastTime = std::max(mLastTime, packet.time);
  if (!packet.keyFrame || !IsLeading(packet)) return;
  const uint64_t begin = mWriter->Used();  // behind the key frame: the next one counts to the group instead
  if (mGroupBegin != 0) mLargestGroup = std::max(mLargestGroup, begin - mGroupBegin);
  mGroupBegin = begin;
}

Segments::Opened Segments::Begin(const Sample& sample) {
  const int64_t wanted = sample.packet.time / kMicros;
  if (Refusal refusal = RefuseClock(wanted)) {
    Complain("%s", refusal->c_str());
    return Opened::kNo;
  }
  mKeeper.Look();
  KeepHouse();
  for (Allocation::Result made = Allocation::kAgain; made != Allocation::kMade;) {
    while (!mKeeper.HasDisk()) {
      if (mOptions.waitForDisks || mAskings++ >= kAskingLimit) return Opened::kNoDisk;
      mKeeper.AskAgain();
    }
    mStart = NextStart(wanted);
    made = mAllocation.Make(mStart, &mPath);
    if (made != Allocation::kFull) continue;
    if (!mKeeper.HasUnused()) {
      Complain("no space: every file holds a recording, and nothing may be overwritten");
      return Opened::kNo;
    }
    mKeeper.NoteFull();  // one that comes back may have room
    if (mOptions.waitForDisks || mAskings++ >= kAskingLimit) return Opened::kNoDisk;
    mKeeper.AskAgain();
  }
  if (mStart > wanted + 10 && !mSaidTooFast) {
    Complain(
        "warning: files fill up in less than a second, so their start times run ahead: prepare larger files");
    mSaidTooFast = true;
  }
  Sync(DirectoryOf(mPath));

  mWriter = std::make_unique<ImfWriter>();
  mWriter->SetCheckpointInterval(mOptions.checkpointSeconds);
  mPackets = 0;
  mLastTime = 0;
  mGroupBegin = 0;
  mLargestBefore = mLargestGroup;
  mLargestGroup = 0;
  const bool opened = mWriter->Open(mPath, mStart);
  if (opened && WriteStreams()) return Opened::kYes;
  Quarantine(opened ? "cannot write" : "cannot open", errno);
  return Opened::kAgain;
}

// What doesn't fit is left out: the channel's packets won't fit either, and are reported.
bool Segments::WriteStreams() {
  for (const auto& stream : mStreams) {
    if (mWriter->AddStream(*stream.second) == ImfWriteResult::kFailed) return false;
  }
  return true;
}

void Segments::KeepHouse() {
  FmgrFileManager* manager = mDisks.Manager();
  manager->CheckRepository();
  mDisks.LeaveForeignDirectories();
  mDisks.TryLeftOutAgain();
  mRecovery.Unfinished().TryAll(mDisks);
  for (const Disk& disk : mDisks.All()) {
    if (FmgrRepositoryGroup* group = mDisks.Group(disk)) SaveForeignFiles(mDisks, disk, *group);
    KeepReserve(disk.path);
    const Refusal refusal = Vetting::MakePool(disk);
    if (refusal && mSaidPool.insert(*refusal).second) Complain("%s", refusal->c_str());
  }
  mExpiry.Run(kPreserveRounds);
}

// A record file replaces another of the same start in its directory, so starts ascend there. A start that lies
// well before what is recorded gets a data directory of its own from the file manager, unless that can't be
// made.
uint32_t Segments::NextStart(int64_t wanted) {
  const auto start = static_cast<uint32_t>(wanted);
  FmgrRepositoryGroup* group = mDisks.Manager()->CurrentRepositoryGroup();
  if (group == nullptr || group->mDataRepositories.empty()) return start;
  const FmgrDataRepository& newest = *group->mDataRepositories.back();
  const auto last =
      static_cast<uint32_t>(std::max(0, FmgrDataRepository::FileNameToStartTimeSec(newest.GetNewestFile())));
  if (start > last) return start;
  if (group->IsNeedChangeRepository(static_cast<int>(start)) != 1) {
    // One file that lies ahead must not pull all later ones along: they start over in a directory of their own.
    const bool isFarAhead = last - start >= static_cast<uint32_t>(mOptions.seconds);
    return isFarAhead && mDisks.MakeDirectory(*group) ? start : last + 1;
  }
  uint32_t free = start;
  std::string taken;
  while (newest.FindFileNameByStartTime(static_cast<int>(free), taken)) free++;
  return free;
}

void Segments::Complete() {
  if (mPackets == 0) return GiveBack();
  const uint32_t end = mWriter->EndTime();
  const uint32_t mask = mWriter->ChannelMask();
  const uint64_t bytes = mWriter->Used();
  const std::vector<PictureSpan> spans = mWriter->Coverage();
  // What the device did not take is not there, whatever its name says.
  if (!mWriter->Close()) return Quarantine("cannot write back", errno);
  mWriter.reset();

  std::string path;
  if (mDisks.Manager()->RenameRecordFile(mPath, static_cast<int>(end), mask, path) != FMGR_DONE) {
    Complain("cannot complete %s: its disk is not there; it is repaired when it is", mPath.c_str());
    return;
  }
  // The file manager does not look whether it could rename the file. Once more, for the error.
  if (!Exists(path) && !RenameToNew(mPath, path)) {
    const int error = errno;
    mRecovery.Unfinished().AddUnnamed(mPath, path, error);
    if (!IsDiskError(error) || ++mFailures < kFailureLimit) return;
    mFailures = 0;
    return mKeeper.SetAside(mPath, "cannot complete " + mPath, error);
  }
  mFailures = 0;
  mAskings = 0;
  mKeeper.NoteRecorded(path);
  mIndex.Add(path, spans);
  Sync(DirectoryOf(path));

  const double seconds = static_cast<double>(mLastTime - mFirstTime) / kMicros;
  mTotals.segments++;
  mTotals.bytes += bytes;
  mTotals.seconds += seconds;
  Print("%s  %.1f s  channels %s  %s  %s\n", FormatTime(mStart).c_str(), seconds, FormatChannels(mask).c_str(),
        FormatSize(bytes).c_str(), path.c_str());
}

// Only a packet that did not fit was meant for it.
void Segments::GiveBack() {
  mWriter.reset();
  for (FmgrRepositoryGroup* group : mDisks.Manager()->mGroups) {
    for (FmgrDataRepository* repository : group->mDataRepositories) {
      if (repository->Path() == DirectoryOf(mPath)) repository->RemoveLatestRecordFile(0);
    }
  }
}

// Takes the file being recorded out of use, and its disk when there is no sense in another file of it.
void Segments::Quarantine(const char* what, int error) {
  Complain("%s %s: %s", what, mPath.c_str(), std::strerror(error));
  mWriter.reset();
  mRecovery.SetQuarantining(true);
  const bool there = Exists(mPath);
  const bool moved = mDisks.Manager()->MoveRecordFileToErrorRepository(mPath, 1) == 1;
  mRecovery.SetQuarantining(false);
  const bool quarantined = there && moved && !Exists(mPath);
  const bool passedOver = !quarantined && IsImmutable(mPath);  // that is about the file, not about the disk
  if (quarantined) {
    Print("quarantined %s\n", mPath.c_str());
    mTotals.quarantined++;
    mTotals.lastQuarantined = mPath;
    Sync(DirectoryOf(mPath));
  } else {
    Complain("cannot move %s to quarantine", mPath.c_str());
    if (passedOver) mDisks.PassOver(mPath, "is immutable");
  }
  if ((quarantined || passedOver) && ++mFailures < kFailureLimit) return;
  mFailures = 0;
  mKeeper.SetAside(mPath, std::string(what) + " " + mPath, error);
}

}  // namespace recorder
