// Windows loadable modules (os/DKModule.h): LoadLibraryExW, GetProcAddress and FreeLibrary under
// one lock, with the system's text of every failure.
#include "os/DKModule.h"

#include "os/DKSystem.h"

#include "Win32Util.h"

#include <windows.h>

#include <cstring>
#include <mutex>

namespace {

std::mutex& ModuleLock() {
  static std::mutex* const lock = new std::mutex; // never destroyed: modules close late
  return *lock;
}

// The system's text for the last error; a "%1" in it names the module.
std::string LastError(const std::string& path = std::string()) {
  std::string text = DKSystem::ErrorCodeText(DKSystem::LastErrorCode());
  for (std::size_t at = text.find("%1"); at != std::string::npos; at = text.find("%1", at + path.size()))
    text.replace(at, 2, path);
  return text;
}

} // namespace

DKModule::Handle DKModule::Open(const std::string& path, std::string& error) {
  std::wstring wide;
  if (!dkwin::SystemPath(path, wide)) {
    error = LastError(path);
    return nullptr;
  }
  // The altered search path looks for the module's own dependencies in its folder; it needs an
  // absolute path. A bare name is searched for as the system does.
  if (wide.find_first_of(L"\\/") != std::wstring::npos) {
    std::wstring full(wide.size() + MAX_PATH, L'\0');
    const DWORD length = GetFullPathNameW(wide.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length > 0 && length < full.size()) {
      full.resize(length);
      wide.swap(full);
    }
  }
  std::lock_guard guard(ModuleLock());
  // A missing dependency or disk is reported as an error, never as a dialog box.
  DWORD previousMode = 0;
  const bool modeSet = SetThreadErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX, &previousMode);
  HMODULE module = LoadLibraryExW(wide.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  const DWORD code = GetLastError();
  if (modeSet)
    SetThreadErrorMode(previousMode, nullptr);
  if (!module) {
    SetLastError(code);
    error = LastError(path);
  }
  return module;
}

void* DKModule::Symbol(Handle module, const char* name, std::string& error) {
  std::lock_guard guard(ModuleLock());
  const FARPROC address = GetProcAddress(static_cast<HMODULE>(module), name);
  if (!address) {
    error = LastError();
    return nullptr;
  }
  void* result = nullptr;
  static_assert(sizeof result == sizeof address);
  std::memcpy(&result, &address, sizeof result); // a function's address as the data pointer dlsym gives
  return result;
}

bool DKModule::Close(Handle module, std::string& error) {
  std::lock_guard guard(ModuleLock());
  if (FreeLibrary(static_cast<HMODULE>(module)))
    return true;
  error = LastError();
  return false;
}
