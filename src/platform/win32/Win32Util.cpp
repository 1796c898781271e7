// UTF-8 and UTF-16 conversions and system paths for the Windows platform files (Win32Util.h).
#include "Win32Util.h"

#include <windows.h>

#include <climits>
#include <cstdint>

namespace dkwin {

bool ToWide(std::string_view utf8, std::wstring& wide) {
  wide.clear();
  if (utf8.find('\0') != std::string_view::npos) {
    SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  if (utf8.empty())
    return true;
  if (utf8.size() > INT_MAX) {
    SetLastError(ERROR_FILENAME_EXCED_RANGE);
    return false;
  }
  const int size = static_cast<int>(utf8.size());
  const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, nullptr, 0);
  if (length <= 0)
    return false; // ERROR_NO_UNICODE_TRANSLATION
  wide.resize(static_cast<std::size_t>(length));
  return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, wide.data(), length) == length;
}

std::string ToUtf8(std::wstring_view wide) {
  std::string utf8;
  if (wide.empty() || wide.size() > INT_MAX / 3)
    return utf8;
  const int size = static_cast<int>(wide.size());
  // Without WC_ERR_INVALID_CHARS an unpaired surrogate becomes U+FFFD.
  const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
  if (length <= 0)
    return utf8;
  utf8.resize(static_cast<std::size_t>(length));
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), length, nullptr, nullptr);
  return utf8;
}

bool SystemPath(std::wstring_view wide, std::wstring& path) {
  if (wide.find(L'\0') != std::wstring_view::npos) {
    SetLastError(ERROR_INVALID_NAME);
    return false;
  }
  path.assign(wide);
  // Below MAX_PATH less the 8.3 name that CreateDirectoryW keeps room for, every call takes the
  // path as it is; extended paths need no change either.
  constexpr std::size_t classicLimit = MAX_PATH - 12;
  const bool extended = path.size() >= 4 && path[0] == L'\\' && path[1] == L'\\' &&
                        (path[2] == L'?' || path[2] == L'.') && path[3] == L'\\';
  if (path.size() < classicLimit || extended)
    return true;
  // The extended form is taken literally: resolve ".", ".." and slashes first.
  std::wstring full(path.size() + MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0)
      return false;
    if (length < full.size()) {
      full.resize(length);
      break;
    }
    full.resize(length);
  }
  if (full.size() >= 2 && full[0] == L'\\' && full[1] == L'\\')
    path = L"\\\\?\\UNC\\" + full.substr(2);
  else
    path = L"\\\\?\\" + full;
  return true;
}

bool SystemPath(std::string_view utf8, std::wstring& path) {
  std::wstring wide;
  return ToWide(utf8, wide) && SystemPath(std::wstring_view(wide), path);
}

bool ToSystemTime(std::int64_t seconds, SYSTEMTIME& time) noexcept {
  // The first second of 1601 and the last that a FILETIME holds.
  constexpr std::int64_t first = -unixEpochTicks / ticksPerSecond;
  constexpr std::int64_t last = (INT64_MAX - unixEpochTicks) / ticksPerSecond;
  if (seconds < first || seconds > last)
    return false;
  const auto ticks = static_cast<std::uint64_t>(seconds * ticksPerSecond + unixEpochTicks);
  FILETIME file{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  return FileTimeToSystemTime(&file, &time) != 0;
}

bool FromSystemTime(const SYSTEMTIME& time, std::int64_t& seconds) noexcept {
  FILETIME file{};
  if (!SystemTimeToFileTime(&time, &file))
    return false;
  const auto ticks = static_cast<std::int64_t>((std::uint64_t{file.dwHighDateTime} << 32) | file.dwLowDateTime);
  seconds = (ticks - unixEpochTicks) / ticksPerSecond - (ticks < unixEpochTicks && ticks % ticksPerSecond ? 1 : 0);
  return true;
}

} // namespace dkwin
