#include "apps/recorder/looking/Recordings.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <list>
#include <nlohmann/json.hpp>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Lines.h"
#include "apps/recorder/base/Units.h"
#include "apps/recorder/looking/Coverage.h"
#include "apps/recorder/looking/JsonLine.h"
#include "fmgr/FmgrDataRepository.h"
#include "fmgr/FmgrFileManager.h"
#include "fmgr/FmgrRepositoryGroup.h"
#include "platform/host/imf/ImfRecord.h"

namespace recorder {

namespace {

// The channels of a recording in progress: those written so far, or announced at its begin.
uint32_t ChannelsOf(const std::string& path) {
  ImfReader reader;
  if (!reader.Open(path)) return 0;
  uint32_t mask = reader.ChannelMask();
  reader.SetHeadersOnly(true);
  while (reader.Next() == ImfReader::Item::kStream) {
    if (reader.Stream().kind == ImfKind::kVideo) mask |= 1u << reader.Stream().channel;
  }
  return mask;
}

}  // namespace

bool Overlaps(int64_t start, int64_t end, const Range& range) {
  return start * kMicros < range.until && std::max(end, start + 1) * kMicros > range.since;
}

Refusal OpenToLook(std::string* root, Disks* disks) {
  Refusal refusal = ResolveRoot(root, true);
  if (!refusal) refusal = disks->Choose(*root, {});
  if (!refusal) refusal = disks->OpenForLooking();
  return refusal;
}

int64_t StartOf(const std::string& path) { return FmgrDataRepository::FileNameToStartTimeSec(NameOf(path)); }

int64_t EndOf(const std::string& path) { return FmgrDataRepository::FileNameToEndTimeSec(NameOf(path)); }

Recordings::Recordings(const Disks& disks) : mDisks(disks) { FindOpen(); }

Recording Recordings::Describe(std::string path) const {
  for (const Recording& open : mOpen) {
    if (open.path == path) return open;
  }
  Recording recording;
  const std::string name = NameOf(path);
  recording.start = FmgrDataRepository::FileNameToStartTimeSec(name);
  recording.end = FmgrDataRepository::FileNameToEndTimeSec(name);
  recording.mask = FmgrDataRepository::FileNameToChannelMask(name);
  for (const Disk& disk : mDisks.All()) {
    const size_t length = disk.path.size();
    if (path.compare(0, length, disk.path) == 0 && path[length] == '/') recording.disk = disk.name;
  }
  if (recording.end == 0) {
    recording.state = Recording::State::kUnfinished;
    recording.end = recording.start;
    recording.mask = ChannelsOf(path);
  }
  recording.path = std::move(path);
  return recording;
}

// Only the newest file of a data directory can be in progress.
void Recordings::FindOpen() {
  const FmgrFileManager* manager = mDisks.Manager();
  for (const FmgrRepositoryGroup* group : manager->mGroups) {
    for (const FmgrDataRepository* repository : group->mDataRepositories) {
      std::string path;
      if (!repository->GetLastFilePath(path) || repository->IsCompletedFile(NameOf(path))) continue;
      if (!Exists(path)) {
        // Completed this very moment.
        mDisks.ForgetCache();
        if (!repository->GetLastFilePath(path) || repository->IsCompletedFile(NameOf(path))) continue;
      }
      Recording recording = Describe(path);
      recording.end = std::max<int64_t>(recording.start, repository->GetEndTimeSec());
      mOpen.push_back(recording);
    }
  }
  std::sort(mOpen.begin(), mOpen.end(),
            [](const Recording& a, const Recording& b) { return a.start < b.start; });
  const std::optional<std::string> holder = HolderOf(mDisks.Root(), mDisks.All());
  const bool recording = holder && holder->rfind("recorder record ", 0) == 0;
  if (recording && !mOpen.empty()) mOpen.back().state = Recording::State::kGrowing;
}

std::vector<Recording> Recordings::List(const Range& range, int channel) const {
  ImfSearchCondition condition;
  condition.startTime = range.since;
  condition.endTime = (range.until + kMicros - 1) / kMicros * kMicros;  // whole seconds count
  if (channel != kAnyChannel) condition.channelMask = 1u << channel;
  std::list<std::string> paths;
  mDisks.Manager()->CollectFileList(paths, condition);
  std::vector<Recording> found;
  found.reserve(mOpen.size() + paths.size());
  const auto take = [&](Recording recording) {
    if (recording.Overlaps(range) && recording.HasChannel(channel)) found.push_back(std::move(recording));
  };
  for (const Recording& open : mOpen) take(open);
  for (std::string& path : paths) take(Describe(std::move(path)));
  const auto ascending = [](const Recording& a, const Recording& b) { return a.start < b.start; };
  if (!std::is_sorted(found.begin(), found.end(), ascending)) {
    std::stable_sort(found.begin(), found.end(), ascending);
  }
  return found;
}

const std::vector<Recording>& Recordings::All() const {
  if (!mAll) mAll = List(Range(), kAnyChannel);
  return *mAll;
}

std::vector<Recording> Recordings::Find(const Range& range, int channel) const {
  if (!mAll && !(range == Range())) return List(range, channel);
  std::vector<Recording> found;
  ForEach(range, channel, [&found](const Recording& each) { found.push_back(each); });
  return found;
}

void Recordings::ForEach(const Range& range, int channel,
                         const std::function<void(const Recording&)>& use) const {
  if (!mAll && !(range == Range())) {
    for (const Recording& each : List(range, channel)) use(each);
    return;
  }
  for (const Recording& each : All()) {
    if (each.Overlaps(range) && each.HasChannel(channel)) use(each);
  }
}

uint32_t Recordings::Channels() const {
  uint32_t mask = 0;
  for (const Recording& recording : All()) mask |= recording.mask;
  return mask;
}

std::optional<Recording> Recordings::LastBefore(int64_t time, int channel) const {
  std::string path;
  if (mDisks.Manager()->GetFilePath(static_cast<int>((time - 1) / kMicros), path, 0) != FMGR_DONE) {
    return std::nullopt;
  }
  std::optional<Recording> found = Describe(path);
  while (found && (!found->HasChannel(channel) || found->start * kMicros >= time)) found = Previous(*found);
  return found;
}

std::optional<Recording> Recordings::FirstAfter(int64_t time, int channel) const {
  std::string path;
  if (mDisks.Manager()->GetFilePath(static_cast<int>(time / kMicros), path, 1) != FMGR_DONE)
    return std::nullopt;
  std::optional<Recording> found = Describe(path);
  while (found && (!found->HasChannel(channel) || found->end * kMicros <= time)) found = Next(*found);
  return found;
}

std::optional<Recording> Recordings::Previous(const Recording& recording) const {
  std::string path;
  if (mDisks.Manager()->GetPrevFilePath(recording.path, path) != FMGR_DONE) return std::nullopt;
  // Where nothing is before it, the file manager may answer with a recording of the same or a later start.
  if (StartOf(path) >= recording.start) return std::nullopt;
  return Describe(path);
}

std::optional<Recording> Recordings::Next(const Recording& recording) const {
  std::string path;
  if (mDisks.Manager()->GetNextFilePath(recording.path, path) != FMGR_DONE) return std::nullopt;
  // A recording in progress is its own successor.
  if (StartOf(path) <= recording.start) return std::nullopt;
  return Describe(path);
}

void Recordings::ComplainOfNothing(const Range& range, int channel) const {
  std::string line = "nothing is recorded";
  if (channel != kAnyChannel) line += " of channel " + std::to_string(channel);
  line += " from " + FormatExactTime(range.since) + " to " + FormatExactTime(range.until);
  const std::optional<Moment> before = LastPictureBefore(mDisks, *this, range.since, channel);
  const std::optional<Moment> after = FirstPictureAfter(mDisks, *this, range.until, channel);
  const std::string end =
      before ? "ends at " + FormatTime(RoundedUp(before->time)) + " (" + before->path + ")" : "";
  const std::string start =
      after ? "starts at " + FormatTime(after->time / kMicros) + " (" + after->path + ")" : "";
  if (before && after) line += "; the last recording before it " + end + ", the next " + start;
  if (before && !after) line += "; the last recording before it " + end;
  if (!before && after) line += "; the next recording " + start;
  Complain("%s", line.c_str());
}

const char* NameOfState(Recording::State state) {
  switch (state) {
    case Recording::State::kGrowing:
      return "recording";
    case Recording::State::kUnfinished:
      return "unfinished";
    case Recording::State::kComplete:
      break;
  }
  return "complete";
}

namespace {

// As seconds of the recording.
void PrintPart(const Recording& recording, int channel, const std::vector<PictureSpan>& spans) {
  constexpr size_t kMost = 8;
  std::string text;
  for (size_t i = 0; i < std::min(spans.size(), kMost); i++) {
    char span[64];
    std::snprintf(span, sizeof span, "%s%.1f to %.1f s", i > 0 ? ", " : "",
                  static_cast<double>(spans[i].begin - recording.start * kMicros) / kMicros,
                  static_cast<double>(spans[i].end - recording.start * kMicros) / kMicros);
    text += span;
  }
  if (spans.size() > kMost) text += " and " + std::to_string(spans.size() - kMost) + " more";
  Print("  channel %d only %s\n", channel, text.empty() ? "without pictures" : text.c_str());
}

size_t PaddingOf(const std::string& text, size_t width) { return width - std::min(width, text.size()); }

}  // namespace

void PrintRecording(const Recording& recording, const PartlyRecorded& partly, bool json,
                    const std::string& note, const ChannelNames& names) {
  std::string known;
  for (const auto& [number, name] : names) {
    if (recording.HasChannel(number)) known += (known.empty() ? "(" : ", ") + name;
  }
  if (!known.empty()) known += ") ";
  if (!json) {
    // Put together piece by piece: a list has hundreds of thousands of lines.
    const std::string duration = FormatDuration(static_cast<double>(recording.end - recording.start));
    const std::string channels = FormatChannels(recording.mask);
    std::string line = FormatTime(recording.start) + "  " + FormatTime(recording.end) + "  ";
    line.append(PaddingOf(duration, 8), ' ').append(duration).append("  channels ");
    line.append(channels).append(PaddingOf(channels, 7) + 1, ' ').append(known).append(recording.path);
    if (recording.state != Recording::State::kComplete) line.append("  ").append(NameOfState(recording.state));
    if (!note.empty()) line.append("  ").append(note);
    Print("%s\n", line.c_str());
    for (const auto& [channel, spans] : partly) PrintPart(recording, channel, spans);
    return;
  }
  nlohmann::ordered_json line;
  line["path"] = recording.path;
  line["disk"] = recording.disk;
  line["start"] = FormatTime(recording.start);
  line["end"] = FormatTime(recording.end);
  line["seconds"] = recording.end - recording.start;
  line["channels"] = nlohmann::ordered_json::array();
  for (int channel = 0; channel < IMF_CHANNEL_LIMIT; channel++) {
    if (recording.HasChannel(channel)) line["channels"].push_back(channel);
  }
  for (const auto& [channel, spans] : partly) {
    nlohmann::ordered_json part = {{"channel", channel}, {"recorded", nlohmann::ordered_json::array()}};
    for (const PictureSpan& span : spans) {
      part["recorded"].push_back({{"start", FormatExactTime(span.begin)}, {"end", FormatExactTime(span.end)}});
    }
    line["partly"].push_back(part);
  }
  for (const auto& [number, name] : names) {
    if (recording.HasChannel(number)) line["names"][std::to_string(number)] = name;
  }
  line["state"] = NameOfState(recording.state);
  if (!note.empty()) line["note"] = note;
  PrintLine(line);
}

}  // namespace recorder
