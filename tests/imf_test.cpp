// Record files: what is written comes back, and whatever becomes of the bytes, only what is sound comes back.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <tuple>

#include "ImfFile.h"
#include "platform/host/ImfFormat.h"
#include "platform/host/ImfRecord.h"

// The device, as far as it can be made to fail: these stand in front of the C library's functions in this
// program.
namespace device {
int readError = 0;  // errno of reads that touch [badFrom, badTo)
uint64_t badFrom = 0;
uint64_t badTo = 0;
int writeError = 0;  // errno of every write
int reads = 0;
}  // namespace device

extern "C" ssize_t pread(int file, void* buffer, size_t length, off_t offset) {
  ++device::reads;
  const auto from = static_cast<uint64_t>(offset);
  if (device::readError != 0 && from < device::badTo && from + length > device::badFrom) {
    errno = device::readError;
    return -1;
  }
  return syscall(SYS_pread64, file, buffer, length, offset);
}

extern "C" ssize_t pwrite(int file, const void* buffer, size_t length, off_t offset) {
  errno = device::writeError;
  return device::writeError != 0 ? -1 : syscall(SYS_pwrite64, file, buffer, length, offset);
}

extern "C" ssize_t pwritev(int file, const struct iovec* parts, int count, off_t offset) {
  errno = device::writeError;
  return device::writeError != 0 ? -1 : syscall(SYS_pwritev, file, parts, count, offset, 0);
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
  stream.codecName = "h264";
  stream.width = 1920;
  stream.height = -2;
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
    char directory[] = "/tmp/fm.XXXXXX";
    mDirectory = mkdtemp(directory);
    chmod(directory, 0755);
    mPath = mDirectory + "/5f5e1000_00000000.imf";
    Save(Bytes(kFileSize, 0xa5));
    device::readError = device::writeError = 0;
  }
  ~ImfTest() override {
    device::readError = device::writeError = 0;
    std::filesystem::remove_all(mDirectory);
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
  Answer Open(imf_file_open_mode_e mode, ImfSegmentCloseInterface* close = nullptr) const {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, mPath, mode, "", "", 0, close);
    return {error, file.GetEndTime(), file.GetStreamCountSummary().GetVideoChannelMask(0)};
  }
  imf_error_code_e Outcome(imf_file_open_mode_e mode) const { return std::get<0>(Open(mode)); }
  // What a repair answers for the first `count` packets that Record wrote: 25 a second, rounded up.
  static Answer Usable(size_t count) {
    if (count == 0) return {IMF_ERROR_UNREPAIRABLE, 0, 0};
    return {IMF_ERROR_REPAIRED, static_cast<int>(kStart + (count + 24) / 25), count > 1 ? 9u : 1u};
  }

  std::string mDirectory;
  std::string mPath;
  std::mt19937_64 mRandom{1};
  std::vector<uint64_t> mEdges;
};

TEST_F(ImfTest, WhatIsWrittenComesBack) {
  const std::vector<ImfPacket> packets = Record(kStart, 60);
  const Content content = ReadAll();
  EXPECT_TRUE(content.packets == packets);
  EXPECT_EQ(content.damages, 0);
  EXPECT_EQ(content.last, Item::kEnd);
  ASSERT_EQ(content.streams.size(), 2u);
  const auto parameters = [](const ImfStreamInfo& stream) {
    return std::tuple(stream.channel, stream.codecName, stream.width, stream.height, stream.timeBaseDenominator,
                      stream.frameRateDenominator, stream.extraData);
  };
  EXPECT_EQ(parameters(content.streams[1]), parameters(Stream(3)));

  ImfReader headers;
  headers.SetHeadersOnly(true);
  ASSERT_TRUE(headers.Open(mPath));
  const Content sparse = ReadOn(&headers);
  ASSERT_EQ(sparse.packets.size(), packets.size());
  EXPECT_TRUE(sparse.packets.back().data.empty());
  EXPECT_EQ(sparse.packets.back().dts, packets.back().dts);
  EXPECT_EQ(sparse.streams.size(), 2u);
}

TEST_F(ImfTest, EndIsRoundedUpAndSaneWhateverThePacketsSay) {
  const std::tuple<int64_t, int64_t, int> cases[] = {
      // time, duration, end
      {kStartTime, 0, kStart + 1},
      {kStartTime + 59960000, 3600, kStart + 60},
      {kStartTime + 59960001, 3600, kStart + 61},
      {kStartTime - 5000000, 3600, kStart + 1},
      {INT64_MIN, INT64_MIN, kStart + 1},
      {INT64_MAX, INT64_MAX, 2147483647},
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
    EXPECT_EQ(static_cast<int>(writer.EndTime()), end) << time;
    EXPECT_EQ(Open(IMF_OPEN_READ), Answer(IMF_ERROR_NONE, end, 1));
    EXPECT_EQ(Open(IMF_OPEN_REPAIR), Answer(IMF_ERROR_REPAIRED, end, 1));
  }
}

TEST_F(ImfTest, FullFileKeepsItsSizeAndCanBeClosed) {
  ImfWriter writer;
  Start(&writer);
  ImfPacket packet;
  packet.data.assign(kFileSize, 1);
  EXPECT_EQ(writer.Write(packet), ImfWriteResult::kFull);
  packet.data.resize(static_cast<size_t>(writer.Capacity() - writer.Used()) - imf::kChunkHeader);
  EXPECT_EQ(writer.Write(packet), ImfWriteResult::kWritten);  // to the last byte
  EXPECT_EQ(writer.Write(ImfPacket()), ImfWriteResult::kFull);
  EXPECT_TRUE(writer.Close());
  EXPECT_EQ(Load().size(), kFileSize);
  EXPECT_EQ(ReadAll().packets.size(), 1u);
}

// The fault that this is about: bytes of the recording that was in the file before coming back to life.
TEST_F(ImfTest, RecycledFileCutAnywhereGivesBackTheSoundPrefix) {
  const char* replay = std::getenv("IMF_TEST_SEED");
  const uint64_t seed = replay != nullptr ? std::strtoull(replay, nullptr, 10) : std::random_device{}();
  mRandom.seed(seed);
  Record(kStart - 600, INT32_MAX);
  const Bytes older = Load();
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

TEST_F(ImfTest, RepairCompletesEveryUsableRecordingAndSaysSo) {
  struct Listener : ImfSegmentCloseInterface {
    std::vector<int> ends;
    void OnSegmentClosed(ImfFile& file) override { ends.push_back(file.GetEndTime()); }
  } listener;
  Record(kStart, 60, false);
  EXPECT_EQ(Open(IMF_OPEN_REPAIR, &listener), Usable(60));
  const Bytes repaired = Load();
  EXPECT_EQ(Open(IMF_OPEN_REPAIR, &listener), Usable(60));
  EXPECT_EQ(Load(), repaired) << "nothing was left to write";
  Open(IMF_OPEN_READ, &listener);
  EXPECT_EQ(listener.ends, std::vector<int>(2, kStart + 3));
}

TEST_F(ImfTest, HostileFiles) {
  Record(kStart, 10);
  const Bytes good = Load();
  Record(kStart, 0, false);
  const Bytes noPacket = Load();
  Bytes otherVersion = good;
  otherVersion[4] = 2;
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
      {own, Bytes(1, 'I'), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(kFileSize, 0), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(kFileSize, 0xff), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(good.begin(), good.begin() + imf::kBlock), IMF_ERROR_NONE, IMF_ERROR_UNREPAIRABLE},
      {own, otherVersion, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, noPacket, IMF_ERROR_NONE, IMF_ERROR_UNREPAIRABLE},
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
  const std::string own = mPath;
  const std::string other = mDirectory + "/5f5e1000_0000000";
  ASSERT_EQ(symlink(own.c_str(), (other + "1.imf").c_str()), 0);
  ASSERT_EQ(mkfifo((other + "2.imf").c_str(), 0644), 0);
  ASSERT_EQ(mkdir((other + "3.imf").c_str(), 0755), 0);
  for (const std::string end : {"1.imf", "2.imf", "3.imf", "4.imf"}) {
    mPath = other + end;
    EXPECT_EQ(Outcome(IMF_OPEN_READ), IMF_ERROR_NOT_FOUND) << mPath;
    EXPECT_EQ(Outcome(IMF_OPEN_REPAIR), IMF_ERROR_NOT_FOUND) << mPath;
    EXPECT_FALSE(ImfWriter().Open(mPath, kStart)) << mPath;
    EXPECT_FALSE(ImfReader().Open(mPath)) << mPath;
  }
  EXPECT_FALSE(std::filesystem::exists(mPath)) << "nothing is ever created";
  mPath = own;
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
        {at, 1, 20, 1},                               // a header
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
      EXPECT_GE(content.damages, 1);
    }
  }
}

// A write that went astray leaves a chunk that is sound in itself in the wrong place.
TEST_F(ImfTest, ChunkOfAnotherPlaceIsNotTaken) {
  std::vector<ImfPacket> packets = Record(kStart, 60);
  Bytes bytes = Load();
  std::copy(&bytes[mEdges[5]], &bytes[mEdges[6]], &bytes[mEdges[30]]);
  Save(bytes);
  std::vector<ImfPacket> read = ReadAll().packets;
  EXPECT_GE(read.size(), 50u);
  EXPECT_TRUE(std::is_sorted(read.begin(), read.end(), [](const ImfPacket& a, const ImfPacket& b) {
    return a.time <= b.time;
  })) << "a packet twice, or out of order";
}

TEST_F(ImfTest, ReaderFollowsAGrowingFileAndNoticesItsEnd) {
  ImfWriter writer;
  writer.SetCheckpointInterval(3600);
  Start(&writer);
  ImfReader reader;
  ASSERT_TRUE(reader.Open(mPath));
  EXPECT_TRUE(ReadOn(&reader).packets.empty());
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
  EXPECT_TRUE(reader.IsSameRecording());

  // What was on disk and is gone is damage, not the end; the writer goes on behind it.
  Spoil(writer.Used() - size, 20);
  writer.SetCheckpointInterval(0);
  ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
  for (const auto& [packets, damages] : {std::pair(3u, 1), std::pair(2u, 1)}) {
    reader.Rewind();
    const Content content = ReadOn(&reader);
    EXPECT_EQ(content.packets.size(), packets);
    EXPECT_EQ(content.damages, damages);
    Spoil(writer.Used() - size, 20);
  }
  ASSERT_TRUE(writer.Close());
  EXPECT_EQ(ReadOn(&reader).last, Item::kEnd);
  EXPECT_EQ(reader.EndTime(), kStart + 1) << "as of the final checkpoint";

  Record(kStart + 600, 20);
  EXPECT_FALSE(reader.IsSameRecording());
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
      {EIO, 0, kAll, IMF_ERROR_IO},
      {EIO, 0, 1, IMF_ERROR_IO},                                    // the header alone
      {EIO, imf::kDataOffset, kAll, IMF_ERROR_IO},                  // all packets
      {EIO, 5 * imf::kBlock, 7 * imf::kBlock, IMF_ERROR_REPAIRED},  // two blocks: the rest is kept
      {EIO, imf::kBlock, imf::kDataOffset, IMF_ERROR_REPAIRED},     // the checkpoints
      {ENOMEM, 0, kAll, IMF_ERROR_ACCESS},
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
    EXPECT_EQ(Load() != good, expected == IMF_ERROR_REPAIRED);
  }
  Save(good);
  device::writeError = EIO;  // the name can still be completed, and it is what counts
  EXPECT_EQ(Open(IMF_OPEN_REPAIR), Usable(60));
  device::writeError = 0;
  chmod(mPath.c_str(), 0444);
  ASSERT_EQ(geteuid() == 0 ? seteuid(65534) : 0, 0);
  EXPECT_EQ(Outcome(IMF_OPEN_REPAIR), IMF_ERROR_ACCESS);
  EXPECT_EQ(seteuid(getuid()), 0);
}

TEST_F(ImfTest, WriterReportsWhatTheDeviceRefuses) {
  ImfWriter writer;
  device::writeError = EIO;
  EXPECT_FALSE(writer.Open(mPath, kStart));
  EXPECT_EQ(errno, EIO);
  device::writeError = 0;
  Start(&writer);
  device::writeError = ENOSPC;
  EXPECT_EQ(writer.Write(ImfPacket()), ImfWriteResult::kFailed);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(writer.Close());
}

TEST_F(ImfTest, EndTimeTakesTheSameFewReadsHoweverLongTheRecording) {
  for (int count : {1, 60}) {
    Record(kStart, count);
    device::reads = 0;
    EXPECT_EQ(Outcome(IMF_OPEN_READ), IMF_ERROR_NONE);
    EXPECT_EQ(device::reads, 3);
  }
}

}  // namespace
