// filedb: makes the search database of a data directory anew.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/host/searchdb/SearchDbRebuild.h"

namespace {

constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kRefused = 2;

constexpr char kUsage[] =
    "usage: filedb -f DIR\n"
    "\n"
    "Makes the search database DIR/search.fdb anew from the record files in DIR. Record files are only read.\n"
    "\n"
    "  -f, --file DIR   the data directory\n"
    "      --help       this text\n"
    "      --version    the version\n"
    "\n"
    "Exit status: 0 done, 1 failed (run it again), 2 refused: nothing was changed.\n";

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int RebuildDirectory(const std::string& directory) {
  const auto start = std::chrono::steady_clock::now();
  const bool isTerminal = isatty(STDERR_FILENO) == 1;
  double shown = 0;
  const auto progress = [&](size_t done, size_t total) {
    const double now = SecondsSince(start);
    if (!isTerminal || now - shown < 0.1) return;
    shown = now;
    const double left = now * static_cast<double>(total - done) / static_cast<double>(done);
    std::fprintf(stderr, "\r%s: %zu of %zu files, %.0f s left\033[K", directory.c_str(), done, total, left);
  };

  SearchDbRebuildReport report;
  const SearchDbRebuildResult result = RebuildSearchDb(directory, progress, &report);
  if (shown > 0) std::fprintf(stderr, "\r\033[K");
  if (result != SearchDbRebuildResult::kDone) {
    std::fprintf(stderr, "filedb: %s: %s\n", directory.c_str(), report.error.c_str());
    return result == SearchDbRebuildResult::kRefused ? kRefused : kFailed;
  }
  std::printf("%s: %zu recordings, %zu in progress, %zu skipped, %.1f s\n", directory.c_str(),
              report.recordings, report.inProgress, report.skipped, SecondsSince(start));
  return std::fflush(stdout) == 0 ? kDone : kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  const option options[] = {{"file", required_argument, nullptr, 'f'},
                            {"help", no_argument, nullptr, 'h'},
                            {"version", no_argument, nullptr, 'v'},
                            {nullptr, 0, nullptr, 0}};
  std::string directory;
  for (int c = 0; (c = getopt_long(argc, argv, "f:h", options, nullptr)) != -1;) {
    if (c == 'h') return std::fputs(kUsage, stdout) >= 0 ? kDone : kFailed;
    if (c == 'v') return std::puts("filedb " FILEDB_VERSION) >= 0 ? kDone : kFailed;
    if (c != 'f') return kRefused;  // getopt has said why
    directory = optarg;
  }
  if (directory.empty() || optind != argc) {
    std::fputs("filedb: say which directory: filedb -f DIR\n", stderr);
    return kRefused;
  }
  return RebuildDirectory(directory);
}
