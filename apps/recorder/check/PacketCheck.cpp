#include "apps/recorder/check/PacketCheck.h"

#include <algorithm>
#include <string>
#include <vector>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/base/Units.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr int64_t kPacketsAtATime = 64;
constexpr size_t kPlacesTold = 8;  // of one recording

struct Place {
  uint64_t offset;
  uint64_t bytes;
  std::vector<ImfEntry> lost;
};

std::vector<std::string> CompletedRecordings(const std::string& disk) {
  std::vector<std::string> paths;
  for (const std::string& name : ListDirectory(disk)) {
    if (ParseDataDirectoryName(name) < 0) continue;
    const std::string directory = disk + "/" + name + "/";
    for (const std::string& file : ListDirectory(directory)) {
      RecordName record = {};
      if (ParseRecordName(file, &record) && record.endTime != 0) paths.push_back(directory + file);
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

// What was there, as the index and headers that are still sound have it.
void FindLost(const ImfReader& reader, std::vector<Place>* places) {
  auto place = places->begin();  // both ascend
  reader.List([places, &place](const ImfEntry& entry) {
    while (place != places->end() && entry.offset >= place->offset + place->bytes) ++place;
    if (place != places->end() && entry.offset >= place->offset) place->lost.push_back(entry);
  });
}

std::string Describe(const Place& place) {
  std::string text = FormatSize(place.bytes) + " at " + std::to_string(place.offset);
  if (place.lost.empty()) return text;
  uint32_t channels = 0;
  int64_t from = INT64_MAX;
  int64_t to = INT64_MIN;
  for (const ImfEntry& entry : place.lost) {
    channels |= 1u << entry.channel;
    if (!entry.isPacket) continue;
    from = std::min(from, entry.time);
    to = std::max(to, entry.time);
  }
  text += " (channel " + FormatChannels(channels);
  if (from <= to) text += ", " + FormatExactTime(from);
  if (from < to) text += " to " + FormatExactTime(to);
  return text + ")";
}

class RecordingCheck {
 public:
  RecordingCheck(DiskReport* report, PacketTotals* totals, const std::function<bool(const PacketTotals&)>& goOn)
      : mReport(report), mTotals(totals), mGoOn(goOn) {}

  // False: that was the end.
  bool Read(const std::string& path) {
    ImfReader reader;
    if (!reader.Open(path)) {
      if (Exists(path)) Blame(Fault::kUnreadable, path, reader.Error());
      return true;
    }
    std::vector<Place> places;
    for (;;) {
      switch (reader.Next()) {
        case ImfReader::Item::kStream:
          break;
        case ImfReader::Item::kPacket:
          mTotals->bytes += reader.Packet().data.size();
          if (++mTotals->packets % kPacketsAtATime != 0 || mGoOn(*mTotals)) break;
          Tell(path, reader, &places);
          return false;
        case ImfReader::Item::kDamage:
          places.push_back({reader.Offset(), reader.DamagedBytes(), {}});
          break;
        case ImfReader::Item::kFailed:
          Blame(Fault::kUnreadable, path, reader.Error());
          return true;
        case ImfReader::Item::kReplaced:
          return true;
        case ImfReader::Item::kEnd:
          Tell(path, reader, &places);
          return true;
      }
    }
  }

 private:
  void Blame(Fault fault, const std::string& path, const std::string& what) {
    const bool isKnown = std::any_of(mReport->findings.begin(), mReport->findings.end(),
                                     [&](const Finding& finding) { return finding.path == path; });
    if (!isKnown) mReport->findings.push_back({fault, path, what, true});
  }

  void Tell(const std::string& path, const ImfReader& reader, std::vector<Place>* places) {
    if (places->empty()) return;
    FindLost(reader, places);
    std::string what = "is damaged: ";
    for (size_t i = 0; i < std::min(places->size(), kPlacesTold); ++i) {
      what += (i > 0 ? ", " : "") + Describe((*places)[i]);
    }
    if (places->size() > kPlacesTold)
      what += ", and " + std::to_string(places->size() - kPlacesTold) + " more places";
    Blame(Fault::kDamaged, path, what);
  }

  DiskReport* const mReport;
  PacketTotals* const mTotals;
  const std::function<bool(const PacketTotals&)>& mGoOn;
};

}  // namespace

PacketTotals CheckPackets(DiskReport* report, const std::function<bool(const PacketTotals&)>& goOn) {
  PacketTotals totals;
  const std::vector<std::string> paths = CompletedRecordings(report->path);
  totals.of = static_cast<int64_t>(paths.size());
  RecordingCheck check(report, &totals, goOn);
  for (const std::string& path : paths) {
    if (!goOn(totals) || !check.Read(path)) break;
    ++totals.recordings;
  }
  report->notes.push_back("read " + std::to_string(totals.packets) + " packets of " +
                          std::to_string(totals.recordings) + " of " + std::to_string(totals.of) +
                          " recordings, " + FormatSize(totals.bytes));
  return totals;
}

}  // namespace recorder
