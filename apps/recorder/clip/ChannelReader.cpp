#include "apps/recorder/clip/ChannelReader.h"

#include <algorithm>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Recordings.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrFileManager.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace recorder {

namespace {

// Packets that lie further apart, or whose own clock and the recording's differ by more, do not belong
// together.
constexpr int64_t kLongestStep = 10 * kMicros;
// Further from the epoch lies no time that anybody meant, and no sum of a few below overflows.
constexpr int64_t kFarthest = int64_t{1} << 52;
constexpr int64_t kLongestPicture = 24 * 3600 * kMicros;
// A file's end is rounded up to a second.
constexpr int64_t kLostAtEnd = 2 * kMicros;

bool CanBe(int64_t time) { return time > -kFarthest && time < kFarthest; }

bool LacksChannel(const std::string& path, int channel) {
  const uint32_t mask = FmgrDataRepository::FileNameToChannelMask(NameOf(path));
  return EndOf(path) != 0 && mask != 0 && (mask >> channel & 1) == 0;
}

}  // namespace

ChannelReader::ChannelReader(const Disks& disks, int channel, int64_t limit)
    : mDisks(disks), mChannel(channel), mLimit(limit) {}

ChannelReader::~ChannelReader() = default;

void ChannelReader::Start(const std::string& path, Place full, int64_t since) {
  mPath = path;
  mFull = full;
  mSince = since;
  mIsOpen = false;
  mStreamKnown = false;
  mSounds.clear();
  mLast = Times();
  mHeld = false;
  mDamaged = 0;
  mReason.clear();
}

ChannelReader::Item ChannelReader::Next() {
  if (mHeld) {
    mHeld = false;
    return Item::kPacket;
  }
  for (;;) {
    if (mPath.empty()) return IsBroken() ? Break() : Item::kEnd;
    if (!mIsOpen && !OpenFile()) {
      NextFile();
    } else if (ReadPacket()) {
      if (mReader->Packet().kind == ImfKind::kAudio) return Item::kSound;
      if (!IsBroken()) return Item::kPacket;
      mHeld = true;
      return Break();
    }
  }
}

// False: no packet of the channel, but something that moved the reading on.
bool ChannelReader::ReadPacket() {
  switch (mReader->Next()) {
    case ImfReader::Item::kStream:
      if (mReader->Stream().kind != ImfKind::kVideo) {
        mSounds[mReader->Stream().number] = mReader->Stream();
        return false;
      }
      mStream = mReader->Stream();
      mStreamKnown = true;
      return false;
    case ImfReader::Item::kPacket:
      return mReader->Packet().kind == ImfKind::kVideo ? TakePacket() : TakeSound();
    case ImfReader::Item::kDamage:
      mDamaged += mReader->DamagedBytes();
      mDamagedPath = mPath;
      return false;
    case ImfReader::Item::kEnd:
      NoteLostEnd();
      NextFile();
      return false;
    case ImfReader::Item::kReplaced:
      Note(mPath + " was recycled meanwhile");
      break;
    case ImfReader::Item::kFailed:
      Note(mReader->Error());
      break;
  }
  mIsOpen = false;
  NextFile();
  return false;
}

bool ChannelReader::TakePacket() {
  const ImfPacket& packet = mReader->Packet();
  if (!mStreamKnown) {
    Note("what a decoder has to know of the channel is missing in " + mPath);
    return false;
  }
  const AVRational timeBase = {mStream.timeBaseNumerator, mStream.timeBaseDenominator};
  const AVRational micros = {1, static_cast<int>(kMicros)};
  Times next;
  next.valid = true;
  next.dts = av_rescale_q(packet.dts, timeBase, micros);
  const int64_t pts = av_rescale_q(packet.pts, timeBase, micros);
  if (!CanBe(packet.time) || !CanBe(pts) || !CanBe(next.dts)) {
    Note("a picture in " + mPath + " has a time that can't be");
    return false;
  }
  next.shift = packet.time - pts;
  next.decodeTime = packet.time - (pts - next.dts);
  next.duration = av_rescale_q(packet.duration, timeBase, micros);
  if (next.duration < 0 || next.duration > kLongestPicture) next.duration = 0;
  const int64_t step = next.dts - mLast.dts;
  if (next.duration <= 0 && mLast.valid && step > 0 && step < kLongestStep) next.duration = step;
  if (next.duration <= 0 && mStream.frameRateNumerator > 0) {
    next.duration = kMicros * mStream.frameRateDenominator / mStream.frameRateNumerator;
  }
  next.endTime = packet.time + next.duration;
  if (mLast.valid && !IsBroken() && !Joins(next)) {
    Note(next.decodeTime > mLast.endTime + kMicros ? "nothing is recorded" : "the stream began anew");
  }
  mLast = next;
  return true;
}

bool ChannelReader::TakeSound() const {
  const ImfPacket& packet = mReader->Packet();
  return mLast.valid && mSounds.count(packet.number) != 0 && CanBe(packet.time);
}

// Whether the packet follows the one before without anything missing.
bool ChannelReader::Joins(const Times& next) const {
  const int64_t limit = std::max(kLongestStep, 3 * mLast.duration);
  const int64_t step = next.dts - mLast.dts;
  const int64_t recorded = next.decodeTime - mLast.decodeTime;
  return step > 0 && step <= limit && std::abs(recorded - step) <= limit;
}

bool ChannelReader::OpenFile() {
  mFileStart = StartOf(mPath);
  mReader = std::make_unique<ImfReader>();
  if (!mReader->Open(mPath)) {
    // One in progress may have been completed a moment ago; the search for the next one finds it.
    if (Exists(mPath)) {
      Note(mReader->Error());
    } else if (EndOf(mPath) != 0) {
      Note(mPath + " was recycled meanwhile");
    }
    return false;
  }
  mIsOpen = mReader->StartTime() == mFileStart;
  if (!mIsOpen) Note(mPath + " holds another recording than its name says");
  mReader->SelectChannel(mChannel, mSince);
  mReader->SetHeadersBefore(mFileStart < mFull.fileStart   ? UINT64_MAX
                            : mFileStart > mFull.fileStart ? 0
                                                           : mFull.offset);
  return mIsOpen;
}

// A file whose last packets can't be found any more looks like one that ends early.
void ChannelReader::NoteLostEnd() {
  const int64_t end = EndOf(mPath) * kMicros;
  const bool isEmpty = mReader->LatestTime() == INT64_MIN;
  if (end == 0 || (!isEmpty && mReader->LatestTime() < mFileStart * kMicros)) return;
  if (isEmpty || end - mReader->LatestTime() > kLostAtEnd + 3 * mLast.duration) {
    Note("the end of " + mPath + " is missing");
  }
}

// Goes on to the next record file that may hold the channel; without one, the path becomes empty.
void ChannelReader::NextFile() {
  FmgrFileManager* manager = mDisks.Manager();
  for (;;) {
    const bool growing = EndOf(mPath) == 0;
    std::string next;
    if (growing) mDisks.ForgetCache();  // it knows the file under the name that it had a while ago
    bool found = manager->GetNextFilePath(mPath, next) == FMGR_DONE;
    if (!growing && (!found || StartOf(next) <= mFileStart)) {
      mDisks.ForgetCache();  // recording may have gone on
      found = manager->GetNextFilePath(mPath, next) == FMGR_DONE && StartOf(next) > mFileStart;
    }
    if (found && growing && next != mPath && StartOf(next) == mFileStart) {
      // The same recording, complete by now: its last packets are still to be read.
      mPath = next;
      return;
    }
    mIsOpen = false;
    if (!found || next == mPath || StartOf(next) < mFileStart || StartOf(next) * kMicros >= mLimit) {
      mPath.clear();
      return;
    }
    mPath = next;
    mFileStart = StartOf(next);
    if (!LacksChannel(next, mChannel)) return;
  }
}

// The first reason is the one that is told.
void ChannelReader::Note(const std::string& reason) {
  if (!IsBroken()) mReason = reason;
}

ChannelReader::Item ChannelReader::Break() {
  mReported = mDamaged == 0 ? mReason : FormatSize(mDamaged) + " are damaged in " + mDamagedPath;
  mReason.clear();
  mDamaged = 0;
  return Item::kBreak;
}

}  // namespace recorder
