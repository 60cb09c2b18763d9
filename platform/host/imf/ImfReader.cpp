#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/ImfWalk.h"

struct ImfReader::State {
  int file = -1;
  std::string path;
  imf::Identity identity;
  std::optional<imf::ImfWalk> walk;
  bool headersOnly = false;
  std::string error;
  ImfStreamInfo stream;
  ImfPacket packet;

  ~State() {
    if (file >= 0) close(file);
  }
  bool Fail(const std::string& why) {
    error = path + ": " + why;
    return false;
  }
};

ImfReader::ImfReader() : mState(std::make_unique<State>()) {}
ImfReader::~ImfReader() = default;

bool ImfReader::Open(const std::string& path) {
  auto state = std::make_unique<State>();
  state->path = path;
  state->headersOnly = mState->headersOnly;
  mState = std::move(state);
  State& s = *mState;

  s.file = imf::OpenRegular(path, O_RDONLY);
  if (s.file < 0) return s.Fail(errno == EISDIR ? "not a regular file" : std::strerror(errno));
  struct stat info = {};
  if (fstat(s.file, &info) != 0) return s.Fail(std::strerror(errno));
  if (!imf::ReadIdentity(s.file, &s.identity)) {
    return s.Fail(errno == 0 ? "no recording in it: its header is not valid" : std::strerror(errno));
  }
  s.walk.emplace(s.file, s.identity, static_cast<uint64_t>(info.st_size), 0);
  return true;
}

const std::string& ImfReader::Error() const { return mState->error; }

uint32_t ImfReader::StartTime() const { return mState->walk ? mState->identity.startTime : 0; }

uint32_t ImfReader::EndTime() const { return mState->walk ? mState->walk->LastCheckpoint().endTime : 0; }

uint32_t ImfReader::ChannelMask() const {
  return mState->walk ? mState->walk->LastCheckpoint().channelMask : 0;
}

uint64_t ImfReader::Generation() const { return mState->walk ? mState->identity.generation : 0; }

ImfReader::Item ImfReader::Next() {
  State& s = *mState;
  if (!s.walk) {
    s.Fail("not open");
    return Item::kFailed;
  }
  switch (s.walk->Next(!s.headersOnly)) {
    case imf::ImfWalk::Step::kChunk:
      break;
    case imf::ImfWalk::Step::kDamage:
      return Item::kDamage;
    case imf::ImfWalk::Step::kEnd:
      return Item::kEnd;
    case imf::ImfWalk::Step::kReplaced:
      return Item::kReplaced;
    case imf::ImfWalk::Step::kDeviceError:
      s.Fail("the device reports too many read errors");
      return Item::kFailed;
  }
  const imf::Chunk& chunk = s.walk->Header();
  if (chunk.type == imf::kStreamChunk) {
    s.stream.channel = chunk.channel;
    // Parameters are few and small, and of no use without their payload.
    const bool sound = imf::DecodeStream(s.walk->Payload().data(), s.walk->Payload().size(), &s.stream);
    return sound ? Item::kStream : Item::kDamage;
  }
  s.packet.channel = chunk.channel;
  s.packet.keyFrame = chunk.keyFrame;
  s.packet.time = chunk.time;
  s.packet.pts = chunk.pts;
  s.packet.dts = chunk.dts;
  s.packet.duration = chunk.duration;
  std::swap(s.packet.data, s.walk->Payload());
  return Item::kPacket;
}

const ImfStreamInfo& ImfReader::Stream() const { return mState->stream; }

const ImfPacket& ImfReader::Packet() const { return mState->packet; }

uint64_t ImfReader::DamagedBytes() const { return mState->walk ? mState->walk->Skipped() : 0; }

void ImfReader::Rewind() {
  if (mState->walk) mState->walk->Rewind();
}

bool ImfReader::IsSameRecording() const {
  imf::Identity now;
  return mState->walk && imf::ReadIdentity(mState->file, &now) && now.generation == mState->identity.generation;
}

void ImfReader::SetHeadersOnly(bool headersOnly) { mState->headersOnly = headersOnly; }
