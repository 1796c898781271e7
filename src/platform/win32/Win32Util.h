// What the Windows platform files share: text at their edge (the library hands them UTF-8, or
// UTF-16 DKStrings, and the system's ...W functions take UTF-16), paths, and the system's time
// records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <windows.h>

namespace dkwin {

// The UTF-16 form of UTF-8 text. False, with the thread's last error set, for text that is not
// valid UTF-8 or that holds a NUL (a system call would see it cut short).
bool ToWide(std::string_view utf8, std::wstring& wide);
// The UTF-8 form of UTF-16 text; an unpaired surrogate becomes U+FFFD.
std::string ToUtf8(std::wstring_view wide);

// A path as the ...W file functions take it. A path longer than the classic limit is made
// absolute and given the extended prefix ("\\?\C:\...", "\\?\UNC\server\share\..."), which the
// system accepts at any length. False, with the last error set, when the path cannot be passed on.
bool SystemPath(std::string_view utf8, std::wstring& path);
bool SystemPath(std::wstring_view wide, std::wstring& path);

// Calls call(const wchar_t* path) with the system form of a UTF-8 path and gives its result (a
// bool or a pointer); false or null, with the last error set, when the path cannot be passed on
// or no memory is left to convert it.
template <class Call>
auto WithPath(std::string_view utf8, Call call) noexcept -> decltype(call(L"")) {
  try {
    std::wstring path;
    if (SystemPath(utf8, path))
      return call(path.c_str());
  } catch (...) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  }
  return {};
}

// Whether ch separates path components: the backslash, and the slash too.
constexpr bool IsSeparator(wchar_t ch) noexcept { return ch == L'\\' || ch == L'/'; }

// The length of the root a path starts with: "C:\" (3), "C:" (2, relative to the drive's current
// directory), "\" (1, the current drive's root), "\\server\share\" and the extended forms
// "\\?\C:\", "\\?\UNC\server\share\"; 0 for a relative path. Works on UTF-8 and UTF-16 alike (the
// characters that matter are ASCII).
template <class Ch>
std::size_t RootLength(const Ch* path, std::size_t length) noexcept {
  const auto sep = [&](std::size_t i) { return i < length && IsSeparator(static_cast<wchar_t>(path[i])); };
  const auto letter = [&](std::size_t i) {
    return i < length && ((path[i] >= 'A' && path[i] <= 'Z') || (path[i] >= 'a' && path[i] <= 'z'));
  };
  // The end of the component starting at i, with one separator after it.
  const auto component = [&](std::size_t i) {
    while (i < length && !sep(i))
      ++i;
    return sep(i) ? i + 1 : i;
  };
  if (sep(0) && sep(1)) {
    std::size_t i = 2;
    // The extended and device prefixes "\\?\" and "\\.\".
    if (i + 1 < length && (path[i] == '?' || path[i] == '.') && sep(i + 1)) {
      i += 2;
      if (letter(i) && i + 1 < length && path[i + 1] == ':')
        return sep(i + 2) ? i + 3 : i + 2;
      if (i + 3 < length && (path[i] == 'U' || path[i] == 'u') && (path[i + 1] == 'N' || path[i + 1] == 'n') &&
          (path[i + 2] == 'C' || path[i + 2] == 'c') && sep(i + 3))
        i += 4; // then server and share as below
      else
        return component(i); // a device: "\\.\pipe\"
    }
    return component(component(i)); // server, then share
  }
  if (letter(0) && length > 1 && path[1] == ':')
    return sep(2) ? 3 : 2;
  return sep(0) ? 1 : 0;
}

// Whether a path is absolute: a drive with its root ("C:\"), or a network or extended path.
template <class Ch>
bool IsAbsolute(const Ch* path, std::size_t length) noexcept {
  if (length >= 2 && IsSeparator(static_cast<wchar_t>(path[0])) && IsSeparator(static_cast<wchar_t>(path[1])))
    return true;
  return length >= 3 && path[1] == ':' && RootLength(path, length) == 3;
}

// The system's time records count 100-nanosecond ticks since 1601-01-01 UTC.
constexpr std::int64_t ticksPerSecond = 10000000;
constexpr std::int64_t unixEpochTicks = 116444736000000000; // 1970-01-01

// The calendar record of a second since 1970 (UTC, or a local reading counted as if it were
// UTC). False outside the records' range (years 1601 to 30827).
bool ToSystemTime(std::int64_t seconds, SYSTEMTIME& time) noexcept;
// The second since 1970 of a calendar record (its milliseconds dropped).
bool FromSystemTime(const SYSTEMTIME& time, std::int64_t& seconds) noexcept;

} // namespace dkwin
