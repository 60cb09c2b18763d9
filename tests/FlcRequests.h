// Every request of the file list cache: what its wrapper is called with, what the driver gets to see, and what
// it answers. In this order they are a small story on an empty cache, so that the workstation's cache can
// answer them; what a board sends is held against the same rows.
#pragma once

#include <cstring>
#include <vector>

#include "Flc.h"

struct FlcRequestRow {
  const char* name;
  int (*call)(flc_file_info_param_t* page);
  flc_file_info_param_t given;  // the page's first record before the call
  unsigned long number;
  size_t sentSize;             // bytes that the driver takes; 0: a null argument
  flc_file_info_param_t sent;  // a repository record is the beginning of a file record
  int result;
  flc_file_info_param_t answer;  // the page's first record after the call
};

inline flc_file_info_param_t FlcRecord(const char* disk, int32_t repository, uint32_t start, uint32_t end,
                                       uint32_t mask, int32_t query) {
  flc_file_info_param_t record{{}, repository, start, end, mask, query};
  for (size_t i = 0; i < sizeof record.diskName && disk[i] != '\0'; ++i) record.diskName[i] = disk[i];
  return record;
}

inline std::vector<FlcRequestRow> FlcRequestRows() {
  using Page = flc_file_info_param_t*;
  constexpr uint32_t kAll = 0xffffffff;
  static const char kDisk[] = "usbdisk12";  // goes out as "usbdisk1", without a terminator
  const auto ask = [](uint32_t start, int32_t query) {
    return FlcRecord("????????", 7, start, 9, kAll, query);
  };
  const auto sent = [](uint32_t start, int32_t query) { return FlcRecord(kDisk, 7, start, 9, kAll, query); };
  const auto any = [](uint32_t start) { return FlcRecord("", -1, start, 9, kAll, 1); };
  const auto file = [](uint32_t start, uint32_t end, uint32_t mask) {
    return FlcRecord(kDisk, 7, start, end, mask, 0);
  };
  const flc_file_info_param_t none{};
  return {
      {"register", [](Page) { return FlcRegisterRepository(kDisk, 7); }, none, 0x400cf303, 12, file(0, 0, 0), 0,
       none},
      {"count none", [](Page) { return FlcGetFileCount(kDisk, 7); }, none, 0x8004f311, 12, file(0, 0, 0), 0,
       none},
      {"add", [](Page) { return FlcAddFile(kDisk, 7, 100, 200, 3); }, none, 0x4004f305, 28, file(100, 200, 3),
       0, none},
      {"add", [](Page) { return FlcAddFile(kDisk, 7, 200, 300, 4); }, none, 0x4004f305, 28, file(200, 300, 4),
       0, none},
      {"add in progress", [](Page) { return FlcAddFile(kDisk, 7, 300, 0, 0); }, none, 0x4004f305, 28,
       file(300, 0, 0), 0, none},
      {"by time", [](Page p) { return FlcGetFileByTime(kDisk, p); }, ask(150, 1), 0x8004f30a, 28, sent(150, 1),
       0, file(100, 200, 3)},
      {"by time, last", [](Page p) { return FlcGetFileByTime(kDisk, p); }, ask(299, 0), 0x8004f30a, 28,
       sent(299, 0), 0, file(200, 300, 4)},
      {"previous", [](Page p) { return FlcGetPreviousFile("", p); }, any(200), 0x8004f30b, 28, any(200), 0,
       file(100, 200, 3)},
      {"next", [](Page p) { return FlcGetNextFile("", p); }, any(200), 0x8004f30c, 28, any(200), 0,
       file(300, 0, 0)},
      {"no next", [](Page p) { return FlcGetNextFile("", p); }, any(300), 0x8004f30c, 28, any(300), -1,
       any(300)},
      {"position", [](Page p) { return FlcGetFileAtPosition(kDisk, p); }, ask(0, 2), 0x8004f30d, 28, sent(0, 2),
       0, file(200, 300, 4)},
      {"interval", [](Page p) { return FlcGetFilesInInterval(p); }, FlcRecord(kDisk, 7, 200, 400, 0xc, 5),
       0x8004f30e, 28, FlcRecord(kDisk, 7, 200, 400, 0xc, 5), 1, file(200, 300, 4)},
      {"oldest", [](Page p) { return FlcGetOldestFile(kDisk, p); }, ask(5, 5), 0x8004f30f, 28, sent(5, 5), 0,
       file(100, 200, 3)},
      {"newest", [](Page p) { return FlcGetNewestFile(kDisk, p); }, ask(5, 5), 0x8004f310, 28, sent(5, 5), 0,
       file(300, 0, 0)},
      {"count", [](Page) { return FlcGetFileCount(kDisk, 7); }, none, 0x8004f311, 12, file(0, 0, 0), 3, none},
      {"remove", [](Page) { return FlcRemoveFile(kDisk, 7, 200); }, none, 0x4004f307, 28, file(200, 0, 0), 0,
       none},
      {"count less", [](Page) { return FlcGetFileCount(kDisk, 7); }, none, 0x8004f311, 12, file(0, 0, 0), 2,
       none},
      {"unregister", [](Page) { return FlcUnregisterRepository(kDisk, 7); }, none, 0x400cf304, 12,
       file(0, 0, 0), 0, none},
      {"clear", [](Page) { return FlcClear(); }, none, 0x4004f308, 0, none, 0, none},
  };
}
