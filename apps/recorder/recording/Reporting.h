// What a recording tells others about itself while it goes on: to the state file and systemd, and, when
// something happens, to the user's command. Called by the thread that records.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/capture/Source.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "apps/recorder/recording/EventCommand.h"
#include "apps/recorder/recording/HealthReporter.h"
#include "apps/recorder/recording/Recovery.h"
#include "apps/recorder/recording/Segments.h"

namespace recorder {

class Reporting {
 public:
  struct Options {
    std::string root;
    std::vector<InputSpec> inputs;
    std::vector<std::string> onEvent;  // words of the command; none: nothing is run
    bool writesFile = true;
    int64_t inputTimeout = 0;  // microseconds
  };

  Reporting(const Source& source, const Segments& segments, const DiskKeeper& keeper, const Recovery& recovery,
            Options options);
  // Says for the last time how it went.
  ~Reporting();

  // Lines about a channel, and its events.
  void Tell(const SourceEvent& event);
  // To be called in every round of recording, also when nothing comes.
  void Look();

 private:
  void LookAtDisks();
  void Post(const char* what, nlohmann::ordered_json event);
  Health Collect() const;

  const Segments& mSegments;
  const DiskKeeper& mKeeper;
  const Recovery& mRecovery;
  const Options mOptions;
  const ChannelNames mNames;
  EventCommand mCommand;
  HealthReporter mHealth;
  int mQuarantined = 0;
  bool mPaused = false;
  std::map<std::string, DiskState::Use> mUses;  // of the disks, by name
};

}  // namespace recorder
