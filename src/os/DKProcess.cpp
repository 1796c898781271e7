#include "os/DKFileSystem.h"
#include "os/DKProcess.h"
#include "os/DKSystem.h"

#include <DorvikCore/DKError.h>
#include <DorvikCore/DKFormat.h>

namespace {

// Decodes UTF-8 text; where it is not valid UTF-8 the bad bytes become U+FFFD instead of
// losing the whole text.
DKString FromUTF8(const std::string& text) {
  DKString result;
  if (!result.SetFromUTF8(text.c_str(), text.size()).IsSuccess())
    result = DKFormatString(DK_T("%S"), text.c_str());
  return result;
}

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
  path = FromUTF8(utf8);
  return true;
}

DKString DKProcess::GetTempFolder() {
  DKString folder = FromUTF8(TempFolderUTF8());
  if (!folder.IsEmpty() && DKFileSystem::IsSeparator(folder[folder.Length() - 1]))
    folder.Remove(folder.Length() - 1, 1);
  return folder;
}

bool DKProcess::GetEnvironmentVariable(const char* name, DKString& value) {
  std::string utf8;
  if (!EnvironmentVariableUTF8(name, utf8))
    return false;
  value = FromUTF8(utf8);
  return true;
}
