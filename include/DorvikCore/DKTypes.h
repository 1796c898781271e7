// Basic types shared by every part of the library.
#pragma once

#include <DorvikCore/DKExport.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// DKChar is one UTF-16 code unit. On Windows wchar_t is 16 bits and is used as is; elsewhere
// wchar_t is 32 bits, so the library uses char16_t and transcodes wchar_t text at the boundary.
#if defined(_WIN32)
typedef wchar_t DKChar;
#  define DK_T(text) L##text
#  define DK_WCHAR_IS_DKCHAR 1
#else
// One UTF-16 code unit: char16_t here, wchar_t on Windows.
typedef char16_t DKChar;
// Makes a DKChar string or character literal: DK_T("text") is u"text" (L"text" on Windows).
#  define DK_T(text) u##text
// 1 where wchar_t is DKChar (Windows), 0 where wchar_t is 32 bits and its text is transcoded.
#  define DK_WCHAR_IS_DKCHAR 0
#endif

// The standard string of DKChar code units, and its view.
typedef std::basic_string<DKChar> DKStdString;
typedef std::basic_string_view<DKChar> DKStringView;

// Signed and unsigned 64-bit integers (counts, positions, microseconds).
typedef std::int64_t DKInt64;
typedef std::uint64_t DKUInt64;

// The older duration count of the date-and-time classes.
typedef std::int32_t DKDuration;
