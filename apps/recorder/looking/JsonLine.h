// A line of JSON on standard output, as every --json writes it.
#pragma once

#include <nlohmann/json.hpp>

namespace recorder {

// In ASCII, other characters escaped: exact for programs, and harmless on a terminal. Texts need not be valid
// UTF-8; what is not is replaced.
void PrintLine(const nlohmann::ordered_json& line);

}  // namespace recorder
