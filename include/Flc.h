// The file list cache driver (Flc): its requests, its two records, and the wrappers through which the library
// issues every one of them. The driver keeps the list of record files of every data directory, so that
// "how many", "which is the oldest" and "what comes next" are answered without reading a directory.
//
// Request numbers follow the kernel's ioctl encoding (asm-generic/ioctl.h): direction in the top two bits
// (1: to the driver, 2: from the driver), the size field below it, type byte 0xf3, then the number. The size
// field says 4 for the file requests although their record has 28 bytes: the driver was built that way and
// takes the record through the pointer, so the numbers are fixed values here and not made with _IOW()/_IOR().
//
// Threads: a request is one system call on a shared descriptor; the wrappers hold no state and no lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "SystemHelper.h"

// Sends one request to the driver. Result: negative on failure, else what the request's own description says.
// A board defines it as ioctl(2) on the descriptor of GetTarnApp(); a workstation serves it in the process.
int FlcIoctl(unsigned long request, void* argument);

constexpr unsigned long FLC_REGISTER_REPOSITORY = 0x400cf303;
constexpr unsigned long FLC_UNREGISTER_REPOSITORY = 0x400cf304;
constexpr unsigned long FLC_ADD_FILE = 0x4004f305;
constexpr unsigned long FLC_REMOVE_FILE = 0x4004f307;
constexpr unsigned long FLC_CLEAR = 0x4004f308;
constexpr unsigned long FLC_FILE_BY_TIME = 0x8004f30a;
constexpr unsigned long FLC_PREVIOUS_FILE = 0x8004f30b;
constexpr unsigned long FLC_NEXT_FILE = 0x8004f30c;
constexpr unsigned long FLC_FILE_AT_POSITION = 0x8004f30d;
constexpr unsigned long FLC_FILES_IN_INTERVAL = 0x8004f30e;
constexpr unsigned long FLC_OLDEST_FILE = 0x8004f30f;
constexpr unsigned long FLC_NEWEST_FILE = 0x8004f310;
constexpr unsigned long FLC_FILE_COUNT = 0x8004f311;

constexpr size_t FLC_DISK_NAME_SIZE = 8;  // bytes; a name of 8 bytes has no terminator in a record
constexpr int32_t FLC_ANY_REPOSITORY =
    -1;  // together with an all-zero disk name: every directory of every disk
constexpr uint32_t FLC_ALL_CHANNELS = 0xffffffffu;
constexpr int FLC_PAGE_SIZE = 100;  // records in the answer of FLC_FILES_IN_INTERVAL

// Names one data directory.
struct flc_repository_param_t {
  char diskName[FLC_DISK_NAME_SIZE];  // zero-padded
  int32_t repository;                 // the N of data_N
};
static_assert(sizeof(flc_repository_param_t) == 12);
static_assert(offsetof(flc_repository_param_t, repository) == 8);

// One record file, as request and as answer.
struct flc_file_info_param_t {
  char diskName[FLC_DISK_NAME_SIZE];  // zero-padded
  int32_t repository;                 // the N of data_N
  uint32_t startTime;                 // seconds since the epoch; the file's key within its directory
  uint32_t endTime;                   // seconds since the epoch; 0 while the file is in progress
  uint32_t channelMask;               // bit n: channel n is in the file
  int32_t query;                      // meaning depends on the request; 0 in every answer
};
static_assert(sizeof(flc_file_info_param_t) == 28);
static_assert(offsetof(flc_file_info_param_t, repository) == 8);
static_assert(offsetof(flc_file_info_param_t, startTime) == 12);
static_assert(offsetof(flc_file_info_param_t, endTime) == 16);
static_assert(offsetof(flc_file_info_param_t, channelMask) == 20);
static_assert(offsetof(flc_file_info_param_t, query) == 24);

// Copies at most 8 bytes of the name and zero-fills the rest; exactly as the driver compares them.
inline void FlcSetDiskName(char (&field)[FLC_DISK_NAME_SIZE], const char* diskName) {
  std::memset(field, 0, sizeof field);
  // Every request comes by here: no call for so few bytes.
  for (size_t i = 0; diskName != nullptr && i < sizeof field && diskName[i] != '\0'; ++i)
    field[i] = diskName[i];
}

inline flc_repository_param_t FlcRepositoryParam(const char* diskName, int32_t repository) {
  flc_repository_param_t param{};
  FlcSetDiskName(param.diskName, diskName);
  param.repository = repository;
  return param;
}

inline flc_file_info_param_t FlcFileParam(const char* diskName, int32_t repository, uint32_t startTime = 0,
                                          uint32_t endTime = 0, uint32_t channelMask = 0, int32_t query = 0) {
  flc_file_info_param_t param{};
  FlcSetDiskName(param.diskName, diskName);
  param.repository = repository;
  param.startTime = startTime;
  param.endTime = endTime;
  param.channelMask = channelMask;
  param.query = query;
  return param;
}

// --- Changes. Nobody can do anything about a refused change, so the callers leave the results unchecked. ---

inline int FlcRegisterRepository(const char* diskName, int32_t repository) {
  flc_repository_param_t param = FlcRepositoryParam(diskName, repository);
  return FlcIoctl(FLC_REGISTER_REPOSITORY, &param);
}

inline int FlcUnregisterRepository(const char* diskName, int32_t repository) {
  flc_repository_param_t param = FlcRepositoryParam(diskName, repository);
  return FlcIoctl(FLC_UNREGISTER_REPOSITORY, &param);
}

inline int FlcAddFile(const char* diskName, int32_t repository, uint32_t startTime, uint32_t endTime,
                      uint32_t channelMask) {
  flc_file_info_param_t param = FlcFileParam(diskName, repository, startTime, endTime, channelMask);
  return FlcIoctl(FLC_ADD_FILE, &param);
}

inline int FlcRemoveFile(const char* diskName, int32_t repository, uint32_t startTime) {
  flc_file_info_param_t param = FlcFileParam(diskName, repository, startTime);
  return FlcIoctl(FLC_REMOVE_FILE, &param);
}

inline int FlcClear() { return FlcIoctl(FLC_CLEAR, nullptr); }

// --- Questions. A null disk name means that the caller has none: one line, -1, and the driver is not asked.
// --- The line numbers in that line are fixed identifiers which field logs are searched for, not this file's
// lines.

inline int FlcRefuseNullDisk(int line) {
  std::fprintf(stderr, "\033[31;1mErr (%s/%s:%d) Invalid parameter\n\033[0m", gpDebugPrefix, "include/Flc",
               line);
  return -1;
}

inline int FlcAskFile(unsigned long request, int line, const char* diskName, flc_file_info_param_t* param) {
  if (diskName == nullptr) return FlcRefuseNullDisk(line);
  FlcSetDiskName(param->diskName, diskName);
  return FlcIoctl(request, param);
}

// The record's start time is the time asked for. Query word >= 1: the file that covers it, else the next one;
// <= 0: the last file that starts at or before it. 0 and the file in `param`, or negative and `param`
// untouched.
inline int FlcGetFileByTime(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_FILE_BY_TIME, 93, diskName, param);
}

// The file after the record's start time; with "" and FLC_ANY_REPOSITORY over every disk.
inline int FlcGetNextFile(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_NEXT_FILE, 108, diskName, param);
}

// The file before the record's start time; with "" and FLC_ANY_REPOSITORY over every disk.
inline int FlcGetPreviousFile(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_PREVIOUS_FILE, 123, diskName, param);
}

// The query word is the position, counted from 1 in ascending start order.
inline int FlcGetFileAtPosition(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_FILE_AT_POSITION, 138, diskName, param);
}

inline int FlcGetOldestFile(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_OLDEST_FILE, 163, diskName, param);
}

inline int FlcGetNewestFile(const char* diskName, flc_file_info_param_t* param) {
  return FlcAskFile(FLC_NEWEST_FILE, 175, diskName, param);
}

// Result: the number of files, or negative.
inline int FlcGetFileCount(const char* diskName, int32_t repository) {
  if (diskName == nullptr) return FlcRefuseNullDisk(212);
  flc_repository_param_t param = FlcRepositoryParam(diskName, repository);
  return FlcIoctl(FLC_FILE_COUNT, &param);
}

// `page` is FLC_PAGE_SIZE records; the first carries the request (disk, repository, interval start and end in
// seconds, channel mask), the answer overwrites the page from the first record on. Result: the number of
// records.
inline int FlcGetFilesInInterval(flc_file_info_param_t* page) { return FlcIoctl(FLC_FILES_IN_INTERVAL, page); }
