#include "apps/recorder/clip/Clip.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

#include "apps/recorder/base/Units.h"

namespace recorder {

namespace {

constexpr ChannelReader::Place kHeadersOnly = {std::numeric_limits<int64_t>::max(), 0};
constexpr int64_t kReordering = 5 * kMicros;  // the most that lies between a picture's decoding and its display
constexpr int64_t kSoundReach = 1 * kMicros;  // the most by which sound is stored beside its pictures
constexpr int64_t kDelay = 5 * kMicros;       // at most, from a picture until it can be read from its file
constexpr int64_t kShortTail = kMicros / 10;  // what a last picture without a known length may leave open

bool SameCoding(const ImfStreamInfo& a, const ImfStreamInfo& b) {
  return std::tie(a.codecName, a.width, a.height, a.sampleRate, a.audioChannels, a.extraData) ==
         std::tie(b.codecName, b.width, b.height, b.sampleRate, b.audioChannels, b.extraData);
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
    std::deque<std::pair<int64_t, ChannelReader::Place>> sounds;  // that may belong to the next key frame
    ChannelReader::Place full;
    bool reached = false;
    bool broken = false;
    for (ChannelReader::Item item = reader.Next(); item != ChannelReader::Item::kEnd; item = reader.Next()) {
      if (item == ChannelReader::Item::kSound) {
        sounds.emplace_back(reader.Packet().time, reader.Where());
        continue;
      }
      if (item == ChannelReader::Item::kBreak) {
        broken = true;
        key = {};
        sounds.clear();
        continue;
      }
      reached = reached || reader.EndTime() > mRange.since;
      if (reader.DecodeTime() > mRange.since) break;
      if (!reader.Packet().keyFrame || reader.Packet().time > mRange.since) continue;
      key = reader.Where();
      while (!sounds.empty() && sounds.front().first < reader.Packet().time) sounds.pop_front();
      full = sounds.empty() ? key : sounds.front().second;
    }
    if (!reached) return false;
    if (key.offset > 0) *begin = {first->path, key, full};
    if (key.offset > 0 || broken) return true;
  }
  return true;
}

Clip::Result Clip::Write(const ClipWriter::Target& target, const Progress& progress, const NextPath& next) {
  mTarget = target;
  mNext = next;
  Begin begin;
  if (!FindBegin(&begin)) return Result::kNothing;
  ChannelReader reader(mDisks, mChannel, mRange.until + kReordering);
  reader.Start(begin.path, begin.full, mRange.since);
  for (;;) {
    switch (reader.Next()) {
      case ChannelReader::Item::kBreak:
        EndSection(reader.Reason());
        break;
      case ChannelReader::Item::kEnd:
        return Finish(true);
      case ChannelReader::Item::kSound:
        TakeSound(reader);
        break;
      case ChannelReader::Item::kPacket:
        NotePicture(reader);
        if (reader.DecodeTime() >= End()) {
          TakeLastSound(&reader);
          return Finish(false);
        }
        if (!TakePacket(reader, begin)) return Finish(false);
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
  } else if (packet.keyFrame && !IsSame(reader)) {
    mHeld.clear();
    if (packet.time >= End()) return false;
    mRunning = false;
    if (!BeginSection(reader)) return false;
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
  if (mFrom == 0) {
    if (!OpenPart(reader)) return false;
    mFrom = key.time;
    if (key.time > mRange.since) {
      const std::string why = mSkipped ? "no key frame is recorded before" : "nothing is recorded";
      mMissing.push_back({mRange.since, key.time, mBreak.empty() ? why : mBreak});
    }
  } else {
    if (mIsBroken) mMissing.back().to = std::max(key.time, mMissing.back().from);
    if (!IsSame(reader) && !OpenPart(reader)) return false;
  }
  mIsBroken = false;
  mWriter.BeginSection(reader.Stream(), key);
  mSectionTime = key.time;
  mRunning = true;
  WriteSound();
  return true;
}

// The parameters that the present part was begun with still hold. Sound may be missing meanwhile.
bool Clip::IsSame(const ChannelReader& reader) const {
  if (mIsSoundLate || !SameCoding(reader.Stream(), mStreams.video)) return false;
  return std::all_of(mStreams.sounds.begin(), mStreams.sounds.end(), [&](const auto& sound) {
    const auto now = reader.Sounds().find(sound.first);
    return now == reader.Sounds().end() || SameCoding(now->second, sound.second.info);
  });
}

// Begins the first part or the next one, with the reader's key frame.
bool Clip::OpenPart(const ChannelReader& reader) {
  mStreams.video = reader.Stream();
  FindSounds(reader);
  mIsSoundLate = false;
  if (!mParts.empty()) {
    std::string line = "the parameters of pictures or sound change, which one clip can't hold";
    const std::optional<std::string> path =
        mNext ? mNext(static_cast<int>(mParts.size()) + 1, &line) : std::nullopt;
    if (!path && mNext) mError = line;
    if (!path && !mIsBroken) mMissing.push_back({mTo, mRange.until, line});
    if (!path && mIsBroken) {
      mMissing.back().to = mRange.until;
      mMissing.back().reason += "; then " + line;
    }
    if (!path) return false;
    ClosePart();
    if (!mError.empty()) return false;
    mTarget.path = *path;
  }
  if (!mWriter.Open(mTarget, mStreams, reader.Packet())) {
    mError = mWriter.Error();
    return false;
  }
  Part part;
  part.path = mTarget.path;
  part.from = part.to = reader.Packet().time;
  mParts.push_back(part);
  return true;
}

void Clip::ClosePart() {
  Part& part = mParts.back();
  part.seconds = mWriter.Seconds();
  part.pictures = mWriter.Packets();
  part.bytes = mWriter.Bytes();
  if (!mWriter.Close()) mError = mWriter.Error();
}

// --- Sound ---

// A file's header names all streams, so a look ahead finds out what sound there is.
void Clip::FindSounds(const ChannelReader& reader) {
  mStreams.sounds.clear();
  for (const Sound& sound : mSound) {
    const auto info = reader.Sounds().find(sound.packet.number);
    if (sound.packet.time >= reader.Packet().time && info != reader.Sounds().end()) {
      mStreams.sounds.emplace(sound.packet.number, ClipStreams::Sound{info->second, sound.packet});
    }
  }
  const int64_t begin = reader.Packet().time;
  ChannelReader ahead(mDisks, mChannel, begin + kSoundReach);
  ahead.Start(reader.Path(), reader.Where(), begin);
  for (;;) {
    const ChannelReader::Item item = ahead.Next();
    if (item == ChannelReader::Item::kEnd || (item == ChannelReader::Item::kBreak && !mStreams.sounds.empty()))
      return;
    if (item == ChannelReader::Item::kPacket && ahead.DecodeTime() > begin + kSoundReach) return;
    if (item != ChannelReader::Item::kSound || ahead.Packet().time < begin || ahead.Packet().data.empty())
      continue;
    const int number = ahead.Packet().number;
    mStreams.sounds.emplace(number, ClipStreams::Sound{ahead.Sounds().at(number), ahead.Packet()});
  }
}

std::vector<std::string> Clip::LeftOut() const {
  std::vector<std::string> lines = mWriter.LeftOut();
  if (!mNext && !mLateSounds.empty())
    lines.emplace_back("sound that begins later than the clip cannot be added to it");
  return lines;
}

void Clip::TakeSound(const ChannelReader& reader) {
  const ImfPacket& packet = reader.Packet();
  if (packet.data.empty()) return;  // before what is needed
  while (!mSound.empty() && mSound.front().packet.time < packet.time - 2 * kSoundReach) mSound.pop_front();
  mSound.push_back({packet, reader.SoundTime()});
  if (!mRunning) return;
  const bool isHeard = packet.time >= mSectionTime && packet.time < mTo;
  if (isHeard && mStreams.sounds.count(packet.number) == 0 && mLateSounds.insert(packet.number).second) {
    mIsSoundLate = mNext != nullptr;
  }
  WriteSound();
}

// What is heard with the pictures that were written.
void Clip::WriteSound() {
  std::deque<Sound> later;
  for (Sound& sound : mSound) {
    if (sound.packet.time >= mTo) {
      later.push_back(std::move(sound));
    } else if (mError.empty() && !mWriter.WriteSound(sound.packet, sound.streamTime)) {
      mError = mWriter.Error();
    }
  }
  mSound.swap(later);
}

// Sound may be stored behind pictures that are shown after it.
void Clip::TakeLastSound(ChannelReader* reader) {
  if (!mRunning || mStreams.sounds.empty()) return;
  const int64_t limit = mTo + kSoundReach;
  for (;;) {
    const ChannelReader::Item item = reader->Next();
    if (item == ChannelReader::Item::kSound) {
      TakeSound(*reader);
      if (mStreams.sounds.size() == 1 && reader->Packet().time >= mTo) return;
    } else if (item != ChannelReader::Item::kPacket || reader->DecodeTime() > limit) {
      return;
    }
  }
}

// --- Pictures ---

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
  mParts.back().to = std::max(mParts.back().to, mTo);
  WriteSound();
  return mError.empty();
}

void Clip::EndSection(const std::string& reason) {
  mHeld.clear();
  if (mRunning) {
    mMissing.push_back({mTo, mRange.until, reason});
    mIsBroken = true;
  } else if (mFrom == 0) {
    mBreak = reason;
  }
  mSound.clear();
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
  if (atEnd && mRunning) NoteTail();
  if (!mMissing.empty() && mRange.until - mMissing.back().from <= kShortTail) mMissing.pop_back();
  // Sections overlap where a picture was thought to be shown for longer. The reason is told all the same.
  for (Missing& each : mMissing) each.to = std::max(each.from, each.to);
  NoteGaps();
  ClosePart();
  return mError.empty() ? Result::kDone : Result::kFailed;
}

// What lies behind the last picture: not recorded, or on its way to the file, or yet to come.
void Clip::NoteTail() {
  const int64_t now = ParseTime("now").value_or(0);
  const bool growing =
      !mRecordings.Open().empty() && mRecordings.Open().back().state == Recording::State::kGrowing;
  if (!growing) return mMissing.push_back({mTo, mRange.until, "nothing is recorded"});
  const int64_t present = std::clamp(now, mTo, std::max(mTo, mRange.until));
  if (present > mTo) {
    mMissing.push_back({mTo, present, present - mTo <= kDelay ? "still being written" : "nothing is recorded"});
  }
  if (mRange.until > present) mMissing.push_back({present, mRange.until, "not recorded yet"});
}

double Clip::MissingShare() const {
  int64_t missing = 0;
  for (const Missing& each : mMissing) missing += each.to - each.from;
  return static_cast<double>(missing) / static_cast<double>(mRange.until - mRange.since);
}

}  // namespace recorder
