// How a recording tells how it is doing: a camera that is lost and comes back, by name, in every form in which
// one can ask, to systemd and to the user's command; and stopping while a camera hangs.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>

#include "tests/support/Process.h"
#include "tests/support/RecorderProgram.h"

namespace {

using Json = nlohmann::json;

class HealthTest : public RecorderFixture {
 protected:
  ~HealthTest() override { close(mSocket); }
  std::unique_ptr<Process> Start(const std::string& command) {
    return std::make_unique<Process>(command + " >>" + mPath + "/log 2>&1");
  }
  void StartCamera() {
    mCamera = Start("ffmpeg -nostdin -v error -re -i " + mPath +
                    "/v.mp4 -c copy -f mpegts 'tcp://127.0.0.1:45871?listen=1'");
  }
  bool Await(const std::function<bool()>& condition) {
    return ::Await([&] { return Notified(), condition(); });  // whoever tells waits when nobody listens
  }
  // The recorder's line of status; empty when there is none.
  Json Recorder() {
    EXPECT_EQ(Run("status --json"), 0) << mProgram.err;
    const std::vector<Json> lines = mProgram.JsonLines();
    return lines.empty() || !lines.back().contains("recorder") ? Json() : lines.back()["recorder"];
  }
  bool IsState(const std::string& state) {
    const Json recorder = Recorder();
    return !recorder.empty() && recorder["channels"].size() == 1 && recorder["channels"][0]["state"] == state;
  }
  std::string Metrics() {
    EXPECT_EQ(Run("status --prometheus"), 0);
    return mProgram.out;
  }
  // What the user's command was told so far, by the name of the event, the last of each.
  std::map<std::string, Json> Events() {
    std::map<std::string, Json> events;
    for (const std::string& line : LinesOf(ReadText(mPath + "/events")))
      events[Json::parse(line)["event"]] = Json::parse(line);
    return events;
  }
  // What systemd was told so far.
  std::string Notified() {
    char text[500];
    for (ssize_t size; (size = recv(mSocket, text, sizeof text, MSG_DONTWAIT)) > 0;) {
      mNotified += std::string(text, static_cast<size_t>(size)) + "\n";
    }
    return mNotified;
  }

  const std::string mPath = mRoot.Path();
  std::unique_ptr<Process> mCamera, mRecorder;
  const int mSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::string mNotified;
};

TEST_F(HealthTest, SpeaksUp) {
  mProgram.MakeVideo(mPath + "/v.mp4", 25, "300k");
  ASSERT_EQ(Run("prepare --on-system-disk --disk a --size 4M --count 20"), 0);
  std::ofstream(mPath + "/c") << "root = " << mPath << "\ninput = 3:front=tcp://127.0.0.1:45871?password=abc\n"
                              << "input-timeout = 2\nretry = 3\non-event = \"sh -c 'cat >>" << mPath
                              << "/events'\"\n";
  fs::permissions(mPath + "/c", fs::perms::owner_read);
  ASSERT_EQ(mProgram.Shell(RECORDER_PROGRAM " config --config " + mPath + "/c"), 0) << mProgram.err;
  EXPECT_TRUE(Has(mProgram.out, "\ninput = 3:front=tcp://127.0.0.1:45871?password=***\n"));

  if (mProgram.Shell("unshare -m true") == 0) {
    EXPECT_EQ(mProgram.Shell("cd " + mPath + " && mkdir etc && cp c etc/recorder.conf && unshare -m sh -c '" +
                             "mount --bind etc /etc && exec " RECORDER_PROGRAM " config'"),
              0);
    EXPECT_EQ(mProgram.out.rfind("# /etc/recorder.conf\nroot = " + mPath + "\n", 0), 0u) << mProgram.out;
  }

  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (mPath + "/socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  StartCamera();
  mRecorder = Start("sh -c \"trap '' XFSZ; NOTIFY_SOCKET=" + mPath +
                    "/socket WATCHDOG_USEC=600000 exec " RECORDER_PROGRAM " --config " + mPath + "/c record\"");
  ASSERT_TRUE(Await([&] { return IsState("recording"); })) << ReadText(mPath + "/log");
  const Json recorder = Recorder();
  EXPECT_EQ(recorder["channels"][0]["name"], "front");
  EXPECT_EQ(recorder["channels"][0]["width"], 320);
  EXPECT_EQ(recorder["disks"][0]["state"], "used");
  EXPECT_TRUE(recorder["lives"].get<bool>() && !recorder["stuck"].get<bool>()) << recorder;
  EXPECT_LT(recorder["ageSeconds"], 3);
  EXPECT_TRUE(Await([&] { return !Recorder()["segment"].is_null(); }));
  EXPECT_TRUE(Has(Notified(), "READY=1"));
  EXPECT_TRUE(Has(mNotified, "WATCHDOG=1"));

  mCamera->Stop(SIGKILL);
  ASSERT_TRUE(Await([&] { return IsState("lost"); }));
  EXPECT_TRUE(Has(Metrics(), "recorder_channel_lost{channel=\"3\",name=\"front\"} 1\n"));
  EXPECT_TRUE(Has(mProgram.out, "recorder_up 1\n"));
  EXPECT_TRUE(Await([&] { return bool{Has(Notified(), "STATUS=recording 0 of 1 channels, 1 lost")}; }));
  StartCamera();
  ASSERT_TRUE(Await([&] { return IsState("recording"); }));
  EXPECT_EQ(Recorder()["channels"][0]["reconnects"], recorder["channels"][0]["reconnects"].get<int>() + 1);
  EXPECT_EQ(Run("export --channel front --since -1s --until now -o " + mPath + "/c.mp4"), 0) << mProgram.err;
  EXPECT_EQ(Run("timeline"), 0);
  for (const char* row : {"\nchannel 3 (front) ", "\ndisk a ", "\u2588 recorded"})
    EXPECT_TRUE(Has(mProgram.out, row));
  EXPECT_FALSE(Has(mProgram.out, "\033")) << "no colours in a file";

  // Files that take nothing any more: they are put out of use, then the disk, and recording pauses.
  const rlimit small = {16384, RLIM_INFINITY}, unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(prlimit(mRecorder->Id(), RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_TRUE(Await([&] { return Metrics().find("recorder_paused 1\n") != std::string::npos; }));
  EXPECT_TRUE(Run("status") == 0 && Has(mProgram.out, "(front): dropped, ")) << mProgram.out;
  ASSERT_EQ(prlimit(mRecorder->Id(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
  EXPECT_TRUE(Await([&] { return Events().count("recording-resumed") != 0; }));
  EXPECT_EQ(Events()["disk-aside"]["disk"], "a");
  EXPECT_EQ(Events()["disk-back"]["disk"], "a");
  EXPECT_GT(Events()["recording-resumed"]["dropped"], 0);
  EXPECT_NE(Events()["file-quarantined"]["path"].dump().find(mPath + "/disk/a/data_"), std::string::npos);

  // A camera that keeps its connection and hangs.
  mCamera->Send(SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  mRecorder->Send(SIGTERM);
  EXPECT_TRUE(Await([&] { return Recorder()["stopped"].get<bool>(); }));
  EXPECT_EQ(mRecorder->Stop(0), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  EXPECT_FALSE(Recorder()["lives"].get<bool>());
  EXPECT_TRUE(Has(Notified(), "STOPPING=1"));
  for (const char* event : {"channel-lost", "channel-back"}) {
    EXPECT_EQ(Events()[event]["channel"], 3);
    EXPECT_EQ(Events()[event]["address"], "tcp://127.0.0.1:45871?password=***");
  }
  EXPECT_EQ(ReadText(mPath + "/log").find("abc"), std::string::npos);
}

}  // namespace
