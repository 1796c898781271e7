// The locked console: operator-facing output that never mixes lines from several threads,
// and the console verbosity that decides whether such output is written at all.
#pragma once

#include <DorvikCore/DKString.h>
#include <DorvikCore/DKTypes.h>

#include <cstdint>
#include <ostream>
#include <string>

// Holds the process-wide console lock (recursive) for its lifetime and gives the console
// stream, UTF-8 standard output unless redirected. A line written through one object is
// written whole:
//   DKLockedCOUT().GetCout() << "Loading " << name << std::endl;
//   DKLockedCOUT() << "Loading " << name << std::endl;
class DK_EXPORT DKLockedCOUT {
public:
  // Takes the console lock, waiting while another thread holds it; the destructor releases it.
  DKLockedCOUT();
  ~DKLockedCOUT();
  // Not copyable: one object, one hold of the lock.
  DKLockedCOUT(const DKLockedCOUT&) = delete;
  DKLockedCOUT& operator=(const DKLockedCOUT&) = delete;

  // The console stream; use it only while this object lives.
  std::ostream& GetCout() const noexcept;

  // Writes value to the console stream as std::ostream writes it (a DKString as UTF-8).
  template <class T>
  DKLockedCOUT& operator<<(const T& value) {
    GetCout() << value;
    return *this;
  }
  // Applies a stream manipulator such as std::endl (which also flushes).
  DKLockedCOUT& operator<<(std::ostream& (*manipulator)(std::ostream&)) {
    manipulator(GetCout());
    return *this;
  }
  // Writes terminated UTF-16 text as UTF-8.
  DKLockedCOUT& operator<<(const DKChar* text) {
    GetCout() << DKString(text);
    return *this;
  }
#if !DK_WCHAR_IS_DKCHAR
  // Writes terminated wide (UTF-32) text as UTF-8.
  DKLockedCOUT& operator<<(const wchar_t* text) {
    GetCout() << DKString(text);
    return *this;
  }
#endif

  // Redirects the console process-wide (a null stream restores standard output) and
  // returns the stream used until now. Waits for the current holder of the lock.
  static std::ostream* SetConsoleStream(std::ostream* stream);
};

// Supplies the console verbosity; the running application installs one.
typedef std::uint32_t (*DKTraceLevelProvider)(void* context);

// Installs the provider (a null provider removes it). When the call returns, no call to the
// previous provider is still running, so its context may be destroyed. A provider must not
// install or remove providers itself.
DK_EXPORT void DKSetTraceLevelProvider(DKTraceLevelProvider provider, void* context = nullptr);

// The console verbosity: 0 silent, 1 normal, 2 maximum. The provider's answer, or 1 while
// none is installed.
DK_EXPORT std::uint32_t GlbGetTraceLevel();
