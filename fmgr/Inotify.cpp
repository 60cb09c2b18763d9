#include "fmgr/Inotify.h"

#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace fmgr {

bool StartWatch(const std::string& directory, uint32_t mask, int& instance, int& watch) {
  StopWatch(instance, watch);
  instance = inotify_init1(IN_NONBLOCK);
  if (instance < 0) return false;
  watch = inotify_add_watch(instance, directory.c_str(), mask);
  return true;
}

void StopWatch(int& instance, int& watch) {
  if (instance < 0) return;
  inotify_rm_watch(instance, watch);
  close(instance);
  instance = -1;
  watch = -1;
}

void ReadEvents(int instance, char* buffer, size_t size,
                const std::function<void(uint32_t mask, const std::string& name)>& handle) {
  const ssize_t received = read(instance, buffer, size);
  if (received <= 0) return;
  const size_t end = static_cast<size_t>(received);
  for (size_t offset = 0; offset + sizeof(inotify_event) <= end;) {
    inotify_event event;
    memcpy(&event, buffer + offset, sizeof event);
    offset += sizeof event;
    if (event.len > end - offset) return;
    // The kernel pads the name with zero bytes up to the length.
    const char* name = buffer + offset;
    if (event.len != 0) handle(event.mask, std::string(name, strnlen(name, event.len)));
    offset += event.len;
  }
}

}  // namespace fmgr
