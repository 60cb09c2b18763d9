// Runs a command of the user's when something happens that people want to hear of: without a shell, one at a
// time, each with a time limit. Nobody waits for it; when more happens than it can take, the latest events are
// dropped, and that is said.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/recorder/disks/Refusals.h"

namespace recorder {

// The words of a command line: blanks part them, quotes of both kinds keep blanks, a backslash outside of
// single quotes keeps the next character. Nothing else has a meaning. Nothing when a quote is not closed or
// there is no word.
std::optional<std::vector<std::string>> SplitWords(const std::string& text);

// Why the command of these words could not be run: it is not there, or not executable. A name without a slash
// is looked for in PATH.
Refusal RefuseCommand(const std::vector<std::string>& words);

class EventCommand {
 public:
  struct Limits {
    int64_t run = 10000;      // milliseconds; then it is killed, with its process group
    int64_t lastWords = 500;  // milliseconds for what is waiting or running at the end
    size_t queue = 64;        // events that wait
  };

  // Without words, nothing is run.
  explicit EventCommand(std::vector<std::string> words, Limits limits);
  explicit EventCommand(std::vector<std::string> words) : EventCommand(std::move(words), Limits()) {}
  ~EventCommand();
  EventCommand(const EventCommand&) = delete;
  EventCommand& operator=(const EventCommand&) = delete;

  // The command gets the event on standard input, one line, with its "time" added; standard output and error
  // are the recorder's.
  void Post(nlohmann::ordered_json event);

 private:
  void Run();
  void RunOnce(const std::string& line);
  int64_t Left(int64_t begin) const;

  const std::vector<std::string> mWords;
  const Limits mLimits;
  mutable std::mutex mMutex;  // guards what follows
  std::condition_variable mChanged;
  std::deque<std::string> mQueue;
  size_t mDropped = 0;
  int64_t mEnd = 0;  // by the monotonic clock, microseconds; 0: not ending
  std::thread mThread;
};

}  // namespace recorder
