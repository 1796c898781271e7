#include "os/DKFileSystem.h"
#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <DorvikCore/DKFormat.h>

namespace {


} // namespace

std::uint64_t DKProcess::CurrentThreadId() noexcept {
  struct Cached {
    unsigned generation;
    std::uint64_t id;
  };
  thread_local Cached cached{0, 0};
  const unsigned generation = ForkGeneration();
  if (cached.id == 0 || cached.generation != generation)
    cached = Cached{generation, DKSystem::CurrentThreadId()};
  return cached.id;
}

bool DKProcess::GetExecutablePath(DKString& path) {
  std::string utf8;
  if (!ExecutablePathUTF8(utf8))
    return false;
  path = DKString::FromUTF8(utf8);
  return true;
}

DKString DKProcess::GetTempFolder() {
  DKString folder = DKString::FromUTF8(TempFolderUTF8());
  if (!folder.IsEmpty() && DKFileSystem::IsSeparator(folder[folder.Length() - 1]))
    folder.Remove(folder.Length() - 1, 1);
  return folder;
}

bool DKProcess::EnvironmentVariable(const char* name, DKString& value) {
  std::string utf8;
  if (!EnvironmentVariableUTF8(name, utf8))
    return false;
  value = DKString::FromUTF8(utf8);
  return true;
}
