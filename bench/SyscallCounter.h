// Counts the system calls of a piece of code exactly: it runs in a child process that is watched from outside.
#pragma once

#include <functional>

// Runs `prepare` and then `body` in a child process and returns the number of system calls that `body` made,
// those of the programs that it starts not included; -1 when processes can't be watched here.
long CountSystemCalls(const std::function<void()>& prepare, const std::function<void()>& body);
