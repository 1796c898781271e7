// Loadable modules (shared libraries) of the operating system (internal), implemented once per
// platform in src/platform/<os>/ModuleImpl.cpp. Every call is made under one process-wide lock,
// so that the system's error text read after a failure belongs to that failure.
#pragma once

#include <string>

class DKModule {
public:
  typedef void* Handle;

  // Loads the module at path (UTF-8) with every symbol resolved at once and kept local to it;
  // a module loaded already is shared and counted. Null on failure, error then holds the
  // system's text.
  static Handle Open(const std::string& path, std::string& error);
  // The address of an exported symbol; null when missing, error then holds the system's text.
  static void* Symbol(Handle module, const char* name, std::string& error);
  // Gives back one count of the module; it is unloaded when no count is left.
  static bool Close(Handle module, std::string& error);
};
