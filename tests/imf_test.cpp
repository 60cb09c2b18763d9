// Record files: what is written comes back, and whatever becomes of the bytes, only what is sound comes back.
#include <dirent.h>
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

  struct Answer {
    imf_error_code_e error;
    int end;
    unsigned mask;
    bool operator==(const Answer& other) const {
      return error == other.error && end == other.end && mask == other.mask;
    }
    friend std::ostream& operator<<(std::ostream& out, const Answer& answer) {
      return out << "error " << answer.error << ", end " << answer.end << ", mask " << answer.mask;
    }
  };
  static Answer Open(const std::string& path, imf_file_open_mode_e mode,
                     ImfSegmentCloseInterface* close = nullptr) {
    Answer answer = {};
    const ImfFile file(answer.error, path, mode, "", "", 0, close);
    answer.end = file.GetEndTime();
    answer.mask = file.GetStreamCountSummary().GetVideoChannelMask(0);
    return answer;
  }
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
  const ImfStreamInfo expected = Stream(3);
  const ImfStreamInfo& stream = content.streams[1];
  EXPECT_EQ(stream.channel, 3);
  EXPECT_EQ(stream.codecName, expected.codecName);
  EXPECT_EQ(stream.height, expected.height);
  EXPECT_EQ(stream.timeBaseDenominator, expected.timeBaseDenominator);
  EXPECT_EQ(stream.frameRateDenominator, expected.frameRateDenominator);
  EXPECT_EQ(stream.extraData, expected.extraData);

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
  const struct {
    int64_t time;
    int64_t duration;
    uint32_t end;
  } cases[] = {
      {kStartTime, 0, kStart + 1},
      {kStartTime + 59960000, 3600, kStart + 60},
      {kStartTime + 59960001, 3600, kStart + 61},
      {kStartTime - 5000000, 3600, kStart + 1},
      {INT64_MIN, INT64_MIN, kStart + 1},
      {INT64_MAX, INT64_MAX, 2147483647},
      {INT64_MAX, 3600, 2147483647},
      {kStartTime + 2500000, INT64_MAX, kStart + 3},  // a source without a clock
  };
  for (const auto& c : cases) {
    ImfWriter writer;
    ASSERT_TRUE(writer.Open(mPath, kStart));
    ASSERT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kWritten);
    ImfPacket packet;
    packet.time = c.time;
    packet.duration = c.duration;
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    EXPECT_EQ(writer.EndTime(), c.end) << c.time;
    ASSERT_TRUE(writer.Close());
    const auto end = static_cast<int>(c.end);
    EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, end, 1}));
    EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR), (Answer{IMF_ERROR_REPAIRED, end, 1}));
  }
}

TEST_F(ImfTest, FullFileKeepsItsSizeAndCanBeClosed) {
  ImfWriter writer;
  ASSERT_TRUE(writer.Open(mPath, kStart));
  ASSERT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kWritten);
  ImfPacket packet;
  packet.data.assign(kFileSize, 1);
  EXPECT_EQ(writer.Write(packet), ImfWriteResult::kFull);
  packet.data.resize(static_cast<size_t>(writer.Capacity() - writer.Used()) - imf::kChunkHeader);
  EXPECT_EQ(writer.Write(packet), ImfWriteResult::kWritten);  // to the last byte
  EXPECT_EQ(writer.Used(), writer.Capacity());
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
    const int end = Open(mPath, IMF_OPEN_READ).end;
    ASSERT_TRUE(end == 0 || end == Usable(packets.size()).end) << end << " is of the older recording";
    ASSERT_EQ(Open(mPath, IMF_OPEN_REPAIR), Usable(sound.size()));
    if (sound.empty()) continue;
    const Content content = ReadAll();
    ASSERT_TRUE(content.packets == sound);
    ASSERT_EQ(content.damages, 0);
  }
}

TEST_F(ImfTest, TornCheckpointLeavesTheOtherOne) {
  ImfWriter writer;
  writer.SetCheckpointInterval(0);
  ASSERT_TRUE(writer.Open(mPath, kStart));
  EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, 0, 0}));
  ASSERT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kWritten);  // checkpoint 1
  ImfPacket packet;
  for (uint32_t second = 2; second <= 3; ++second) {  // checkpoints 2 and 3
    packet.time = kStartTime + second * 1000000;
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, static_cast<int>(kStart + second), 1}));
  }
  Bytes bytes = Load();
  bytes[imf::CheckpointOffset(3) + 30] ^= 1;
  Save(bytes);
  EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, static_cast<int>(kStart + 2), 1}));
  bytes[imf::CheckpointOffset(2) + 30] ^= 1;
  Save(bytes);
  EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, 0, 0}));
  EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR), (Answer{IMF_ERROR_REPAIRED, static_cast<int>(kStart + 3), 1}));
  EXPECT_EQ(Open(mPath, IMF_OPEN_READ), (Answer{IMF_ERROR_NONE, static_cast<int>(kStart + 3), 1}));
}

TEST_F(ImfTest, RepairCompletesEveryUsableRecordingAndSaysSo) {
  struct Listener : ImfSegmentCloseInterface {
    int calls = 0;
    int end = 0;
    void OnSegmentClosed(ImfFile& file) override {
      ++calls;
      end = file.GetEndTime();
    }
  } listener;
  Record(kStart, 60, false);
  EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR, &listener), Usable(60));
  EXPECT_EQ(listener.end, Usable(60).end);
  const Bytes repaired = Load();
  EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR, &listener), Usable(60));
  EXPECT_EQ(listener.calls, 2);
  EXPECT_EQ(Load(), repaired) << "nothing was left to write";
  EXPECT_EQ(Open(mPath, IMF_OPEN_READ, &listener).error, IMF_ERROR_NONE);
  EXPECT_EQ(Open(mPath, static_cast<imf_file_open_mode_e>(1), &listener).error, IMF_ERROR_MODE);
  EXPECT_EQ(listener.calls, 2);
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

  const char* const own = "5f5e1000_00000000.imf";
  constexpr imf_error_code_e kNone = IMF_ERROR_NONE, kNoRecord = IMF_ERROR_NOT_A_RECORD;
  const struct {
    const char* name;
    Bytes bytes;
    imf_error_code_e read;
    imf_error_code_e repair;
  } cases[] = {
      {own, {}, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(1, 'I'), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(kFileSize, 0), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(kFileSize, 0xff), kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, Bytes(good.begin(), good.begin() + imf::kBlock), kNone, IMF_ERROR_UNREPAIRABLE},
      {own, otherVersion, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {own, noPacket, kNone, IMF_ERROR_UNREPAIRABLE},
      {own, hugeLength, kNone, IMF_ERROR_UNREPAIRABLE},
      {"5f5e1001_00000000.imf", good, kNoRecord, IMF_ERROR_UNREPAIRABLE},
      {"00000007.imf", good, kNone, IMF_ERROR_UNREPAIRABLE},  // a name of the pool
      {own, good, kNone, IMF_ERROR_REPAIRED},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    mPath = mDirectory + "/" + c.name;
    Save(c.bytes);
    EXPECT_EQ(Open(mPath, IMF_OPEN_READ).error, c.read);
    EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR).error, c.repair);
    EXPECT_TRUE(Load() == c.bytes);
  }
}

TEST_F(ImfTest, WhatIsNoRegularFileIsLeftAlone) {
  Record(kStart, 10);
  const std::string link = mDirectory + "/link/5f5e1000_00000000.imf";
  const std::string pipe = mDirectory + "/pipe/5f5e1000_00000000.imf";
  mkdir((mDirectory + "/link").c_str(), 0755);
  mkdir((mDirectory + "/pipe").c_str(), 0755);
  ASSERT_EQ(symlink(mPath.c_str(), link.c_str()), 0);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0644), 0);
  for (const std::string& path : {link, pipe, mDirectory}) {
    EXPECT_EQ(Open(path, IMF_OPEN_READ).error, IMF_ERROR_NOT_FOUND) << path;
    EXPECT_EQ(Open(path, IMF_OPEN_REPAIR).error, IMF_ERROR_UNREPAIRABLE) << path;
    EXPECT_FALSE(ImfWriter().Open(path, kStart)) << path;
    EXPECT_FALSE(ImfReader().Open(path)) << path;
  }
  const std::string missing = mDirectory + "/5f5e1001_00000000.imf";
  EXPECT_EQ(Open(missing, IMF_OPEN_REPAIR).error, IMF_ERROR_NOT_FOUND);
  EXPECT_FALSE(ImfWriter().Open(missing, kStart));
  EXPECT_FALSE(std::filesystem::exists(missing));
  EXPECT_EQ(ReadAll().packets.size(), 10u);
}

// Sound chunks behind damage are kept: of a closed file, and after a crash without any checkpoint.
TEST_F(ImfTest, DamageInTheMiddleCostsWhatItHits) {
  for (bool closed : {true, false}) {
    const std::vector<ImfPacket> packets = Record(kStart, 60, closed);
    const Bytes good = Load();
    const struct {
      uint64_t from;
      uint64_t to;
      size_t firstLost;
      size_t lost;
    } cases[] = {
        {mEdges[20], mEdges[20] + 1, 20, 1},                                          // a header
        {mEdges[20] + imf::kChunkHeader, mEdges[20] + imf::kChunkHeader + 1, 20, 1},  // a payload
        {mEdges[20] + 40, mEdges[30] + 8, 20, 11},                                    // a long stretch
        {mEdges[0], mEdges[0] + 9, 0, 1},                                             // the first packet
    };
    for (const auto& c : cases) {
      SCOPED_TRACE(testing::Message() << "closed " << closed << ", case " << (&c - cases));
      Bytes bytes = good;
      for (uint64_t i = c.from; i < c.to; ++i) bytes[i] ^= 0x40;
      Save(bytes);
      std::vector<ImfPacket> left = packets;
      left.erase(left.begin() + static_cast<long>(c.firstLost),
                 left.begin() + static_cast<long>(c.firstLost + c.lost));
      if (closed) {
        EXPECT_TRUE(ReadAll().packets == left);
      }
      EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR), Usable(60));
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
  ASSERT_TRUE(writer.Open(mPath, kStart));
  ASSERT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kWritten);
  ImfReader reader;
  ASSERT_TRUE(reader.Open(mPath));
  EXPECT_TRUE(ReadOn(&reader).packets.empty());
  ImfPacket packet;
  packet.data.assign(1000, 7);
  for (int i = 0; i < 3; ++i) {
    const auto begin = static_cast<std::ptrdiff_t>(writer.Used());
    ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
    const Bytes whole = Load();
    Bytes half = whole;  // the writer is in the midst of it
    std::fill(half.begin() + begin + 300, half.end(), uint8_t{0});
    Save(half);
    const Content during = ReadOn(&reader);
    EXPECT_TRUE(during.packets.empty());
    EXPECT_EQ(during.damages, 0);
    EXPECT_EQ(during.last, Item::kEnd);
    Save(whole);
    EXPECT_EQ(ReadOn(&reader).packets.size(), 1u);
  }
  EXPECT_TRUE(reader.IsSameRecording());
  reader.Rewind();
  EXPECT_EQ(reader.Next(), Item::kStream);
  // What was on disk and is gone is damage, not the end; the writer goes on behind it.
  const auto spoilLastHeader = [&] {
    Bytes bytes = Load();
    bytes[static_cast<size_t>(writer.Used()) - imf::ChunkSize(1000) + 20] ^= 1;
    Save(bytes);
  };
  spoilLastHeader();
  writer.SetCheckpointInterval(0);
  ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
  const Content damaged = ReadOn(&reader);
  EXPECT_EQ(damaged.packets.size(), 3u);
  EXPECT_EQ(damaged.damages, 1);
  spoilLastHeader();
  reader.Rewind();
  const Content spoilt = ReadOn(&reader);
  EXPECT_EQ(spoilt.packets.size(), 2u);
  EXPECT_EQ(spoilt.damages, 1);
  ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
  EXPECT_EQ(ReadOn(&reader).packets.size(), 1u);
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
  const struct {
    int error;
    uint64_t from;
    uint64_t to;
    imf_error_code_e expected;
  } cases[] = {
      {EIO, 0, kAll, IMF_ERROR_IO},
      {EIO, 0, 1, IMF_ERROR_IO},                                    // the header alone
      {EIO, imf::kDataOffset, kAll, IMF_ERROR_IO},                  // all packets
      {EIO, 5 * imf::kBlock, 7 * imf::kBlock, IMF_ERROR_REPAIRED},  // two blocks: the rest is kept
      {EIO, imf::kBlock, imf::kDataOffset, IMF_ERROR_REPAIRED},     // the checkpoints
      {ENOMEM, 0, kAll, IMF_ERROR_ACCESS},
      {ENOMEM, 5 * imf::kBlock, 7 * imf::kBlock, IMF_ERROR_ACCESS},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
    Save(good);
    device::badFrom = c.from;
    device::badTo = c.to;
    device::readError = c.error;
    const Answer answer = Open(mPath, IMF_OPEN_REPAIR);
    device::readError = 0;
    EXPECT_EQ(answer.error, c.expected);
    if (c.expected == IMF_ERROR_REPAIRED) {
      EXPECT_EQ(answer, Usable(60));
    } else {
      EXPECT_TRUE(Load() == good);
    }
  }
  Save(good);
  device::writeError = EIO;  // the name can still be completed, and it is what counts
  EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR), Usable(60));
  ImfWriter writer;
  EXPECT_FALSE(writer.Open(mPath, kStart));
  EXPECT_EQ(errno, EIO);
  device::writeError = 0;
  ASSERT_TRUE(writer.Open(mPath, kStart));
  device::writeError = ENOSPC;
  EXPECT_EQ(writer.AddStream(Stream(0)), ImfWriteResult::kFailed);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(writer.Close());
  device::writeError = 0;

  chmod(mPath.c_str(), 0444);
  if (geteuid() == 0) {
    ASSERT_EQ(seteuid(65534), 0);
  }
  EXPECT_EQ(Open(mPath, IMF_OPEN_REPAIR).error, IMF_ERROR_ACCESS);
  EXPECT_EQ(seteuid(getuid()), 0);
}

TEST_F(ImfTest, EndTimeTakesTheSameFewReadsHoweverLongTheRecording) {
  for (int count : {1, 60}) {
    Record(kStart, count);
    device::reads = 0;
    EXPECT_EQ(Open(mPath, IMF_OPEN_READ).end, Usable(static_cast<size_t>(count)).end);
    EXPECT_EQ(device::reads, 3);
  }
}

}  // namespace
