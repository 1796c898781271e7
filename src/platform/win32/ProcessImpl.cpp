// Windows process facts (os/DKProcess.h).
#include "os/DKProcess.h"

#include "os/DKClock.h"

#include "Win32Util.h"

#include <windows.h>

namespace {

// The text a ...W call writes into a buffer that it asks to grow: call(buffer, size) returns the
// length written, or the size needed (with the NUL) when the buffer was too small, or 0.
template <class Call>
bool ReadGrowing(std::string& utf8, Call call) {
  std::wstring buffer(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = call(buffer.data(), static_cast<DWORD>(buffer.size()));
    if (length == 0)
      return false;
    if (length < buffer.size()) {
      buffer.resize(length);
      utf8 = dkwin::ToUtf8(buffer);
      return true;
    }
    if (buffer.size() >= 32768 * 2) { // beyond the longest path or variable the system holds
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return false;
    }
    buffer.resize(length > buffer.size() ? length : buffer.size() * 2);
  }
}

} // namespace

// Nothing here forks.
unsigned DKProcess::ForkGeneration() noexcept { return 0; }

bool DKProcess::ExecutablePathUTF8(std::string& path) {
  // A path that does not fit is cut short and fills the buffer: grow it until one fits.
  return ReadGrowing(path, [](wchar_t* buffer, DWORD size) {
    const DWORD length = GetModuleFileNameW(nullptr, buffer, size);
    return length >= size ? size : length;
  });
}

unsigned long DKProcess::ProcessId() noexcept { return GetCurrentProcessId(); }

std::string DKProcess::TempFolderUTF8() {
  std::string folder;
  if (!ReadGrowing(folder, [](wchar_t* buffer, DWORD size) { return GetTempPathW(size, buffer); }))
    folder.clear();
  return folder;
}

bool DKProcess::EnvironmentVariableUTF8(const char* name, std::string& value) {
  std::wstring wideName;
  if (!name || !*name || !dkwin::ToWide(name, wideName))
    return false;
  std::string text;
  SetLastError(ERROR_SUCCESS);
  if (!ReadGrowing(text, [&](wchar_t* buffer, DWORD size) {
        return GetEnvironmentVariableW(wideName.c_str(), buffer, size);
      })) {
    // 0 is also the length of a variable that is defined and empty: no error is set then.
    if (GetLastError() != ERROR_SUCCESS)
      return false;
    text.clear();
  }
  value = std::move(text);
  return true;
}

bool DKProcess::ToLocalTime(std::int64_t seconds, std::tm& local) noexcept {
  // The library's own zone reading, so that the trace stamps agree with its dates.
  bool daylight = false;
  const int offset = DKClock::LocalOffsetAt(seconds, &daylight);
  std::int64_t wall = 0;
  SYSTEMTIME time{};
  if (__builtin_add_overflow(seconds, offset, &wall) || !dkwin::ToSystemTime(wall, time))
    return false;
  static constexpr int daysBeforeMonth[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  const int year = time.wYear;
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  local = std::tm{};
  local.tm_year = year - 1900;
  local.tm_mon = time.wMonth - 1;
  local.tm_mday = time.wDay;
  local.tm_hour = time.wHour;
  local.tm_min = time.wMinute;
  local.tm_sec = time.wSecond;
  local.tm_wday = time.wDayOfWeek;
  local.tm_yday = daysBeforeMonth[local.tm_mon] + (leap && local.tm_mon > 1 ? 1 : 0) + time.wDay - 1;
  local.tm_isdst = daylight ? 1 : 0;
  return true;
}
