#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include "platform/host/imf/ImfExtent.h"
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfIndex.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/ImfStorage.h"
#include "platform/host/imf/ImfWalk.h"

namespace {

using imf::ImfIndex;
using imf::ImfWalk;

constexpr int64_t kSoundBefore =
    1000000;  // microseconds: how much later than its sound a picture may be written
constexpr int64_t kLongBefore =
    3600 * int64_t{1000000};               // a picture so long before the recording has a wrong time
constexpr uint64_t kReadAhead = 1u << 20;  // bytes of wanted packets that the device may be asked for at a time

// What is wanted of a recording.
struct Selection {
  int channel = ImfWalk::kAllChannels;
  uint64_t fromOffset = 0;  // of pictures
  int64_t fromTime = INT64_MIN;

  bool Wants(int chunkChannel, ImfKind kind, bool isPacket, uint64_t offset, int64_t time) const {
    if (channel == ImfWalk::kAllChannels) return true;
    if (chunkChannel != channel) return false;
    return !isPacket || offset >= fromOffset || (kind != ImfKind::kVideo && time >= fromTime);
  }
};

}  // namespace

struct ImfReader::State {
  int file = -1;
  std::string path;
  imf::Identity identity;
  uint64_t fileSize = 0;
  std::optional<ImfWalk> walk;
  std::optional<ImfIndex> index;
  Selection selection;
  uint64_t headersBefore = 0;
  std::string error;
  ImfStreamInfo stream;
  ImfPacket packet;
  int64_t latest = INT64_MIN;

  // The piece of the index that is being followed.
  const ImfIndex::Piece* piece = nullptr;
  std::vector<ImfEntry> entries;
  size_t next = 0;            // of the entries
  ImfWalk::Place verified;    // so far, chunks have been seen themselves
  size_t advised = 0;         // entries that the device was asked for
  uint64_t advisedBytes = 0;  // and that were not read yet

  ~State() {
    if (file >= 0) close(file);
  }
  bool Fail(const std::string& why) {
    error = path + ": " + why;
    return false;
  }
  void Start();
  void FindBegin(int64_t time);
  bool Wants(const ImfEntry& entry) const {
    return selection.Wants(entry.channel, entry.kind, entry.isPacket, entry.offset, entry.time);
  }
  bool Enter();
  void Leave(const ImfWalk::Place& place);
  void Advise();
  ImfWalk::Step NextNamed();
  ImfWalk::Step NextStep();
  bool Deliver(Item* item);
};

// Reading begins anew.
void ImfReader::State::Start() {
  piece = nullptr;
  latest = INT64_MIN;
  walk->Rewind();
}

// The last piece that knows of such a picture is the last one that counts.
void ImfReader::State::FindBegin(int64_t time) {
  if (time == INT64_MIN) return;
  const int64_t earliest = identity.startTime * int64_t{1000000} - kLongBefore;
  std::vector<ImfEntry> listed;
  for (auto at = index->All().rbegin(); at != index->All().rend(); ++at) {
    if (!index->Load(at->second, &listed)) continue;
    for (auto entry = listed.rbegin(); entry != listed.rend(); ++entry) {
      if (entry->channel != selection.channel || entry->kind != ImfKind::kVideo || !entry->isPacket) continue;
      if (!entry->keyFrame || entry->time > time || entry->time < earliest) continue;
      selection.fromOffset = entry->offset;
      selection.fromTime = entry->time - kSoundBefore;
      return;
    }
  }
}

// Follows the index from here on, if it knows of what stands here.
bool ImfReader::State::Enter() {
  const ImfWalk::Place& here = walk->Position();
  const ImfIndex::Piece* const found = index->At(here.offset);
  if (found == nullptr) return false;
  const uint32_t sequence = found->index.sequence;
  if (here.isLeap ? sequence < here.sequence : sequence != here.sequence) return false;
  if (!index->Load(*found, &entries)) {
    index->Drop(*found);
    return false;
  }
  piece = found;
  next = 0;
  advised = 0;
  advisedBytes = 0;
  verified = here;
  return true;
}

void ImfReader::State::Leave(const ImfWalk::Place& place) {
  piece = nullptr;
  walk->MoveTo(place);
}

// Packets of one channel lie scattered, and a device is slow when it is asked for one after the other.
void ImfReader::State::Advise() {
  advised = std::max(advised, next);
  for (; advised < entries.size() && advisedBytes < kReadAhead; ++advised) {
    const ImfEntry& entry = entries[advised];
    if (!Wants(entry) || entry.offset < headersBefore) continue;
    const uint64_t size = imf::ChunkSize(entry.length);
    posix_fadvise(file, static_cast<off_t>(entry.offset), static_cast<off_t>(size), POSIX_FADV_WILLNEED);
    advisedBytes += size;
  }
}

// The next chunk of the piece that is wanted. kEnd: the walk goes on, behind the piece or where the index and
// the file part.
ImfWalk::Step ImfReader::State::NextNamed() {
  for (; next < entries.size(); ++next) {
    const ImfEntry& entry = entries[next];
    if (entry.isPacket) latest = std::max(latest, entry.time);
    if (!Wants(entry)) continue;
    Advise();
    const uint32_t sequence = piece->index.sequence + static_cast<uint32_t>(next);
    // What is wrong with the chunk, and whose file it is by now, is the walk's to find out.
    if (!walk->Take(entry, sequence, entry.offset >= headersBefore)) {
      index->Drop(*piece);
      Leave(verified);
      return ImfWalk::Step::kEnd;
    }
    ++next;
    if (entry.offset >= headersBefore) advisedBytes -= std::min(advisedBytes, walk->Skipped());
    verified = {entry.offset + walk->Skipped(), sequence + 1, false};
    return ImfWalk::Step::kChunk;
  }
  // How many chunks were left out is only what the index says.
  Leave({piece->End(), verified.sequence, true});
  return ImfWalk::Step::kEnd;
}

ImfWalk::Step ImfReader::State::NextStep() {
  const bool selects = selection.channel != ImfWalk::kAllChannels;
  while (selects && (piece != nullptr || Enter())) {
    const ImfWalk::Step step = NextNamed();
    if (step != ImfWalk::Step::kEnd) return step;
  }
  const bool headersOnly = walk->Position().offset < headersBefore;
  const ImfWalk::Step step = walk->Next(headersOnly ? ImfWalk::kNoChannel : selection.channel);
  if (selects && step == ImfWalk::Step::kEnd) index->Find(walk->LastCheckpoint());
  return step;
}

ImfReader::ImfReader() : mState(std::make_unique<State>()) {}
ImfReader::~ImfReader() = default;

bool ImfReader::Open(const std::string& path) {
  auto state = std::make_unique<State>();
  state->path = path;
  state->headersBefore = mState->headersBefore;
  mState = std::move(state);
  State& s = *mState;

  s.file = imf::OpenRegular(path, O_RDONLY);
  if (s.file < 0) return s.Fail(errno == EISDIR ? "not a regular file" : std::strerror(errno));
  struct stat info = {};
  if (fstat(s.file, &info) != 0) return s.Fail(std::strerror(errno));
  if (!imf::ReadIdentity(s.file, &s.identity)) {
    return s.Fail(errno == 0 ? "no recording in it: its header is not valid" : std::strerror(errno));
  }
  s.fileSize = static_cast<uint64_t>(info.st_size);
  s.walk.emplace(s.file, s.identity, s.fileSize, 0);
  s.index.emplace(s.file, s.identity, s.fileSize);
  return true;
}

const std::string& ImfReader::Error() const { return mState->error; }

uint32_t ImfReader::StartTime() const { return mState->walk ? mState->identity.startTime : 0; }

uint32_t ImfReader::EndTime() const { return mState->walk ? mState->walk->LastCheckpoint().endTime : 0; }

uint32_t ImfReader::ChannelMask() const {
  return mState->walk ? mState->walk->LastCheckpoint().channelMask : 0;
}

const ImfChannelSummary& ImfReader::Summary(int channel) const {
  static const ImfChannelSummary kNothing;
  return mState->walk ? mState->walk->LastCheckpoint().channels[static_cast<size_t>(channel)] : kNothing;
}

uint64_t ImfReader::Generation() const { return mState->walk ? mState->identity.generation : 0; }

ImfReader::Item ImfReader::Next() {
  State& s = *mState;
  if (!s.walk) {
    s.Fail("not open");
    return Item::kFailed;
  }
  Item item = Item::kEnd;
  while (!s.Deliver(&item)) {
  }
  return item;
}

// False: nothing that is wanted, as yet.
bool ImfReader::State::Deliver(Item* item) {
  switch (NextStep()) {
    case ImfWalk::Step::kChunk:
      break;
    case ImfWalk::Step::kDamage:
      *item = Item::kDamage;
      return true;
    case ImfWalk::Step::kEnd:
      *item = Item::kEnd;
      return true;
    case ImfWalk::Step::kReplaced:
      *item = Item::kReplaced;
      return true;
    case ImfWalk::Step::kDeviceError:
      Fail("the device reports too many read errors");
      *item = Item::kFailed;
      return true;
  }
  const imf::Chunk& chunk = walk->Header();
  const bool isPacket = chunk.type == imf::kPacketChunk;
  if (isPacket) latest = std::max(latest, chunk.time);
  if (chunk.type == imf::kIndexChunk) return false;
  if (!selection.Wants(chunk.channel, chunk.kind, isPacket, walk->Offset(), chunk.time)) return false;
  if (!isPacket) {
    stream.channel = chunk.channel;
    stream.kind = chunk.kind;
    stream.number = chunk.number;
    // Parameters are few and small, and of no use without their payload.
    *item = imf::DecodeStream(walk->Payload(), chunk.length, &stream) ? Item::kStream : Item::kDamage;
    return true;
  }
  imf::ToPacket(chunk, &packet);
  packet.data.clear();
  if (walk->Payload() != nullptr) packet.data.assign(walk->Payload(), walk->Payload() + chunk.length);
  *item = Item::kPacket;
  return true;
}

bool ImfReader::List(const std::function<void(const ImfEntry&)>& visit) const {
  const State& s = *mState;
  if (!s.walk) return false;
  ImfWalk walk(s.file, s.identity, s.fileSize, 0);
  ImfIndex index(s.file, s.identity, s.fileSize);
  index.Find(walk.LastCheckpoint());
  imf::Extent streams;  // those that were come across: packets have their time bases
  std::vector<ImfEntry> entries;
  for (;;) {
    const ImfIndex::Piece* const piece = index.At(walk.Position().offset);
    if (piece != nullptr && index.Load(*piece, &entries)) {
      for (const ImfEntry& entry : entries) {
        const uint32_t sequence = piece->index.sequence + static_cast<uint32_t>(&entry - entries.data());
        if (!entry.isPacket && walk.Take(entry, sequence, true)) streams.Add(walk.Header(), walk.Payload());
        visit(entry);
      }
      walk.MoveTo({piece->End(), walk.Position().sequence, true});
      continue;
    }
    switch (walk.Next(ImfWalk::kNoChannel)) {
      case ImfWalk::Step::kChunk:
        if (walk.Header().type == imf::kStreamChunk) streams.Add(walk.Header(), walk.Payload());
        if (walk.Header().type != imf::kIndexChunk) visit(streams.EntryOf(walk.Header(), walk.Offset()));
        break;
      case ImfWalk::Step::kDamage:
        break;
      case ImfWalk::Step::kEnd:
        return true;
      case ImfWalk::Step::kReplaced:
      case ImfWalk::Step::kDeviceError:
        return false;
    }
  }
}

const ImfStreamInfo& ImfReader::Stream() const { return mState->stream; }

const ImfPacket& ImfReader::Packet() const { return mState->packet; }

uint64_t ImfReader::DamagedBytes() const { return mState->walk ? mState->walk->Skipped() : 0; }

uint64_t ImfReader::Offset() const { return mState->walk ? mState->walk->Offset() : 0; }

int64_t ImfReader::LatestTime() const { return mState->latest; }

void ImfReader::SelectChannel(int channel, int64_t time) {
  State& s = *mState;
  if (!s.walk) return;
  s.selection = Selection();
  s.selection.channel = channel;
  s.index->Find(s.walk->LastCheckpoint());
  s.FindBegin(time);
  posix_fadvise(s.file, 0, 0, POSIX_FADV_RANDOM);  // what the kernel would read along is of other channels
  s.Start();
}

void ImfReader::Rewind() {
  if (mState->walk) mState->Start();
}

bool ImfReader::IsSameRecording() const {
  imf::Identity now;
  return mState->walk && imf::ReadIdentity(mState->file, &now) && now.generation == mState->identity.generation;
}

void ImfReader::SetHeadersBefore(uint64_t offset) { mState->headersBefore = offset; }
