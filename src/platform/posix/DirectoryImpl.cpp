// POSIX file-system primitives (os/DKFileSystem.h).
#include "os/DKFileSystem.h"

#include <cstdio>

#include <sys/stat.h>
#include <unistd.h>

DKChar DKFileSystem::Separator() noexcept {
  return DK_T('/');
}

bool DKFileSystem::IsSeparator(DKChar ch) noexcept {
  return ch == DK_T('/');
}

bool DKFileSystem::IsDirectory(const std::string& path) noexcept {
  struct stat info {};
  return !path.empty() && stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool DKFileSystem::MakeDirectory(const std::string& path) noexcept {
  return mkdir(path.c_str(), 0777) == 0;
}

bool DKFileSystem::DeleteDirectory(const std::string& path) noexcept {
  return rmdir(path.c_str()) == 0;
}

std::FILE* DKFileSystem::OpenFile(const std::string& path, const char* mode) noexcept {
  return std::fopen(path.c_str(), mode);
}

bool DKFileSystem::RenameFile(const std::string& from, const std::string& to) noexcept {
  return std::rename(from.c_str(), to.c_str()) == 0;
}

bool DKFileSystem::RemoveFile(const std::string& path) noexcept { return std::remove(path.c_str()) == 0; }

bool DKFileSystem::FileSize(std::FILE* file, std::uint64_t& size) noexcept {
  struct stat info {};
  if (!file || fstat(fileno(file), &info) != 0)
    return false;
  size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

bool DKFileSystem::IsSameFile(std::FILE* a, std::FILE* b) noexcept {
  struct stat first {}, second {};
  return a && b && fstat(fileno(a), &first) == 0 && fstat(fileno(b), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

std::size_t DKFileSystem::RootLength(DKStringView path) noexcept { return !path.empty() && path[0] == DK_T('/') ? 1 : 0; }
