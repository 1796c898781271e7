#include "TraceTestSupport.h"

#include <DorvikCore/DKDirectory.h>

#include <gtest/gtest.h>

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
  fs::create_directory_symlink(scratch / "dir", scratch / "link-to-dir");
  fs::create_symlink(scratch / "file", scratch / "link-to-file");
  fs::create_symlink(scratch / "gone", scratch / "dangling");
  const struct {
    DKString path;
    bool exists;
  } cases[] = {
      {Path(scratch / "dir"), true},           {Path(scratch / "dir") + DK_T("/"), true},
      {Path(scratch / "link-to-dir"), true},   {Path(scratch / "file"), false},
      {Path(scratch / "link-to-file"), false}, {Path(scratch / "dangling"), false},
      {Path(scratch / "missing"), false},      {DKString(), false},
  };
  for (const auto& c : cases)
    EXPECT_EQ(DKDirectory::IsPathExists(c.path), c.exists) << c.path;
}

TEST(DKDirectoryTest, CreateWithoutParentsNeedsTheParent) {
  const ScratchFolder scratch;
  EXPECT_FALSE(DKDirectory::Create(Path(scratch / "a" / "b")));
  EXPECT_FALSE(fs::exists(scratch / "a"));
  EXPECT_TRUE(DKDirectory::Create(Path(scratch / "a")));
  EXPECT_TRUE(fs::is_directory(scratch / "a"));
  EXPECT_TRUE(DKDirectory::Create(Path(scratch / "a"))); // already there
}

TEST(DKDirectoryTest, CreateWithParentsMakesEveryLevel) {
  const ScratchFolder scratch;
  const std::string root = scratch.Path().string();
  const struct {
    std::string path;
    fs::path made;
  } cases[] = {
      {root + "/a/b/c", scratch / "a" / "b" / "c"},
      {root + "//d///e/", scratch / "d" / "e"},
      {root + "/f/./g/../h", scratch / "f" / "h"},
      {root + "/caf\xc3\xa9/\xe6\x97\xa5\xe6\x9c\xac", scratch / "caf\xc3\xa9" / "\xe6\x97\xa5\xe6\x9c\xac"},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(DKDirectory::Create(ToDK(c.path), true)) << c.path;
    EXPECT_TRUE(fs::is_directory(c.made)) << c.path;
    EXPECT_TRUE(DKDirectory::IsPathExists(ToDK(c.path))) << c.path;
  }
}

TEST(DKDirectoryTest, CreateRefusesWhatCannotBeADirectory) {
  const ScratchFolder scratch;
  WriteWholeFile(scratch / "file", "x");
  const DKString nul(DK_T("nul\0inside"), 10);
  const struct {
    DKString path;
    bool parents;
  } cases[] = {
      {Path(scratch / "file"), false},
      {Path(scratch / "file"), true},
      {Path(scratch / "file" / "sub"), false},
      {Path(scratch / "file" / "sub" / "deeper"), true},
      {DKString(), true},
      {Path(scratch.Path()) + DK_T("/") + nul, true},
      {DK_T("/proc/dk-not-allowed/x"), true},
  };
  for (const auto& c : cases)
    EXPECT_FALSE(DKDirectory::Create(c.path, c.parents)) << c.path;
  EXPECT_EQ(ReadWholeFile(scratch / "file"), "x");
  EXPECT_EQ(FilesIn(scratch.Path()), std::vector<std::string>{"file"});
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
  EXPECT_FALSE(DKDirectory::Remove(Path(scratch / "full")));
  EXPECT_FALSE(DKDirectory::Remove(Path(scratch / "file")));
  EXPECT_FALSE(DKDirectory::Remove(Path(scratch / "missing")));
  EXPECT_FALSE(DKDirectory::Remove(DKString()));
  EXPECT_TRUE(DKDirectory::Remove(Path(scratch / "empty")));
  EXPECT_FALSE(fs::exists(scratch / "empty"));
  EXPECT_TRUE(fs::exists(scratch / "full" / "inner"));
  EXPECT_TRUE(fs::exists(scratch / "file"));
}

} // namespace
