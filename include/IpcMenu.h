// Records shared with the menu process: the storage menu, and the setting of the preservation limit.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int IPC_MENU_DISK_COUNT = 16;
constexpr int IPC_MENU_DISK_NAME_SIZE = 8;
constexpr int IPC_MENU_DISK_PATH_SIZE = 144;

struct ipc_menu_disk_entry_t {
  int32_t inUse;  // set by the application; entries with 0 are left alone
  int32_t reserved0[2];
  int32_t recordedSize;  // decimal megabytes (10^6 bytes)
  int32_t reserved1;
  int32_t writing;    // 1: this disk is being recorded to
  int32_t startTime;  // seconds since the epoch, 0 when nothing is recorded
  int32_t endTime;
  int32_t reserved2[12];
  char diskName[IPC_MENU_DISK_NAME_SIZE];  // set by the application; terminated unless it has 8 bytes
  char diskPath[IPC_MENU_DISK_PATH_SIZE];  // set by the application; terminated
};
static_assert(sizeof(ipc_menu_disk_entry_t) == 232);
static_assert(offsetof(ipc_menu_disk_entry_t, recordedSize) == 12);
static_assert(offsetof(ipc_menu_disk_entry_t, writing) == 20);
static_assert(offsetof(ipc_menu_disk_entry_t, startTime) == 24);
static_assert(offsetof(ipc_menu_disk_entry_t, endTime) == 28);
static_assert(offsetof(ipc_menu_disk_entry_t, diskName) == 80);
static_assert(offsetof(ipc_menu_disk_entry_t, diskPath) == 88);

struct ipc_menu_disk_stream_t {
  int32_t reserved;
  int32_t kind;  // set to 2 by the library
  ipc_menu_disk_entry_t entries[IPC_MENU_DISK_COUNT];
};
static_assert(sizeof(ipc_menu_disk_stream_t) == 8 + 232 * 16);
static_assert(offsetof(ipc_menu_disk_stream_t, kind) == 4);
static_assert(offsetof(ipc_menu_disk_stream_t, entries) == 8);

// How long recordings are kept. The values are the menu's and stored in its settings; they are not in the order
// of the hours they stand for. A stored value may be any word: all that are not listed mean no limit.
enum ipc_preserve_limit_e : int32_t {
  IPC_PRESERVE_UNLIMITED = 0,
  IPC_PRESERVE_12_HOURS = 1,
  IPC_PRESERVE_24_HOURS = 2,
  IPC_PRESERVE_48_HOURS = 3,
  IPC_PRESERVE_72_HOURS = 4,
  IPC_PRESERVE_96_HOURS = 5,
  IPC_PRESERVE_120_HOURS = 6,
  IPC_PRESERVE_144_HOURS = 7,
  IPC_PRESERVE_168_HOURS = 8,
  IPC_PRESERVE_336_HOURS = 9,
  IPC_PRESERVE_RESERVED = 10,  // no limit
  IPC_PRESERVE_672_HOURS = 11,
  IPC_PRESERVE_720_HOURS = 12,
  IPC_PRESERVE_1440_HOURS = 13,
  IPC_PRESERVE_2160_HOURS = 14,
};
