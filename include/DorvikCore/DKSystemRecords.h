// The Windows records SYSTEMTIME, FILETIME and VARIANT, and the variant types the library
// uses: the system's own on Windows, stand-ins with the same layout and members elsewhere.
#pragma once

#include <DorvikCore/DKTypes.h>

#include <cstdint>

// The records live in the namespace dk, so that they never clash with a program's own
// definitions of the same names. Portable code spells them dk::SYSTEMTIME, dk::FILETIME,
// dk::VARIANT and dk::VT_DATE on every system: on Windows these are the system's own types
// and values, elsewhere stand-ins with the same layout and members.
#if defined(_WIN32)
#  include <windef.h>
#  include <minwinbase.h> // SYSTEMTIME, FILETIME
// The full VARIANT (<oaidl.h>) is needed only where its members are read.
struct tagVARIANT;

namespace dk {
using ::FILETIME;
using ::SYSTEMTIME;
using VARIANT = ::tagVARIANT;
using VARTYPE = unsigned short;
} // namespace dk
#else
namespace dk {

// A calendar date and time of day in separate fields; the zone is the caller's business.
struct SYSTEMTIME {
  std::uint16_t wYear;         // The year, 0..65535.
  std::uint16_t wMonth;        // 1..12.
  std::uint16_t wDayOfWeek;    // 0 = Sunday.
  std::uint16_t wDay;          // The day of the month, 1..31.
  std::uint16_t wHour;         // 0..23.
  std::uint16_t wMinute;       // 0..59.
  std::uint16_t wSecond;       // 0..59.
  std::uint16_t wMilliseconds; // 0..999.
};

// 100-nanosecond intervals since 1601-01-01 00:00:00 UTC.
struct FILETIME {
  std::uint32_t dwLowDateTime;  // The low 32 bits of the count.
  std::uint32_t dwHighDateTime; // The high 32 bits.
};

// The type tag of a variant (VT_DATE and the others below).
using VARTYPE = std::uint16_t;

// An automation variant reduced to the members a date needs. `date` is an automation date:
// days since 1899-12-30, the fraction being the time of day (for a negative value the
// fraction still counts forward from midnight: -1.25 is 1899-12-29 06:00).
struct VARIANT {
  VARTYPE vt;               // Which member holds the value: VT_DATE for date, VT_R8 for dblVal.
  std::uint16_t wReserved1; // Unused; kept for the layout.
  std::uint16_t wReserved2; // Unused; kept for the layout.
  std::uint16_t wReserved3; // Unused; kept for the layout.
  // The value, as vt says.
  union {
    double date;        // An automation date (VT_DATE).
    double dblVal;      // A double (VT_R8).
    std::int64_t llVal; // A 64-bit integer.
    std::int32_t lVal;  // A 32-bit integer.
  };
};

} // namespace dk
#endif

namespace dk {
// The variant types the date classes read and write, with the system's values. (Under
// `using namespace dk` they would be ambiguous with the system's own VT_ names on Windows:
// qualify them.)
inline constexpr VARTYPE VT_EMPTY = 0; // No value.
inline constexpr VARTYPE VT_NULL = 1;  // A null value.
inline constexpr VARTYPE VT_R8 = 5;    // A double.
inline constexpr VARTYPE VT_DATE = 7;  // An automation date.
} // namespace dk
