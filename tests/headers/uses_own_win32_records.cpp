// A program that defines the Windows record names itself (as a portability header or a
// C library's own declarations would) and still includes the date headers: the library's
// records live in the namespace dk, so neither definition hides or redefines the other.
// (On Windows those names belong to the system, whose headers the date headers include.)
#if !defined(_WIN32)
#include <cstdint>

struct SYSTEMTIME {
  int year;
};
struct FILETIME {
  long long ticks;
};
struct VARIANT {
  int kind;
};
typedef unsigned short VARTYPE;
enum VARENUM { VT_EMPTY = 0, VT_NULL = 1, VT_R8 = 5, VT_DATE = 7 };

#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDateTime.h>
#include <DorvikCore/DKSystemTime.h>
#include <DorvikCore/DKThread.h>
#include <DorvikCore/DKTimeZone.h>

#include <type_traits>

static_assert(!std::is_same_v<SYSTEMTIME, dk::SYSTEMTIME>);
static_assert(!std::is_same_v<FILETIME, dk::FILETIME>);
static_assert(!std::is_same_v<VARIANT, dk::VARIANT>);
static_assert(dk::VT_DATE == VT_DATE && dk::VT_NULL == VT_NULL);

// Both sets of names in one function: the program's own records and the library's.
bool UsesBothRecordSets(const FILETIME& own, SYSTEMTIME& ownTime) {
  dk::FILETIME fileTime{static_cast<std::uint32_t>(own.ticks), static_cast<std::uint32_t>(own.ticks >> 32)};
  DKDateTimeEx value;
  if (!value.FromFileTime(fileTime))
    return false;
  dk::SYSTEMTIME record{};
  dk::VARIANT variant{};
  ownTime.year = value.AsSystemTime(record, DKTimeZone::UTC) ? record.wYear : 0;
  return value.AsVariant(variant, DKTimeZone::UTC) && variant.vt == dk::VT_DATE;
}
#endif
