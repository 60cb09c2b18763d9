#include "apps/recorder/check/NextStep.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "apps/recorder/base/Files.h"
#include "apps/recorder/disks/Preparation.h"

namespace recorder {

namespace {

std::string ShellWord(const std::string& path) {
  const bool plain = std::all_of(path.begin(), path.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || std::strchr("/._-", c) != nullptr;
  });
  if (plain) return path;
  std::string word = "'";
  for (const char c : path) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

}  // namespace

std::string NextStep(const std::string& root, const std::string& disk, const Finding& finding) {
  const std::string check = "recorder --root " + root + " check --disk " + ShellWord(NameOf(disk));
  const std::string path = ShellWord(finding.path);
  switch (finding.fault) {
    case Fault::kDamaged:
      return "look at the health of the disk: dmesg; smartctl. Whatever is read of the file passes over the damage";
    case Fault::kUnfinished:
      return check + " --repair-names";
    case Fault::kSearchDb:
      return check + " --rebuild-index";
    case Fault::kLeftover:
      return HowToFinish(root, disk);
    case Fault::kOutside:
    case Fault::kPoolName:
      return check + " --return-orphans";
    case Fault::kTwoPlaces:
      return "look which name is the right one, and remove the other: rm " + path;
    case Fault::kGap:
      return "find the file that was taken out; without it the disk records a little less";
    case Fault::kSize:
    case Fault::kHeader:
      return "keep it from being used: mkdir -p " + ShellWord(disk + "/imf_error") + " && mv -n " + path + " " +
             ShellWord(disk + "/imf_error/");
    case Fault::kTwoDirectories:
    case Fault::kDirectoryName:
      return "give it a number of its own: mv -n " + path + " " + ShellWord(disk) + "/data_00000000";
    case Fault::kMissing:
      return "find out what took them; rm " + path + " when that is known, and nobody asks for them again";
    case Fault::kImmovable:
      return "see what keeps it there: lsattr -d " + path + "; findmnt " + path;
    case Fault::kUnreadable:
      return "look at the rights and the health of the disk: ls -ld " + path + "; dmesg; fsck";
    case Fault::kNoRegularFile:
    case Fault::kForeign:
    case Fault::kName:
    case Fault::kSetAside:
    case Fault::kTwoStarts:
      break;
  }
  return "save it elsewhere: mv -n " + path + " ELSEWHERE";
}

}  // namespace recorder
