#include "apps/recorder/recording/RecordSession.h"

#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "apps/recorder/base/ExitStatus.h"
#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/capture/StreamClockSource.h"
#include "apps/recorder/capture/WallClockSource.h"
#include "apps/recorder/disks/DirectoryLock.h"
#include "apps/recorder/disks/Disks.h"
#include "apps/recorder/recording/DiskKeeper.h"
#include "apps/recorder/recording/Expiry.h"
#include "apps/recorder/recording/Recovery.h"
#include "apps/recorder/recording/Reporting.h"
#include "apps/recorder/recording/Segments.h"

extern "C" {
#include <libavutil/log.h>
}

namespace recorder {

namespace {

constexpr unsigned kBetweenLooks = 2;  // seconds, standing by

// What the options mean, once they are found to be sound.
struct Plan {
  std::string root;
  ipc_preserve_limit_e keep = IPC_PRESERVE_UNLIMITED;  // the file manager's, not shorter than
  int64_t keepSeconds = 0;                             // what was asked for; 0: no limit
  std::vector<InputSpec> inputs;
  std::vector<std::string> urls;  // by channel, empty where there is no input
  std::vector<std::string> onEvent;
  bool streamClock = false;
  int64_t start = 0;  // microseconds since the epoch
  WallClockSource::Options capture;
};

Refusal MakePlan(const RecordOptions& options, const std::string& root, Plan* plan) {
  if (options.inputs.empty()) return "--input is required (recorder record --help shows the options)";
  if (Refusal refusal = ParseInputs(options.inputs, IMF_CHANNEL_LIMIT, &plan->inputs)) return refusal;
  for (const InputSpec& input : plan->inputs) {
    const auto number = static_cast<size_t>(input.channel);
    if (plan->urls.size() <= number) plan->urls.resize(number + 1);
    plan->urls[number] = input.address;
  }
  if (!options.onEvent.empty()) {
    const auto words = SplitWords(options.onEvent);
    if (!words) return "--on-event " + options.onEvent + " is no command: a quote is open";
    if (Refusal refusal = RefuseCommand(*words)) return "--on-event: " + *refusal;
    plan->onEvent = *words;
  }
  if (options.segment < 1 || options.segment > 24 * 3600) return "--segment takes 1 to 86400 seconds";
  if (options.checkpoint < 1 || options.checkpoint > 3600) return "--checkpoint takes 1 to 3600 seconds";
  if (options.retry < 1 || options.retry > 3600) return "--retry takes 1 to 3600 seconds";
  const std::optional<int64_t> keep = ParseSpan(options.keep);
  if (!keep) return "--keep " + options.keep + " is not a time: 36 (hours), 36h and 7d are";
  if (Refusal refusal = RefuseKeep(*keep, &plan->keep)) return refusal;
  plan->keepSeconds = *keep;
  if (options.inputTimeout < 1 || options.inputTimeout > 3600) return "--input-timeout takes 1 to 3600 seconds";
  plan->capture.audio = options.audio;
  plan->capture.timeout = options.inputTimeout * kMicros;
  if (!options.cameraClock.empty()) {
    const std::optional<uint32_t> trusted = ParseChannels(options.cameraClock, NamesOf(plan->inputs));
    if (!trusted) {
      return "--camera-clock " + options.cameraClock + " names no channels: 0,2-3, names of inputs or all does";
    }
    for (size_t channel = 0; channel < IMF_CHANNEL_LIMIT && *trusted != UINT32_MAX; channel++) {
      const bool hasInput = channel < plan->urls.size() && !plan->urls[channel].empty();
      if ((*trusted >> channel & 1) != 0 && !hasInput) {
        return "--camera-clock " + options.cameraClock + ": channel " + std::to_string(channel) +
               " has no input";
      }
    }
    plan->capture.trustedCameras = *trusted;
  }
  plan->streamClock = options.clock == "stream";
  if (!plan->streamClock && options.clock != "wall") return "--clock is wall or stream";
  if (plan->streamClock == options.start.empty()) {
    return plan->streamClock ? "--clock stream needs --start TIME" : "--start goes with --clock stream only";
  }
  if (plan->streamClock) {
    const std::optional<int64_t> start = ParseTime(options.start);
    if (!start) return "--start " + options.start + " is not a time: 2024-05-01T12:00:00+02:00 is";
    plan->start = *start;
    if (Refusal refusal = RefuseClock(plan->start / kMicros)) return "--start: " + *refusal;
  } else if (Refusal refusal = RefuseClock(std::time(nullptr))) {
    return refusal;
  }
  plan->root = root;
  return ResolveRoot(&plan->root, true);
}

// The locks of the root directory and of all disks. A disk whose lock can't be had although nobody has it, as
// on a read-only file system, is no reason not to start: it is set aside when it is looked at.
Refusal TakeFreeLocks(const std::string& root, const std::vector<Disk>& disks, LockSet* locks) {
  Refusal refusal = locks->Take(root);
  for (size_t i = 0; !refusal && i < disks.size(); ++i) {
    refusal = locks->Take(disks[i].path);
    if (refusal && !HolderOf(disks[i].path)) refusal.reset();
  }
  if (!refusal) return refusal;
  for (const Disk& disk : disks) locks->Release(disk.path);
  locks->Release(root);
  return refusal;
}

// Standing by, waits until whoever has a lock is gone, or a signal comes. A look leaves the locks alone, so
// that nobody who waits as well is turned away by it.
Refusal AwaitLocks(const Plan& plan, const std::vector<Disk>& disks, bool standby, LockSet* locks) {
  std::string said;
  while (!gStop) {
    Refusal refusal = standby ? HolderOf(plan.root, disks) : std::nullopt;
    if (refusal) refusal = "in use by " + *refusal;
    if (!refusal) refusal = TakeFreeLocks(plan.root, disks, locks);
    if (!refusal || !standby) return refusal;
    if (*refusal != said) Complain("standing by: %s", refusal->c_str());
    said = *refusal;
    NotifyStandby(said);
    sleep(kBetweenLooks);
  }
  return std::nullopt;
}

// Returns the exit status. `wanted`: so many inputs have to have been opened at the end.
int RecordAll(Source& source, int wanted, Segments& segments, Reporting& reporting) {
  SourceEvent event;
  for (;;) {
    source.Next(&event);
    reporting.Look();
    switch (event.kind) {
      case SourceEvent::kPacket:
        if (!segments.Put(event.sample)) {
          segments.Finish();
          return kFound;
        }
        break;
      case SourceEvent::kChannelBack:
      case SourceEvent::kChannelStillLost:
        reporting.Tell(event);
        break;
      case SourceEvent::kChannelLost:
      case SourceEvent::kChannelEnded:
        reporting.Tell(event);
        segments.EndChannel(event.channel);
        break;
      case SourceEvent::kNothing:
        segments.Idle();
        break;
      case SourceEvent::kFinished:
        segments.Finish();
        if (gStop) return kDone;
        if (source.Opened() > 0) return source.Opened() < wanted || segments.IsPaused() ? kFound : kDone;
        Complain("none of the inputs can be read");
        return kRefused;
    }
  }
}

}  // namespace

Refusal CheckRecord(const RecordOptions& options, const std::string& root) {
  Plan plan;
  return MakePlan(options, root, &plan);
}

int Record(const RecordOptions& options, const std::string& root) {
  Plan plan;
  LockSet locks("record");
  SearchIndex index;
  Recovery recovery(index);
  Disks disks;  // released before the observer that it calls
  Refusal refusal = MakePlan(options, root, &plan);
  if (!refusal) refusal = disks.Choose(plan.root, options.disks);
  StopOnSignals();
  EndInTime();
  if (!refusal) refusal = AwaitLocks(plan, disks.All(), options.standby, &locks);
  if (!refusal && gStop) return kDone;
  if (!refusal) {
    signal(SIGPIPE, SIG_IGN);  // a log that is not read any more must not end the recording
    refusal =
        disks.OpenForRecording({options.overwrite, plan.keep, &recovery, &recovery, plan.start / kMicros});
  }
  if (refusal) {
    Complain("%s", refusal->c_str());
    return kRefused;
  }
  DiskKeeper keeper(disks, locks, index, recovery, {options.retry, options.disks.empty(), !plan.streamClock});

  av_log_set_level(AV_LOG_QUIET);  // what matters of it is said in lines of our own
  keeper.Start();
  // Each disk has been named. One that stumbled once is usable at the second asking.
  if (plan.streamClock && !keeper.HasDisk() && !keeper.AskAgain()) return kRefused;
  Expiry expiry(disks, keeper, recovery, {plan.keepSeconds, options.trustClock, !plan.streamClock});
  // What is read from files can be read again; what a camera sends can't.
  Segments segments(disks, keeper, expiry, index, recovery,
                    {options.segment, options.checkpoint, !plan.streamClock});
  std::unique_ptr<Source> source;
  if (plan.streamClock) {
    source = std::make_unique<StreamClockSource>(plan.urls, plan.start, plan.capture.timeout, options.audio);
  } else {
    source = std::make_unique<WallClockSource>(plan.urls, plan.capture);
  }
  int status = kDone;
  {
    // What is read from files as fast as it can be read is over soon, and nobody watches it.
    Reporting reporting(*source, segments, keeper, recovery,
                        {plan.root, plan.inputs, plan.onEvent, !plan.streamClock, plan.capture.timeout});
    status =
        RecordAll(*source, plan.streamClock ? static_cast<int>(plan.inputs.size()) : 1, segments, reporting);
  }

  if (status == kRefused) return status;

  const Segments::Totals& sum = segments.Sum();
  Print("recorded %s, %s, %s, %s; dropped %s, recycled %s, quarantined %s\n",
        FormatCount(sum.segments, "segment").c_str(), FormatDuration(sum.seconds).c_str(),
        FormatSize(sum.bytes).c_str(), FormatCount(sum.packets, "packet").c_str(),
        FormatCount(sum.dropped, "packet").c_str(), FormatCount(recovery.Recycled(), "recording").c_str(),
        FormatCount(sum.quarantined, "file").c_str());
  return status;
}

}  // namespace recorder
