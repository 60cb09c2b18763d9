// Writes the pictures of one channel into an MP4 file, as they are.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/imf/ImfRecord.h"

struct AVFormatContext;
struct AVPacket;

namespace recorder {

class ClipWriter {
 public:
  ClipWriter();
  ~ClipWriter();
  ClipWriter(const ClipWriter&) = delete;
  ClipWriter& operator=(const ClipWriter&) = delete;

  // Begins the clip at `path` (an existing file is overwritten) with a key frame that was recorded at
  // `first.time`; the packet itself is not written yet. False: Error() says why.
  bool Open(const std::string& path, const ImfStreamInfo& stream, const ImfPacket& first);
  bool IsOpen() const { return mContext != nullptr; }

  // A section is a run of pictures without a break; each follows the one before at once. A section begins with
  // a key frame, and its first packets may have another time base than the clip.
  void BeginSection(const ImfStreamInfo& stream, const ImfPacket& key);
  // `duration` in microseconds, for a packet that has none.
  bool Write(const ImfPacket& packet, int64_t duration);
  bool Close();

  const std::string& Error() const { return mError; }
  int64_t Packets() const { return mPackets; }
  uint64_t Bytes() const { return mBytes; }
  double Seconds() const;  // length of the clip so far

 private:
  bool Fail(int error);
  bool FindExtraData(const ImfPacket& first);

  AVFormatContext* mContext = nullptr;
  AVPacket* mPacket;
  ImfStreamInfo mStream;  // of the clip: its time base counts below
  int64_t mSectionNumerator = 1;
  int64_t mSectionDenominator = 1;
  int64_t mOffset = 0;  // from the section's time to the clip's
  int64_t mLastDts = 0;
  int64_t mEnd = 0;
  int64_t mPackets = 0;
  uint64_t mBytes = 0;  // of packets
  std::string mError;
};

}  // namespace recorder
