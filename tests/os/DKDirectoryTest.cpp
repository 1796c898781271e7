#include <DorvikCore/DKDirectory.h>

#include <gtest/gtest.h>

#include "support/DKCaseFile.h"
#include "support/DKTestSupport.h"

#include <algorithm>
#include <filesystem>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

DKString Path(const fs::path& path) { return Text(Utf8(path)); }

// A path of a case file, below the scratch folder; an empty field is the empty path.
DKString Below(const ScratchFolder& scratch, const std::string& path) {
  return path.empty() ? DKString() : Text(Utf8(scratch.Path()) + path);
}

// The paths of cases/directory_exists.txt.
TEST(DKDirectoryTest, IsPathExistsOnlyForDirectories) {
  const ScratchFolder scratch;
  fs::create_directory(scratch / "dir");
  WriteWholeFile(scratch / "file", "x");
  // Symbolic links where the system makes them (Wine does not).
  std::error_code noLinks;
  fs::create_directory_symlink(scratch / "dir", scratch / "link-to-dir", noLinks);
  if (!noLinks) {
    fs::create_symlink(scratch / "file", scratch / "link-to-file");
    fs::create_symlink(scratch / "gone", scratch / "dangling");
  }
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/directory_exists.txt", 3)) {
    if (!c.YesNo(2) || !noLinks) {
      EXPECT_EQ(DKDirectory::IsPathExists(Below(scratch, c[0])), c.YesNo(1)) << c.where;
    }
  }
}

// The paths of cases/directory_create.txt.
TEST(DKDirectoryTest, CreateMakesParentsOnlyWhenAskedAndRefusesWhatCannotBeADirectory) {
  const ScratchFolder scratch;
  WriteWholeFile(scratch / "file", "x");
  for (const dktest::CaseLine& c : dktest::ReadCases(DK_TEST_CASES "/directory_create.txt", 3)) {
    const DKString path = Below(scratch, c[0]);
    EXPECT_EQ(DKDirectory::Create(path, c.YesNo(1)), c[2] != "-") << c.where;
    if (c[2] != "-") {
      EXPECT_TRUE(fs::is_directory(scratch.Path() / PathOf(c[2]))) << c.where;
      EXPECT_TRUE(DKDirectory::IsPathExists(path)) << c.where;
    }
  }
#if !defined(_WIN32) // a system folder that refuses new folders
  EXPECT_FALSE(DKDirectory::Create(DK_T("/proc/dk-not-allowed/x"), true));
#endif
  EXPECT_EQ(ReadWholeFile(scratch / "file"), "x");
  Texts names = FilesIn(scratch.Path());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Texts{"a", "caf\xc3\xa9", "d", "f", "file"}));
}

TEST(DKDirectoryTest, ThreadsCreatingTheSameTreeAllSucceed) {
  const ScratchFolder scratch;
  const DKString deep = Path(scratch / "p" / "q" / "r" / "s" / "t");
  std::vector<int> results(6, -1);
  RunOnThreads(6, 1, [&](int t, int) { results[t] = DKDirectory::Create(deep, true) ? 1 : 0; });
  EXPECT_EQ(results, std::vector<int>(6, 1));
}

TEST(DKDirectoryTest, RemoveTakesOnlyAnEmptyDirectory) {
  const ScratchFolder scratch;
  fs::create_directories(scratch / "full" / "inner");
  fs::create_directory(scratch / "empty");
  WriteWholeFile(scratch / "file", "x");
  for (const char* name : {"full", "file", "missing"})
    EXPECT_FALSE(DKDirectory::Remove(Path(scratch / name))) << name;
  EXPECT_FALSE(DKDirectory::Remove(DKString()));
  EXPECT_TRUE(DKDirectory::Remove(Path(scratch / "empty")));
  Texts names = FilesIn(scratch.Path());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Texts{"file", "full"}));
  EXPECT_TRUE(fs::exists(scratch / "full" / "inner"));
}

} // namespace
