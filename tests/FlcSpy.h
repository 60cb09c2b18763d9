// Sees every request to the file list cache on its way to the workstation's cache. Linked into a test program,
// it takes the place of FlcIoctl for the library and passes each request on.
#pragma once

#include <functional>
#include <vector>

#include "Flc.h"

namespace flc_spy {

struct Request {
  unsigned long number;
  flc_file_info_param_t file;         // as sent; for the file requests
  flc_repository_param_t repository;  // as sent; for the repository requests and the count
};

// Every request since the last Clear.
const std::vector<Request>& Requests();
int CountOf(unsigned long number);
void Clear();

// When set, answers in place of the cache: returns true with `result` set to do so.
extern std::function<bool(unsigned long number, void* argument, int& result)> gAnswer;

}  // namespace flc_spy
