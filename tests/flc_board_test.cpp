// What a board's build sends to the real driver: a child process issues every request and its parent watches
// the system calls that leave it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "FlcRequests.h"
#include "TarnApp.h"

const char* gpDebugPrefix = "board";

// The application reopens the device before every request, as far as this can be told from its descriptor.
TarnApp* GetTarnApp() {
  static TarnApp app{{0, 0, 0, 0}, 1000};
  ++app.flcDescriptor;
  return &app;
}

namespace {

struct Call {
  uint64_t descriptor, number, address;
  flc_file_info_param_t record;
};

// Runs the body in a child whose standard error is `errors` and collects its ioctl system calls. False: this
// system doesn't let processes watch one another.
bool Watch(const std::function<void()>& body, int errors, std::vector<Call>* calls) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(errors, STDERR_FILENO);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
    raise(SIGSTOP);
    body();
    _exit(0);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return false;
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  bool watched = true;
  while (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 && waitpid(child, &status, 0) == child) {
    if (!WIFSTOPPED(status)) break;
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
    __ptrace_syscall_info info{};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) <= 0) {
      watched = false;
      kill(child, SIGKILL);
      continue;
    }
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || info.entry.nr != SYS_ioctl) continue;
    Call call{info.entry.args[0], info.entry.args[1], info.entry.args[2], {}};
    const iovec local{&call.record, sizeof call.record};
    const iovec remote{reinterpret_cast<void*>(call.address), sizeof call.record};
    if (call.address != 0 && process_vm_readv(child, &local, 1, &remote, 1, 0) < 12) watched = false;
    calls->push_back(call);
  }
  EXPECT_TRUE(!watched || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << "status " << status;
  return watched;
}

TEST(FlcBoard, EveryRequestReachesTheDescriptor) {
  const std::vector<FlcRequestRow> rows = FlcRequestRows();
  std::vector<Call> calls;
  const auto body = [&rows] {
    for (const FlcRequestRow& row : rows) {
      flc_file_info_param_t page[FLC_PAGE_SIZE] = {row.given};
      if (row.call(page) != -1) _exit(1);  // nobody serves the descriptor
    }
  };
  if (!Watch(body, STDERR_FILENO, &calls)) GTEST_SKIP() << "no ptrace here: nothing was tested";
  ASSERT_EQ(calls.size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].name);
    EXPECT_EQ(calls[i].descriptor, 1001 + i);
    EXPECT_EQ(calls[i].number, rows[i].number);
    EXPECT_EQ(calls[i].address == 0, rows[i].sentSize == 0);
    EXPECT_EQ(std::memcmp(&calls[i].record, &rows[i].sent, rows[i].sentSize), 0);
  }
}

TEST(FlcBoard, NullDiskNameIsRefusedWithoutAsking) {
  static const struct {
    int line;
    int (*call)(const char* disk, flc_file_info_param_t* param);
  } kRows[] = {{93, FlcGetFileByTime},
               {108, FlcGetNextFile},
               {123, FlcGetPreviousFile},
               {138, FlcGetFileAtPosition},
               {163, FlcGetOldestFile},
               {175, FlcGetNewestFile},
               {212, [](const char* disk, flc_file_info_param_t*) { return FlcGetFileCount(disk, 0); }}};
  FILE* errors = std::tmpfile();
  ASSERT_NE(errors, nullptr);
  std::vector<Call> calls;
  const auto body = [] {
    for (const auto& row : kRows) {
      flc_file_info_param_t param{};
      if (row.call(nullptr, &param) != -1) _exit(1);
    }
  };
  if (!Watch(body, fileno(errors), &calls)) GTEST_SKIP() << "no ptrace here: nothing was tested";
  EXPECT_EQ(calls.size(), 0u);
  std::string expected;
  for (const auto& row : kRows) {
    expected += "\033[31;1mErr (board/include/Flc:" + std::to_string(row.line) + ") Invalid parameter\n\033[0m";
  }
  std::string written(expected.size() + 100, '\0');
  std::rewind(errors);
  written.resize(std::fread(written.data(), 1, written.size(), errors));
  EXPECT_EQ(written, expected);
  std::fclose(errors);
}

}  // namespace
