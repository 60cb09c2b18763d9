// What writing and repairing record files costs on a real file system: device reads, and time beside plain
// loops that write and read the same bytes. Takes a directory on the device that is measured and, as root,
// empties the page cache before each pass: the disk of a loop recorder is always full, and never in memory.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "ImfFile.h"
#include "platform/host/imf/ImfRecord.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPackets = 22400;
constexpr int kChannels = 16;
constexpr uint32_t kFirstStart = 1600000000;
constexpr size_t kFileSize = size_t{256} << 20;
constexpr int kFiles = 3;  // hold all packets
constexpr int kPasses = 7;
constexpr size_t kBlock = 4096;
constexpr size_t kUnsyncedLimit = size_t{64} << 20;

[[noreturn]] void Stop(const char* what) {
  std::perror(what);
  std::exit(1);
}

struct Cost {
  double seconds = 0;
  double cpu = 0;
  long reads = 0;  // of the device
  double megabytes = 0;
};

class Device {
 public:
  explicit Device(const std::string& directory) {
    struct stat info = {};
    if (stat(directory.c_str(), &info) != 0) Stop(directory.c_str());
    mStat = "/sys/dev/block/" + std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev)) +
            "/stat";
  }
  long Reads() const {
    long reads = 0;
    std::ifstream(mStat) >> reads;
    return reads;
  }

 private:
  std::string mStat;
};

double CpuSeconds() {
  struct rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void EmptyCache() {
  sync();
  std::ofstream file("/proc/sys/vm/drop_caches");
  if (!(file << 3 << std::flush)) Stop("/proc/sys/vm/drop_caches");
}

Cost Measure(const Device& device, const std::function<double()>& work) {
  EmptyCache();
  Cost cost;
  const long reads = device.Reads();
  const double cpu = CpuSeconds();
  const Clock::time_point begin = Clock::now();
  cost.megabytes = work();
  cost.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  cost.cpu = CpuSeconds() - cpu;
  cost.reads = device.Reads() - reads;
  return cost;
}

// The quickest pass: what disturbed the others is not what is measured.
const Cost& Best(const std::vector<Cost>& costs) {
  return *std::min_element(costs.begin(), costs.end(),
                           [](const Cost& a, const Cost& b) { return a.seconds < b.seconds; });
}

// As Report.h reads it.
void PrintRow(const char* figure, const char* unit, double ours, const char* against, double theirs,
              const char* goal, double limit) {
  std::printf("%s\t%s\t%g\t%s\t%g\t%g\t%s\t%g\n", figure, unit, ours, against, theirs,
              *against != '\0' ? ours / theirs : 0, goal, limit);
  std::fflush(stdout);
}

class Bench {
 public:
  explicit Bench(std::string directory) : mDirectory(std::move(directory)), mDevice(mDirectory) {
    std::mt19937_64 random(1);
    for (int i = 0; i < kPackets; ++i) {
      const size_t mean = i / kChannels % 50 == 0 ? 120000 : 18000;
      mSizes.push_back(mean / 2 + random() % mean);
    }
    mBytes.resize(400000);
    for (uint8_t& byte : mBytes) byte = static_cast<uint8_t>(random());
    for (int i = 0; i < kFiles; ++i) {
      const int file = open(Path(i).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (file < 0 || posix_fallocate(file, 0, kFileSize) != 0) Stop(Path(i).c_str());
      close(file);
    }
    WriteRecords(0);  // what is recycled
  }

  void Run() {
    std::vector<Cost> ours;
    std::vector<Cost> plain;
    for (int i = 1; i <= kPasses; ++i) {
      ours.push_back(Measure(mDevice, [&] { return WriteRecords(i); }));
      plain.push_back(Measure(mDevice, [&] { return WritePlainly(); }));
      WriteRecords(i);
    }
    const Cost our = Best(ours);
    const Cost other = Best(plain);
    const double thousands = kPackets / 1000.0;
    PrintRow("reads of the device a 1,000 packets", "", static_cast<double>(our.reads) / thousands, "", 0, "<",
             5);
    PrintRow("  of a loop that writes whole blocks", "", static_cast<double>(other.reads) / thousands, "", 0,
             "", 0);
    PrintRow("throughput (time of day)", "MB/s", our.megabytes / our.seconds, "that loop",
             other.megabytes / other.seconds, ">", 0.8);
    PrintRow("writing a GB", "s", 1000 * our.cpu / our.megabytes, "that loop",
             1000 * other.cpu / other.megabytes, "", 0);

    const std::string path = mDirectory + "/5f5e1000_00000000.imf";
    if (rename(Path(0).c_str(), path.c_str()) != 0) Stop(path.c_str());
    std::vector<Cost> repair;
    std::vector<Cost> read;
    FillUnfinished(path);
    Measure(mDevice, [&] { return ReadPlainly(path); });  // what is below the device may be faster from now on
    for (int i = 0; i < kPasses; ++i) {
      repair.push_back(Measure(mDevice, [&] { return Repair(path); }));
      read.push_back(Measure(mDevice, [&] { return ReadPlainly(path); }));
    }
    PrintRow("repair of 256 MiB (time of day)", "s", Best(repair).seconds, "reading it", Best(read).seconds,
             "<", 1.4);
    PrintRow("  processor time", "s", Best(repair).cpu, "reading it", Best(read).cpu, "", 0);
  }

 private:
  std::string Path(int number) const { return mDirectory + "/" + std::to_string(number) + ".imf"; }

  void Begin(ImfWriter* writer, const std::string& path, uint32_t start) const {
    if (!writer->Open(path, start)) Stop(path.c_str());
    for (int channel = 0; channel < kChannels; ++channel) {
      ImfStreamInfo stream;
      stream.channel = channel;
      stream.codecName = "h264";
      if (writer->AddStream(stream) != ImfWriteResult::kWritten) Stop(path.c_str());
    }
  }
  ImfPacket Packet(int number) const {
    ImfPacket packet;
    packet.channel = number % kChannels;
    packet.keyFrame = number / kChannels % 50 == 0;
    packet.time = kFirstStart * int64_t{1000000} + number / kChannels * 40000;
    packet.pts = packet.dts = number;
    packet.duration = 40000;
    const size_t size = mSizes[static_cast<size_t>(number)];
    packet.data.assign(mBytes.begin(), mBytes.begin() + static_cast<ptrdiff_t>(size));
    return packet;
  }
  // MB of packets.
  double WriteRecords(int round) {
    size_t bytes = 0;
    auto writer = std::make_unique<ImfWriter>();
    int file = 0;
    const uint32_t start = kFirstStart + static_cast<uint32_t>(round) * 1000;
    Begin(writer.get(), Path(0), start);
    for (int i = 0; i < kPackets; ++i) {
      const ImfPacket packet = Packet(i);
      ImfWriteResult result = writer->Write(packet);
      if (result == ImfWriteResult::kFull && ++file < kFiles) {
        if (!writer->Close()) Stop("close");
        writer = std::make_unique<ImfWriter>();
        Begin(writer.get(), Path(file), start + static_cast<uint32_t>(file));
        result = writer->Write(packet);
      }
      if (result != ImfWriteResult::kWritten) Stop("write");
      bytes += packet.data.size();
    }
    if (!writer->Close()) Stop("close");
    return static_cast<double>(bytes) / 1e6;
  }
  double WritePlainly() {
    size_t bytes = 0;
    size_t pending = 0;  // bytes that make no whole block yet
    size_t at = 0;
    size_t unsynced = 0;
    int number = 0;
    int file = open(Path(0).c_str(), O_WRONLY | O_CLOEXEC);
    Clock::time_point synced = Clock::now();
    for (int i = 0; i < kPackets; ++i) {
      const ImfPacket packet = Packet(i);
      bytes += packet.data.size();
      pending += packet.data.size();
      const size_t length = std::min(pending / kBlock * kBlock, mBytes.size() / kBlock * kBlock);
      pending -= length;
      if (at + length > kFileSize) {
        if (fdatasync(file) != 0 || close(file) != 0) Stop("fdatasync");
        file = open(Path(++number).c_str(), O_WRONLY | O_CLOEXEC);
        at = 0;
      }
      if (pwrite(file, mBytes.data(), length, static_cast<off_t>(at)) != static_cast<ssize_t>(length))
        Stop("pwrite");
      at += length;
      unsynced += length;
      if (unsynced < kUnsyncedLimit && Clock::now() - synced < std::chrono::seconds(2)) continue;
      if (fdatasync(file) != 0) Stop("fdatasync");
      unsynced = 0;
      synced = Clock::now();
    }
    if (fdatasync(file) != 0 || close(file) != 0) Stop("fdatasync");
    return static_cast<double>(bytes) / 1e6;
  }
  void FillUnfinished(const std::string& path) {
    ImfWriter writer;
    Begin(&writer, path, kFirstStart);
    for (int i = 0; writer.Write(Packet(i % kPackets)) == ImfWriteResult::kWritten; ++i) {
    }
  }
  double Repair(const std::string& path) {
    imf_error_code_e error = IMF_ERROR_NONE;
    const ImfFile file(error, path, IMF_OPEN_REPAIR, "", "", 0, nullptr);
    if (error != IMF_ERROR_REPAIRED) Stop("repair");
    return kFileSize / 1e6;
  }
  double ReadPlainly(const std::string& path) {
    std::vector<uint8_t> buffer(1 << 20);
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) Stop(path.c_str());
    while (read(file, buffer.data(), buffer.size()) > 0) {
    }
    close(file);
    return kFileSize / 1e6;
  }

  const std::string mDirectory;
  const Device mDevice;
  std::vector<size_t> mSizes;
  std::vector<uint8_t> mBytes;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  Bench(argv[1]).Run();
  return 0;
}
