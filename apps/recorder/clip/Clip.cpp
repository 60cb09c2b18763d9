#include "apps/recorder/clip/Clip.h"

#include <algorithm>
#include <limits>
#include <tuple>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr ChannelReader::Place kHeadersOnly = {std::numeric_limits<int64_t>::max(), 0};
constexpr int64_t kReordering = 5 * kMicros;  // the most that lies between a picture's decoding and its display
constexpr int64_t kShortTail = kMicros / 10;  // what a last picture without a known length may leave open

bool SameCoding(const ImfStreamInfo& a, const ImfStreamInfo& b) {
  return std::tie(a.codecName, a.width, a.height, a.extraData) ==
         std::tie(b.codecName, b.width, b.height, b.extraData);
}

bool IsBefore(const ChannelReader::Place& a, const ChannelReader::Place& b) {
  return std::tie(a.fileStart, a.offset) < std::tie(b.fileStart, b.offset);
}

}  // namespace

Clip::Clip(const Disks& disks, const Recordings& recordings, int channel, Range range)
    : mDisks(disks), mRecordings(recordings), mChannel(channel), mRange(range) {}

// Looks for the last key frame from which on nothing is missing up to the range. It may lie in the recording
// before, as recordings begin with a key frame of one channel only.
bool Clip::FindBegin(Begin* begin) const {
  std::optional<Recording> file = mRecordings.FirstAfter(mRange.since, mChannel);
  // The end of a recording in progress may be further on than it knows.
  if (!file && !mRecordings.Open().empty()) file = mRecordings.Open().back();
  if (!file || file->start * kMicros >= mRange.until) return false;
  begin->path = file->path;
  for (std::optional<Recording> first = file; first; first = mRecordings.Previous(*first)) {
    if (!first->HasChannel(mChannel)) continue;
    ChannelReader reader(mDisks, mChannel, mRange.until);
    reader.Start(first->path, kHeadersOnly, mRange.since);
    ChannelReader::Place key;
    bool reached = false;
    bool broken = false;
    for (ChannelReader::Item item = reader.Next(); item != ChannelReader::Item::kEnd; item = reader.Next()) {
      if (item == ChannelReader::Item::kBreak) {
        broken = true;
        key = {};
        continue;
      }
      reached = reached || reader.EndTime() > mRange.since;
      if (reader.DecodeTime() > mRange.since) break;
      if (reader.Packet().keyFrame && reader.Packet().time <= mRange.since) key = reader.Where();
    }
    if (!reached) return false;
    if (key.offset > 0) *begin = {first->path, key};
    if (key.offset > 0 || broken) return true;
  }
  return true;
}

Clip::Result Clip::Write(const std::string& path, const Progress& progress) {
  mPath = path;
  Begin begin;
  if (!FindBegin(&begin)) return Result::kNothing;
  ChannelReader reader(mDisks, mChannel, mRange.until + kReordering);
  reader.Start(begin.path, begin.place, mRange.since);
  for (;;) {
    switch (reader.Next()) {
      case ChannelReader::Item::kBreak:
        EndSection(reader.Reason());
        break;
      case ChannelReader::Item::kEnd:
        return Finish(true);
      case ChannelReader::Item::kPacket:
        NotePicture(reader);
        if (reader.DecodeTime() >= End() || !TakePacket(reader, begin)) return Finish(false);
        const int64_t from = mFrom != 0 ? mFrom : mRange.since;
        const double done = static_cast<double>(reader.DecodeTime() - from);
        if (!progress(std::clamp(done / static_cast<double>(mRange.until - from), 0.0, 1.0))) {
          return Result::kInterrupted;
        }
        break;
    }
  }
}

// False: the clip ends here.
bool Clip::TakePacket(const ChannelReader& reader, const Begin& begin) {
  const ImfPacket& packet = reader.Packet();
  if (!mRunning) {
    mSkipped = mSkipped || (!packet.keyFrame && packet.time >= mRange.since);
    if (!packet.keyFrame || IsBefore(reader.Where(), begin.place)) return true;
    // Without a place to begin at, only what lies in the range.
    if (mFrom == 0 && begin.place.offset == 0 && packet.time < mRange.since) return true;
    if (!BeginSection(reader)) return false;
  } else if (packet.keyFrame && !SameCoding(reader.Stream(), mStream)) {
    EndSection("the pictures' parameters change, which one clip can't hold");
    return false;
  }
  // Pictures that are shown before the first key frame need the ones before it.
  if (packet.time < mSectionTime) return true;
  // What is shown after the range is needed only when a picture that is shown in it comes later; then what is
  // shown between the two belongs to it as well.
  mHeld.push_back({packet, reader.EndTime() - packet.time, reader.EndTime()});
  return packet.time >= End() || WriteHeld();
}

bool Clip::BeginSection(const ChannelReader& reader) {
  const ImfPacket& key = reader.Packet();
  if (!mWriter.IsOpen()) {
    mStream = reader.Stream();
    if (!mWriter.Open(mPath, mStream, key)) {
      mError = mWriter.Error();
      return false;
    }
    mFrom = key.time;
    if (key.time > mRange.since) {
      const std::string why = mSkipped ? "no key frame is recorded before" : "nothing is recorded";
      mMissing.push_back({mRange.since, key.time, mBreak.empty() ? why : mBreak});
    }
  } else {
    mMissing.back().to = key.time;
    if (!SameCoding(reader.Stream(), mStream)) {
      mMissing.back().to = mRange.until;
      mMissing.back().reason +=
          "; from " + FormatExactTime(key.time) + " on the pictures have other parameters";
      return false;
    }
  }
  mWriter.BeginSection(reader.Stream(), key);
  mSectionTime = key.time;
  mRunning = true;
  return true;
}

bool Clip::WriteHeld() {
  for (const Picture& picture : mHeld) {
    if (!mWriter.Write(picture.packet, picture.duration)) {
      mError = mWriter.Error();
      return false;
    }
    mLastShown = std::max(mLastShown, picture.packet.time);
    mTo = std::max(mTo, picture.endTime);
  }
  mHeld.clear();
  return true;
}

void Clip::EndSection(const std::string& reason) {
  mHeld.clear();
  if (mRunning) {
    mMissing.push_back({mTo, mRange.until, reason});
  } else if (mFrom == 0) {
    mBreak = reason;
  }
  mRunning = false;
}

// Pictures that were read, in the clip or not, tell where there are any.
void Clip::NotePicture(const ChannelReader& reader) {
  ImfEntry picture;
  picture.isPacket = true;
  picture.channel = mChannel;
  picture.time = reader.Packet().time;
  picture.duration = static_cast<uint32_t>(std::clamp<int64_t>(reader.EndTime() - picture.time, 0, UINT32_MAX));
  mCoverage.Add(picture);
}

// Where pictures stay away for a while and then go on as if nothing had been, the clip shows the last one
// meanwhile.
void Clip::NoteGaps() {
  int64_t end = mRange.until;  // of the span before
  for (const PictureSpan& span : mCoverage.Spans()) {
    const int64_t from = std::max(end, mRange.since);
    const int64_t to = std::min(span.begin, mRange.until);
    const bool isKnown = std::any_of(mMissing.begin(), mMissing.end(),
                                     [&](const Missing& each) { return each.from < to && each.to > from; });
    if (from < to && !isKnown) mMissing.push_back({from, to, "no pictures came"});
    end = span.end;
  }
  std::sort(mMissing.begin(), mMissing.end(),
            [](const Missing& x, const Missing& y) { return x.from < y.from; });
}

// `atEnd`: nothing more is recorded.
Clip::Result Clip::Finish(bool atEnd) {
  if (!mError.empty()) return Result::kFailed;
  if (!mWriter.IsOpen() || mTo <= mRange.since) return Result::kNothing;
  if (atEnd && mRunning) {
    const bool growing =
        !mRecordings.Open().empty() && mRecordings.Open().back().state == Recording::State::kGrowing;
    mMissing.push_back({mTo, mRange.until, growing ? "not recorded yet" : "nothing is recorded"});
  }
  if (!mMissing.empty() && mRange.until - mMissing.back().from <= kShortTail) mMissing.pop_back();
  NoteGaps();
  if (mWriter.Close()) return Result::kDone;
  mError = mWriter.Error();
  return Result::kFailed;
}

}  // namespace recorder
