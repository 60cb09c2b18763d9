#include "apps/recorder/recording/EventCommand.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/ChannelHealth.h"

extern char** environ;

namespace recorder {

namespace {

constexpr const char* kUsualPath = "/bin:/usr/bin";  // of posix_spawnp(3) when there is no PATH
constexpr int64_t kMilli = kMicros / 1000;
constexpr int64_t kLook = 20 * kMilli;   // between two looks at what is going on
constexpr int64_t kReap = 200 * kMilli;  // what a process that was killed may take to be gone

int64_t Monotonic() { return ChannelHealthBoard::Moment::Now().monotonic; }

// Standard input is `input`; nothing else that is open here is open there, and no signal is ignored or blocked.
// Returns the error.
int Spawn(const std::vector<std::string>& words, int input, pid_t* pid) {
  std::vector<char*> arguments;
  for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  const int error = posix_spawnp(pid, arguments[0], &actions, &attributes, arguments.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

}  // namespace

std::optional<std::vector<std::string>> SplitWords(const std::string& text) {
  std::vector<std::string> words;
  bool inWord = false;
  char quote = 0;
  for (size_t i = 0; i < text.size(); i++) {
    const char c = text[i];
    if (quote == 0 && (c == ' ' || c == '\t')) {
      inWord = false;
      continue;
    }
    if (!inWord) words.emplace_back();
    inWord = true;
    if (quote != 0 ? c == quote : c == '"' || c == '\'') {
      quote = quote != 0 ? '\0' : c;
    } else if (c == '\\' && quote != '\'') {
      if (++i == text.size()) return std::nullopt;
      words.back() += text[i];
    } else {
      words.back() += c;
    }
  }
  if (quote != 0 || words.empty() || words[0].empty()) return std::nullopt;
  return words;
}

Refusal RefuseCommand(const std::vector<std::string>& words) {
  const std::string& name = words.at(0);
  const char* path = std::getenv("PATH");
  std::istringstream directories(name.find('/') != std::string::npos ? ""
                                 : path != nullptr                   ? path
                                                                     : kUsualPath);
  int error = ENOENT;
  std::string directory;
  do {
    std::getline(directories, directory, ':');
    const std::string file = directory.empty() ? name : directory + "/" + name;
    struct stat info = {};
    if (stat(file.c_str(), &info) != 0) continue;
    if (S_ISREG(info.st_mode) && faccessat(AT_FDCWD, file.c_str(), X_OK, AT_EACCESS) == 0) return std::nullopt;
    error = EACCES;
  } while (!directories.eof());
  return "cannot run " + name + ": " + std::strerror(error);
}

EventCommand::EventCommand(std::vector<std::string> words, Limits limits)
    : mWords(std::move(words)), mLimits(limits) {
  if (!mWords.empty()) mThread = std::thread([this] { Run(); });
}

EventCommand::~EventCommand() {
  if (!mThread.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mMutex);
    mEnd = Monotonic() + mLimits.lastWords * kMilli;
  }
  mChanged.notify_all();
  mThread.join();
}

void EventCommand::Post(nlohmann::ordered_json event) {
  if (mWords.empty()) return;
  event["time"] = FormatExactTime(ChannelHealthBoard::Moment::Now().wall);
  const std::lock_guard<std::mutex> lock(mMutex);
  if (mQueue.size() >= mLimits.queue) {
    if (mDropped++ == 0) Complain("%s does not keep up: events are dropped", mWords[0].c_str());
    return;
  }
  mQueue.push_back(event.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n");
  mChanged.notify_all();
}

void EventCommand::Run() {
  for (;;) {
    std::string line;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mChanged.wait(lock, [this] { return mEnd != 0 || !mQueue.empty(); });
      const bool late = mEnd != 0 && Monotonic() >= mEnd;
      if (late && !mQueue.empty()) {
        Complain("%s was not told of the last %zu events", mWords[0].c_str(), mQueue.size());
      }
      if (late || mQueue.empty()) return;
      line = std::move(mQueue.front());
      mQueue.pop_front();
      if (mQueue.empty()) mDropped = 0;  // it has caught up
    }
    RunOnce(line);
  }
}

// Microseconds that a run which began then may still take.
int64_t EventCommand::Left(int64_t begin) const {
  const std::lock_guard<std::mutex> lock(mMutex);
  const int64_t limit = begin + mLimits.run * kMilli;
  return (mEnd != 0 ? std::min(limit, mEnd) : limit) - Monotonic();
}

void EventCommand::RunOnce(const std::string& line) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    Complain("cannot run %s: %s", mWords[0].c_str(), std::strerror(errno));
    return;
  }
  pid_t pid = 0;
  const int error = Spawn(mWords, ends[0], &pid);
  close(ends[0]);
  if (error != 0) {
    close(ends[1]);
    Complain("cannot run %s: %s", mWords[0].c_str(), std::strerror(error));
    return;
  }
  // An event is smaller than a pipe, so nothing waits here; a command that does not read it does not matter.
  fcntl(ends[1], F_SETFL, O_NONBLOCK);
  if (write(ends[1], line.data(), line.size()) < 0 && errno != EPIPE) {
    Complain("cannot tell %s of an event: %s", mWords[0].c_str(), std::strerror(errno));
  }
  close(ends[1]);

  const int64_t begin = Monotonic();
  int status = 0;
  bool killed = false;
  for (;;) {
    const pid_t ended = waitpid(pid, &status, WNOHANG);
    if (ended == pid || (ended < 0 && errno != EINTR)) break;
    if (!killed && Left(begin) <= 0) {
      killed = true;
      kill(-pid, SIGKILL);
      Complain("%s took longer than its time and was killed", mWords[0].c_str());
    } else if (killed && Left(begin) < -kReap) {
      return;  // not even that helps, as with a process that waits for a disk
    }
    const struct timespec shortly = {0, static_cast<long>(kLook * 1000)};
    nanosleep(&shortly, nullptr);
  }
  if (!killed && WIFEXITED(status) && WEXITSTATUS(status) != 0) {
    Complain("%s ended with status %d", mWords[0].c_str(), WEXITSTATUS(status));
  }
}

}  // namespace recorder
