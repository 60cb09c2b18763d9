// Reads the pictures and the sound of one channel from record file to record file, over all disks, also while
// they are being recorded, and tells where pictures are missing.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "apps/recorder/disks/Disks.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

class ChannelReader {
 public:
  enum class Item {
    kPacket,  // of pictures
    kSound,   // a packet of it; breaks are between pictures only
    kBreak,   // pictures are missing between the packet before and the next; Reason() says why
    kEnd,     // nothing more is recorded before the limit
  };
  // A packet's place, good as long as its record file holds the same recording.
  struct Place {
    int64_t fileStart = 0;  // seconds since the epoch, as in the file's name
    uint64_t offset = 0;    // in the file; 0 is no packet's
  };

  // `disks` are open and outlive the object. Nothing is read of files that start at `limit` (microseconds since
  // the epoch) or later.
  ChannelReader(const Disks& disks, int channel, int64_t limit);
  ~ChannelReader();

  // Reading begins with the record file at `path`. Packets before `full` come without their data, and damage to
  // that goes unnoticed. What comes before a file's last key frame at or before `since` (microseconds since the
  // epoch) is left out where the file's index tells of one.
  void Start(const std::string& path, Place full, int64_t since);
  Item Next();

  const ImfPacket& Packet() const { return mReader->Packet(); }
  const ImfStreamInfo& Stream() const { return mStream; }  // of the pictures
  // Of the sound as far as it is known, by number.
  const std::map<int, ImfStreamInfo>& Sounds() const { return mSounds; }
  // When the sound is heard, microseconds by the clock of the pictures' stamps.
  int64_t SoundTime() const { return mReader->Packet().time - mLast.shift; }
  // Microseconds since the epoch: when the packet is decoded, which never falls in a recording; when its
  // picture is over.
  int64_t DecodeTime() const { return mLast.decodeTime; }
  int64_t EndTime() const { return mLast.endTime; }
  const std::string& Path() const { return mPath; }
  Place Where() const { return {mFileStart, mReader->Offset()}; }
  const std::string& Reason() const { return mReported; }

 private:
  // Of a packet, in microseconds.
  struct Times {
    bool valid = false;
    int64_t dts = 0;         // as the stream's own clock has it
    int64_t decodeTime = 0;  // since the epoch
    int64_t endTime = 0;     // since the epoch
    int64_t duration = 0;
    int64_t shift = 0;  // since the epoch minus by the stream's own clock
  };

  bool OpenFile();
  bool ReadPacket();
  bool TakePacket();
  bool TakeSound() const;
  bool Joins(const Times& next) const;
  void NoteLostEnd();
  void NextFile();
  void Note(const std::string& reason);
  bool IsBroken() const { return mDamaged > 0 || !mReason.empty(); }
  Item Break();

  const Disks& mDisks;
  const int mChannel;
  const int64_t mLimit;
  Place mFull;
  int64_t mSince = 0;

  std::string mPath;  // the record file being read; empty at the end
  std::unique_ptr<ImfReader> mReader;
  bool mIsOpen = false;
  int64_t mFileStart = 0;
  bool mStreamKnown = false;
  ImfStreamInfo mStream;
  std::map<int, ImfStreamInfo> mSounds;
  Times mLast;

  bool mHeld = false;        // a packet is to be delivered after the break before it
  uint64_t mDamaged = 0;     // bytes since the packet before
  std::string mDamagedPath;  // where
  std::string mReason;       // why else pictures are missing since then
  std::string mReported;
};

}  // namespace recorder
