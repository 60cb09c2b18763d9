// Record files: what is written comes back, and whatever becomes of the bytes, only what is sound comes back.
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <tuple>

#include "ImfFile.h"
#include "platform/host/imf/ImfCoverage.h"
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/ImfStorage.h"
#include "tests/support/TestDisk.h"

// The device, as far as it can be made to fail or watched: these stand in front of the C library's functions in
// this program.
namespace device {
int readError = 0;  // errno of reads that touch [badFrom, badTo)
uint64_t badFrom = 0, badTo = 0;
uint64_t bytesRead = 0, reads = 0;

int oddWrites = 0;     // that did not begin and end with a block, or overwrote what was durable
uint64_t written = 0;  // behind the header blocks: the end of the last write,
uint64_t durable = 0;  // and of the last one that was made durable
}  // namespace device

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  const auto from = static_cast<uint64_t>(offset);
  if (device::readError != 0 && from < device::badTo && from + length > device::badFrom) {
    errno = device::readError;
    return -1;
  }
  ++device::reads;
  iovec part = {buffer, length};
  const ssize_t got = preadv(file, &part, 1, offset);
  if (got > 0) device::bytesRead += static_cast<uint64_t>(got);
  return got;
}

extern "C" ssize_t pwritev(int file, const struct iovec* parts, int count, off_t offset) {
  const auto from = static_cast<uint64_t>(offset);
  size_t length = 0;
  for (int i = 0; i < count; ++i) length += parts[i].iov_len;
  const bool isWhole = from % imf::kBlock == 0 && length % imf::kBlock == 0;
  if (!isWhole || (from >= imf::kDataOffset && from < device::durable)) ++device::oddWrites;
  if (from >= imf::kDataOffset) device::written = from + length;
  return pwritev2(file, parts, count, offset, 0);
}

extern "C" ssize_t pwrite(int file, const void* buffer, size_t length, off_t offset) {
  const iovec part = {const_cast<void*>(buffer), length};
  return pwritev(file, &part, 1, offset);
}

// What happens to the disk's cache can't be seen here, and a thousand repairs need not wait for it.
extern "C" int fdatasync(int) {
  device::durable = device::written;
  return 0;
}

static bool operator==(const ImfPacket& a, const ImfPacket& b) {
  return a.channel == b.channel && a.kind == b.kind && a.number == b.number && a.keyFrame == b.keyFrame &&
         a.time == b.time && a.pts == b.pts && a.dts == b.dts && a.duration == b.duration && a.data == b.data;
}

namespace {

using Bytes = std::vector<uint8_t>;
using Item = ImfReader::Item;

constexpr uint32_t kStart = 0x5f5e1000;
constexpr int64_t kStartTime = int64_t{kStart} * 1000000;
constexpr size_t kFileSize = 128 * 1024;

struct Content {
  std::vector<ImfPacket> packets;
  std::vector<ImfStreamInfo> streams;
  int damages = 0;
  Item last = Item::kFailed;
};

Content ReadOn(ImfReader* reader) {
  Content content;
  for (;;) {
    content.last = reader->Next();
    if (content.last == Item::kPacket) content.packets.push_back(reader->Packet());
    if (content.last == Item::kStream) content.streams.push_back(reader->Stream());
    if (content.last == Item::kDamage) ++content.damages;
    if (content.last > Item::kDamage) return content;
  }
}

ImfStreamInfo Stream(int channel, ImfKind kind = ImfKind::kVideo, int number = 0) {
  ImfStreamInfo stream;
  stream.channel = channel;
  stream.kind = kind;
  stream.number = number;
  stream.timeBaseDenominator = 90000;
  stream.extraData = {1, 0, 0, 7, 255};
  stream.sampleRate = 48000;
  stream.audioLayout = 3;
  return stream;
}

// 25 packets a second in time; channels 0 and 3.
ImfPacket Packet(std::mt19937_64* random, int number) {
  ImfPacket packet;
  packet.channel = number % 3 == 1 ? 3 : 0;
  packet.keyFrame = number % 10 == 0;
  packet.time = kStartTime + number * 40000;
  packet.pts = number * 3600 - 7200;
  packet.dts = packet.pts - 3600;
  packet.duration = 3600;
  packet.data.resize((*random)() % 3000);
  for (uint8_t& byte : packet.data) byte = static_cast<uint8_t>((*random)());
  return packet;
}

class ImfTest : public testing::Test {
 protected:
  ImfTest() {
    mPath = mDirectory + "/5f5e1000_00000000.imf";
    Save(Bytes(kFileSize, 0xa5));
  }

  // In place: emptying the file first would make the file system write it out at once.
  void Save(const Bytes& bytes) const {
    const int file = open(mPath.c_str(), O_WRONLY | O_CREAT, 0644);
    EXPECT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(ftruncate(file, static_cast<off_t>(bytes.size())), 0);
    close(file);
  }
  Bytes Load() const {
    const std::string text = ReadText(mPath);
    return Bytes(text.begin(), text.end());
  }

  // Inverts bits; doing it twice undoes it.
  void Spoil(uint64_t offset, uint64_t length) const {
    Bytes bytes = Load();
    for (uint64_t i = offset; i < offset + length; ++i) bytes[i] ^= 0x40;
    Save(bytes);
  }
  void Start(ImfWriter* writer, uint32_t start = kStart) const {
    ASSERT_TRUE(writer->Open(mPath, start));
    ASSERT_EQ(writer->AddStream(Stream(0)), ImfWriteResult::kWritten);
  }

  // Records until `count` packets are written or the file is full; with `pieces`, the index has one for 16
  // packets. mEdges: where each packet begins, and the last one ends.
  std::vector<ImfPacket> Record(uint32_t start, int count, bool close = true, bool pieces = false) {
    ImfWriter writer;
    writer.SetCheckpointInterval(3600);
    device::written = 0;
    Start(&writer, start);
    EXPECT_EQ(writer.AddStream(Stream(3)), ImfWriteResult::kWritten);
    for (int number = 0; mAudio && number < 2; ++number)
      EXPECT_EQ(writer.AddStream(Stream(3, ImfKind::kAudio, number)), ImfWriteResult::kWritten);
    std::vector<ImfPacket> packets;
    mEdges = {writer.Used()};
    while (static_cast<int>(packets.size()) < count) {
      ImfPacket packet = Packet(&mRandom, static_cast<int>(packets.size()));
      if (mAudio && packets.size() % 6 == 4) {
        packet.kind = ImfKind::kAudio;
        packet.number = 1;
      }
      writer.SetCheckpointInterval(packets.size() % 16 == 15 && pieces ? 0 : 3600);
      if (writer.Write(packet) != ImfWriteResult::kWritten) break;
      packets.push_back(packet);
      mEdges.push_back(writer.Used());
    }
    EXPECT_TRUE(!close || writer.Close());
    return packets;
  }
  // Of all channels, unless one is given.
  Content Read(int channel = -1, int64_t time = INT64_MIN) const {
    ImfReader reader;
    EXPECT_TRUE(reader.Open(mPath)) << reader.Error();
    if (channel >= 0) reader.SelectChannel(channel, time);
    return ReadOn(&reader);
  }
  static std::vector<ImfPacket> OfChannel(const std::vector<ImfPacket>& packets, int channel, size_t from = 0) {
    std::vector<ImfPacket> chosen;
    std::copy_if(packets.begin() + static_cast<std::ptrdiff_t>(from), packets.end(), std::back_inserter(chosen),
                 [channel](const ImfPacket& packet) { return packet.channel == channel; });
    return chosen;
  }

  using Answer = std::tuple<imf_error_code_e, int, unsigned>;  // error, end time, channel mask
  Answer Open(imf_file_open_mode_e mode) const {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, mPath, mode, "", "", 0, nullptr);
    return {error, file.GetEndTime(), file.GetStreamCountSummary().GetVideoChannelMask(0)};
  }
  // What a repair answers for the first `count` packets that Record wrote: 25 a second, rounded up.
  static Answer Usable(size_t count) {
    if (count == 0) return {IMF_ERROR_UNREPAIRABLE, 0, 0};
    return {IMF_ERROR_REPAIRED, static_cast<int>(kStart + (count + 24) / 25), count > 1 ? 9u : 1u};
  }

  TestRoot mRoot;
  const std::string mDirectory = mRoot.Path();
  std::string mPath;
  std::mt19937_64 mRandom{1};
  bool mAudio = false;  // channel 3 has two streams of sound, of which one has packets
  std::vector<uint64_t> mEdges;
};

// On a recycled file that is not in memory, the kernel would have to read what is not written whole; and what
// is durable is not to be at risk again.
TEST_F(ImfTest, OnlyWholeBlocksAreWrittenAndOnce) {
  device::oddWrites = 0;
  Save(Bytes(kFileSize + 1234, 0xa5));
  const size_t count = Record(kStart, INT32_MAX, true, true).size();
  EXPECT_GT(count, 60u);
  EXPECT_EQ(device::oddWrites, 0);
  EXPECT_EQ(Read().packets.size(), count);
  EXPECT_EQ(Load().size(), kFileSize + 1234);
}

TEST_F(ImfTest, WhatIsWrittenComesBackSoundBesideThePictures) {
  mAudio = true;
  const std::vector<ImfPacket> packets = Record(kStart, 60);
  const Content content = Read();
  EXPECT_EQ(content.last, Item::kEnd);
  EXPECT_TRUE(content.packets == packets);
  ASSERT_EQ(content.streams.size(), 4u);
  EXPECT_EQ(content.streams[1].extraData, Stream(3).extraData);
  const ImfStreamInfo& sound = content.streams[3];
  EXPECT_EQ(std::tie(sound.kind, sound.number, sound.sampleRate, sound.audioLayout),
            std::make_tuple(ImfKind::kAudio, 1, 48000, 3u));
  for (const bool repaired : {false, true}) {
    if (repaired) {
      Spoil(imf::CheckpointOffset(0), 1);
      Spoil(imf::CheckpointOffset(1), 1);
      EXPECT_EQ(Open(IMF_OPEN_REPAIR), Usable(60));
    }
    ImfReader reader;
    ASSERT_TRUE(reader.Open(mPath));
    EXPECT_EQ(reader.ChannelMask(), 9u);
    const ImfChannelSummary& summary = reader.Summary(3);
    EXPECT_EQ(std::make_tuple(summary.first, summary.last, summary.end, summary.pictures, summary.soundPackets),
              std::make_tuple(packets[1].time, packets[55].time, packets[55].time + 40000, 10u, 10u));
    EXPECT_EQ(reader.Summary(0).pictures, 40u);
  }

  ImfWriter writer;  // sound alone is worth keeping, but no channel's video
  ASSERT_TRUE(writer.Open(mPath, kStart));
  ASSERT_EQ(writer.AddStream(sound), ImfWriteResult::kWritten);
  ASSERT_EQ(writer.Write(packets[4]), ImfWriteResult::kWritten);
  EXPECT_EQ(writer.Write(packets[0]), ImfWriteResult::kFailed) << "of an unknown stream";
  EXPECT_EQ(Open(IMF_OPEN_REPAIR), Answer(IMF_ERROR_REPAIRED, kStart + 1, 0));
}

// What a channel's selection gives is what reading everything gives of it; the index only makes it cheaper.
TEST_F(ImfTest, SelectedChannelComesWhole) {
  mAudio = true;
  Save(Bytes(6 * kFileSize, 0xa5));
  for (const bool closed : {true, false}) {
    const std::vector<ImfPacket> packets = Record(kStart, 300, closed, true);
    ASSERT_EQ(packets.size(), 300u);
    for (const int channel : {0, 3, 5}) {
      SCOPED_TRACE(testing::Message() << "closed " << closed << ", channel " << channel);
      device::bytesRead = 0;
      const Content content = Read(channel);
      EXPECT_TRUE(content.packets == OfChannel(packets, channel));
      EXPECT_EQ(content.streams.size(), channel == 0 ? 1u : channel == 3 ? 3u : 0u);
      EXPECT_EQ(content.damages, 0);
      EXPECT_TRUE(channel != 5 || device::bytesRead < mEdges.back() / 5) << device::bytesRead;
    }
    for (const size_t from : {0, 25, 200, 299}) {
      const Content content = Read(0, packets[from].time);
      size_t key = from;
      while (packets[key].channel != 0 || !packets[key].keyFrame) --key;
      // Without a piece that knows of it, it comes with what is before.
      if (!closed && key >= 288) key = 270;
      EXPECT_TRUE(content.packets == OfChannel(packets, 0, key)) << from;
      EXPECT_EQ(content.streams.size(), 1u);
    }
    const std::vector<ImfPacket> sound = Read(3, packets[200].time).packets;
    for (size_t i = 166; i < 300; i += 6) EXPECT_TRUE(std::count(sound.begin(), sound.end(), packets[i])) << i;
    std::vector<PictureSpan> spans;
    EXPECT_FALSE(ReadCoverage(mPath, kStart + 1, &spans));
    ASSERT_TRUE(ReadCoverage(mPath, kStart, &spans) && spans.size() == 2);
    EXPECT_EQ(spans[0].end, packets[299].time + 40000) << "what is not in the index yet counts";
  }
}

// Bytes of the index and of the checkpoint that are hit, or that lie with a sound checksum: everything is
// found, and nothing else, and it ends. Places and lengths only: an entry that names another channel than its
// chunk's is a forger's work, who could have forged the chunk as well.
TEST_F(ImfTest, IndexThatIsDamagedOrLiesCostsNoPacket) {
  mAudio = true;
  Save(Bytes(2 * kFileSize, 0xa5));
  Record(kStart - 600, INT32_MAX);
  const std::vector<ImfPacket> packets = Record(kStart, 130, true, true);
  ASSERT_EQ(packets.size(), 130u);
  const Bytes good = Load();
  const auto expectAll = [&](const Bytes& bytes) {
    Save(bytes);
    device::reads = 0;
    for (const int channel : {0, 3}) {
      const std::vector<ImfPacket> all = OfChannel(packets, channel);
      ASSERT_TRUE(Read(channel).packets == all) << channel;
      const std::vector<ImfPacket> part = Read(channel, packets[100].time).packets;
      ASSERT_TRUE(channel == 3 ||
                  std::equal(part.rbegin(), part.rend(), all.rbegin(), all.rbegin() + part.size()));
      ASSERT_GE(part.size(), 10u);
    }
    ImfReader reader;
    ASSERT_TRUE(reader.Open(mPath) && reader.List([](const ImfEntry&) {}));
    ASSERT_LT(device::reads, 3000u);
    ASSERT_TRUE(Read().packets == packets);
  };
  imf::Checkpoint checkpoint;
  ASSERT_TRUE(imf::DecodeCheckpoint(&good[imf::CheckpointOffset(0)], &checkpoint));
  const uint64_t piece = checkpoint.index;
  for (size_t i = 0; i < 200; ++i) {
    Bytes hit = good;
    hit[piece + i] ^= 1;
    expectAll(hit);
  }
  for (const uint64_t lie : {uint64_t{0}, uint64_t{1}, imf::kDataOffset, mEdges[20], mEdges[60], piece,
                             uint64_t{kFileSize}, uint64_t{INT32_MAX}, uint64_t{UINT32_MAX}}) {
    Bytes lying = good;
    checkpoint.index = lie;
    for (const int slot : {0, 1}) imf::EncodeCheckpoint(checkpoint, &lying[imf::CheckpointOffset(slot)]);
    expectAll(lying);
    // Of a piece: where the one before is, base, sequence and count; place and length of a chunk.
    for (const size_t at : {0, 8, 16, 20, 32, 36}) {
      SCOPED_TRACE(testing::Message() << "piece " << piece << " says " << lie << " at " << at);
      lying = good;
      uint8_t* const payload = &lying[piece + imf::kChunkHeader];
      std::memcpy(payload + at, &lie, 4);
      imf::Chunk chunk;
      imf::Index index;
      imf::DecodeChunk(&lying[piece], &chunk);
      imf::DecodeIndex(payload, chunk.length, &index);
      chunk.sequence = index.sequence + index.count;
      chunk.payloadCrc = imf::Crc(payload, chunk.length);
      imf::EncodeChunk(chunk, &lying[piece]);
      expectAll(lying);
    }
  }
}

TEST_F(ImfTest, EndIsRoundedUpAndSaneWhateverThePacketsSay) {
  const std::tuple<int64_t, int64_t, int> cases[] = {
      // time, duration, end
      {kStartTime + 59960000, 3600, kStart + 60},
      {kStartTime + 59960001, 3600, kStart + 61},
      {kStartTime - 5000000, 3600, kStart + 1},
      {INT64_MIN, INT64_MIN, kStart + 1},
      {INT64_MAX, 3600, 2147483647},
      {kStartTime + 2500000, INT64_MAX, kStart + 3},  // a source without a clock
  };
  ImfPacket packet;
  for (const auto& [time, duration, end] : cases) {
    ImfWriter writer;
    Start(&writer);
    packet.time = time;
    packet.duration = duration;
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    ASSERT_TRUE(writer.Close());
    EXPECT_EQ(Open(IMF_OPEN_READ), Answer(IMF_ERROR_NONE, end, 1)) << time;
    EXPECT_EQ(Open(IMF_OPEN_REPAIR), Answer(IMF_ERROR_REPAIRED, end, 1));
  }
}

// The fault that this is about: bytes of the recording that was in the file before coming back to life.
TEST_F(ImfTest, RecycledFileCutAnywhereGivesBackTheSoundPrefix) {
  const char* replay = std::getenv("IMF_TEST_SEED");
  const uint64_t seed = replay != nullptr ? std::stoull(replay) : std::random_device{}();
  mRandom.seed(seed);
  Record(kStart - 600, INT32_MAX);
  const Bytes older = Load();
  ASSERT_EQ(older.size(), kFileSize) << "a full file keeps its size";
  const std::vector<ImfPacket> packets = Record(kStart, 45, true, true);
  const Bytes newer = Load();
  ASSERT_LT(mEdges.back(), kFileSize - 4096) << "the older recording is to be the longer one";
  for (int round = 0; round < 1000; ++round) {
    // Every tenth one within the header blocks, the rest up to the end of the recording.
    const uint64_t cut = round % 10 == 0 ? mRandom() % imf::kDataOffset : mRandom() % (mEdges.back() + 1);
    SCOPED_TRACE(testing::Message() << "cut at " << cut << "; replay with IMF_TEST_SEED=" << seed);
    Bytes mixed = older;
    std::copy_n(newer.begin(), cut, mixed.begin());
    // Bytes that happen to be equal in both recordings, as padding is, count as new.
    const auto isNew = [&](uint64_t from, uint64_t length) {
      return std::equal(&mixed[from], &mixed[from] + length, &newer[from]);
    };
    std::vector<ImfPacket> sound;
    for (size_t i = 0; isNew(0, 28) && i < packets.size(); ++i) {
      if (!isNew(mEdges[i], imf::kChunkHeader + packets[i].data.size())) break;
      sound.push_back(packets[i]);
    }
    Save(mixed);
    const int end = std::get<1>(Open(IMF_OPEN_READ));
    ASSERT_TRUE(end == 0 || end == std::get<1>(Usable(packets.size()))) << end << " is of the older recording";
    ASSERT_EQ(Open(IMF_OPEN_REPAIR), Usable(sound.size()));
    if (sound.empty()) continue;
    const Content content = Read(), selected = Read(3);
    ASSERT_TRUE(content.packets == sound);
    ASSERT_TRUE(selected.packets == OfChannel(sound, 3));
    ASSERT_EQ(content.damages + selected.damages, 0);
  }
}

TEST_F(ImfTest, TornCheckpointLeavesTheOtherOne) {
  const auto known = [](int second) { return Answer(IMF_ERROR_NONE, kStart + second, 1); };
  ImfWriter writer;
  writer.SetCheckpointInterval(0);
  Start(&writer);  // checkpoint 1
  ImfPacket packet;
  for (int second = 2; second <= 3; ++second) {
    packet.time = kStartTime + second * 1000000;
    writer.SetCheckpointInterval(second == 3 ? 3600 : 0);
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    EXPECT_EQ(Open(IMF_OPEN_READ), known(2));  // by checkpoint 2
  }
  writer.SetCheckpointInterval(0);
  EXPECT_TRUE(writer.CheckpointIfDue());
  EXPECT_EQ(Open(IMF_OPEN_READ), known(3));
  EXPECT_TRUE(writer.CheckpointIfDue()) << "nothing came: nothing is written";
  Spoil(imf::CheckpointOffset(3) + 30, 1);
  EXPECT_EQ(Open(IMF_OPEN_READ), known(2));
  Spoil(imf::CheckpointOffset(2) + 30, 1);
  EXPECT_EQ(Open(IMF_OPEN_READ), Answer(IMF_ERROR_NONE, 0, 0));
  EXPECT_EQ(Open(IMF_OPEN_REPAIR), Answer(IMF_ERROR_REPAIRED, kStart + 3, 1));
  EXPECT_EQ(Open(IMF_OPEN_READ), known(3));
}

TEST_F(ImfTest, HostileFiles) {
  Record(kStart, 10);
  const Bytes good = Load();
  Bytes hugeLength = good;  // a first chunk, checksum and all, that claims more than the file holds
  imf::Chunk chunk;
  ASSERT_TRUE(imf::DecodeChunk(&good[imf::kDataOffset], &chunk));
  chunk.length = imf::kPayloadLimit;
  hugeLength.resize(imf::kDataOffset + imf::kChunkHeader);
  imf::EncodeChunk(chunk, &hugeLength[imf::kDataOffset]);

  const std::string own = fs::path(mPath).filename();
  constexpr auto kNoRecord = IMF_ERROR_NOT_A_RECORD, kLost = IMF_ERROR_UNREPAIRABLE;
  const std::tuple<std::string, Bytes, imf_error_code_e, imf_error_code_e> cases[] = {
      // name, content, answers of reading and of repair
      {own, {}, kNoRecord, kLost},
      {own, Bytes(kFileSize, 0), kNoRecord, kLost},
      {own, Bytes(good.begin(), good.begin() + imf::kBlock), IMF_ERROR_NONE, kLost},
      {own, hugeLength, IMF_ERROR_NONE, kLost},
      {"5f5e1001_00000000.imf", good, kNoRecord, kLost},
      {"00000007.imf", good, IMF_ERROR_NONE, kLost},  // a name of the pool
      {own, good, IMF_ERROR_NONE, IMF_ERROR_REPAIRED},
  };
  for (const auto& [name, content, read, repair] : cases) {
    SCOPED_TRACE(testing::Message() << name << ", " << content.size() << " bytes");
    mPath = mDirectory + "/" + name;
    Save(content);
    EXPECT_EQ(std::get<0>(Open(IMF_OPEN_READ)), read);
    EXPECT_EQ(std::get<0>(Open(IMF_OPEN_REPAIR)), repair);
    EXPECT_TRUE(Load() == content);
  }
}

// Sound chunks behind damage are kept: of a closed file, and after a crash without any checkpoint.
TEST_F(ImfTest, DamageInTheMiddleCostsWhatItHits) {
  for (bool closed : {true, false}) {
    const std::vector<ImfPacket> packets = Record(kStart, 60, closed);
    const Bytes good = Load();
    const uint64_t at = mEdges[20];
    const std::tuple<uint64_t, uint64_t, int, int> cases[] = {
        // offset, bytes, first packet lost, packets lost
        {at + imf::kChunkHeader, 1, 20, 1},           // a payload
        {at + 40, mEdges[30] + 8 - at - 40, 20, 11},  // a long stretch
        {mEdges[0], 9, 0, 1},                         // the first packet
    };
    for (const auto& [offset, length, first, lost] : cases) {
      SCOPED_TRACE(testing::Message() << "closed " << closed << ", offset " << offset << ", " << length);
      Save(good);
      Spoil(offset, length);
      std::vector<ImfPacket> left = packets;
      left.erase(left.begin() + first, left.begin() + first + lost);
      EXPECT_TRUE(!closed || Read().packets == left);
      EXPECT_EQ(Open(IMF_OPEN_REPAIR), Usable(60));
      EXPECT_TRUE(Read().packets == left);
      EXPECT_TRUE(Read(3).packets == OfChannel(left, 3));
    }
  }
}

TEST_F(ImfTest, ReaderFollowsAGrowingFileAndNoticesItsEnd) {
  ImfWriter writer;
  writer.SetCheckpointInterval(3600);
  Start(&writer);
  ImfReader reader;
  ASSERT_TRUE(reader.Open(mPath));
  ImfPacket packet;
  packet.data.assign(1000, 7);
  const uint64_t size = imf::ChunkSize(1000);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    Spoil(writer.Used() - size + 300, size - 300);  // the writer is in the midst of it
    const Content during = ReadOn(&reader);
    EXPECT_TRUE(during.packets.empty() && during.damages == 0 && during.last == Item::kEnd);
    Spoil(writer.Used() - size + 300, size - 300);  // and has done it
    EXPECT_EQ(ReadOn(&reader).packets.size(), 1u);
  }

  Record(kStart + 600, 20);
  reader.Rewind();
  const Content after = ReadOn(&reader);
  EXPECT_TRUE(after.packets.empty()) << "packets of another recording";
  EXPECT_EQ(after.last, Item::kReplaced);
}

TEST_F(ImfTest, OnlyADeviceThatCannotReadGivesAFileUp) {
  Record(kStart, 60, false);
  const Bytes good = Load();
  const std::tuple<int, uint64_t, uint64_t, imf_error_code_e> cases[] = {
      {EIO, imf::kDataOffset, UINT64_MAX, IMF_ERROR_IO},            // all packets
      {EIO, 5 * imf::kBlock, 7 * imf::kBlock, IMF_ERROR_REPAIRED},  // two blocks: the rest is kept
      {EIO, imf::kBlock, imf::kDataOffset, IMF_ERROR_REPAIRED},     // the checkpoints
      {ENOMEM, 5 * imf::kBlock, 7 * imf::kBlock, IMF_ERROR_ACCESS},
  };
  for (const auto& [error, from, to, expected] : cases) {
    SCOPED_TRACE(testing::Message() << "error " << error << " from " << from << " to " << to);
    Save(good);
    device::badFrom = from;
    device::badTo = to;
    device::readError = error;
    const Answer answer = Open(IMF_OPEN_REPAIR);
    device::readError = 0;
    EXPECT_EQ(answer, expected == IMF_ERROR_REPAIRED ? Usable(60) : Answer(expected, 0, 0));
  }
}

}  // namespace
