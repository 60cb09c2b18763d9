// Sees every request to the file list cache on its way to the workstation's cache. Linked into a test program,
// it takes the place of FlcIoctl for the library and passes each request on.
#pragma once

#include <functional>
#include <string>
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
// The same as text, hexadecimal except for indexes and the query word: "30a sda1 5 5f5e1100 0 ffffffff 1" for
// number, disk, index, start, end, mask and query word; "303 sda1 5" for a repository request.
std::vector<std::string> Sent();
void Clear();

// When set, answers in place of the cache: returns true with `result` set to do so.
extern std::function<bool(unsigned long number, void* argument, int& result)> gAnswer;

}  // namespace flc_spy
