// POSIX loadable modules (os/DKModule.h): dlopen, dlsym and dlclose under one lock.
#include "os/DKModule.h"

#include <dlfcn.h>

#include <mutex>

namespace {

std::mutex& ModuleLock() {
  static std::mutex* const lock = new std::mutex; // never destroyed: modules close late
  return *lock;
}

std::string LastError(const char* fallback) {
  const char* text = dlerror();
  return text ? std::string(text) : std::string(fallback);
}

} // namespace

DKModule::Handle DKModule::Open(const std::string& path, std::string& error) {
  std::lock_guard guard(ModuleLock());
  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle)
    error = LastError("cannot load the module");
  return handle;
}

void* DKModule::Symbol(Handle module, const char* name, std::string& error) {
  std::lock_guard guard(ModuleLock());
  dlerror();
  void* address = dlsym(module, name);
  if (!address)
    error = LastError("undefined symbol");
  return address;
}

bool DKModule::Close(Handle module, std::string& error) {
  std::lock_guard guard(ModuleLock());
  dlerror();
  if (dlclose(module) == 0)
    return true;
  error = LastError("cannot unload the module");
  return false;
}
