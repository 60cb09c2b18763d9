#include "ImfFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "SystemHelper.h"
#include "platform/host/imf/ImfExtent.h"
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfStorage.h"
#include "platform/host/imf/ImfWalk.h"
#include "platform/host/imf/RecordName.h"

unsigned ImfStreamCountSummary::GetVideoChannelMask(int kind) const {
  return kind == 0 ? mVideoChannelMask : 0;
}

void ImfStreamCountSummary::AddVideoChannel(int channel) {
  if (channel >= 0 && channel < IMF_CHANNEL_LIMIT) mVideoChannelMask |= 1u << channel;
}

struct ImfFile::Content {
  int file = -1;
  uint32_t endTime = 0;
  ImfStreamCountSummary summary;

  ~Content() {
    if (file >= 0) close(file);
  }
  void Set(uint32_t end, uint32_t channelMask) {
    endTime = end;
    for (int channel = 0; channel < IMF_CHANNEL_LIMIT; ++channel) {
      if ((channelMask >> channel & 1) != 0) summary.AddVideoChannel(channel);
    }
  }
  imf_error_code_e Read(const std::string& path);
  imf_error_code_e Repair(const std::string& path);
};

namespace {

// 0 when the name is no record file's.
uint32_t StartTimeOfName(const std::string& path) {
  RecordName name = {};
  ParseRecordName(path.substr(path.rfind('/') + 1), &name);
  return name.startTime;
}

// What only looks like a record file, a directory or a symbolic link, is nobody's to repair or to recycle.
imf_error_code_e OpenError(int error) {
  if (error == ENOENT || error == ENOTDIR || error == EISDIR) return IMF_ERROR_NOT_FOUND;
  return imf::IsDeviceError(error) ? IMF_ERROR_IO : IMF_ERROR_ACCESS;
}

// `error` 0: the header was read and is not sound.
imf_error_code_e HeaderError(int error, imf_error_code_e notSound) {
  if (error == 0) return notSound;
  return imf::IsDeviceError(error) ? IMF_ERROR_IO : IMF_ERROR_ACCESS;
}

}  // namespace

// A file that was just taken from the pool carries its old recording's header until the writer stamps it. Its
// end time is not this recording's.
imf_error_code_e ImfFile::Content::Read(const std::string& path) {
  file = imf::OpenRegular(path, O_RDONLY);
  if (file < 0) return OpenError(errno);
  imf::Identity identity;
  if (!imf::ReadIdentity(file, &identity)) return HeaderError(errno, IMF_ERROR_NOT_A_RECORD);
  const uint32_t nameStart = StartTimeOfName(path);
  if (nameStart != 0 && nameStart != identity.startTime) return IMF_ERROR_NOT_A_RECORD;
  imf::Checkpoint checkpoint;
  if (imf::ReadCheckpoint(file, identity.generation, &checkpoint)) {
    Set(checkpoint.endTime, checkpoint.channelMask);
  }
  return IMF_ERROR_NONE;
}

imf_error_code_e ImfFile::Content::Repair(const std::string& path) {
  file = imf::OpenRegular(path, O_RDWR);
  if (file < 0) return OpenError(errno);
  struct stat info = {};
  if (fstat(file, &info) != 0) return OpenError(errno);
  imf::Identity identity;
  if (!imf::ReadIdentity(file, &identity)) return HeaderError(errno, IMF_ERROR_UNREPAIRABLE);
  if (identity.startTime != StartTimeOfName(path) || identity.startTime == 0 ||
      identity.startTime >= imf::kTimeLimit) {
    return IMF_ERROR_UNREPAIRABLE;
  }

  // The whole recording is read, whatever the checkpoint says: only chunks prove that there is something to
  // keep.
  posix_fadvise(file, 0, 0, POSIX_FADV_SEQUENTIAL);
  imf::ImfWalk walk(file, identity, static_cast<uint64_t>(info.st_size), imf::kLookAhead);
  imf::Extent extent;
  uint64_t lastIndex = 0;
  imf::ImfWalk::Step step = imf::ImfWalk::Step::kChunk;
  while (step == imf::ImfWalk::Step::kChunk || step == imf::ImfWalk::Step::kDamage) {
    step = walk.Next(imf::ImfWalk::kAllChannels);
    if (step != imf::ImfWalk::Step::kChunk) continue;
    if (walk.Header().type == imf::kIndexChunk) {
      lastIndex = walk.Offset();
    } else {
      extent.Add(walk.Header(), walk.Payload());
    }
  }
  if (step == imf::ImfWalk::Step::kReplaced) return IMF_ERROR_ACCESS;  // somebody is recording into it
  if (walk.ReadError() != 0 && !imf::IsDeviceError(walk.ReadError())) return IMF_ERROR_ACCESS;
  if (!extent.HasPacket()) return walk.ReadError() != 0 ? IMF_ERROR_IO : IMF_ERROR_UNREPAIRABLE;

  imf::Checkpoint checkpoint = walk.LastCheckpoint();
  const imf::Checkpoint old = checkpoint;
  checkpoint.generation = identity.generation;
  checkpoint.used = walk.SoundEnd();
  checkpoint.endTime = extent.EndTime(identity.startTime);
  checkpoint.index = lastIndex;
  checkpoint.channelMask = extent.ChannelMask();
  checkpoint.channels = extent.Channels();
  checkpoint.closed = true;
  const bool isCurrent = old == checkpoint;
  checkpoint.number = old.number + 1;
  // Left as it is, it is repaired by the next attempt; a name that tells more than the header would look wrong
  // for good.
  if (!isCurrent && !imf::WriteCheckpoint(file, checkpoint)) {
    std::fprintf(stderr, "Dbg (%s) Can't write the header of '%s'. (%s)\n", gpDebugPrefix, path.c_str(),
                 std::strerror(errno));
    return IMF_ERROR_ACCESS;
  }
  Set(checkpoint.endTime, checkpoint.channelMask);
  return IMF_ERROR_REPAIRED;
}

ImfFile::ImfFile(imf_error_code_e& error, std::string path, imf_file_open_mode_e mode, std::string, std::string,
                 int, ImfSegmentCloseInterface* segmentClose)
    : mContent(std::make_unique<Content>()) {
  switch (mode) {
    case IMF_OPEN_READ:
      error = mContent->Read(path);
      break;
    case IMF_OPEN_REPAIR:
      error = mContent->Repair(path);
      if (error != IMF_ERROR_IO) break;
      // What the device can't read is given up for good, and some of its errors pass: it is asked twice.
      mContent = std::make_unique<Content>();
      error = mContent->Repair(path);
      break;
    default:
      error = IMF_ERROR_MODE;
  }
  if (error == IMF_ERROR_REPAIRED && segmentClose != nullptr) segmentClose->OnSegmentClosed(*this);
}

ImfFile::~ImfFile() = default;

int ImfFile::GetEndTime() const { return static_cast<int>(mContent->endTime); }

const ImfStreamCountSummary& ImfFile::GetStreamCountSummary() const { return mContent->summary; }
