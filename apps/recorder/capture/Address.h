// What an input's address says, and how much of it may be shown.
#pragma once

#include <string>
#include <vector>

namespace recorder {

// For messages: the input without the user name and password, and without the values of parameters that look
// like passwords or keys, that may be in its address.
std::string ShownAddress(const std::string& url);
std::vector<std::string> ShownAddresses(const std::vector<std::string>& urls);
// Whether it comes from somewhere that can go away and come back: it is connected to again. "-" is standard
// input.
bool IsNetwork(const std::string& url);

}  // namespace recorder
