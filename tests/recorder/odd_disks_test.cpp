// One odd thing on a disk is set aside or passed over, and everything else goes on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "apps/recorder/disks/DiskManifest.h"
#include "tests/support/TestDisk.h"

namespace {

namespace fs = std::filesystem;
using namespace recorder;

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

TEST(DiskManifest, IsReadBackAndPassedOverWhenItIsNoManifest) {
  TestRoot root;
  const std::string disk = root.AddDisk("d");
  const std::string path = disk + "/" + kManifestName;
  EXPECT_FALSE(ReadManifest(disk));
  ASSERT_EQ("", WriteManifest(disk, {1, 1}));
  ASSERT_EQ("", WriteManifest(disk, {3500, 268435456}));
  EXPECT_EQ(3500, ReadManifest(disk)->files);
  EXPECT_EQ(268435456u, ReadManifest(disk)->fileBytes);
  EXPECT_EQ(std::vector<std::string>({"imf_free", kManifestName}), NamesIn(disk));

  const std::string whole = "recorder disk 1\nfiles 35\nfile-bytes 4096\n";
  for (const std::string& text :
       {std::string(), std::string("files 35\n"), whole.substr(0, whole.size() - 1), whole.substr(0, 20),
        std::string("recorder disk 2\nfiles 35\nfile-bytes 4096\n"), "x" + whole, std::string(5000, '9'),
        std::string("recorder disk 1\nfiles -3\nfile-bytes 4096\n")}) {
    Write(path, text);
    EXPECT_FALSE(ReadManifest(disk)) << text;
  }
  Write(path, whole + "reserve 1\n");
  EXPECT_TRUE(ReadManifest(disk)) << "later versions may know more";

  fs::rename(path, root.Path() + "/elsewhere");
  fs::create_symlink(root.Path() + "/elsewhere", path);
  EXPECT_FALSE(ReadManifest(disk));
  fs::remove(path);
  mkfifo(path.c_str(), 0600);
  EXPECT_FALSE(ReadManifest(disk)) << "nor does it hang";
}

}  // namespace
