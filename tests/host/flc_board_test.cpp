// What a board's build sends to the real driver.
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstring>

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

const Row* gRow = nullptr;  // the one that is called
int gSeen = 0;              // requests that the driver has had
constexpr int kAnswer = 77;

}  // namespace

// Stands in front of the C library's function.
extern "C" int ioctl(int descriptor, unsigned long number, ...) noexcept {
  va_list arguments;
  va_start(arguments, number);
  const void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  EXPECT_EQ(1001 + gSeen++, descriptor);
  EXPECT_EQ(gRow->number, number);
  EXPECT_EQ(gRow->sentSize == 0, argument == nullptr);
  EXPECT_TRUE(argument == nullptr || std::memcmp(argument, &gRow->sent, gRow->sentSize) == 0);
  return kAnswer;
}

namespace {

TEST(FlcBoard, EveryRequestReachesTheDescriptor) {
  static const char kDisk[] = "usbdisk12";  // goes out as "usbdisk1", without a terminator
  const flc_file_info_param_t none{};
  const auto file = [](uint32_t start, uint32_t end, uint32_t mask, int query = 0) {
    return flc_file_info_param_t{{'u', 's', 'b', 'd', 'i', 's', 'k', '1'}, 7, start, end, mask, query};
  };
  const flc_file_info_param_t any{{}, -1, 150, 9, 3, -1}, ask{{'?', '?', '?'}, 7, 150, 9, 3, -1},
      sent = file(150, 9, 3, -1);
  const Row rows[] = {
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
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    gRow = &row;
    flc_file_info_param_t page[FLC_PAGE_SIZE] = {row.given};
    EXPECT_EQ(kAnswer, row.call(page));
    EXPECT_EQ(&row - rows + 1, gSeen);
  }
}

}  // namespace
