// The recorder's program and the video tools, run by a shell.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

inline std::string ReadText(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

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
    std::istringstream text(out);
    for (std::string line; std::getline(text, line);) lines.push_back(nlohmann::json::parse(line));
    return lines;
  }

  // Makes a video of 40 seconds with 25 pictures each, `group` pictures from key frame to key frame.
  void MakeVideo(const std::string& path, int group, const std::string& rate) {
    const std::string command =
        "ffmpeg -v error -f lavfi -i testsrc2=size=320x240:rate=25 -t 40 -c:v libx264 -preset veryfast -bf 2";
    ASSERT_EQ(Shell(command + " -b:v " + rate + " -g " + std::to_string(group) + " " + path), 0) << err;
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
