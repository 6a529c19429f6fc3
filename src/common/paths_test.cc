#include "common/paths.h"

#include <gtest/gtest.h>

#include "platform/files.h"

namespace tavrix {
namespace {

// Where an unmapped drive leads: on Windows the real drive, elsewhere a
// folder of the drive's letter under the root.
std::string Unmapped(char letter, const std::string& rest) {
  const std::string folder = platform::hasDriveLetters() ? std::string(1, letter) + ":/"
                                                         : "/srv/rig/" + std::string(1, letter);
  return rest.empty() ? folder : join(folder, rest);
}

TEST(PathMap, MapsDrivesToLocalFolders) {
  PathMap map("/srv/rig");
  EXPECT_EQ(map.toLocal("c:\\corvane\\data\\RUN???.DAT"), Unmapped('c', "corvane/data/RUN???.DAT"));
  EXPECT_EQ(map.toLocal("C:/corvane/setups"), Unmapped('c', "corvane/setups"));
  EXPECT_EQ(map.toLocal("d:\\"), Unmapped('d', ""));
  EXPECT_EQ(map.toLocal("d:"), Unmapped('d', ""));
  // Relative to a drive's current folder: taken from the drive's folder.
  EXPECT_EQ(map.toLocal("e:logs\\a.txt"), Unmapped('e', "logs/a.txt"));

  map.setDrive('C', "/mnt/corvane-disk/");
  EXPECT_EQ(map.driveFolder('c'), "/mnt/corvane-disk/");
  EXPECT_EQ(map.toLocal("c:\\corvane\\data"), "/mnt/corvane-disk/corvane/data");
  EXPECT_EQ(map.toLocal("D:\\x"), Unmapped('d', "x"));
}

TEST(PathMap, KeepsPathsWithoutADrive) {
  const PathMap map("/srv/rig");
  EXPECT_EQ(map.toLocal("data\\run1.dat"), "data/run1.dat");
  EXPECT_EQ(map.toLocal("..\\setups\\a.txt"), "../setups/a.txt");
  EXPECT_EQ(map.toLocal("/home/op/seq.wts"), "/home/op/seq.wts");
  EXPECT_EQ(map.toLocal("\\corvane\\data"), "/corvane/data");
  EXPECT_EQ(map.toLocal("a:b/../"), Unmapped('a', "b/../"));
  EXPECT_EQ(map.toLocal("1:\\x"), "1:/x");
  EXPECT_EQ(map.toLocal(""), "");
}

TEST(Join, PutsOneSeparatorBetween) {
  EXPECT_EQ(join("/data", "run.dat"), "/data/run.dat");
  EXPECT_EQ(join("/data/", "run.dat"), "/data/run.dat");
  EXPECT_EQ(join("", "run.dat"), "run.dat");
  EXPECT_EQ(join("/data", ""), "/data");
}

}  // namespace
}  // namespace tavrix
