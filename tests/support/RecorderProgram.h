// The recorder's program and the video tools, run by a shell.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tests/support/TestDisk.h"

struct Picture {
  double time;
  bool key;
  std::string hash;  // "CRC32:" with the packet's checksum and size
};

class RecorderProgram {
 public:
  // `directory` is for what is printed.
  explicit RecorderProgram(const std::string& directory) : mDirectory(directory) {}

  // Exit status; what was printed is in `out` and `err`.
  int Shell(const std::string& command) {
    const std::string files = "} >" + mDirectory + "/out 2>" + mDirectory + "/err";
    const int status = std::system(("{ " + command + "; " + files).c_str());
    out = ReadText(mDirectory + "/out");
    err = ReadText(mDirectory + "/err");
    return WEXITSTATUS(status);
  }
  int Run(const std::string& root, const std::string& arguments) {
    return Shell(std::string(RECORDER_PROGRAM) + " --root " + root + " " + arguments);
  }
  std::vector<nlohmann::json> JsonLines() const {
    std::vector<nlohmann::json> lines;
    for (const std::string& line : LinesOf(out)) lines.push_back(nlohmann::json::parse(line));
    return lines;
  }

  // Makes a file of H.264 by ffmpeg; `options` come behind its coder's name.
  void MakeVideo(const std::string& path, const std::string& options,
                 const std::string& source = "testsrc2=size=320x240:rate=25") {
    ASSERT_EQ(Shell("ffmpeg -y -v error -f lavfi -i " + source + " -c:v libx264 " + options + " " + path), 0)
        << err;
  }
  // Of 40 seconds with 25 pictures each, `group` pictures from key frame to key frame.
  void MakeVideo(const std::string& path, int group, const std::string& rate) {
    MakeVideo(path, Text("-preset veryfast -bf 2 -t 40 -g %d -b:v ", group) + rate);
  }
  // Of a video file, in the order in which they are decoded, as a program that is not ours sees them; or, as
  // "a", packets of sound.
  std::vector<Picture> PicturesOf(const std::string& path, const std::string& kind = "v") {
    const std::string probe =
        "ffprobe -v error -select_streams " + kind + " -show_packets -show_data_hash crc32 -of json ";
    EXPECT_EQ(Shell(probe + path), 0) << err;
    std::vector<Picture> pictures;
    const auto probed = nlohmann::json::parse(out);
    for (const auto& packet : probed["packets"]) {
      const std::string flags = packet["flags"];
      pictures.push_back({std::stod(packet["pts_time"].get<std::string>()), flags[0] == 'K',
                          packet["data_hash"].get<std::string>() + packet["size"].get<std::string>()});
    }
    return pictures;
  }

  std::string out, err;

 private:
  const std::string mDirectory;
};

// A root directory, and the program over it.
class RecorderFixture : public testing::Test {
 protected:
  int Run(const std::string& arguments) { return mProgram.Run(mRoot.Path(), arguments); }
  std::string DiskPath(const std::string& disk) const { return mRoot.Path() + "/disk/" + disk; }
  // Lays down `count` files of a MiB.
  void Prepare(const std::string& disk, int count) {
    const std::string arguments = "prepare --on-system-disk --size 1M --disk " + disk;
    ASSERT_EQ(0, Run(arguments + Text(" --count %d", count))) << mProgram.err;
  }

  TestRoot mRoot;
  RecorderProgram mProgram{mRoot.Path()};
};
