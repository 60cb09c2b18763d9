#include "tests/support/TestDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/host/flc/FlcHost.h"
#include "platform/host/imf/ImfRecord.h"

std::string Text(const char* format, ...) {
  char text[200];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  return text;
}

TestRoot::TestRoot() {
  char path[] = "/tmp/fm.XXXXXX";
  if (mkdtemp(path) == nullptr) std::abort();
  mPath = path;
  fs::create_directories(mPath + "/disk");
}

TestRoot::~TestRoot() {
  for (const std::string& name : mNames) FlcDetachDisk(name.c_str());
  std::error_code ignored;
  fs::remove_all(mPath, ignored);
}

std::string TestRoot::AddDisk(const std::string& name, int freeFiles, int size) {
  const std::string disk = mPath + "/disk/" + name;
  fs::create_directories(disk + "/imf_free");
  for (int i = 0; i < freeFiles; ++i) MakeTestFile(disk + Text("/imf_free/%08d.imf", i), size);
  EXPECT_EQ(0, FlcAttachDisk(name.c_str(), disk.c_str()));
  mNames.push_back(name);
  return disk;
}

void TestRoot::ForgetAll() {
  for (const std::string& name : mNames) FlcForget(name.c_str(), -1);
}

std::string MakeTestFile(const std::string& path, int size) {
  fs::create_directories(fs::path(path).parent_path());
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_GE(descriptor, 0) << path;
  EXPECT_EQ(0, ftruncate(descriptor, size)) << path;
  close(descriptor);
  return path;
}

void WriteTestRecording(const std::string& path, unsigned start, int seconds, unsigned mask) {
  ImfWriter writer;
  writer.SetCheckpointInterval(0);
  ASSERT_TRUE(writer.Open(path, start)) << path;
  for (int channel = 0; channel < IMF_CHANNEL_LIMIT; ++channel) {
    if ((mask >> channel & 1) == 0) continue;
    ImfStreamInfo stream;
    stream.channel = channel;
    ASSERT_EQ(ImfWriteResult::kWritten, writer.AddStream(stream));
    ImfPacket packet;
    packet.channel = channel;
    packet.keyFrame = true;
    packet.time = (int64_t{start} + seconds) * 1000000;
    packet.data = {1, 2, 3};
    ASSERT_EQ(ImfWriteResult::kWritten, writer.Write(packet));
  }
}

Names NamesIn(const std::string& directory) {
  std::set<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(directory, missing))
    names.insert(entry.path().filename().string());
  return {names.begin(), names.end()};
}

std::map<unsigned long, std::multiset<std::string>> PlacesOf(const std::string& disk) {
  std::map<unsigned long, std::multiset<std::string>> places;
  for (const std::string& place : NamesIn(disk)) {
    for (const std::string& name : NamesIn(disk + "/" + place)) {
      struct stat status;
      if (name.find(".imf") == std::string::npos) continue;
      if (lstat((disk + "/" + place + "/" + name).c_str(), &status) == 0) places[status.st_ino].insert(place);
    }
  }
  return places;
}

std::set<unsigned long> InodesOf(const std::string& disk) {
  std::set<unsigned long> inodes;
  for (const auto& [inode, where] : PlacesOf(disk)) inodes.insert(inode);
  return inodes;
}

std::map<std::string, std::string> RecordFilesIn(const std::string& root, const char* part) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const fs::path& path = entry.path();
    const bool isRecord = path.parent_path().filename().string().rfind("data_", 0) == 0;
    if (isRecord && path.filename().string().find(part) != std::string::npos) files[path.filename()] = path;
  }
  return files;
}

std::string ReadText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

Names LinesOf(const std::string& text) {
  std::istringstream all(text);
  Names lines;
  for (std::string line; std::getline(all, line);) lines.push_back(line);
  return lines;
}

testing::AssertionResult Has(const std::string& text, const std::string& part) {
  const bool has = text.find(part) != std::string::npos;
  return testing::AssertionResult(has) << "'" << part << (has ? "' is in\n" : "' is not in\n") << text;
}

void ExpectEachInOnePlace(const std::string& disk, const std::set<unsigned long>& inodes) {
  EXPECT_EQ(inodes, InodesOf(disk)) << disk;
  for (const auto& [inode, where] : PlacesOf(disk)) {
    EXPECT_EQ(1u, where.size()) << disk << " inode " << inode << " is in " << where.size() << " places";
  }
}

void RecordingObserver::NotifyStage(int stage, int active) {
  heard.push_back(Text("stage %d %d", stage, active));
}

void RecordingObserver::NotifyFileFixed(ImfFile&, const std::string& newName, unsigned videoChannelMask) {
  heard.push_back("fixed " + newName + Text(" %x", videoChannelMask));
}

void RecordingObserver::NotifyFileRemoved(const std::string& path, unsigned start, unsigned end,
                                          unsigned mask) {
  heard.push_back("removed " + path + Text(" %x %x %x", start, end, mask));
}
