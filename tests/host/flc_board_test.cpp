// What a board's build sends to the real driver: a child process issues every request and its parent watches
// the system calls that leave it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <vector>

#include "Flc.h"
#include "TarnApp.h"

const char* gpDebugPrefix = "board";

// The application reopens the device before every request, as far as this can be told from its descriptor.
TarnApp* GetTarnApp() {
  static TarnApp app{{0, 0, 0, 0}, 1000};
  ++app.flcDescriptor;
  return &app;
}

namespace {

using Page = flc_file_info_param_t*;

struct Row {
  int (*call)(Page page);
  flc_file_info_param_t given;  // the page's first record before the call
  unsigned long number;
  size_t sentSize;             // bytes that the driver takes; 0: a null argument
  flc_file_info_param_t sent;  // a repository record is the beginning of a file record
};

flc_file_info_param_t Record(const char* disk, int32_t repository, uint32_t start, uint32_t end, uint32_t mask,
                             int32_t query) {
  flc_file_info_param_t record{{}, repository, start, end, mask, query};
  for (size_t i = 0; i < sizeof record.diskName && disk[i] != '\0'; ++i) record.diskName[i] = disk[i];
  return record;
}

std::vector<Row> Rows() {
  static const char kDisk[] = "usbdisk12";  // goes out as "usbdisk1", without a terminator
  const flc_file_info_param_t none{};
  const auto file = [](uint32_t start, uint32_t end, uint32_t mask) {
    return Record(kDisk, 7, start, end, mask, 0);
  };
  const auto ask = Record("????????", 7, 150, 9, 3, -1), sent = Record(kDisk, 7, 150, 9, 3, -1);
  const auto any = Record("", -1, 150, 9, 3, -1);
  return {
      {[](Page) { return FlcRegisterRepository(kDisk, 7); }, none, 0x400cf303, 12, file(0, 0, 0)},
      {[](Page) { return FlcUnregisterRepository(kDisk, 7); }, none, 0x400cf304, 12, file(0, 0, 0)},
      {[](Page) { return FlcAddFile(kDisk, 7, 100, 200, 3); }, none, 0x4004f305, 28, file(100, 200, 3)},
      {[](Page) { return FlcRemoveFile(kDisk, 7, 200); }, none, 0x4004f307, 28, file(200, 0, 0)},
      {[](Page) { return FlcClear(); }, none, 0x4004f308, 0, none},
      {[](Page p) { return FlcGetFileByTime(kDisk, p); }, ask, 0x8004f30a, 28, sent},
      {[](Page p) { return FlcGetPreviousFile("", p); }, any, 0x8004f30b, 28, any},
      {[](Page p) { return FlcGetNextFile("", p); }, any, 0x8004f30c, 28, any},
      {[](Page p) { return FlcGetFileAtPosition(kDisk, p); }, ask, 0x8004f30d, 28, sent},
      {[](Page p) { return FlcGetFilesInInterval(p); }, sent, 0x8004f30e, 28, sent},
      {[](Page p) { return FlcGetOldestFile(kDisk, p); }, ask, 0x8004f30f, 28, sent},
      {[](Page p) { return FlcGetNewestFile(kDisk, p); }, ask, 0x8004f310, 28, sent},
      {[](Page) { return FlcGetFileCount(kDisk, 7); }, none, 0x8004f311, 12, file(0, 0, 0)},
  };
}

struct Call {
  uint64_t descriptor, number, address;
  flc_file_info_param_t record;
};

// Runs the body in a child and collects its ioctl system calls. False: this
// system doesn't let processes watch one another.
bool Watch(const std::function<void()>& body, std::vector<Call>* calls) {
  const pid_t child = fork();
  if (child == 0) {
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
  const std::vector<Row> rows = Rows();
  std::vector<Call> calls;
  const auto body = [&rows] {
    for (const Row& row : rows) {
      flc_file_info_param_t page[FLC_PAGE_SIZE] = {row.given};
      if (row.call(page) != -1) _exit(1);  // nobody serves the descriptor
    }
  };
  if (!Watch(body, &calls)) GTEST_SKIP() << "no ptrace here: nothing was tested";
  ASSERT_EQ(calls.size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(calls[i].descriptor, 1001 + i);
    EXPECT_EQ(calls[i].number, rows[i].number);
    EXPECT_EQ(calls[i].address == 0, rows[i].sentSize == 0);
    EXPECT_EQ(std::memcmp(&calls[i].record, &rows[i].sent, rows[i].sentSize), 0);
  }
}

}  // namespace
