#include "platform/host/searchdb/SearchDbMemory.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <mutex>
#include <utility>

namespace searchdb {
namespace {

constexpr int64_t kSettled = 3;     // seconds: file systems count in up to two
constexpr size_t kMostKept = 4096;  // databases; a recorder has one a data directory

struct Kept {
  FileState state;
  Knowledge knowledge;
};

std::mutex gMutex;
std::map<std::pair<uint64_t, uint64_t>, Kept> gKept;  // by device and inode

}  // namespace

std::optional<Knowledge> Recall(const FileState& state) {
  const std::lock_guard<std::mutex> lock(gMutex);
  const auto found = gKept.find({state.device, state.inode});
  if (found == gKept.end() || !(found->second.state == state)) return std::nullopt;
  return found->second.knowledge;
}

void Keep(const FileState& state, const Knowledge& knowledge) {
  const int64_t age = int64_t{std::time(nullptr)} - std::max(state.written, state.changed) / 1000000000;
  if (age < kSettled) return;
  const std::lock_guard<std::mutex> lock(gMutex);
  if (gKept.size() >= kMostKept) gKept.clear();
  gKept[{state.device, state.inode}] = {state, knowledge};
}

}  // namespace searchdb
