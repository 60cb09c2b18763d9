#include "platform/host/HostSystem.h"

#include <atomic>

namespace {

std::atomic<bool> gCommandsAllowed{true};

}  // namespace

void HostAllowCommands(bool allow) { gCommandsAllowed = allow; }

bool HostCommandsAllowed() { return gCommandsAllowed; }
