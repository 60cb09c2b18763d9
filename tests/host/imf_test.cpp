// Record files: what is written comes back, and whatever becomes of the bytes, only what is sound comes back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <tuple>

#include "ImfFile.h"
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"
#include "tests/support/TestDisk.h"

// The device, as far as it can be made to fail: these stand in front of the C library's functions in this
// program.
namespace device {
int readError = 0;  // errno of reads that touch [badFrom, badTo)
uint64_t badFrom = 0;
uint64_t badTo = 0;
}  // namespace device

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  const auto from = static_cast<uint64_t>(offset);
  if (device::readError != 0 && from < device::badTo && from + length > device::badFrom) {
    errno = device::readError;
    return -1;
  }
  iovec part = {buffer, length};
  return preadv(file, &part, 1, offset);
}

// What happens to the disk's cache can't be seen here, and a thousand repairs need not wait for it.
extern "C" int fdatasync(int) { return 0; }

static bool operator==(const ImfPacket& a, const ImfPacket& b) {
  return a.channel == b.channel && a.keyFrame == b.keyFrame && a.time == b.time && a.pts == b.pts &&
         a.dts == b.dts && a.duration == b.duration && a.data == b.data;
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
    if (content.last == Item::kPacket) {
      content.packets.push_back(reader->Packet());
    } else if (content.last == Item::kStream) {
      content.streams.push_back(reader->Stream());
    } else if (content.last == Item::kDamage) {
      ++content.damages;
    } else {
      return content;
    }
  }
}

ImfStreamInfo Stream(int channel) {
  ImfStreamInfo stream;
  stream.channel = channel;
  stream.timeBaseDenominator = 90000;
  stream.extraData = {1, 0, 0, 7, 255};
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
    std::ifstream file(mPath, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
  }

  // Inverts bits; doing it twice undoes it.
  void Spoil(uint64_t offset, uint64_t length) const {
    Bytes bytes = Load();
    for (uint64_t i = offset; i < offset + length; ++i) bytes[i] ^= 0x40;
    Save(bytes);
  }
  void Start(ImfWriter* writer) const {
    ASSERT_TRUE(writer->Open(mPath, kStart));
    ASSERT_EQ(writer->AddStream(Stream(0)), ImfWriteResult::kWritten);
  }

  // Records until `count` packets are written or the file is full. mEdges: where each packet begins, and the
  // last one ends.
  std::vector<ImfPacket> Record(uint32_t start, int count, bool close = true) {
    ImfWriter writer;
    EXPECT_TRUE(writer.Open(mPath, start));
    EXPECT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kWritten);
    EXPECT_EQ(writer.AddStream(Stream(3)), ImfWriteResult::kWritten);
    std::vector<ImfPacket> packets;
    mEdges = {writer.Used()};
    while (static_cast<int>(packets.size()) < count) {
      const ImfPacket packet = Packet(&mRandom, static_cast<int>(packets.size()));
      if (writer.Write(packet) != ImfWriteResult::kWritten) break;
      packets.push_back(packet);
      mEdges.push_back(writer.Used());
    }
    if (close) {
      EXPECT_TRUE(writer.Close());
    }
    return packets;
  }
  Content ReadAll() const {
    ImfReader reader;
    EXPECT_TRUE(reader.Open(mPath)) << reader.Error();
    return ReadOn(&reader);
  }

  using Answer = std::tuple<imf_error_code_e, int, unsigned>;  // error, end time, channel mask
  Answer Open(imf_file_open_mode_e mode) const {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, mPath, mode, "", "", 0, nullptr);
    return {error, file.GetEndTime(), file.GetStreamCountSummary().GetVideoChannelMask(0)};
  }
  imf_error_code_e Outcome(imf_file_open_mode_e mode) const { return std::get<0>(Open(mode)); }
  // What a repair answers for the first `count` packets that Record wrote: 25 a second, rounded up.
  static Answer Usable(size_t count) {
    if (count == 0) return {IMF_ERROR_UNREPAIRABLE, 0, 0};
    return {IMF_ERROR_REPAIRED, static_cast<int>(kStart + (count + 24) / 25), count > 1 ? 9u : 1u};
  }

  TestRoot mRoot;
  const std::string mDirectory = mRoot.Path();
  std::string mPath;
  std::mt19937_64 mRandom{1};
  std::vector<uint64_t> mEdges;
};

TEST_F(ImfTest, WhatIsWrittenComesBack) {
  const std::vector<ImfPacket> packets = Record(kStart, 60);
  const Content content = ReadAll();
  EXPECT_TRUE(content.packets == packets);
  EXPECT_EQ(content.last, Item::kEnd);
  ASSERT_EQ(content.streams.size(), 2u);
  EXPECT_EQ(content.streams[1].extraData, Stream(3).extraData);
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
  const uint64_t seed = replay != nullptr ? std::strtoull(replay, nullptr, 10) : std::random_device{}();
  mRandom.seed(seed);
  Record(kStart - 600, INT32_MAX);
  const Bytes older = Load();
  ASSERT_EQ(older.size(), kFileSize) << "a full file keeps its size";
  const std::vector<ImfPacket> packets = Record(kStart, 45);
  const Bytes newer = Load();
  ASSERT_LT(mEdges.back(), kFileSize - 8192) << "the older recording is to be the longer one";
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
    const Content content = ReadAll();
    ASSERT_TRUE(content.packets == sound);
    ASSERT_EQ(content.damages, 0);
  }
}

TEST_F(ImfTest, TornCheckpointLeavesTheOtherOne) {
  const auto known = [](int second) { return Answer(IMF_ERROR_NONE, kStart + second, 1); };
  ImfWriter writer;
  writer.SetCheckpointInterval(0);
  Start(&writer);  // checkpoint 1
  ImfPacket packet;
  for (int second = 2; second <= 3; ++second) {  // checkpoints 2 and 3
    packet.time = kStartTime + second * 1000000;
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    EXPECT_EQ(Open(IMF_OPEN_READ), known(second));
  }
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

  const std::string own = "5f5e1000_00000000.imf";
  constexpr auto kNoRecord = IMF_ERROR_NOT_A_RECORD;
  const std::tuple<std::string, Bytes, imf_error_code_e, imf_error_code_e> cases[] = {
      // name, content, answers of reading and of repair
      {own, {}, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(kFileSize, 0), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(good.begin(), good.begin() + imf::kBlock), IMF_ERROR_NONE, IMF_ERROR_UNREPAIRABLE},
      {own, hugeLength, IMF_ERROR_NONE, IMF_ERROR_UNREPAIRABLE},
      {"5f5e1001_00000000.imf", good, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {"00000007.imf", good, IMF_ERROR_NONE, IMF_ERROR_UNREPAIRABLE},  // a name of the pool
      {own, good, IMF_ERROR_NONE, IMF_ERROR_REPAIRED},
  };
  for (const auto& [name, content, read, repair] : cases) {
    SCOPED_TRACE(testing::Message() << name << ", " << content.size() << " bytes");
    mPath = mDirectory + "/" + name;
    Save(content);
    EXPECT_EQ(Outcome(IMF_OPEN_READ), read);
    EXPECT_EQ(Outcome(IMF_OPEN_REPAIR), repair);
    EXPECT_TRUE(Load() == content);
  }
}

TEST_F(ImfTest, WhatIsNoRegularFileIsLeftAlone) {
  Record(kStart, 10);
  const Bytes good = Load();
  const std::string link = mDirectory + "/5f5e1000_00000001.imf", pipe = mDirectory + "/5f5e1000_00000002.imf";
  ASSERT_EQ(symlink(mPath.c_str(), link.c_str()) + mkfifo(pipe.c_str(), 0644), 0);
  for (const std::string& path : {link, pipe}) {
    mPath = path;
    EXPECT_EQ(Outcome(IMF_OPEN_REPAIR), IMF_ERROR_NOT_FOUND);
    EXPECT_FALSE(ImfWriter().Open(path, kStart));
  }
  mPath = link;
  EXPECT_TRUE(Load() == good);
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
      EXPECT_TRUE(!closed || ReadAll().packets == left);
      EXPECT_EQ(Open(IMF_OPEN_REPAIR), Usable(60));
      const Content content = ReadAll();
      EXPECT_TRUE(content.packets == left);
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
  constexpr uint64_t kAll = UINT64_MAX;
  const std::tuple<int, uint64_t, uint64_t, imf_error_code_e> cases[] = {
      {EIO, imf::kDataOffset, kAll, IMF_ERROR_IO},                  // all packets
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
