// Writing and reading record files (.imf) with their packets. docs/FORMAT.md has every byte of the format.
//
// A record file keeps its size and its old bytes for ever; a new recording makes the file its own by stamping a
// header with its start time and a fresh generation number. A chunk counts only when it carries the header's
// generation and its checksum holds, so bytes of an earlier recording can't come back to life.
//
// With every checkpoint the file gets an index of the chunks since the last one. It makes reading one channel,
// or from a moment on, fast, and is never needed: chunks that it does not name, or that are not where it says,
// are found by walking from chunk to chunk.
//
// Threads: an object is used by one thread at a time. Any number of readers beside one writer is fine, in other
// processes too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "PictureSpan.h"

constexpr int IMF_CHANNEL_LIMIT = 32;  // channels 0 to 31: one bit each in a channel mask

constexpr int IMF_STREAM_LIMIT = 16;  // streams of one kind in a channel: numbers 0 to 15

// Of a stream. A channel mask tells of video only: a recording's sound stands beside the video of its channel.
enum class ImfKind : uint8_t { kVideo = 0, kAudio = 1 };
constexpr int IMF_KIND_LIMIT = 2;

// What a decoder needs to know of a stream. Unknown numbers are 0.
struct ImfStreamInfo {
  int channel = 0;
  ImfKind kind = ImfKind::kVideo;
  int number = 0;         // among the channel's streams of this kind
  std::string codecName;  // libavcodec's name of the coding, as "h264"
  uint32_t codecTag = 0;
  int32_t profile = 0;
  int32_t level = 0;
  int32_t width = 0;  // pixels
  int32_t height = 0;
  int32_t timeBaseNumerator = 1;  // of the packets' pts, dts and duration
  int32_t timeBaseDenominator = 1000000;
  int32_t frameRateNumerator = 0;  // frames per second, 0/1 when unknown
  int32_t frameRateDenominator = 1;
  // Of sound.
  int32_t sampleRate = 0;
  int32_t audioChannels = 0;
  uint64_t audioLayout = 0;  // libavutil's mask of speakers
  int32_t sampleFormat = 0;  // libavutil's number of it
  int32_t frameSize = 0;     // samples
  int32_t blockAlign = 0;    // bytes
  int32_t bitsPerCodedSample = 0;
  int32_t initialPadding = 0;      // samples
  std::vector<uint8_t> extraData;  // as the container gave it: parameter sets and the like
};

struct ImfPacket {
  int channel = 0;
  ImfKind kind = ImfKind::kVideo;
  int number = 0;
  bool keyFrame = false;
  int64_t time = 0;  // recording time of the packet's presentation, microseconds since the epoch
  int64_t pts = 0;   // in the stream's time base
  int64_t dts = 0;
  int64_t duration = 0;  // in the stream's time base, 0 when unknown
  std::vector<uint8_t> data;
};

// What there is of a channel. Times of pictures in microseconds since the epoch, 0 without any.
struct ImfChannelSummary {
  int64_t first = 0;
  int64_t last = 0;       // when the last picture to be shown appears
  int64_t end = 0;        // when the last picture is over, as far as its duration is known
  uint32_t pictures = 0;  // packets of video
  uint32_t soundPackets = 0;
};

// A chunk as the index has it: a packet, or the parameters of a stream.
struct ImfEntry {
  uint64_t offset = 0;  // in the file
  uint32_t length = 0;  // of the payload, bytes
  bool isPacket = false;
  int channel = 0;
  ImfKind kind = ImfKind::kVideo;
  int number = 0;
  bool keyFrame = false;
  int64_t time = 0;       // microseconds since the epoch
  uint32_t duration = 0;  // microseconds, 0 unknown
};

enum class ImfWriteResult {
  kWritten,
  kFull,    // does not fit any more; the file is as it was before the call and can still be closed. A packet of
            // more than 64 MiB fits into no file
  kFailed,  // the device or the file system refused (errno); the file should be quarantined
};

// Writes one recording into an existing file. Never creates, truncates or grows a file.
class ImfWriter {
 public:
  ImfWriter();
  ~ImfWriter();  // closes without a final checkpoint, as a crash would
  ImfWriter(const ImfWriter&) = delete;
  ImfWriter& operator=(const ImfWriter&) = delete;

  // Opens the file (not through a symbolic link), stamps the header with `startTime` (seconds since the epoch,
  // as in the file's name; 1 to 2147483646) and a generation number that differs from the old one, and makes
  // the header durable. False: errno tells why (EISDIR: not a regular file; EINVAL: a start time out of range,
  // or a file too small to hold a header), and the file is as it was unless the device failed.
  bool Open(const std::string& path, uint32_t startTime);

  // Makes a stream known; its packets may follow. Call it again when the parameters change in mid-file. A
  // channel or number out of range, or a time base that is not positive, gives kFailed with EINVAL.
  ImfWriteResult AddStream(const ImfStreamInfo& stream);

  // Appends a packet with one system call. The bytes are the kernel's afterwards: they survive the process. A
  // packet of an unknown stream gives kFailed with EINVAL.
  ImfWriteResult Write(const ImfPacket& packet);

  // For when no packet comes: what was written since the last checkpoint is made durable when its interval is
  // over. False: errno tells why, as of kFailed.
  bool CheckpointIfDue();

  // Final checkpoint: end time and channel mask into the header, made durable. The writer is closed whatever
  // the result. False: errno tells why; the file can be repaired by ImfFile.
  bool Close();

  bool IsOpen() const;
  // End of the recording so far, in seconds, rounded up; always later than the start time.
  uint32_t EndTime() const;
  // Bit n: video of channel n was written.
  uint32_t ChannelMask() const;
  // Channel 0 to 31.
  const ImfChannelSummary& Summary(int channel) const;
  // When which channel had pictures so far; see ImfCoverage.h.
  std::vector<PictureSpan> Coverage() const;
  uint64_t Capacity() const;  // bytes of the file
  uint64_t Used() const;      // bytes written, the header included
  uint64_t Generation() const;

  // Seconds between two checkpoints that are made durable while recording (default 2): what a power cut may
  // cost. 0 makes each call durable. However long the interval, 64 MiB or 65536 chunks never go without a
  // checkpoint.
  void SetCheckpointInterval(int seconds);

 private:
  struct State;
  std::unique_ptr<State> mState;
};

// Reads the packets of one record file in the order in which they were written, also while it grows: all of
// them, or those of one channel.
class ImfReader {
 public:
  ImfReader();
  ~ImfReader();
  ImfReader(const ImfReader&) = delete;
  ImfReader& operator=(const ImfReader&) = delete;

  // False when the file can't be read or has no valid header; Error() says which, in one line.
  bool Open(const std::string& path);
  const std::string& Error() const;

  uint32_t StartTime() const;  // seconds since the epoch, from the header
  uint32_t EndTime() const;  // as of the last checkpoint, 0 when there was none; looked up again at every kEnd
  uint32_t ChannelMask() const;  // as of the last checkpoint
  // As of the last checkpoint. Channel 0 to 31.
  const ImfChannelSummary& Summary(int channel) const;
  uint64_t Generation() const;

  enum class Item {
    kStream,    // Stream() holds the parameters of a stream
    kPacket,    // Packet() holds a packet
    kDamage,    // bytes that are not sound, or that the device can't read, were skipped; reading goes on behind
                // them. DamagedBytes() says how many they were this time
    kEnd,       // nothing sound follows (yet: a growing file may have more later, call Next again)
    kReplaced,  // the header carries another generation now: the file was recycled under the reader
    kFailed,    // the device can't read the header or reports one error after the other; Error() says what
  };
  Item Next();
  const ImfStreamInfo& Stream() const;
  const ImfPacket& Packet() const;
  uint64_t DamagedBytes() const;
  // Where the last stream or packet stands in the file.
  uint64_t Offset() const;
  // The latest time of a packet of any channel that was come across so far, those included that only the index
  // told of; INT64_MIN: none. At kEnd, the latest of the recording.
  int64_t LatestTime() const;

  // Reading starts over and gives the streams and packets of this channel only, and of damage what lies in
  // their way; what the index knows not to be wanted is not read. With a `time` (microseconds since the epoch),
  // what comes before the channel's last key picture at or before it is left out as far as the index tells of
  // one: parameters are given all the same, and sound from a second before that picture on.
  void SelectChannel(int channel, int64_t time = INT64_MIN);

  // Tells of each packet and each stream's parameters of the recording, in the order of the file, from the
  // index, and from the headers of chunks where there is none. What is told of may be damaged. Doesn't move the
  // reading. False when the file can't be read or holds another recording by now, which may have been noticed
  // in the middle.
  bool List(const std::function<void(const ImfEntry&)>& visit) const;

  // Reading starts over at the first chunk.
  void Rewind();
  // Whether the header still carries the generation seen by Open.
  bool IsSameRecording() const;
  // Packets that stand in front of `offset` come without their payload: Packet().data stays empty and its
  // checksum is not verified. At first 0. May be changed at any time.
  void SetHeadersBefore(uint64_t offset);
  void SetHeadersOnly(bool headersOnly) { SetHeadersBefore(headersOnly ? UINT64_MAX : 0); }

 private:
  struct State;
  std::unique_ptr<State> mState;
};
