// Cameras as they are: an RTSP server that is killed, frozen and started late, a network that stalls, and
// sources that say nothing. Everything on the loopback address.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "platform/host/imf/ImfRecord.h"
#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

namespace {

// --- Sources ---

// A port that nobody listens on, or that somebody listens on who never answers.
struct Port {
  explicit Port(bool listening = false) : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(socket, any, size), 0);
    getsockname(socket, any, &size);
    number = std::to_string(ntohs(address.sin_port));
    if (listening) listen(socket, 5);
    if (!listening) close(std::exchange(socket, -1));
  }
  ~Port() { close(socket); }

  int socket;
  std::string number;
};

struct Source : Process {
  // Listens when the constructor is through.
  Source(const std::string& directory, const std::string& arguments)
      : Process((fs::remove(directory + "/source"),
                 "/usr/bin/python3 " TEST_SUPPORT "/" + arguments + " >" + directory + "/source 2>&1")) {
    const auto said = [&] { return ReadText(directory + "/source"); };
    EXPECT_TRUE(Await([&] { return said().rfind("ready", 0) == 0; })) << said();
  }
};

// --- What was recorded ---

struct Taken {
  double time, decodeTime;  // seconds since the epoch
};

// Of a channel, as written.
std::vector<Taken> PicturesOf(const std::string& root, int channel) {
  std::vector<Taken> taken;
  for (const auto& [name, path] : RecordFilesIn(root)) {
    ImfReader reader;
    if (!reader.Open(path)) continue;
    double timeBase = 0;
    for (ImfReader::Item item; (item = reader.Next()) != ImfReader::Item::kEnd;) {
      if (item == ImfReader::Item::kStream && reader.Stream().channel == channel) {
        timeBase = double{1} * reader.Stream().timeBaseNumerator / reader.Stream().timeBaseDenominator;
      }
      if (item != ImfReader::Item::kPacket || reader.Packet().channel != channel) continue;
      const ImfPacket& packet = reader.Packet();
      const double time = static_cast<double>(packet.time) / 1e6;
      taken.push_back({time, time - static_cast<double>(packet.pts - packet.dts) * timeBase});
    }
  }
  return taken;
}

struct Gap {
  double from, to;
};

// Where no picture was taken for longer than `longest` seconds.
std::vector<Gap> GapsOf(std::vector<Taken> taken, double longest) {
  std::sort(taken.begin(), taken.end(), [](const Taken& a, const Taken& b) { return a.time < b.time; });
  std::vector<Gap> gaps;
  for (size_t i = 1; i < taken.size(); i++) {
    if (taken[i].time - taken[i - 1].time > longest) gaps.push_back({taken[i - 1].time, taken[i].time});
  }
  return gaps;
}

void ExpectAscending(const std::vector<Taken>& taken, int channel) {
  for (size_t i = 1; i < taken.size(); i++) {
    EXPECT_GT(taken[i].decodeTime, taken[i - 1].decodeTime)
        << "channel " << channel << ", " << i << " of " << taken.size() << ", shown "
        << taken[i].time - taken[i - 1].time << " s after the one before";
  }
}

double Now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void Sleep(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

class CameraTest : public RecorderFixture {
 protected:
  CameraTest() { Prepare("a", 120 + static_cast<int>(mSoakSeconds) * 2 / 3); }

  void Record(const std::string& arguments) {
    mRecorder = std::make_unique<Process>(RECORDER_PROGRAM " --root " + mRoot.Path() + " record " + arguments +
                                          " >" + mDirectory + "/record.out 2>" + mDirectory + "/record.err");
  }
  // What the recorder said, without the library's lines. Stopping takes less than 5 s, whatever hangs.
  std::string Stop() {
    const double begin = Now();
    EXPECT_EQ(mRecorder->Stop(SIGINT), 0);
    EXPECT_LT(Now() - begin, 5);
    std::string said;
    for (const std::string& line : LinesOf(ReadText(mDirectory + "/record.err")))
      if (line.rfind("recorder:", 0) == 0) said += line + "\n";
    return said;
  }
  std::string Export(int channel) {
    const std::string path = mDirectory + "/clip" + std::to_string(channel) + ".mp4";
    const std::string range = Text("export --since now-1h --until now --force --channel %d -o ", channel);
    EXPECT_EQ(Run(range + path), 1) << "most of an hour is missing: " << mProgram.err;
    return path;
  }
  // A checksum of each decoded picture, in the order in which they are shown.
  Names DecodedOf(const std::string& path) {
    EXPECT_EQ(mProgram.Shell("ffmpeg -v error -i " + path + " -map 0:v -vsync passthrough -f framemd5 -"), 0)
        << mProgram.err;
    Names sums;
    for (const std::string& line : LinesOf(mProgram.out))
      if (line[0] != '#') sums.push_back(line.substr(line.rfind(',')));
    return sums;
  }
  // Holds the times of a channel's pictures against the clock that is drawn into them; returns the largest
  // error in milliseconds.
  double LargestError(int channel) {
    constexpr size_t kWidth = 192, kHeight = 128, kField = 16, kRow = 12, kBits = 48;
    const std::string clip = Export(channel);
    EXPECT_EQ(mProgram.Shell("ffmpeg -v error -i " + clip + " -vsync passthrough -f rawvideo -pix_fmt gray -"),
              0);
    const std::string pictures = mProgram.out;
    std::vector<Taken> taken = PicturesOf(mRoot.Path(), channel);
    std::sort(taken.begin(), taken.end(), [](const Taken& a, const Taken& b) { return a.time < b.time; });
    EXPECT_EQ(pictures.size() / (kWidth * kHeight), taken.size()) << "channel " << channel;
    double largest = 0;
    int64_t last = 0;
    for (size_t i = 0; i < taken.size() && (i + 1) * kWidth * kHeight <= pictures.size(); i++) {
      int64_t drawn = 0;
      for (size_t bit = 0; bit < kBits; bit++) {
        const size_t row = bit / kRow * kField + kField / 2;
        const size_t column = bit % kRow * kField + kField / 2;
        const auto value = static_cast<uint8_t>(pictures[i * kWidth * kHeight + row * kWidth + column]);
        drawn = drawn << 1 | (value > 128 ? 1 : 0);
      }
      EXPECT_GT(drawn, last) << "out of order: " << i;
      last = drawn;
      largest = std::max(largest, std::abs(taken[i].time * 1000 - static_cast<double>(drawn)));
    }
    return largest;
  }

  // A camera is lost as it is killed, frozen or off; the others go on. `away` and `frozen` in seconds.
  void LoseCameras(double away, double frozen, int timeout) {
    const Port killed, freezing, late, steady, network;
    const std::string secret =
        "rtsp_server.py --bframes 2 --user viewer --password hush --port " + killed.number;
    const Source first(mDirectory, secret);
    const Source second(mDirectory, "rtsp_server.py --codec h265 --bframes 1 --port " + freezing.number);
    const Source third(mDirectory, "rtsp_server.py --bframes 2 --port " + steady.number);
    const Source relay(mDirectory, "relay.py " + network.number + " " + steady.number);
    std::string inputs;
    for (const std::string& address : {"viewer:hush@127.0.0.1:" + killed.number, "127.0.0.1:" + freezing.number,
                                       "127.0.0.1:" + network.number, "127.0.0.1:" + late.number}) {
      inputs += " --input rtsp://" + address + "/cam";
    }
    Record("--segment 4 --input-timeout " + std::to_string(timeout) + inputs);
    Sleep(5);

    const double lost = Now();
    first.Send(SIGKILL);
    second.Send(SIGSTOP);
    relay.Send(SIGSTOP);
    Sleep(away);
    const Source back(mDirectory, secret);
    const double again = Now();
    relay.Send(SIGCONT);
    const Source fourth(mDirectory, "rtsp_server.py --port " + late.number);
    Sleep(frozen - (Now() - lost));
    const double thawed = Now();
    second.Send(SIGCONT);
    Sleep(5);
    const std::string said = Stop();

    const auto expectGap = [&](int channel, double until, const char* why) {
      const std::vector<Gap> gaps = GapsOf(PicturesOf(mRoot.Path(), channel), 1);
      ASSERT_EQ(gaps.size(), 1u) << channel << ": " << why;
      EXPECT_NEAR(gaps[0].from, lost, 0.5) << why;
      EXPECT_GT(gaps[0].to, lost + away - 0.5) << why;
      EXPECT_LT(gaps[0].to, until + 3) << why;
    };
    expectGap(0, again, "killed");
    expectGap(1, thawed, "frozen");
    EXPECT_TRUE(GapsOf(PicturesOf(mRoot.Path(), 2), 0.5).empty())
        << "the network stalled, but nothing was lost";
    EXPECT_GT(PicturesOf(mRoot.Path(), 3).size(), 25u) << "was off at first";
    for (int channel = 0; channel < 4; channel++) {
      ExpectAscending(PicturesOf(mRoot.Path(), channel), channel);
    }
    for (const int channel : {0, 2, 3}) EXPECT_LT(LargestError(channel), 100) << "channel " << channel;
    const std::string host = "127.0.0.1:", late3 = "rtsp://" + host + late.number + "/cam";
    for (const std::string& line :
         {"channel 0: rtsp://***@" + host + killed.number + "/cam is lost: ",
          "channel 0: rtsp://***@" + host + killed.number + "/cam is back after 0:0",
          "channel 1: rtsp://" + host + freezing.number + "/cam is lost: no picture for 0:",
          "channel 1: rtsp://" + host + freezing.number + "/cam is back after 0:",
          "channel 3: cannot read " + late3 + ": Connection refused; it is tried again",
          "channel 3: " + late3 + " is back after 0:"})
      EXPECT_TRUE(Has(said, line));
    EXPECT_EQ(LinesOf(said).size(), 6u) << said;
  }

  const double mSoakSeconds = std::atof(std::getenv("SOAK_SECONDS") ? std::getenv("SOAK_SECONDS") : "120");
  const std::string mDirectory = mRoot.Path();
  std::unique_ptr<Process> mRecorder;
};

TEST_F(CameraTest, ComesBackWhileOthersGoOn) { LoseCameras(5, 9, 6); }
TEST_F(CameraTest, DISABLED_ComesBackAfterTwentySeconds) { LoseCameras(5, 20, 10); }

// Two cameras that are killed and frozen at random for SOAK_SECONDS; the same again with the SOAK_SEED it says.
TEST_F(CameraTest, DISABLED_StaysAlive) {
  const char* const given = std::getenv("SOAK_SEED");
  const unsigned seed = given != nullptr ? std::stoul(given) : std::random_device()() % 100000;
  std::mt19937 random(seed);
  const auto between = [&](int from, int to) { return std::uniform_int_distribution(from, to - 1)(random); };
  const Port ports[2];
  std::string inputs;
  std::unique_ptr<Source> cameras[2];
  const auto start = [&](int camera) {
    const std::string arguments = "rtsp_server.py --bframes 2 --port " + ports[camera].number;
    cameras[camera] = std::make_unique<Source>(mDirectory, arguments);
  };
  for (int camera = 0; camera < 2; camera++) {
    start(camera);
    inputs += " --input rtsp://127.0.0.1:" + ports[camera].number + "/cam";
  }
  Record("--segment 4 --input-timeout 3" + inputs);
  const std::string process = "/proc/" + std::to_string(mRecorder->Id());
  const auto memory = [&] {  // KiB
    const std::string status = ReadText(process + "/status");
    return std::atoi(status.c_str() + status.find("VmRSS:") + 6);
  };
  const double begin = Now();
  int kills = 0, memoryBefore = 0;
  std::vector<std::pair<int, double>> back;  // which camera, when
  while (Now() - begin < mSoakSeconds) {
    Sleep(between(2, 12));
    const int camera = between(0, 2);
    const bool isKilled = between(0, 2) == 0;
    kills += isKilled;
    cameras[camera]->Send(isKilled ? SIGKILL : SIGSTOP);
    Sleep(between(0, isKilled ? 8 : 12));
    if (isKilled) start(camera);
    cameras[camera]->Send(SIGCONT);
    back.push_back({camera, Now()});
    if (memoryBefore == 0 && Now() - begin > mSoakSeconds / 4) memoryBefore = memory();
  }
  Sleep(40);  // the longest time between two attempts, and what an attempt takes
  const int memoryAfter = memory();
  const size_t descriptorsAfter = NamesIn(process + "/fd").size();
  const double end = Now();
  Stop();
  std::printf("seed %u: %zu losses in %.0f s, %d of them kills; %d KiB, before %d KiB, %zu descriptors\n", seed,
              back.size(), end - begin, kills, memoryAfter, memoryBefore, descriptorsAfter);
  EXPECT_LT(memoryAfter, memoryBefore + 8 * 1024) << "seed " << seed;
  EXPECT_LT(descriptorsAfter, 30u);
  for (int channel = 0; channel < 2; channel++) {
    const std::vector<Taken> taken = PicturesOf(mRoot.Path(), channel);
    ASSERT_FALSE(taken.empty());
    EXPECT_LT(end - taken.back().time, 5) << "seed " << seed << ": channel " << channel << " stayed lost";
    ExpectAscending(taken, channel);
    double longest = 0;
    for (const auto& [camera, since] : back) {
      const double time = since;
      const auto next = std::find_if(taken.begin(), taken.end(), [&](const Taken& t) { return t.time > time; });
      if (camera == channel && next != taken.end()) longest = std::max(longest, next->time - time);
    }
    std::printf("channel %d: %zu pictures, back after %.1f s at most\n", channel, taken.size(), longest);
  }
}

// Pictures lost, doubled or shuffled on their way, with pictures that are shown later than they are decoded.
TEST_F(CameraTest, GivesBackEveryPicture) {
  const std::string video = mDirectory + "/video.mp4";
  mProgram.MakeVideo(video, "-preset veryfast -bf 3 -g 50 -t 9");
  ASSERT_EQ(mProgram.Shell("ffmpeg -v error -i " + video + " -c copy " + mDirectory + "/video.mkv"), 0);
  const Names source = DecodedOf(video);
  ASSERT_EQ(source.size(), 225u);
  const Port port;
  const Source camera(mDirectory, "rtsp_server.py --file " + video + " --port " + port.number);
  const std::string fifo = mDirectory + "/fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const Process live("ffmpeg -v error -y -re -i " + video + " -c copy -f mpegts " + fifo);
  Record("--segment 3 --input " + mDirectory + "/video.mkv --input rtsp://127.0.0.1:" + port.number +
         "/cam --input - <" + fifo);
  Sleep(14);
  Stop();
  for (int channel = 0; channel < 3; channel++) {
    Names recorded = DecodedOf(Export(channel));
    ASSERT_GE(recorded.size(), source.size()) << "channel " << channel;
    if (channel == 1) recorded.resize(source.size());  // it begins again
    EXPECT_EQ(recorded, source) << "channel " << channel;
  }
}

// A source that says nothing is noticed, and one without time stamps is recorded at its own speed.
TEST_F(CameraTest, WaitsForNothingForEver) {
  const Port silent(true), nobody, listening, jpeg;
  const Process pictures(
      "ffmpeg -v error -re -f lavfi -i testsrc=rate=5:size=160x120 -f mpjpeg -listen 1 http://127.0.0.1:" +
      jpeg.number);
  Sleep(0.5);
  Record("--input-timeout 2 --input rtsp://127.0.0.1:" + silent.number +
         "/a --input udp://127.0.0.1:" + nobody.number + " --input 'tcp://127.0.0.1:" + listening.number +
         "?listen=1' --input http://127.0.0.1:" + jpeg.number + "/ --input nothing://127.0.0.1/");
  Sleep(7);
  const std::string said = Stop();
  for (const std::string& line :
       {"channel 0: cannot read rtsp://127.0.0.1:" + silent.number + "/a: nothing came within 0:02",
        "channel 1: cannot read udp://127.0.0.1:" + nobody.number + ": nothing came within 0:02",
        "channel 2: cannot read tcp://127.0.0.1:" + listening.number,
        std::string("channel 4: cannot read nothing://127.0.0.1/: Protocol not found\n")})
    EXPECT_TRUE(Has(said, line));
  const std::vector<Taken> taken = PicturesOf(mRoot.Path(), 3);
  ASSERT_GT(taken.size(), 20u);
  EXPECT_NEAR(taken.back().time - taken[taken.size() - 16].time, 3, 0.4);  // the first come in a burst
  ASSERT_EQ(mProgram.Shell("ffprobe -v error -show_entries format=duration -of csv=p=0 " + Export(3)), 0);
  EXPECT_NEAR(std::stod(mProgram.out), taken.back().time - taken.front().time, 0.5) << "as it is played";
}

}  // namespace
