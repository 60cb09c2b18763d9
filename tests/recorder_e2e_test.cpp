// The recorder as its users run it: the program itself, real H.264, small disks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "TestDisk.h"
#include "platform/host/ImfRecord.h"

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

std::string ReadText(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A program under way; its output goes to files that have to outlive it.
class Process {
 public:
  Process(const Strings& arguments, const std::string& out, const std::string& err) {
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(posix_spawnp(&mPid, argv[0], &actions, nullptr, argv.data(), environ), 0) << argv[0];
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Process() {
    if (mPid > 0) Stop(SIGKILL);
  }

  // Exit status, or minus the signal that ended it.
  int Wait() {
    int status = 0;
    waitpid(mPid, &status, 0);
    mPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  int Stop(int signal) {
    kill(mPid, signal);
    return Wait();
  }

 private:
  pid_t mPid = -1;
};

struct Video {
  std::string path;
  Strings packets;  // size and checksum of each, in order
};

std::string Describe(size_t size, unsigned long crc) {
  char text[64];
  std::snprintf(text, sizeof text, "%zu %08lx", size, crc);
  return text;
}

class RecorderTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    sDirectory = fs::temp_directory_path() / ("recorder_e2e." + std::to_string(getpid()));
    fs::create_directory(sDirectory);
    const Strings names = {"a.mp4", "b.ts"};
    const Strings groups = {"25", "2000"};  // the second video has one key frame only
    for (size_t i = 0; i < names.size(); i++) {
      Video video{sDirectory + "/" + names[i], {}};
      const std::string out = sDirectory + "/out";
      ASSERT_EQ(
          Process({"ffmpeg",  "-v",  "error", "-f",      "lavfi",   "-i",       "testsrc2=size=320x240:rate=25",
                   "-t",      "40",  "-c:v",  "libx264", "-preset", "veryfast", "-g",
                   groups[i], "-bf", "2",     "-b:v",    "1000k",   video.path},
                  out, sDirectory + "/err")
              .Wait(),
          0);
      // What a different reader finds in the file is what has to come out of the recordings.
      ASSERT_EQ(Process({"ffprobe", "-v", "error", "-show_packets", "-show_data_hash", "crc32", "-of", "json",
                         video.path},
                        out, sDirectory + "/err")
                    .Wait(),
                0);
      const auto probed = nlohmann::json::parse(ReadText(out));
      for (const auto& packet : probed["packets"]) {
        const std::string crc = packet["data_hash"].get<std::string>().substr(6);
        video.packets.push_back(
            Describe(std::stoul(packet["size"].get<std::string>()), std::stoul(crc, nullptr, 16)));
      }
      ASSERT_EQ(video.packets.size(), 1000u);
      sVideos.push_back(video);
    }
  }
  static void TearDownTestSuite() {
    fs::remove_all(sDirectory);
    sVideos.clear();
  }

  Strings Command(const Strings& arguments) {
    Strings all = {RECORDER_PROGRAM, "--root", mRoot.Path()};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  // Exit status; what was printed is in mOut and mErr.
  int Run(const Strings& arguments) {
    const int status = Process(Command(arguments), sDirectory + "/out", sDirectory + "/err").Wait();
    mOut = ReadText(sDirectory + "/out");
    mErr = ReadText(sDirectory + "/err");
    return status;
  }
  void Prepare(const std::string& disk, int count) {
    ASSERT_EQ(Run({"prepare", "--disk", disk, "--size", "1M", "--count", std::to_string(count)}), 0) << mErr;
    mInodes[disk] = InodesOf(DiskPath(disk));
    EXPECT_EQ(mInodes[disk].size(), static_cast<size_t>(count));
    EXPECT_EQ(NamesIn(DiskPath(disk)), Strings{"imf_free"});
  }
  int Record(const Strings& videos, const std::string& start, const Strings& more = {}) {
    Strings arguments = {"record", "--clock", "stream", "--start", start};
    for (const std::string& video : videos) arguments.insert(arguments.end(), {"--input", video});
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(arguments);
  }
  int RecordBoth(const std::string& start, const Strings& more = {}) {
    return Record({sVideos[0].path, sVideos[1].path}, start, more);
  }
  std::string DiskPath(const std::string& disk) { return mRoot.Path() + "/disk/" + disk; }

  // Paths of all record files by name, which is by start time.
  std::map<std::string, std::string> RecordFiles() {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(mRoot.Path())) {
      const fs::path& path = entry.path();
      if (path.extension() == ".imf" && path.parent_path().filename().string().rfind("data_", 0) == 0) {
        files[path.filename()] = path;
      }
    }
    return files;
  }
  // Per disk, status agrees with the directories, and no file was made or lost.
  void ExpectSound(bool writing = false) {
    ASSERT_EQ(Run({"status", "--json"}), 0) << mErr;
    std::istringstream lines(mOut);
    int disks = 0;
    int writers = 0;
    for (std::string line; std::getline(lines, line); disks++) {
      const auto status = nlohmann::json::parse(line);
      const std::string disk = status["disk"];
      std::map<std::string, int> counts;
      for (const auto& file : PlacesOf(DiskPath(disk))) {
        EXPECT_EQ(file.second.size(), 1u);
        counts[file.second.begin()->substr(0, 5)]++;
      }
      EXPECT_EQ(status["free"], counts["imf_f"]);
      EXPECT_EQ(status["used"], counts["data_"]);
      EXPECT_EQ(status["quarantined"], counts["imf_e"]);
      EXPECT_EQ(status["usedBytes"], counts["data_"] << 20);
      ExpectEachInOnePlace(DiskPath(disk), mInodes[disk]);
      writers += status["writing"].get<bool>();
    }
    EXPECT_EQ(static_cast<size_t>(disks), mInodes.size());
    EXPECT_EQ(writers, writing ? 1 : 0);
  }

  // Descriptions of all packets by channel, in order of recording.
  std::map<int, Strings> StoredPackets(bool keyFramesFirst) {
    std::map<int, Strings> stored;
    for (const auto& file : RecordFiles()) {
      ImfReader reader;
      EXPECT_TRUE(reader.Open(file.second)) << reader.Error();
      std::set<int> described;
      bool first = true;
      for (ImfReader::Item item; (item = reader.Next()) != ImfReader::Item::kEnd;) {
        if (item == ImfReader::Item::kStream) {
          described.insert(reader.Stream().channel);
          EXPECT_FALSE(reader.Stream().extraData.empty());
          continue;
        }
        if (item != ImfReader::Item::kPacket) throw std::runtime_error("damaged: " + file.second);
        const ImfPacket& packet = reader.Packet();
        EXPECT_EQ(described.count(packet.channel), 1u) << "a file can be played on its own";
        EXPECT_TRUE(!keyFramesFirst || !first || (packet.keyFrame && packet.channel == 0)) << file.second;
        first = false;
        stored[packet.channel].push_back(Describe(
            packet.data.size(), crc32(0, packet.data.data(), static_cast<unsigned>(packet.data.size()))));
      }
    }
    return stored;
  }
  // Records two videos onto two disks that are too small for them.
  void ExpectLatestPackets(const Video& first, const Video& second, bool keyFramesFirst) {
    Prepare("a", 4);
    Prepare("b", 3);
    ASSERT_EQ(Record({first.path, second.path}, "2024-05-01T12:00:00Z", {"--segment", "10"}), 0) << mErr;
    ExpectSound();
    EXPECT_EQ(RecordFiles().size(), 7u) << "both disks are full";
    std::map<int, Strings> stored = StoredPackets(keyFramesFirst);
    for (int channel : {0, 1}) {
      const Strings& source = (channel == 0 ? first : second).packets;
      const Strings& kept = stored[channel];
      ASSERT_GT(kept.size(), 400u);
      ASSERT_LT(kept.size(), source.size()) << "something was recycled";
      EXPECT_EQ(kept, Strings(source.end() - static_cast<long>(kept.size()), source.end())) << channel;
    }
  }

  static std::string sDirectory;
  static std::vector<Video> sVideos;
  TestRoot mRoot;
  std::map<std::string, std::set<unsigned long>> mInodes;
  std::string mOut, mErr;
};

std::string RecorderTest::sDirectory;
std::vector<Video> RecorderTest::sVideos;

// Packets lost or doubled where one file ends and the next begins, or where a disk wraps around.
TEST_F(RecorderTest, KeepsTheLatestPackets) { ExpectLatestPackets(sVideos[0], sVideos[1], true); }
TEST_F(RecorderTest, KeepsTheLatestPacketsWithoutKeyFrames) {
  ExpectLatestPackets(sVideos[1], sVideos[1], false);
}

TEST_F(RecorderTest, StopsAndComesBack) {
  Prepare("a", 20);
  const Strings record = Command({"record", "--input", sVideos[0].path, "--input", "/nonexistent.mp4"});
  const auto begin = [&] {
    auto process = std::make_unique<Process>(record, sDirectory + "/recorded", sDirectory + "/complaints");
    for (int i = 0; i < 100 && RecordFiles().empty(); i++)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    return process;
  };
  auto recorder = begin();
  ExpectSound(true);
  EXPECT_EQ(Run({"record", "--input", sVideos[1].path}), 2);
  EXPECT_NE(mErr.find("is in use by recorder record (pid "), std::string::npos) << mErr;
  EXPECT_EQ(recorder->Stop(SIGTERM), 0);
  EXPECT_NE(ReadText(sDirectory + "/complaints").find("channel 1: cannot read /nonexistent.mp4: No such file"),
            std::string::npos);
  ASSERT_EQ(RecordFiles().size(), 1u);
  EXPECT_NE(RecordFiles().begin()->first.find("_cm1.imf"), std::string::npos) << "completed";

  recorder = begin();
  EXPECT_EQ(recorder->Stop(SIGKILL), -SIGKILL);
  ASSERT_EQ(RecordFiles().size(), 2u);
  const std::string unfinished = RecordFiles().rbegin()->first;
  EXPECT_NE(unfinished.find("_00000000.imf"), std::string::npos);
  ExpectSound();
  EXPECT_EQ(RecordFiles().rbegin()->first, unfinished) << "looking repairs nothing";

  ASSERT_EQ(RecordBoth("2033-01-01T00:00:00Z", {"--segment", "3600", "--no-overwrite"}), 0) << mErr;
  EXPECT_NE(mOut.find("repaired " + DiskPath("a") + "/data_00000001/"), std::string::npos) << mOut;
  EXPECT_EQ(RecordFiles().count(unfinished), 0u);
  ExpectSound();
}

// The last file of a directory takes the directory with it, and whatever somebody has put there.
TEST_F(RecorderTest, SavesWhatOthersLeft) {
  Prepare("a", 3);
  ASSERT_EQ(RecordBoth("2024-05-01T12:00:00Z"), 0) << mErr;
  const std::string oldest = fs::path(RecordFiles().begin()->second).parent_path();
  for (const char* name : {"holiday.imf", "notes.txt"}) std::ofstream(oldest + "/" + name) << name;
  ASSERT_EQ(RecordBoth("2024-05-01T13:00:00Z"), 0) << mErr;
  EXPECT_FALSE(fs::exists(oldest));
  EXPECT_EQ(ReadText(DiskPath("a") + "/imf_error/holiday.imf"), "holiday.imf");
  EXPECT_EQ(ReadText(DiskPath("a") + "/imf_error/notes.txt"), "notes.txt");
}

TEST_F(RecorderTest, RefusesAndStops) {
  fs::create_directories(DiskPath("gone"));
  EXPECT_EQ(RecordBoth("2024-05-01T12:00:00Z"), 2) << "no disk is there";
  EXPECT_TRUE(NamesIn(DiskPath("gone")).empty()) << "nothing was written to where it belongs";
  Prepare("a", 3);
  EXPECT_EQ(Run({"prepare", "--disk", "a", "--size", "1M", "--count", "3"}), 2);
  EXPECT_NE(mErr.find("prepared already"), std::string::npos) << mErr;
  EXPECT_EQ(RecordBoth("2024-05-01T12:00:00Z", {"--disk", "gone"}), 2);
  EXPECT_EQ(RecordBoth("1975-05-01T12:00:00Z"), 2);
  EXPECT_EQ(Run({"record", "--input", "/nonexistent"}), 2);
  EXPECT_EQ(RecordBoth("2024-05-01T12:00:00Z", {"--frobnicate"}), 2);
  EXPECT_TRUE(RecordFiles().empty());
  EXPECT_EQ(RecordBoth("2024-05-01T12:00:00Z", {"--no-overwrite"}), 1) << "full";
  EXPECT_EQ(RecordFiles().size(), 3u);
  for (const auto& file : RecordFiles())
    EXPECT_NE(file.first.find("_cm3.imf"), std::string::npos) << "completed";
}

}  // namespace
