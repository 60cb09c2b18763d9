// What is told of cameras that end early or pause: one that lives for 30 seconds, one that ends after 5, and
// one without pictures from second 10 to 18.
#include <cstdlib>

#include "SearchDb.h"
#include "platform/host/searchdb/SearchDbRebuild.h"
#include "tests/support/RecorderProgram.h"

namespace {

using Json = nlohmann::json;

constexpr int64_t kStart = 1717200000;  // 2024-06-01T00:00:00Z
using Seconds = std::vector<std::pair<double, double>>;

double Second(const std::string& time) {  // of this minute
  return time.substr(0, 17) == "2024-06-01T00:00:" ? std::stod(time.substr(17)) : -1;
}

Seconds SecondsOf(const Json& spans) {
  Seconds seconds;
  for (const Json& span : spans) seconds.emplace_back(Second(span["start"]), Second(span["end"]));
  return seconds;
}

using RecorderCoverage = RecorderFixture;

TEST_F(RecorderCoverage, IsWhatTheCamerasSent) {
  setenv("TZ", "UTC", 1);
  fs::create_directories(mRoot.Path() + "/made");
  std::string inputs;
  for (const char* what :
       {"-t 30", "-t 5", "-t 30 -vf \"select='not(between(t,10,17.97))'\" -fps_mode passthrough"}) {
    const std::string video = mRoot.Path() + "/made/" + std::to_string(inputs.size()) + ".mp4";
    mProgram.MakeVideo(video, std::string("-preset ultrafast -g 25 ") + what, "testsrc2=size=160x120:rate=25");
    inputs += " --input " + video;
  }
  ASSERT_EQ(Run("prepare --on-system-disk --size 4M --count 4 --disk a"), 0) << mProgram.err;
  ASSERT_EQ(Run("record --segment 60 --clock stream --start " + std::to_string(kStart) + inputs), 0)
      << mProgram.err;
  const std::string directory = DiskPath("a") + "/data_00000001/";
  const auto chart = [&] {
    TimeSearchChart all;
    all.endTime = INT32_MAX;
    EXPECT_TRUE(SearchDb(directory, SEARCH_DB_READ).CollectData(&all));
    return all.recordings.size() == 1 ? all.recordings[0].spans : std::vector<PictureSpan>();
  };

  const auto at = [](double second) { return (kStart * 1000 + static_cast<int64_t>(second * 1000)) * 1000; };
  const std::vector<PictureSpan> spans = {
      {0, at(0), at(30)}, {1, at(0), at(5)}, {2, at(0), at(10)}, {2, at(18), at(30)}};
  const std::vector<PictureSpan> charted = chart();
  ASSERT_EQ(charted.size(), spans.size());
  for (size_t i = 0; i < spans.size(); ++i) {
    EXPECT_EQ(charted[i].channel, spans[i].channel);
    EXPECT_NEAR(static_cast<double>(charted[i].begin - spans[i].begin), 0, 50000) << i;
    EXPECT_NEAR(static_cast<double>(charted[i].end - spans[i].end), 0, 50000) << i;
  }

  // By the database, and without one by the file.
  for (const bool hasDb : {true, false}) {
    SCOPED_TRACE(hasDb);
    if (!hasDb) fs::remove(directory + "search.fdb");
    EXPECT_EQ(Run("list --json"), 0);
    const Json listed = mProgram.JsonLines().at(0)["partly"];
    ASSERT_EQ(listed.size(), 2u) << listed;
    EXPECT_NEAR(SecondsOf(listed[0]["recorded"]).at(0).second, 5, 0.05);
    EXPECT_NEAR(SecondsOf(listed[1]["recorded"]).at(0).second, 10, 0.05);
    EXPECT_NEAR(SecondsOf(listed[1]["recorded"]).at(1).first, 18, 0.05);

    EXPECT_EQ(Run("timeline --json"), 0);
    const std::vector<Json> rows = mProgram.JsonLines();
    EXPECT_EQ(SecondsOf(rows.at(0)["recorded"]), (Seconds{{0, 30}}));
    EXPECT_EQ(SecondsOf(rows.at(1)["recorded"]), (Seconds{{0, 5}}));
    EXPECT_EQ(SecondsOf(rows.at(2)["recorded"]), (Seconds{{0, 10}, {18, 30}}));
    EXPECT_EQ(SecondsOf(rows.at(2)["gaps"]), (Seconds{{10, 18}}));
    EXPECT_EQ(!Has(mProgram.err, "differ in 1 recordings"), hasDb) << mProgram.err;
  }

  // Channel, from, to, what is missing.
  const std::tuple<int, double, double, Seconds> clips[] = {
      {2, 5, 25, {{10, 18}}}, {2, 12, 15, {{12, 15}}}, {2, 5, 9, {}}, {1, 2, 20, {{5, 20}}}};
  for (const auto& [channel, since, until, expected] : clips) {
    const std::string range =
        Text(" --channel %d --since %.3f --until %.3f", channel, kStart + since, kStart + until);
    SCOPED_TRACE(range);
    Run("export --json --force -o " + mRoot.Path() + "/made/clip.mp4" + range);
    ASSERT_EQ(mProgram.JsonLines().size(), 1u) << mProgram.err;
    const Seconds missing = SecondsOf(mProgram.JsonLines()[0]["missing"]);
    ASSERT_EQ(missing.size(), expected.size()) << mProgram.out;
    for (size_t i = 0; i < missing.size(); ++i) {
      EXPECT_NEAR(missing[i].first, expected[i].first, 0.05);
      EXPECT_NEAR(missing[i].second, expected[i].second, 0.05);
    }
  }

  SearchDbRebuildReport report;
  ASSERT_EQ(RebuildSearchDb(directory, nullptr, &report), SearchDbRebuildResult::kDone) << report.error;
  EXPECT_EQ(chart(), charted) << "made anew, it is what recording had made";
}

}  // namespace
