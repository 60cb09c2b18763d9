// A program under way, and waiting for what it does.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

class Process {
 public:
  // `command` is a simple one, for a shell to take apart.
  explicit Process(const std::string& command) : mPid(fork()) {
    if (mPid != 0) return;
    execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
    _exit(127);
  }
  ~Process() {
    if (mPid > 0) Stop(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t Id() const { return mPid; }
  void Send(int signal) const { kill(mPid, signal); }
  // Exit status, or minus the signal that ended it.
  int Stop(int signal) {
    int status = 0;
    kill(mPid, signal);
    waitpid(mPid, &status, 0);
    mPid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t mPid;
};

// Whether `condition` comes true within `seconds`.
template <typename Condition>
bool Await(Condition condition, int seconds = 20) {
  for (int i = 0; i < seconds * 20 && !condition(); i++) usleep(50000);
  return condition();
}
