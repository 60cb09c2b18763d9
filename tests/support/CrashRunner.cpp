#include "tests/support/CrashRunner.h"

#include <elf.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>

namespace {

// Where a call's arguments name what it changes: a descriptor, or a path after an optional directory
// descriptor.
enum class Names { kFd, kPath, kAt };

struct Call {
  long number;
  const char* name;
  Names names;
  int argument;    // position of the descriptor or path; of kAt, of the directory descriptor before the path
  int flags = -1;  // of open(2) at this position: only what may write is a change
};

const Call kCalls[] = {
    {SYS_openat, "open", Names::kAt, 0, 2},     {SYS_renameat, "rename", Names::kAt, 0},
    {SYS_renameat2, "rename", Names::kAt, 0},   {SYS_linkat, "link", Names::kAt, 2},
    {SYS_unlinkat, "unlink", Names::kAt, 0},    {SYS_mkdirat, "mkdir", Names::kAt, 0},
    {SYS_symlinkat, "symlink", Names::kAt, 1},  {SYS_truncate, "truncate", Names::kPath, 0},
    {SYS_ftruncate, "truncate", Names::kFd, 0}, {SYS_fallocate, "fallocate", Names::kFd, 0},
    {SYS_write, "write", Names::kFd, 0},        {SYS_writev, "write", Names::kFd, 0},
    {SYS_pwrite64, "write", Names::kFd, 0},     {SYS_pwritev, "writev", Names::kFd, 0},
    {SYS_pwritev2, "writev", Names::kFd, 0},    {SYS_fsync, "sync", Names::kFd, 0},
    {SYS_fdatasync, "sync", Names::kFd, 0},     {SYS_syncfs, "sync", Names::kFd, 0},
#ifdef SYS_open  // newer machines have only the calls above
    {SYS_open, "open", Names::kPath, 0, 1},     {SYS_creat, "creat", Names::kPath, 0},
    {SYS_rename, "rename", Names::kPath, 0},    {SYS_link, "link", Names::kPath, 1},
    {SYS_unlink, "unlink", Names::kPath, 0},    {SYS_mkdir, "mkdir", Names::kPath, 0},
    {SYS_rmdir, "rmdir", Names::kPath, 0},      {SYS_symlink, "symlink", Names::kPath, 1},
#endif
};
// These change nothing.
const Call kReads[] = {
    {SYS_newfstatat, "stat", Names::kAt, 0},  {SYS_statx, "stat", Names::kAt, 0},
    {SYS_faccessat, "access", Names::kAt, 0}, {SYS_readlinkat, "readlink", Names::kAt, 0},
    {SYS_getdents64, "list", Names::kFd, 0},  {SYS_read, "read", Names::kFd, 0},
    {SYS_pread64, "read", Names::kFd, 0},     {SYS_statfs, "statfs", Names::kPath, 0},
#ifdef SYS_stat
    {SYS_stat, "stat", Names::kPath, 0},      {SYS_lstat, "stat", Names::kPath, 0},
    {SYS_access, "access", Names::kPath, 0},  {SYS_readlink, "readlink", Names::kPath, 0},
#endif
};

// Only these calls stop the program; it runs at its own speed in between.
bool InstallFilter(bool readsToo) {
  std::vector<long> numbers;
  for (const Call& call : kCalls) numbers.push_back(call.number);
  for (const Call& call : kReads) {
    if (readsToo) numbers.push_back(call.number);
  }
  std::vector<sock_filter> filter;
  filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
  for (size_t i = 0; i < numbers.size(); ++i) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(numbers[i]),
                              static_cast<uint8_t>(numbers.size() - i), 0));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

std::string ReadLink(const std::string& link) {
  char target[PATH_MAX];
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  return std::string(target, length > 0 ? static_cast<size_t>(length) : 0);
}

std::string ReadText(pid_t pid, uint64_t address) {
  std::string text;
  char byte = 0;
  iovec local = {&byte, 1};
  while (text.size() < PATH_MAX) {
    iovec remote = {reinterpret_cast<void*>(address + text.size()), 1};
    if (process_vm_readv(pid, &local, 1, &remote, 1, 0) != 1 || byte == '\0') break;
    text += byte;
  }
  return text;
}

// What the call is about to change or read.
std::string PathOf(pid_t pid, const Call& call, const uint64_t* arguments) {
  const std::string process = "/proc/" + std::to_string(pid);
  const auto descriptor = static_cast<int32_t>(arguments[call.argument]);
  if (call.names == Names::kFd) return ReadLink(process + "/fd/" + std::to_string(descriptor));
  std::string path = ReadText(pid, arguments[call.argument + (call.names == Names::kAt ? 1 : 0)]);
  if (path.empty() || path[0] == '/') return path;
  const bool isAt = call.names == Names::kAt && descriptor != AT_FDCWD;
  const std::string directory = isAt ? "/fd/" + std::to_string(descriptor) : "/cwd";
  return ReadLink(process + directory) + "/" + path;
}

bool IsChange(const Call& call, const uint64_t* arguments) {
  return call.flags < 0 || (arguments[call.flags] & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
}

// Lets the call fail without being made.
bool FailCall(pid_t pid, int error) {
#ifdef __x86_64__
  user_regs_struct registers = {};
  iovec all = {&registers, sizeof registers};
  if (ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, &all) != 0) return false;
  registers.orig_rax = static_cast<unsigned long long>(-1);
  registers.rax = static_cast<unsigned long long>(-error);
  return ptrace(PTRACE_SETREGSET, pid, NT_PRSTATUS, &all) == 0;
#else
  (void)pid;
  (void)error;
  return false;
#endif
}

// "a" of "/disk/a/imf_free"; empty outside the disks.
std::string DiskOf(const std::string& path) {
  const std::string disks = "/disk/";
  if (path.compare(0, disks.size(), disks) != 0) return "";
  return path.substr(disks.size(), path.find('/', disks.size()) - disks.size());
}

class Tracer {
 public:
  Tracer(const CrashPlan& plan, CrashRun* run)
      : mPlan(plan), mRoot(std::filesystem::canonical(plan.root).string()), mRun(run) {}

  // Waits for the program and its children until all are gone.
  void Follow(pid_t program) {
    mAlive.insert(program);
    for (;;) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0 && errno != EINTR) return;
      if (pid < 0 && std::chrono::steady_clock::now() >= mDeadline && !mRun->killed) {
        mRun->timedOut = true;
        KillAll();
      }
      if (pid <= 0) continue;
      if (WIFSTOPPED(status) && mRun->killed) {
        kill(pid, SIGKILL);  // a child that has only just begun
      } else if (WIFSTOPPED(status)) {
        mAlive.insert(pid);
        HandleStop(pid, status);
      } else {
        mAlive.erase(pid);
        if (pid == program && WIFEXITED(status)) mRun->status = WEXITSTATUS(status);
      }
    }
  }

 private:
  void HandleStop(pid_t pid, int status) {
    const int event = status >> 16;
    if (event == PTRACE_EVENT_SECCOMP) {
      HandleCall(pid);
      if (mRun->killed) return;
    }
    // New children begin with a SIGSTOP of the tracer's making, and events come as a SIGTRAP.
    const int signal = WSTOPSIG(status);
    const bool isOurs = event != 0 || signal == SIGTRAP || signal == SIGSTOP;
    ptrace(PTRACE_CONT, pid, nullptr, reinterpret_cast<void*>(isOurs ? 0L : long{signal}));
  }

  void HandleCall(pid_t pid) {
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid, reinterpret_cast<void*>(sizeof info), &info) <= 0) return;
    const auto* const arguments = reinterpret_cast<const uint64_t*>(info.seccomp.args);
    const auto isIt = [&](const Call& call) { return call.number == static_cast<long>(info.seccomp.nr); };
    const Call* call = std::find_if(std::begin(kCalls), std::end(kCalls), isIt);
    const bool isChange = call != std::end(kCalls) && IsChange(*call, arguments);
    if (call == std::end(kCalls)) call = std::find_if(std::begin(kReads), std::end(kReads), isIt);
    if (call == std::end(kReads)) return;
    const std::string path = PathOf(pid, *call, arguments);
    if (path.compare(0, mRoot.size(), mRoot) != 0) return;
    const bool isLook = !isChange && call->flags >= 0;
    const std::string what = (isLook ? "look" : call->name) + (" " + path.substr(mRoot.size()));
    if (isChange) mRun->changes.push_back(what);
    if (isChange && mRun->changes.size() == mPlan.killAt) return KillAll();
    if (mPlan.countAll) mRun->calls.push_back(what);
    const size_t count = mRun->calls.size();
    const bool isDue = mPlan.failAt != 0 && count >= mPlan.failAt && mFailed < mPlan.failCalls;
    if (count == mPlan.failAt) mSick = DiskOf(path.substr(mRoot.size()));
    const bool isMeant =
        count == mPlan.failAt || (!mSick.empty() && DiskOf(path.substr(mRoot.size())) == mSick);
    if (isDue && isMeant) {
      ++mFailed;
      FailCall(pid, mPlan.error);
    }
    // Only packets and stream parameters are written with more than one buffer.
    const bool isPacket = std::strcmp(call->name, "writev") == 0;
    if (isPacket && ++mPackets == mPlan.failPacketAt) FailCall(pid, EIO);
  }

  void KillAll() {
    mRun->killed = true;
    for (const pid_t pid : mAlive) kill(pid, SIGKILL);
  }

  const CrashPlan& mPlan;
  const std::chrono::steady_clock::time_point mDeadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(mPlan.seconds);
  const std::string mRoot;
  CrashRun* const mRun;
  std::set<pid_t> mAlive;
  size_t mPackets = 0;
  size_t mFailed = 0;
  std::string mSick;  // disk whose calls fail
};

std::string ReadAll(FILE* file) {
  std::string text;
  std::rewind(file);
  for (int byte = 0; (byte = std::fgetc(file)) != EOF;) text += static_cast<char>(byte);
  std::fclose(file);
  return text;
}

// Its signal interrupts waiting for the program.
class Alarm {
 public:
  explicit Alarm(unsigned seconds) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &mBefore);
    alarm(seconds);
  }
  ~Alarm() {
    alarm(0);
    sigaction(SIGALRM, &mBefore, nullptr);
  }
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  struct sigaction mBefore = {};
};

[[noreturn]] void BecomeProgram(const std::vector<std::string>& arguments, bool readsToo, int out, int error) {
  std::vector<char*> list;
  list.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
  list.push_back(nullptr);
  // The leak detector traces its own process, which can't be done while another one does.
  const char* sanitizer = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", ((sanitizer != nullptr ? sanitizer : "") + std::string(":detect_leaks=0")).c_str(), 1);
  dup2(out, STDOUT_FILENO);
  dup2(error, STDERR_FILENO);
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && raise(SIGSTOP) == 0 && InstallFilter(readsToo)) {
    execv(list[0], list.data());
  }
  _exit(126);
}

}  // namespace

CrashRun RunAndCrash(const std::vector<std::string>& arguments, const CrashPlan& plan) {
  CrashRun run;
  FILE* out = std::tmpfile();
  FILE* error = std::tmpfile();
  const pid_t pid = out != nullptr && error != nullptr ? fork() : -1;
  if (pid == 0) BecomeProgram(arguments, plan.countAll, fileno(out), fileno(error));
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) return run;
  const long options = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                       PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(options));
  ptrace(PTRACE_CONT, pid, nullptr, nullptr);
  const Alarm alarm(plan.seconds);
  Tracer(plan, &run).Follow(pid);
  run.out = ReadAll(out);
  run.error = ReadAll(error);
  return run;
}

std::string WhyNotTraceable() {
  const std::string directory = std::filesystem::temp_directory_path().string();
  const CrashRun run = RunAndCrash({"/bin/sh", "-c", ": > " + directory + "/.crash-runner"}, {directory});
  unlink((directory + "/.crash-runner").c_str());
  if (run.status == 0 && run.changes.size() == 1) return "";
  return "programs can't be traced here (ptrace with seccomp)";
}
