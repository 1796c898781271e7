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

struct SYSTEMTIME {
  std::uint16_t wYear;
  std::uint16_t wMonth; // 1..12
  std::uint16_t wDayOfWeek; // 0 = Sunday
  std::uint16_t wDay;
  std::uint16_t wHour;
  std::uint16_t wMinute;
  std::uint16_t wSecond;
  std::uint16_t wMilliseconds;
};

// 100-nanosecond intervals since 1601-01-01 00:00:00 UTC.
struct FILETIME {
  std::uint32_t dwLowDateTime;
  std::uint32_t dwHighDateTime;
};

using VARTYPE = std::uint16_t;

// An automation variant reduced to the members a date needs. `date` is an automation date:
// days since 1899-12-30, the fraction being the time of day (for a negative value the
// fraction still counts forward from midnight: -1.25 is 1899-12-29 06:00).
struct VARIANT {
  VARTYPE vt;
  std::uint16_t wReserved1;
  std::uint16_t wReserved2;
  std::uint16_t wReserved3;
  union {
    double date;
    double dblVal;
    std::int64_t llVal;
    std::int32_t lVal;
  };
};

} // namespace dk
#endif

namespace dk {
// The variant types the date classes read and write, with the system's values. (Under
// `using namespace dk` they would be ambiguous with the system's own VT_ names on Windows:
// qualify them.)
inline constexpr VARTYPE VT_EMPTY = 0;
inline constexpr VARTYPE VT_NULL = 1;
inline constexpr VARTYPE VT_R8 = 5;
inline constexpr VARTYPE VT_DATE = 7;
} // namespace dk
