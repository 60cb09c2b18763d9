// How a recording tells how it is doing: a camera that is lost and comes back, by name, in every form in which
// one can ask, to systemd and to the user's command; and stopping while a camera hangs.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/support/RecorderProgram.h"
#include "tests/support/TestDisk.h"

namespace {

using Json = nlohmann::json;

class HealthTest : public testing::Test {
 protected:
  ~HealthTest() override {
    for (const pid_t pid : {mCamera, mRecorder}) {
      if (pid != 0) kill(pid, SIGKILL);
    }
    close(mSocket);
  }
  // A process of its own, which the shell leaves behind.
  pid_t Start(const std::string& command) {
    EXPECT_EQ(mProgram.Shell(command + " >>" + mRoot.Path() + "/log 2>&1 & echo $!"), 0);
    return std::atoi(mProgram.out.c_str());
  }
  void StartCamera() {
    mCamera = Start("exec ffmpeg -nostdin -v error -re -i " + mRoot.Path() +
                    "/v.mp4 -c copy -f mpegts 'tcp://127.0.0.1:45871?listen=1'");
  }
  bool Await(const std::function<bool()>& condition, int seconds = 20) {
    for (int i = 0; i < seconds * 10; i++) {
      Notified();  // whoever tells waits when nobody listens
      if (condition()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  // The recorder's line of status; empty when there is none.
  Json Recorder() {
    EXPECT_EQ(mProgram.Run(mRoot.Path(), "status --json"), 0) << mProgram.err;
    const std::vector<Json> lines = mProgram.JsonLines();
    return lines.empty() || !lines.back().contains("recorder") ? Json() : lines.back()["recorder"];
  }
  bool IsState(const std::string& state) {
    const Json recorder = Recorder();
    return !recorder.empty() && recorder["channels"].size() == 1 && recorder["channels"][0]["state"] == state;
  }
  std::string Metrics() {
    EXPECT_EQ(mProgram.Run(mRoot.Path(), "status --prometheus"), 0);
    return mProgram.out;
  }
  // What the user's command was told so far, by the name of the event, the last of each.
  std::map<std::string, Json> Events() {
    std::istringstream lines(ReadText(mRoot.Path() + "/events"));
    std::map<std::string, Json> events;
    for (std::string line; std::getline(lines, line);) events[Json::parse(line)["event"]] = Json::parse(line);
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
  void Listen(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  TestRoot mRoot;
  RecorderProgram mProgram{mRoot.Path()};
  pid_t mCamera = 0;
  pid_t mRecorder = 0;
  const int mSocket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::string mNotified;
};

TEST_F(HealthTest, SpeaksUp) {
  const std::string root = mRoot.Path();
  mProgram.MakeVideo(root + "/v.mp4", 25, "300k");
  ASSERT_EQ(mProgram.Run(root, "prepare --on-system-disk --disk a --size 4M --count 20"), 0);
  std::ofstream(root + "/c") << "root = " << root << "\ninput = 3:front=tcp://127.0.0.1:45871?password=abc\n"
                             << "input-timeout = 2\nretry = 3\non-event = \"sh -c 'cat >>" << root
                             << "/events'\"\n";
  fs::permissions(root + "/c", fs::perms::owner_read);
  ASSERT_EQ(mProgram.Shell(RECORDER_PROGRAM " config --config " + root + "/c"), 0) << mProgram.err;
  EXPECT_NE(mProgram.out.find("\ninput = 3:front=tcp://127.0.0.1:45871?password=***\n"), std::string::npos);

  if (mProgram.Shell("unshare -m true") == 0) {
    EXPECT_EQ(mProgram.Shell("cd " + root + " && mkdir etc && cp c etc/recorder.conf && unshare -m sh -c '" +
                             "mount --bind etc /etc && exec " RECORDER_PROGRAM " config'"),
              0);
    EXPECT_EQ(mProgram.out.rfind("# /etc/recorder.conf\nroot = " + root + "\n", 0), 0u) << mProgram.out;
  }

  Listen(root + "/socket");
  StartCamera();
  mRecorder = Start("trap '' XFSZ; NOTIFY_SOCKET=" + root +
                    "/socket WATCHDOG_USEC=600000 exec " RECORDER_PROGRAM " --config " + root + "/c record");
  ASSERT_TRUE(Await([&] { return IsState("recording"); })) << ReadText(root + "/log");
  const Json recorder = Recorder();
  EXPECT_EQ(recorder["channels"][0]["name"], "front");
  EXPECT_EQ(recorder["channels"][0]["width"], 320);
  EXPECT_EQ(recorder["disks"][0]["state"], "used");
  EXPECT_TRUE(recorder["lives"].get<bool>() && !recorder["stuck"].get<bool>()) << recorder;
  EXPECT_LT(recorder["ageSeconds"], 3);
  EXPECT_TRUE(Await([&] { return !Recorder()["segment"].is_null(); }));
  EXPECT_NE(Notified().find("READY=1"), std::string::npos);
  EXPECT_NE(mNotified.find("WATCHDOG=1"), std::string::npos);

  kill(mCamera, SIGKILL);
  ASSERT_TRUE(Await([&] { return IsState("lost"); }));
  EXPECT_NE(Metrics().find("recorder_channel_lost{channel=\"3\",name=\"front\"} 1\n"), std::string::npos);
  EXPECT_NE(mProgram.out.find("recorder_up 1\n"), std::string::npos);
  EXPECT_TRUE(
      Await([&] { return Notified().find("STATUS=recording 0 of 1 channels, 1 lost") != std::string::npos; }));
  StartCamera();
  ASSERT_TRUE(Await([&] { return IsState("recording"); }));
  EXPECT_EQ(Recorder()["channels"][0]["reconnects"], recorder["channels"][0]["reconnects"].get<int>() + 1);
  EXPECT_EQ(mProgram.Run(root, "export --channel front --since -1s --until now -o " + root + "/c.mp4"), 0)
      << mProgram.err;
  EXPECT_EQ(mProgram.Run(root, "timeline"), 0);
  EXPECT_NE(mProgram.out.find("\nchannel 3 (front) "), std::string::npos) << mProgram.out;

  // Files that take nothing any more: they are put out of use, then the disk, and recording pauses.
  const rlimit small = {16384, RLIM_INFINITY}, unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(prlimit(mRecorder, RLIMIT_FSIZE, &small, nullptr), 0);
  EXPECT_TRUE(Await([&] { return Metrics().find("recorder_paused 1\n") != std::string::npos; }));
  ASSERT_EQ(prlimit(mRecorder, RLIMIT_FSIZE, &unlimited, nullptr), 0);
  EXPECT_TRUE(Await([&] { return Events().count("recording-resumed") != 0; }));
  EXPECT_EQ(Events()["disk-aside"]["disk"], "a");
  EXPECT_EQ(Events()["disk-back"]["disk"], "a");
  EXPECT_GT(Events()["recording-resumed"]["dropped"], 0);
  EXPECT_NE(Events()["file-quarantined"]["path"].dump().find(root + "/disk/a/data_"), std::string::npos);

  // A camera that keeps its connection and hangs.
  kill(mCamera, SIGSTOP);
  const auto begin = std::chrono::steady_clock::now();
  kill(mRecorder, SIGTERM);
  EXPECT_TRUE(Await([&] { return kill(mRecorder, 0) != 0; }));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  const Json stopped = Recorder();
  EXPECT_TRUE(stopped["stopped"].get<bool>() && !stopped["lives"].get<bool>());
  EXPECT_NE(Notified().find("STOPPING=1"), std::string::npos);
  for (const char* event : {"channel-lost", "channel-back"}) {
    EXPECT_EQ(Events()[event]["channel"], 3);
    EXPECT_EQ(Events()[event]["address"], "tcp://127.0.0.1:45871?password=***");
  }
  EXPECT_EQ(ReadText(root + "/log").find("abc"), std::string::npos);
}

}  // namespace
