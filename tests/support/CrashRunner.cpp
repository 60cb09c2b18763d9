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
#include <cstddef>
#include <cstring>
#include <fstream>

#include "tests/support/TestDisk.h"

namespace {

// Where a call's arguments name what it changes: a descriptor, or a path after an optional directory
// descriptor.
enum class By { kFd, kPath, kAt };

struct Call {
  long number;
  const char* name;
  By by;
  int argument;    // position of the descriptor or path; of kAt, of the directory descriptor before the path
  int flags = -1;  // of open(2) at this position: only what may write is a change; -1: it is one, -2: it reads
};

const Call kCalls[] = {
    {SYS_openat, "open", By::kAt, 0, 2},       {SYS_renameat, "rename", By::kAt, 0},
    {SYS_renameat2, "rename", By::kAt, 0},     {SYS_linkat, "link", By::kAt, 2},
    {SYS_unlinkat, "unlink", By::kAt, 0},      {SYS_mkdirat, "mkdir", By::kAt, 0},
    {SYS_symlinkat, "symlink", By::kAt, 1},    {SYS_truncate, "truncate", By::kPath, 0},
    {SYS_ftruncate, "truncate", By::kFd, 0},   {SYS_fallocate, "fallocate", By::kFd, 0},
    {SYS_write, "write", By::kFd, 0},          {SYS_writev, "write", By::kFd, 0},
    {SYS_pwrite64, "write", By::kFd, 0},       {SYS_pwritev, "writev", By::kFd, 0},
    {SYS_pwritev2, "writev", By::kFd, 0},      {SYS_fsync, "sync", By::kFd, 0},
    {SYS_fdatasync, "sync", By::kFd, 0},       {SYS_syncfs, "sync", By::kFd, 0},
    {SYS_newfstatat, "stat", By::kAt, 0, -2},  {SYS_statx, "stat", By::kAt, 0, -2},
    {SYS_faccessat, "access", By::kAt, 0, -2}, {SYS_readlinkat, "readlink", By::kAt, 0, -2},
    {SYS_getdents64, "list", By::kFd, 0, -2},  {SYS_read, "read", By::kFd, 0, -2},
    {SYS_pread64, "read", By::kFd, 0, -2},     {SYS_statfs, "statfs", By::kPath, 0, -2},
#ifdef SYS_open  // newer machines have only the calls above
    {SYS_open, "open", By::kPath, 0, 1},       {SYS_creat, "creat", By::kPath, 0},
    {SYS_rename, "rename", By::kPath, 0},      {SYS_link, "link", By::kPath, 1},
    {SYS_unlink, "unlink", By::kPath, 0},      {SYS_mkdir, "mkdir", By::kPath, 0},
    {SYS_rmdir, "rmdir", By::kPath, 0},        {SYS_symlink, "symlink", By::kPath, 1},
    {SYS_stat, "stat", By::kPath, 0, -2},      {SYS_lstat, "stat", By::kPath, 0, -2},
    {SYS_access, "access", By::kPath, 0, -2},  {SYS_readlink, "readlink", By::kPath, 0, -2},
#endif
};

// Only these calls stop the program; it runs at its own speed in between.
bool InstallFilter(bool readsToo) {
  std::vector<sock_filter> filter = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const Call& call : kCalls) {
    if (call.flags == -2 && !readsToo) continue;
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(call.number), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// What the call is about to change or read.
std::string PathOf(pid_t pid, const Call& call, const uint64_t* arguments) {
  const std::string process = "/proc/" + std::to_string(pid);
  const auto descriptor = static_cast<int32_t>(arguments[call.argument]);
  const bool isAt = call.by != By::kPath && descriptor != AT_FDCWD;
  std::error_code gone;
  const fs::path directory =
      fs::read_symlink(process + (isAt ? "/fd/" + std::to_string(descriptor) : "/cwd"), gone);
  if (call.by == By::kFd) return directory;
  std::string path;
  std::ifstream memory(process + "/mem", std::ios::binary);
  memory.seekg(static_cast<std::streamoff>(arguments[call.argument + (call.by == By::kAt ? 1 : 0)]));
  std::getline(memory, path, '\0');
  return path.empty() ? path : (directory / path).string();
}

bool IsChange(const Call& call, const uint64_t* arguments) {
  if (call.flags < 0) return call.flags == -1;
  return (arguments[call.flags] & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC)) != 0;
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
  return pid == error;  // WhyNotTraceable has said so
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
      : mPlan(plan), mRoot(fs::canonical(plan.root).string()), mRun(run) {}

  // Waits for the program and its children until all are gone.
  void Follow(pid_t program) {
    mAlive.insert(program);
    for (;;) {
      int status = 0;
      const pid_t pid = waitpid(-1, &status, __WALL);
      if (pid < 0) return;
      if (WIFSTOPPED(status) && mRun->killed) {
        kill(pid, SIGKILL);  // a child that has only just begun
      } else if (WIFSTOPPED(status)) {
        mAlive.insert(pid);
        HandleStop(pid, status);
      } else {
        mAlive.erase(pid);
        if (pid == program && WIFEXITED(status)) mRun->status = WEXITSTATUS(status);
        mRun->timedOut = mRun->timedOut || (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM);
        if (mRun->timedOut) KillAll();
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
    const Call* const call = std::find_if(std::begin(kCalls), std::end(kCalls), isIt);
    if (call == std::end(kCalls)) return;
    const bool isChange = IsChange(*call, arguments);
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
  const std::string mRoot;
  CrashRun* const mRun;
  std::set<pid_t> mAlive;
  size_t mPackets = 0;
  size_t mFailed = 0;
  std::string mSick;  // disk whose calls fail
};

std::string ReadAll(FILE* file) {
  const std::string text = ReadText("/proc/self/fd/" + std::to_string(fileno(file)));
  std::fclose(file);
  return text;
}

[[noreturn]] void BecomeProgram(const Names& arguments, const CrashPlan& plan, int out, int error) {
  std::vector<char*> list;
  list.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
  list.push_back(nullptr);
  // The leak detector traces its own process, which can't be done while another one does.
  const char* sanitizer = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", ((sanitizer != nullptr ? sanitizer : "") + std::string(":detect_leaks=0")).c_str(), 1);
  dup2(out, STDOUT_FILENO);
  dup2(error, STDERR_FILENO);
  alarm(plan.seconds);  // outlives exec, and ends the program
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) == 0 && raise(SIGSTOP) == 0 && InstallFilter(plan.countAll)) {
    execv(list[0], list.data());
  }
  _exit(126);
}

}  // namespace

CrashRun RunAndCrash(const Names& arguments, const CrashPlan& plan) {
  CrashRun run;
  FILE* out = std::tmpfile();
  FILE* error = std::tmpfile();
  const pid_t pid = out != nullptr && error != nullptr ? fork() : -1;
  if (pid == 0) BecomeProgram(arguments, plan, fileno(out), fileno(error));
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) return run;
  const long options = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE |
                       PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(options));
  ptrace(PTRACE_CONT, pid, nullptr, nullptr);
  Tracer(plan, &run).Follow(pid);
  run.out = ReadAll(out);
  run.error = ReadAll(error);
  return run;
}

std::string WhyNotTraceable([[maybe_unused]] bool fails) {
#ifndef __x86_64__
  if (fails) return "calls can't be made to fail on this machine";
#endif
  const TestRoot root;
  const CrashRun run = RunAndCrash({"/bin/sh", "-c", ": > " + root.Path() + "/x"}, {root.Path()});
  if (run.status == 0 && run.changes.size() == 1) return "";
  return "programs can't be traced here (ptrace with seccomp)";
}
