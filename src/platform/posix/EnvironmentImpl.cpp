// POSIX working directory, environment and directory listings (os/DKEnvironment.h).
#include "os/DKEnvironment.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

bool DKEnvironment::CurrentDirectory(std::string& path) {
  std::unique_ptr<char, decltype(&free)> text(getcwd(nullptr, 0), &free);
  if (!text)
    return false;
  path = text.get();
  return true;
}

bool DKEnvironment::ChangeDirectory(const std::string& path) { return !path.empty() && chdir(path.c_str()) == 0; }

bool DKEnvironment::SetVariable(const char* name, const std::string& value) {
  return name && *name && setenv(name, value.c_str(), 1) == 0;
}

namespace {

struct DirCloser {
  void operator()(DIR* dir) const noexcept { closedir(dir); }
};

} // namespace

bool DKEnvironment::ListFiles(const std::string& directory, std::vector<std::string>& names) {
  std::unique_ptr<DIR, DirCloser> dir(opendir(directory.c_str()));
  if (!dir)
    return false;
  const std::string prefix = directory.empty() || directory.back() == '/' ? directory : directory + "/";
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..")
      continue;
    struct stat info {};
    if (stat((prefix + name).c_str(), &info) == 0 && S_ISDIR(info.st_mode))
      continue;
    names.push_back(name);
  }
  return true;
}

bool DKEnvironment::PathExists(const std::string& path) {
  struct stat info {};
  return !path.empty() && stat(path.c_str(), &info) == 0;
}

bool DKEnvironment::IsReadableFile(const std::string& path) {
  struct stat info {};
  return !path.empty() && stat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode) && access(path.c_str(), R_OK) == 0;
}

bool DKEnvironment::IsAbsolutePath(const std::string& path) { return !path.empty() && path[0] == '/'; }

const char* DKEnvironment::PathListSeparator() noexcept { return ":"; }
