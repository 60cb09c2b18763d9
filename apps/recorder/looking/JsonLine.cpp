#include "apps/recorder/looking/JsonLine.h"

#include <cstdio>

namespace recorder {

void PrintLine(const nlohmann::ordered_json& line) {
  std::printf("%s\n", line.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace).c_str());
}

}  // namespace recorder
