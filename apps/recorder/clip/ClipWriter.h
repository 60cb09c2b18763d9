// Writes the pictures and the sound of one channel into a file that plays anywhere, as they are, in one pass
// over it: a player can begin before the file is complete.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/host/imf/ImfRecord.h"

struct AVFormatContext;
struct AVPacket;
struct AVRational;

namespace recorder {

enum class ClipFormat { kMp4, kMov, kMatroska };
// By what people call it ("mp4", "mov", "mkv"), as it stands behind a file name's last dot.
std::optional<ClipFormat> ParseClipFormat(const std::string& name);

// Of one run of equal parameters.
struct ClipStreams {
  struct Sound {
    ImfStreamInfo info;
    ImfPacket first;  // its parameters may have to be found in there
  };
  ImfStreamInfo video;
  std::map<int, Sound> sounds;  // by number
};

class ClipWriter {
 public:
  struct Target {
    std::string path;  // "-" is standard output
    ClipFormat format = ClipFormat::kMp4;
  };

  ClipWriter();
  ~ClipWriter();
  ClipWriter(const ClipWriter&) = delete;
  ClipWriter& operator=(const ClipWriter&) = delete;

  // Begins a clip (an existing file is overwritten) with a key frame that was recorded at `first.time`; the
  // packet itself is not written yet. Sound that the format can't hold is left out, which LeftOut() tells.
  // False: Error() says why. The writer may be opened again after Close().
  bool Open(const Target& target, const ClipStreams& streams, const ImfPacket& first);
  bool IsOpen() const { return mContext != nullptr; }

  // A section is a run of pictures without a break; each follows the one before at once. A section begins with
  // a key frame, and its first packets may have another time base than the clip.
  void BeginSection(const ImfStreamInfo& stream, const ImfPacket& key);
  // `duration` in microseconds, for a packet that has none.
  bool Write(const ImfPacket& packet, int64_t duration);
  // Sound at `streamTime`, microseconds by the clock of the section's pictures. What lies before the section or
  // overlaps what was written is left out, and so is sound that the clip doesn't have.
  bool WriteSound(const ImfPacket& packet, int64_t streamTime);
  bool Close();

  const std::string& Error() const { return mError; }
  int64_t Packets() const { return mPackets; }
  uint64_t Bytes() const { return mBytes; }
  double Seconds() const;  // length of the clip so far
  // A line for each sound that has no place in the clip.
  const std::vector<std::string>& LeftOut() const { return mLeftOut; }

 private:
  struct Track {
    int index = 0;  // in the file
    ImfStreamInfo info;
    int64_t next = 0;  // behind the last packet, samples; nothing written: 0
    int64_t last = -1;
  };

  bool Fail(int error);
  bool AddVideo(ClipFormat format, const ImfStreamInfo& stream, const ImfPacket& first);
  bool AddSound(ClipFormat format, const ClipStreams::Sound& sound);
  bool WritePacket(const ImfPacket& packet, size_t from, int index, AVRational timeBase);

  AVFormatContext* mContext = nullptr;
  AVPacket* mPacket;
  ImfStreamInfo mStream;  // of the clip: its time base counts below
  std::map<int, Track> mSounds;
  int64_t mSectionNumerator = 1;
  int64_t mSectionDenominator = 1;
  int64_t mOffset = 0;        // from the section's time to the clip's
  int64_t mSectionBegin = 0;  // in the clip
  int64_t mLastDts = 0;
  int64_t mEnd = 0;
  int64_t mPackets = 0;
  uint64_t mBytes = 0;  // of packets
  std::vector<std::string> mLeftOut;
  std::string mError;
};

}  // namespace recorder
