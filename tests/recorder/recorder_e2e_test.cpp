// The recorder as its users run it: the program itself, real H.264, small disks.
#include "platform/host/imf/ImfFormat.h"
#include "platform/host/imf/ImfRecord.h"
#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

namespace {

struct Video {
  std::string path;
  Names packets;  // checksum and size of each, in order, as a different reader finds them
};

class RecorderTest : public RecorderFixture {
 protected:
  static void SetUpTestSuite() {
    sDirectory = std::make_unique<TestRoot>();
    RecorderProgram tools(sDirectory->Path());
    for (const auto& [name, group] :
         {std::pair("/a.mp4", 25), std::pair("/b.ts", 2000)}) {  // 2000: one key frame
      Video video{sDirectory->Path() + name, {}};
      tools.MakeVideo(video.path, group, "1000k");
      for (const Picture& picture : tools.PicturesOf(video.path)) video.packets.push_back(picture.hash);
      ASSERT_EQ(video.packets.size(), 1000u);
      sVideos.push_back(video);
    }
  }

  void Prepare(const std::string& disk, int count) {
    RecorderFixture::Prepare(disk, count);
    mInodes[disk] = InodesOf(DiskPath(disk));
    EXPECT_EQ(mInodes[disk].size(), static_cast<size_t>(count));
  }
  int Record(const std::string& start, const std::string& more = "", const Video& first = sVideos[0]) {
    return Run("record --clock stream --input " + first.path + " --input " + sVideos[1].path + " --start " +
               start + " " + more);
  }

  std::map<std::string, std::string> RecordFiles() { return RecordFilesIn(mRoot.Path()); }
  // Per disk, status agrees with the directories, and no file was made or lost.
  void ExpectSound(bool writing = false) {
    ASSERT_EQ(Run("status --json"), 0) << mProgram.err;
    std::vector<nlohmann::json> lines = mProgram.JsonLines();
    if (!lines.empty() && lines.back().contains("recorder")) lines.pop_back();
    EXPECT_EQ(lines.size(), mInodes.size());
    int writers = 0;
    for (const auto& status : lines) {
      const std::string disk = status["disk"];
      std::map<std::string, int> counts;
      for (const auto& file : PlacesOf(DiskPath(disk))) counts[file.second.begin()->substr(0, 5)]++;
      EXPECT_EQ(status["free"], counts["imf_f"]);
      EXPECT_EQ(status["used"], counts["data_"]);
      EXPECT_EQ(status["quarantined"], counts["imf_e"]);
      ExpectEachInOnePlace(DiskPath(disk), mInodes[disk]);
      writers += status["writing"].get<bool>();
    }
    EXPECT_EQ(writers, writing ? 1 : 0);
  }

  // Records two videos onto two disks that are too small for them.
  void ExpectLatestPackets(const Video& first, bool keyFramesFirst) {
    Prepare("a", 4);
    Prepare("b", 3);
    ASSERT_EQ(Record("2024-05-01T12:00:00Z", "--segment 10", first), 0) << mProgram.err;
    ExpectSound();
    EXPECT_EQ(RecordFiles().size(), 7u) << "both disks are full";
    std::map<int, Names> stored;  // by channel, in order of recording
    for (const auto& file : RecordFiles()) {
      ImfReader reader;
      EXPECT_TRUE(reader.Open(file.second)) << reader.Error();
      std::set<int> described;
      bool isFirst = true;
      for (ImfReader::Item item; (item = reader.Next()) != ImfReader::Item::kEnd;) {
        if (item == ImfReader::Item::kStream) {
          described.insert(reader.Stream().channel);
          EXPECT_FALSE(reader.Stream().extraData.empty());
          continue;
        }
        ASSERT_EQ(item, ImfReader::Item::kPacket) << "damaged: " << file.second;
        const ImfPacket& packet = reader.Packet();
        EXPECT_EQ(described.count(packet.channel), 1u) << "a file can be played on its own";
        EXPECT_TRUE(!keyFramesFirst || !isFirst || (packet.keyFrame && packet.channel == 0)) << file.second;
        isFirst = false;
        const auto size = static_cast<unsigned>(packet.data.size());
        stored[packet.channel].push_back(Text("CRC32:%08x%u", imf::Crc(packet.data.data(), size), size));
      }
    }
    for (int channel : {0, 1}) {
      const Names& source = (channel == 0 ? first : sVideos[1]).packets;
      const Names& kept = stored[channel];
      ASSERT_GT(kept.size(), 400u);
      ASSERT_LT(kept.size(), source.size()) << "something was recycled";
      EXPECT_EQ(kept, Names(source.end() - static_cast<long>(kept.size()), source.end())) << channel;
    }
  }

  static inline std::unique_ptr<TestRoot> sDirectory;
  static inline std::vector<Video> sVideos;

  std::map<std::string, std::set<unsigned long>> mInodes;
};

// Packets lost or doubled where one file ends and the next begins, or where a disk wraps around.
TEST_F(RecorderTest, KeepsTheLatestPackets) { ExpectLatestPackets(sVideos[0], true); }
TEST_F(RecorderTest, KeepsTheLatestPacketsWithoutKeyFrames) { ExpectLatestPackets(sVideos[1], false); }

TEST_F(RecorderTest, StopsAndComesBack) {
  Prepare("a", 20);
  const auto begin = [&](size_t files) {
    auto recorder = std::make_unique<Process>(RECORDER_PROGRAM " --root " + mRoot.Path() + " record --input " +
                                              sVideos[0].path + " --input /nonexistent.mp4 >/dev/null 2>&1");
    EXPECT_TRUE(Await([&] { return RecordFiles().size() == files; }));
    usleep(1200000);
    return recorder;
  };
  auto recorder = begin(1);
  ExpectSound(true);
  EXPECT_EQ(Run("record --input " + sVideos[1].path), 2) << "in use";
  EXPECT_EQ(recorder->Stop(SIGTERM), 0);
  ASSERT_EQ(RecordFiles().size(), 1u);
  EXPECT_TRUE(Has(RecordFiles().begin()->first, "_cm1.imf")) << "completed";

  EXPECT_EQ(begin(2)->Stop(SIGKILL), -SIGKILL);
  ASSERT_EQ(RecordFiles().size(), 2u);
  const std::string unfinished = RecordFiles().rbegin()->first;
  EXPECT_TRUE(Has(unfinished, "_00000000.imf"));
  ExpectSound();
  EXPECT_EQ(RecordFiles().rbegin()->first, unfinished) << "looking repairs nothing";

  ASSERT_EQ(Record("2033-01-01T00:00:00Z", "--segment 3600 --no-overwrite"), 0) << mProgram.err;
  EXPECT_EQ(RecordFiles().count(unfinished), 0u);
  ExpectSound();
}

// Sound that is lost, doubled or shifted against its pictures: where segments meet, behind a hole in it, by a
// file whose sound is stored elsewhere than its pictures, by headers that a container does not want.
TEST_F(RecorderTest, SoundStaysWithItsPictures) {
  const std::tuple<std::string, std::string, std::string, const char*, bool> rows[] = {
      // ending of the input, options, ending of the clip, what the export says of sound that does not fit,
      // whether packets are as they were
      {"mp4", "-c:a aac", "mp4", nullptr, true},
      {"mp4", "-c:a aac -frag_duration 700000", "mkv", nullptr, true},
      {"ts", "-c:a aac", "mp4", nullptr, false},
      {"mkv", "-c:a libopus -af aselect='not(between(t\\,5\\,7))'", "mp4", nullptr, true},
      {"mkv", "-c:a pcm_mulaw -ar 8000", "mp4", "'pcm_mulaw' cannot be put into an MP4 file; .mov can hold it",
       true},
      {"mkv", "-c:a pcm_mulaw -ar 8000", "mov", nullptr, false},
  };
  Prepare("a", 9);
  int64_t start = 1717199980;
  for (const auto& [from, options, to, leftOut, isSame] : rows) {
    SCOPED_TRACE(from + " " + options + " " + to);
    const std::string input = mRoot.Path() + "/in." + from, clip = mRoot.Path() + "/clip." + to;
    mProgram.MakeVideo(input, "-preset ultrafast -bf 2 -g 25 -b:v 200k " + options,
                       "testsrc2=s=320x240:r=25 -f lavfi -i sine=r=48000 -t 12");
    ASSERT_EQ(Run("record --segment 3 --clock stream --start " + std::to_string(start) + " --input " + input),
              0);
    ASSERT_EQ(Run(Text("export --force --since %ld.3 --until %ld -o ", start + 2, start + 10) + clip), 0);
    const bool isLeftOut = leftOut != nullptr;
    EXPECT_EQ(mProgram.err.find(isLeftOut ? leftOut : "not in the clip") != std::string::npos, isLeftOut)
        << mProgram.err;
    EXPECT_EQ(mProgram.PicturesOf(clip).size(), 8u * 25);
    EXPECT_EQ(mProgram.Shell("ffmpeg -v error -xerror -i " + clip + " -f null -"), 0) << mProgram.err;
    double first[2] = {1e9, 1e9};
    double shift = 0;
    for (const char* kind : {"v", "a"}) {
      std::map<std::string, double> source;
      for (const Picture& packet : mProgram.PicturesOf(input, kind)) source[packet.hash] = packet.time;
      const std::vector<Picture> packets = mProgram.PicturesOf(clip, kind);
      EXPECT_EQ(packets.empty(), isLeftOut && *kind == 'a');
      for (const Picture& packet : packets) {
        first[*kind == 'a'] = std::min(first[*kind == 'a'], packet.time);
        if (*kind == 'v') shift = source[packet.hash] - packet.time;
        if (!isSame || *kind == 'v') continue;
        ASSERT_NEAR(source.at(packet.hash) - packet.time, shift, 0.002);
      }
    }
    EXPECT_TRUE(isLeftOut || std::abs(first[0] - first[1]) < 0.024) << first[0] << " " << first[1];
    start += 100;
  }
  ASSERT_EQ(
      Run(Text("record --no-audio --clock stream --start %ld --input ", start) + mRoot.Path() + "/in.mp4"), 0);
  EXPECT_TRUE(Has(mProgram.out, " 300 packets"));
}

// A header that does not fit what comes later; standard output that holds anything else than the clip.
TEST_F(RecorderTest, NewParametersBeginANewPart) {
  Prepare("a", 9);
  const std::string in = mRoot.Path() + "/in.ts", clip = mRoot.Path() + "/x.mp4";
  for (const char* size : {"320x240", "640x480"})
    mProgram.MakeVideo("- >>" + in, "-preset ultrafast -g 25 -f mpegts", Text("testsrc2=s=%s:r=25 -t 4", size));
  ASSERT_EQ(Run("record --segment 3 --clock stream --start 1717199980 --input " + in), 0);
  const std::string range = " --since 1717199980 --until 1717199988 -o ";
  ASSERT_EQ(Run("export" + range + clip), 0) << mProgram.err;
  EXPECT_TRUE(Has(mProgram.out, "/x-2.mp4: channel 0"));
  const std::string probe =
      "ffprobe -v error -count_packets -show_entries stream=width,nb_read_packets -of csv=p=0 ";
  EXPECT_EQ(mProgram.Shell(probe + clip + "; " + probe + mRoot.Path() + "/x-2.mp4"), 0);
  EXPECT_EQ(mProgram.out, "320,100\n640,100\n");
  for (const char* format : {"mp4", "mkv"}) {
    const std::string piped = mRoot.Path() + "/piped";
    EXPECT_EQ(Run("export --format " + std::string(format) + range + "- | cat >" + piped), 0);
    EXPECT_TRUE(Has(mProgram.err, "parameters of pictures or sound change"));
    EXPECT_EQ(mProgram.Shell(probe + piped), 0);
    EXPECT_EQ(mProgram.out, "320,100\n");
  }
}

TEST_F(RecorderTest, RefusesStopsAndSavesWhatOthersLeft) {
  fs::create_directories(DiskPath("gone"));
  EXPECT_EQ(Record("2024-05-01T12:00:00Z"), 2) << "no disk is there";
  EXPECT_TRUE(NamesIn(DiskPath("gone")).empty()) << "nothing was written to where it belongs";
  Prepare("a", 3);

  EXPECT_EQ(Record("2024-05-01T12:00:00Z", "--disk gone"), 2);
  EXPECT_TRUE(RecordFiles().empty());
  EXPECT_EQ(Record("2024-05-01T12:00:00Z", "--no-overwrite"), 1) << "full";
  EXPECT_EQ(RecordFiles().size(), 3u);
  for (const auto& file : RecordFiles()) EXPECT_TRUE(Has(file.first, "_cm3.imf")) << "completed";

  // The last file of a directory takes the directory with it, but not what somebody has put there.
  const std::string oldest = fs::path(RecordFiles().begin()->second).parent_path();
  for (const char* name : {"holiday.imf", "notes.txt"}) WriteText(oldest + "/" + name, name);
  ASSERT_EQ(Record("2024-05-01T13:00:00Z"), 0) << mProgram.err;
  EXPECT_FALSE(fs::exists(oldest));
  EXPECT_EQ(ReadText(DiskPath("a") + "/imf_error/holiday.imf"), "holiday.imf");
  EXPECT_EQ(ReadText(DiskPath("a") + "/imf_error/notes.txt"), "notes.txt");
}

}  // namespace
