// The recorder's looking commands: clips, lists, the walk over all recordings, months, the menu. Real H.264
// recorded in two sessions, over several files and two disks; and recordings that change under the reader's
// hands.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "apps/recorder/base/Units.h"
#include "apps/recorder/clip/Clip.h"
#include "apps/recorder/looking/Recordings.h"
#include "platform/host/imf/ImfRecord.h"
#include "tests/support/RecorderProgram.h"

namespace recorder {
namespace {

using Json = nlohmann::json;

constexpr int64_t kStart = 1717199980;  // 2024-05-31T23:59:40Z
constexpr int kLength = 40;             // seconds of video
constexpr int kSecondSession = 60;      // seconds after the first one started
constexpr int kRate = 25;
constexpr int kGroups[] = {25, 32};  // pictures from key frame to key frame, by channel

class RecorderQuery : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TZ", "UTC", 1);
    sRoot = std::make_unique<TestRoot>();
    sWork = sRoot->Path() + "/work";
    fs::create_directory(sWork);
    sProgram = std::make_unique<RecorderProgram>(sWork);
    std::string inputs;
    for (int channel : {0, 1}) {
      const std::string video = sWork + "/" + std::to_string(channel) + ".mp4";
      // The second one's pictures in front of a key frame need the group before.
      sProgram->MakeVideo(video, kGroups[channel],
                          channel == 0 ? "500k" : "500k -x264-params open-gop=1:b-pyramid=none");
      inputs += " --input " + video;
      sVideos.push_back(sProgram->PicturesOf(video));
    }
    for (const std::string disk : {"a", "b"})
      ASSERT_EQ(Run("prepare --on-system-disk --size 1M --count 9 --disk " + disk), 0);
    for (int64_t start : {kStart, kStart + kSecondSession})
      ASSERT_EQ(Run("record --segment 6 --clock stream --start " + std::to_string(start) + inputs), 0);
  }

  static int Run(const std::string& arguments, const std::string& root = sRoot->Path()) {
    return sProgram->Run(root, arguments);
  }
  static std::string Since(double since, double until) {
    return Text(" --since %.3f --until %.3f ", kStart + since, kStart + until);
  }
  // The report of an export that has to work.
  static Json Export(const std::string& clip, double since, double until, int channel,
                     const std::string& root = sRoot->Path()) {
    const int status =
        Run("export --json --force -o " + clip + Since(since, until) + "--channel " + std::to_string(channel),
            root);
    const Json report = sProgram->JsonLines().at(0);
    EXPECT_EQ(status, sProgram->JsonLines().back()["missingShare"] > 0.5 ? 1 : 0)
        << "most of the range is missing";
    return report;
  }
  // Completed recordings.
  static std::map<std::string, std::string> All() { return RecordFilesIn(sRoot->Path(), "_cm"); }

  static void ExpectDecodable(const std::string& clip) {
    EXPECT_EQ(sProgram->Shell("ffmpeg -v error -i " + clip + " -f null -"), 0);
    EXPECT_EQ(sProgram->err, "");
  }

  static inline std::unique_ptr<TestRoot> sRoot;
  static inline std::unique_ptr<RecorderProgram> sProgram;
  static inline std::string sWork;
  static inline std::vector<std::vector<Picture>> sVideos;  // by channel
};

// Pictures lost, doubled or altered, jumps in time where files are joined, a clip that begins too late.
TEST_F(RecorderQuery, ExportsExactlyTheRange) {
  const std::tuple<double, double, int> rows[] = {{3.3, 17.9, 0}, {6, 12, 1},  {6.2, 6.6, 1},   {0, 40, 1},
                                                  {38, 50, 0},    {-20, 2, 1}, {35.5, 70.2, 0}, {45, 70, 1}};
  for (const auto& [since, until, channel] : rows) {
    SCOPED_TRACE(Since(since, until) + std::to_string(channel));
    // What it should hold: per session, from the last key frame at or before its begin on, what is decoded up
    // to the last picture shown before its end, and whatever is shown before one of these.
    const std::vector<Picture>& video = sVideos[channel];
    Names wanted;
    double begin = 1e9;
    for (int session : {0, kSecondSession}) {
      size_t first = 0, end = 0;
      for (size_t i = 0; i < video.size(); i++) {
        const double time = session + video[i].time;
        if (video[i].key && time <= since + 1e-6) first = i;
        if (time < until - 1e-6) end = i + 1;
      }
      double shown = 0;
      for (size_t i = first; i < end; i++) shown = std::max(shown, video[i].time);
      while (end > first && end < video.size() && video[end].time < shown) end++;
      if (end <= first || session + kLength <= since) continue;
      begin = std::min(begin, session + video[first].time);
      for (size_t i = first; i < end; i++)
        if (video[i].time >= video[first].time) wanted.push_back(video[i].hash);
    }
    const std::string clip = sWork + "/clip.mp4";
    const Json report = Export(clip, since, until, channel);
    EXPECT_EQ(report["start"], FormatExactTime(std::llround((kStart + begin) * 1e6)));
    EXPECT_EQ(report["missing"].empty(), since >= 0 && until <= kLength) << sProgram->err;

    Names hashes;
    std::vector<double> times;
    for (const Picture& picture : sProgram->PicturesOf(clip)) {
      hashes.push_back(picture.hash);
      times.push_back(picture.time);
    }
    EXPECT_EQ(hashes, wanted);
    EXPECT_NEAR(report["seconds"], static_cast<double>(wanted.size()) / kRate, 0.001);
    std::sort(times.begin(), times.end());
    for (size_t i = 0; i < times.size(); i++) ASSERT_NEAR(times[i], static_cast<double>(i) / kRate, 0.001) << i;
    ExpectDecodable(clip);
  }
}

// A clip goes on behind damage, never shows a picture without the ones it needs, and says what is missing.
TEST_F(RecorderQuery, ExportGoesOnBehindDamage) {
  const std::string root = sRoot->Path() + "x";
  fs::create_directory(root);
  fs::copy(sRoot->Path() + "/disk", root + "/disk", fs::copy_options::recursive);
  const std::string damaged = std::next(RecordFilesIn(root, "_cm").begin())->second;
  std::fstream file(damaged);
  file.seekp(400000).write(std::string(20000, 'x').data(), 20000);
  file.close();
  const std::string clip = sWork + "/damaged.mp4";
  for (int channel : {0, 1}) {
    EXPECT_EQ(Export(clip, 4, 16, channel, root)["missing"].size(), 1u);
    EXPECT_TRUE(Has(sProgram->err, "damaged in " + damaged));
    const std::vector<Picture> pictures = sProgram->PicturesOf(clip);
    EXPECT_LT(pictures.size(), 12u * kRate);
    EXPECT_GE(pictures.size(), 12u * kRate - 2 * kGroups[channel]);
    ExpectDecodable(clip);
  }
  fs::remove_all(root);
}

TEST_F(RecorderQuery, ListsAgreeWithTheNames) {
  const std::map<std::string, std::string> names = All();
  ASSERT_GT(names.size(), 9u) << "both disks are in use";
  Names paths;
  for (const auto& [name, path] : names) paths.push_back(path);
  // The walk goes back to the first and on to the last.
  for (const std::string& command : {std::string("list"), "play-list --at " + std::to_string(kStart + 62)}) {
    EXPECT_EQ(Run(command + " --json"), 0);
    Names listed;
    for (const Json& line : sProgram->JsonLines()) listed.push_back(line["path"]);
    EXPECT_EQ(listed, paths) << command;
  }
  EXPECT_EQ(Run("list --json --channel 1" + Since(41, 59)), 1) << "a gap";
  EXPECT_TRUE(Has(sProgram->err, std::next(names.begin(), names.size() / 2)->first)) << "the next: ";

  EXPECT_EQ(Run("menu --json"), 0);
  int64_t megabytes = 0;
  for (const Json& line : sProgram->JsonLines()) megabytes += line["megabytes"].get<int64_t>();
  EXPECT_EQ(megabytes, 9437184 / 1000000 + static_cast<int64_t>((names.size() - 9) << 20) / 1000000);
  EXPECT_EQ(Run("status --json"), 0);
  EXPECT_EQ(sProgram->JsonLines().at(0)["allDisks"]["remainingMiB"], 18 - names.size());

  EXPECT_EQ(Run("months --json"), 0);
  EXPECT_EQ(sProgram->out, "{\"year\":2024,\"month\":5}\n{\"year\":2024,\"month\":6}\n");
}

TEST_F(RecorderQuery, RefusesInOneLine) {
  const std::string there = sWork + "/there.mp4";
  WriteText(there, "mine");
  const std::string good = Since(1, 2);
  const std::string out = " -o " + sWork + "/new/x.mp4";
  fs::create_directory(sWork + "/new");
  WriteText(sWork + "/conf", "input # what for?\n");
  const std::tuple<std::string, int, const char*> cases[] = {
      {"list >/dev/full", 2, ""},
      {"list --since ''", 2, "--since has no value"},
      {"list --since= now", 2, "--since has no value"},
      {"months a b", 2, "not expected: a b"},
      {"--config " + sWork + " list", 2, "Is a directory"},
      {"--config " + sWork + "/conf list", 2, "conf:1: input has no value"},
      {"record --input x --on-event " + sWork + "/nope", 2, "/nope: No such file"},
      {"record --input x --on-event no-such-command", 2, "cannot run no-such-command"},
      {"record --input x --on-event " + sWork, 2, "Permission denied"},
      {"record --input x --camera-clock 0-1", 2, "channel 1 has no input"},
      {"--config /dev/null export --since someday --until now" + out, 2, "--since someday is not a time"},
      {"export" + Since(5, 4) + out, 2, "before it begins"},
      {"export --channel 2" + good + out, 2, "channel 2 was never recorded: there is 0-1"},
      {"export --channel 1" + Since(42, 50) + out, 1,
       "the last recording before it ends at 2024-06-01T00:00:20"},
      {"export" + good + "-o " + sWork + "/no/x.mp4", 2, "No such file or directory"},
      {"export" + good + "-o " + there, 2, "exists already"},
      {"export" + good + "-o " + sRoot->Path() + "/disk/a/x.mp4", 2, "for recordings only"},
  };
  for (const auto& [arguments, status, line] : cases) {
    EXPECT_EQ(Run(arguments), status) << arguments;
    EXPECT_TRUE(Has(sProgram->err, line)) << arguments;
    EXPECT_EQ(LinesOf(sProgram->err).size(), 1u) << sProgram->err;
  }
  EXPECT_TRUE(fs::is_empty(sWork + "/new"));
  EXPECT_EQ(fs::file_size(there), 4u);
}

// --- Recordings that change under the reader's hands. A picture's bytes tell where it comes from. ---

class ChangingRecordings : public testing::Test {
 protected:
  static constexpr size_t kPictureSize = 5000;  // more than a block, so that none is read along with another

  // Ten pictures a second, a key frame a second.
  static ImfPacket Picture(int64_t i, char what) {
    ImfPacket packet;
    packet.keyFrame = i % 10 == 0;
    packet.time = kStart * kMicros + i * 100000;
    packet.pts = packet.dts = i * 100;
    packet.duration = 100;
    packet.data.assign(kPictureSize, static_cast<uint8_t>(what));
    return packet;
  }
  void Put(ImfWriter* writer, int64_t first, int64_t count, char what) {
    for (int64_t i = first; i < first + count; i++)
      ASSERT_EQ(writer->Write(Picture(i, what)), ImfWriteResult::kWritten);
  }
  void Open(ImfWriter* writer, const std::string& path, int64_t second) {
    ImfStreamInfo stream;
    stream.codecName = "mjpeg";
    stream.width = stream.height = 16;
    stream.timeBaseDenominator = 1000;
    ASSERT_TRUE(writer->Open(path, static_cast<uint32_t>(kStart + second)));
    ASSERT_EQ(writer->AddStream(stream), ImfWriteResult::kWritten);
  }
  std::string Name(int64_t second, int64_t end) {
    const auto from = static_cast<unsigned>(kStart + second), to = static_cast<unsigned>(kStart + end);
    return mDirectory + (end == 0 ? Text("%x_00000000.imf", from) : Text("%x_%x_cm1.imf", from, to));
  }
  std::string MakeFile(int64_t second, int64_t end) { return MakeTestFile(Name(second, end), 1 << 20); }

  // Exports ten seconds; `change` is called when `when` pictures are in the clip. What the pictures hold, in
  // runs.
  std::string Export(int64_t when, const std::function<void()>& change) {
    Disks disks;
    std::string root = mRoot.Path();
    EXPECT_EQ(OpenToLook(&root, &disks), std::nullopt);
    const Recordings recordings(disks);
    Clip clip(disks, recordings, 0, {kStart * kMicros, (kStart + 10) * kMicros});
    const std::string path = mRoot.Path() + "/clip.mp4";
    mResult = clip.Write({path, ClipFormat::kMp4}, [&](double) {
      if (clip.Writer().Packets() == when) change();
      return true;
    });
    for (const Clip::Missing& each : clip.AllMissing()) mMissing += each.reason;
    const std::string bytes = ReadText(path);
    std::string runs;
    for (const char c : {'A', 'B', 'C'}) {
      const std::string picture(kPictureSize, c);
      int count = 0;
      for (size_t at = 0; (at = bytes.find(picture, at)) != std::string::npos; at += kPictureSize) count++;
      runs += std::to_string(count) + c;
    }
    return runs;
  }

  TestRoot mRoot;
  const std::string mDirectory = mRoot.AddDisk("a", 1) + "/data_00000001/";
  Clip::Result mResult = Clip::Result::kFailed;
  std::string mMissing;
};

class GrowingRecordings : public ChangingRecordings, public testing::WithParamInterface<bool> {};
// The first recording is in progress when the export begins, or complete and the latest.
INSTANTIATE_TEST_SUITE_P(Recordings, GrowingRecordings, testing::Bool());

TEST_P(GrowingRecordings, AreFollowed) {
  ImfWriter first;
  ImfWriter second;
  const std::string growing = MakeFile(0, 0);
  const std::string next = MakeTestFile(mRoot.Path() + "/next", 1 << 20);
  Open(&first, growing, 0);
  Put(&first, 0, 25, 'A');
  const auto complete = [&] {
    Put(&first, 25, 15, 'A');
    ASSERT_TRUE(first.Close());
    fs::rename(growing, Name(0, 4));
  };
  if (GetParam()) complete();
  const std::string pictures = Export(20, [&] {
    if (!GetParam()) complete();
    Open(&second, next, 4);
    Put(&second, 40, 30, 'B');
    fs::rename(next, Name(4, 0));
  });
  EXPECT_EQ(pictures, "40A30B0C") << mMissing;
  EXPECT_EQ(mResult, Clip::Result::kDone);
}

TEST_F(ChangingRecordings, AreNotMixedUpWithWhatReplacesThem) {
  for (const auto& [second, what] : {std::pair(int64_t{0}, 'A'), std::pair(int64_t{5}, 'B')}) {
    ImfWriter writer;
    Open(&writer, MakeFile(second, second + 5), second);
    Put(&writer, second * 10, 50, what);
    ASSERT_TRUE(writer.Close());
  }
  ImfWriter newer;
  const std::string pictures = Export(20, [&] {
    fs::rename(Name(0, 5), Name(100, 0));
    Open(&newer, Name(100, 0), 100);
    Put(&newer, 0, 50, 'C');
  });
  EXPECT_EQ(pictures, "20A50B0C");
  EXPECT_TRUE(Has(mMissing, "recycled meanwhile"));
}

// Under the sanitizers: sums of such times overflow.
TEST_F(ChangingRecordings, TimesNearTheEndsOf64BitsAreLeftOut) {
  ImfWriter writer;
  Open(&writer, MakeTestFile(Name(0, 10), 4 << 20), 0);
  for (int64_t i = 0; i < 10; i++) {
    Put(&writer, i * 10, 10, 'A');
    for (const int64_t odd : {INT64_MIN, INT64_MIN + 1, INT64_MAX, INT64_MAX / 1000}) {
      for (auto field : {&ImfPacket::time, &ImfPacket::pts, &ImfPacket::dts, &ImfPacket::duration}) {
        ImfPacket packet = Picture(i * 10 + 9, 'B');
        packet.keyFrame = i % 2 == 0;
        packet.*field = odd;
        ASSERT_EQ(writer.Write(packet), ImfWriteResult::kWritten);
      }
    }
  }
  ASSERT_TRUE(writer.Close());
  const std::string pictures = Export(-1, [] {});
  EXPECT_EQ(mResult, Clip::Result::kDone);
  EXPECT_EQ(pictures.substr(0, 4), "100A") << pictures << mMissing;
  EXPECT_TRUE(Has(mMissing, "has a time that can't be"));
}

}  // namespace
}  // namespace recorder
