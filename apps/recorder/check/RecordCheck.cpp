#include "apps/recorder/check/RecordCheck.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>

#include "apps/recorder/base/Units.h"
#include "fmgr/FmgrDataRepository.h"
#include "platform/host/imf/ImfRecord.h"
#include "platform/host/imf/RecordName.h"

namespace recorder {

namespace {

constexpr uint32_t kTimeLimit = 2147483647;  // the file manager's times are signed

std::string ProperName(const RecordName& record) {
  flc_file_info_param_t info = {};
  info.startTime = record.startTime;
  info.endTime = record.endTime;
  info.channelMask = record.channelMask;
  std::string name;
  FmgrDataRepository::FlcFileInfoToFileName(name, info);
  return name;
}

// What speaks against a completed recording's header; empty when nothing does.
std::string CompareHeader(const std::string& path, const RecordName& record) {
  ImfReader reader;
  if (!reader.Open(path)) {
    const std::string& error = reader.Error();
    return error.compare(0, path.size(), path) == 0 ? error.substr(path.size() + 2) : error;
  }
  if (reader.StartTime() != record.startTime) {
    return "its header belongs to a recording that starts at " + FormatTime(reader.StartTime());
  }
  if (reader.EndTime() == 0) return "its header tells no end time";
  if (reader.EndTime() != record.endTime)
    return "its header tells another end, " + FormatTime(reader.EndTime());
  if (reader.ChannelMask() != record.channelMask) {
    return "its header tells other channels, " + FormatChannels(reader.ChannelMask());
  }
  return "";
}

}  // namespace

void CheckRecordings(const std::string& directory, const std::vector<std::string>& names, const Blame& blame,
                     std::vector<CheckedRecording>* completed) {
  std::map<uint32_t, std::string> starts;  // of several files with one start, the last one that is completed
  RecordName record = {};
  for (const std::string& name : names) {
    if (!ParseRecordName(name, &record)) continue;
    std::string& known = starts[record.startTime];
    if (known.empty() || record.endTime != 0) known = name;
  }
  for (const std::string& name : names) {
    const std::string path = directory + name;
    if (!ParseRecordName(name, &record)) {
      blame(Fault::kName, path, "its name tells no start time");
      continue;
    }
    const std::string& known = starts[record.startTime];
    if (known != name) {
      blame(Fault::kTwoStarts, path, "starts in the same second as " + known);
    } else if (name != ProperName(record)) {
      blame(Fault::kName, path, "its name should be " + ProperName(record));
    } else if (record.endTime == 0) {
      blame(Fault::kUnfinished, path, "was never completed");
    } else if (record.endTime <= record.startTime || record.endTime > kTimeLimit) {
      blame(Fault::kName, path, "its name tells an end that can't be");
    } else {
      const std::string what = CompareHeader(path, record);
      if (!what.empty())
        blame(access(path.c_str(), R_OK) == 0 ? Fault::kHeader : Fault::kUnreadable, path, what);
      completed->push_back({record.startTime, record.endTime, path});
    }
  }
}

}  // namespace recorder
