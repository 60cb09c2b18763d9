#include "apps/recorder/check/Finding.h"

#include <cstddef>

namespace recorder {

const char* FaultName(Fault fault) {
  static constexpr const char* kNames[] = {
      "two-places",     "leftover",        "outside",    "size",      "gap",     "pool-name",  "no-file",
      "directory-name", "two-directories", "unreadable", "foreign",   "name",    "unfinished", "header",
      "two-starts",     "missing",         "set-aside",  "immovable", "damaged", "search-db"};
  return kNames[static_cast<size_t>(fault)];
}

}  // namespace recorder
