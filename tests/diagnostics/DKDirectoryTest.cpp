#include "TraceTestSupport.h"

#include <DorvikCore/DKDirectory.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

namespace {

DKString Path(const fs::path& path) {
  return ToDK(path.string());
}

TEST(DKDirectoryTest, IsPathExistsOnlyForDirectories) {
  const ScratchFolder scratch;
  fs::create_directory(scratch / "dir");
  WriteWholeFile(scratch / "file", "x");
  struct Case {
    DKString path;
    bool exists;
  };
  std::vector<Case> cases = {
      {Path(scratch / "dir"), true},    {Path(scratch / "dir") + DK_T("/"), true}, {Path(scratch / "file"), false},
      {Path(scratch / "missing"), false}, {DKString(), false},
  };
  // Symbolic links where the system lets this process make them (Windows asks for a privilege,
  // Wine has none).
  std::error_code noLinks;
  fs::create_directory_symlink(scratch / "dir", scratch / "link-to-dir", noLinks);
  if (!noLinks) {
    fs::create_symlink(scratch / "file", scratch / "link-to-file");
    fs::create_symlink(scratch / "gone", scratch / "dangling");
    cases.insert(cases.end(), {{Path(scratch / "link-to-dir"), true},
                               {Path(scratch / "link-to-file"), false},
                               {Path(scratch / "dangling"), false}});
  }
  for (const auto& c : cases)
    EXPECT_EQ(DKDirectory::IsPathExists(c.path), c.exists) << c.path;
}

TEST(DKDirectoryTest, CreateMakesParentsOnlyWhenAskedAndRefusesWhatCannotBeADirectory) {
  const ScratchFolder scratch;
  WriteWholeFile(scratch / "file", "x");
  const std::string root = scratch.Path().string();
  const struct {
    DKString path;
    bool parents;
    const char* made; // relative to the scratch folder; null: refused
  } cases[] = {
      {ToDK(root + "/x/y"), false, nullptr},
      {ToDK(root + "/a"), false, "a"},
      {ToDK(root + "/a"), false, "a"}, // already there
      {ToDK(root + "/a/b/c"), true, "a/b/c"},
      {ToDK(root + "//d///e/"), true, "d/e"},
      {ToDK(root + "/f/./g/../h"), true, "f/h"},
      {ToDK(root + "/caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac"), true, "caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac"},
      {ToDK(root + "/file"), false, nullptr},
      {ToDK(root + "/file"), true, nullptr},
      {ToDK(root + "/file/sub"), false, nullptr},
      {ToDK(root + "/file/sub/deeper"), true, nullptr},
      {DKString(), true, nullptr},
      {ToDK(root + "/") + DKString(DK_T("nul\0inside"), 10), true, nullptr},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DKDirectory::Create(c.path, c.parents), c.made != nullptr) << c.path;
    if (c.made) {
      EXPECT_TRUE(fs::is_directory(scratch.Path() / PathOf(c.made))) << c.path;
      EXPECT_TRUE(DKDirectory::IsPathExists(c.path)) << c.path;
    }
  }
  if (const fs::path unwritable = dktest::UnwritableFolder(); !unwritable.empty()) {
    EXPECT_FALSE(DKDirectory::Create(ToDK((unwritable / "dk-not-allowed" / "x").string()), true));
  }
  EXPECT_EQ(ReadWholeFile(scratch / "file"), "x");
  Texts names = FilesIn(scratch.Path());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (Texts{"a", "caf\xc3\xa9", "d", "f", "file"}));
}

TEST(DKDirectoryTest, ThreadsCreatingTheSameTreeAllSucceed) {
  const ScratchFolder scratch;
  const DKString deep = Path(scratch / "p" / "q" / "r" / "s" / "t");
  std::vector<std::thread> threads;
  std::vector<int> results(6, -1);
  for (std::size_t t = 0; t < results.size(); ++t)
    threads.emplace_back([&, t] { results[t] = DKDirectory::Create(deep, true) ? 1 : 0; });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(results, std::vector<int>(results.size(), 1));
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
