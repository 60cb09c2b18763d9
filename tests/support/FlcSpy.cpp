#include "tests/support/FlcSpy.h"

#include <dlfcn.h>

#include <cstdlib>

#include "tests/support/TestDisk.h"

namespace flc_spy {
namespace {
std::vector<Request> gRequests;
}

std::function<bool(unsigned long, void*, int&)> gAnswer;

const std::vector<Request>& Requests() { return gRequests; }

std::vector<std::string> Sent() {
  std::vector<std::string> texts;
  for (const auto& [number, file, repository] : gRequests) {
    const bool isFile = repository.diskName[0] == '\0';
    const std::string rest = Text(" %x %x %x %d", file.startTime, file.endTime, file.channelMask, file.query);
    texts.push_back(Text("%lx %.8s %d", number & 0xfff, isFile ? file.diskName : repository.diskName,
                         isFile ? file.repository : repository.repository) +
                    (isFile ? rest : ""));
  }
  return texts;
}

void Clear() { gRequests.clear(); }

}  // namespace flc_spy

int FlcIoctl(unsigned long request, void* argument) {
  using Function = int (*)(unsigned long, void*);
  static const Function next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_Z8FlcIoctlmPv"));
  if (next == nullptr) std::abort();

  flc_spy::Request seen{};
  seen.number = request;
  const bool isRepository =
      request == FLC_REGISTER_REPOSITORY || request == FLC_UNREGISTER_REPOSITORY || request == FLC_FILE_COUNT;
  if (argument != nullptr && isRepository) seen.repository = *static_cast<flc_repository_param_t*>(argument);
  if (argument != nullptr && !isRepository) seen.file = *static_cast<flc_file_info_param_t*>(argument);
  flc_spy::gRequests.push_back(seen);

  int result = 0;
  if (flc_spy::gAnswer && flc_spy::gAnswer(request, argument, result)) return result;
  return next(request, argument);
}
