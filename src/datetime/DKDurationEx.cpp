// DKDurationEx: counts of one unit, their conversions and their text.
#include <DorvikCore/DKDateExceptions.h>
#include <DorvikCore/DKDurationEx.h>

#include "datetime/DKCalendar.h"
#include "datetime/DKDateTimeText.h"

#include <istream>
#include <limits>
#include <ostream>
#include <span>

namespace {

constexpr int unitCount = DKDurationEx::Invalid;

// Row: from, column: to. A positive factor multiplies; -1 divides by the factor of the
// opposite direction; 0 means no conversion.
constexpr std::int32_t conversionSteps[unitCount][unitCount] = {
    {1, 12, 52, 365, 8760, 525600, 31536000, 0},
    {-1, 1, 4, 30, 720, 43200, 2592000, 0},
    {-1, -1, 1, 7, 168, 10080, 604800, 604800000},
    {-1, -1, -1, 1, 24, 1440, 86400, 86400000},
    {-1, -1, -1, -1, 1, 60, 3600, 3600000},
    {-1, -1, -1, -1, -1, 1, 60, 60000},
    {-1, -1, -1, -1, -1, -1, 1, 1000},
    {-1, -1, -1, -1, -1, -1, -1, 1},
};

// Length of each unit in milliseconds (a month is 30 days, a year 365).
constexpr DKInt64 unitMs[unitCount] = {31536000000, 2592000000, 604800000, 86400000, 3600000, 60000, 1000, 1};

const DKChar* const longNames[unitCount] = {DK_T("year"),   DK_T("month"),  DK_T("week"),   DK_T("day"),
                                            DK_T("hour"),   DK_T("minute"), DK_T("second"), DK_T("millisecond")};
const DKChar* const shortNames[unitCount] = {DK_T("y"), DK_T("mo"), DK_T("w"), DK_T("d"),
                                             DK_T("h"), DK_T("m"),  DK_T("s"), DK_T("ms")};

constexpr bool IsUnit(int unit) noexcept { return unit >= 0 && unit < unitCount; }

DKDurationEx::Unit CheckedUnit(DKDurationEx::Unit unit) noexcept { return IsUnit(unit) ? unit : DKDurationEx::Invalid; }

bool SameText(const DKChar* a, const DKChar* b) noexcept {
  while (*a && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

DKDurationEx::Unit UnitByShortName(const DKChar* name) noexcept {
  if (name)
    for (int unit = 0; unit < unitCount; ++unit)
      if (SameText(name, shortNames[unit]))
        return static_cast<DKDurationEx::Unit>(unit);
  return DKDurationEx::Invalid;
}

// The factor that turns a count of `from` into a count of the finer unit `to`; 0 when there
// is none.
DKInt64 FactorToFiner(DKDurationEx::Unit from, DKDurationEx::Unit to) noexcept {
  const std::int32_t step = conversionSteps[from][to];
  return step > 0 ? step : 0;
}

} // namespace

// The class constants are defined here, in the library, and nowhere else: on Windows a program
// imports an exported class's members and may hold no copy of its own.
constinit const DKDurationEx DKDurationEx::invalid_{};

DKDurationEx::DKDurationEx(long count, Unit unit) : m_unit(CheckedUnit(unit)), m_duration(0) { SetDuration(count); }

DKDurationEx::DKDurationEx(long count, const DKChar* unitShortName) : m_unit(UnitByShortName(unitShortName)), m_duration(0) {
  SetDuration(count);
}

#if !DK_WCHAR_IS_DKCHAR
DKDurationEx::DKDurationEx(long count, const wchar_t* unitShortName)
    : DKDurationEx(count, unitShortName ? DKString(unitShortName).c_str() : nullptr) {}
#endif

DKDurationEx::DKDurationEx(const DKString& text, Unit defaultUnit) : DKDurationEx() { FromString(text, defaultUnit); }

DKDurationEx::DKDurationEx(std::chrono::milliseconds amount) : DKDurationEx() {
  if (!FromChrono(amount))
    throw DKDurationExceptionEx(amount.count(), Millisecond);
}

void DKDurationEx::SetDuration(long count) { SetCount(count); }

void DKDurationEx::SetCount(DKInt64 count) {
  if (count < minimum_ || count > maximum_)
    throw DKDurationExceptionEx(count, m_unit);
  m_duration = static_cast<std::int32_t>(count);
}

DKInt64 DKDurationEx::AsInt64() const noexcept {
  return static_cast<DKInt64>(static_cast<DKUInt64>(static_cast<std::uint32_t>(m_unit)) << 32 |
                              static_cast<std::uint32_t>(m_duration));
}

DKInt64 DKDurationEx::AsMilliSeconds() const noexcept {
  if (!IsValid())
    return 0;
  DKInt64 ms = 0;
  if (__builtin_mul_overflow(static_cast<DKInt64>(m_duration), unitMs[m_unit], &ms))
    return m_duration < 0 ? std::numeric_limits<DKInt64>::min() : std::numeric_limits<DKInt64>::max();
  return ms;
}

DKDuration DKDurationEx::AsDKDuration() const {
  const DKInt64 seconds = AsMilliSeconds() / 1000;
  if (seconds < minimum_ || seconds > maximum_)
    throw DKDurationExceptionEx(*this);
  return static_cast<DKDuration>(seconds);
}

bool DKDurationEx::AsChrono(std::chrono::milliseconds& amount) const noexcept {
  if (!IsValid() || m_unit <= Month)
    return false;
  amount = std::chrono::milliseconds(static_cast<DKInt64>(m_duration) * unitMs[m_unit]); // at most 1.3e18
  return true;
}

bool DKDurationEx::FromChrono(std::chrono::milliseconds amount) noexcept {
  const DKInt64 ms = amount.count();
  // The coarsest exact unit gives the smallest count: when that does not fit, none does.
  for (int unit = Week; unit <= Millisecond; ++unit) {
    if (ms % unitMs[unit] != 0)
      continue;
    const DKInt64 count = ms / unitMs[unit];
    if (count < minimum_ || count > maximum_)
      return false;
    m_unit = static_cast<Unit>(unit);
    m_duration = static_cast<std::int32_t>(count);
    return true;
  }
  return false;
}

std::int32_t DKDurationEx::GetConversionStep(Unit from, Unit to) noexcept {
  return IsUnit(from) && IsUnit(to) ? conversionSteps[from][to] : 0;
}

bool DKDurationEx::ConvertTo(Unit newUnit, bool truncate) {
  if (newUnit == m_unit)
    return true;
  if (!IsUnit(newUnit) || m_duration == 0) {
    m_duration = 0;
    m_unit = CheckedUnit(newUnit);
    return true;
  }
  if (!IsUnit(m_unit))
    return false;
  const std::int32_t step = conversionSteps[m_unit][newUnit];
  if (step == 0)
    return false;
  DKInt64 count;
  if (step > 0) {
    count = static_cast<DKInt64>(m_duration) * step;
  } else {
    const std::int32_t divisor = conversionSteps[newUnit][m_unit];
    if (divisor <= 0) // milliseconds have no year or month form either
      return false;
    count = m_duration / divisor;
    if (!truncate && m_duration % divisor >= 1)
      ++count;
  }
  const Unit oldUnit = m_unit;
  m_unit = newUnit;
  try {
    SetCount(count);
  } catch (...) {
    m_unit = oldUnit;
    throw;
  }
  return true;
}

DKDurationEx DKDurationEx::As(Unit newUnit, bool truncate) const {
  DKDurationEx copy(*this);
  copy.ConvertTo(newUnit, truncate);
  return copy;
}

void DKDurationEx::Normalize() {
  if (!IsValid() || m_duration == 0)
    return;
  for (int unit = Year; unit < m_unit; ++unit) {
    const DKInt64 factor = FactorToFiner(static_cast<Unit>(unit), m_unit);
    if (factor > 0 && m_duration % factor == 0) {
      ConvertTo(static_cast<Unit>(unit), true);
      return;
    }
  }
}

bool DKDurationEx::IsEquivalent(const DKDurationEx& other) const noexcept {
  if (!IsValid() || !other.IsValid())
    return false;
  const Unit finer = m_unit > other.m_unit ? m_unit : other.m_unit;
  const DKInt64 a = FactorToFiner(m_unit, finer);
  const DKInt64 b = FactorToFiner(other.m_unit, finer);
  return a > 0 && b > 0 && m_duration * a == other.m_duration * b;
}

DKDurationEx DKDurationEx::operator*(int factor) const {
  DKDurationEx result(*this);
  result.SetCount(static_cast<DKInt64>(m_duration) * factor);
  return result;
}

DKDurationEx DKDurationEx::operator-() const {
  DKDurationEx result(*this);
  result.SetCount(-DKInt64{dkcal::UsableCount(*this)});
  return result;
}

DKDurationEx DKDurationEx::operator/(int divisor) const {
  if (divisor == 0)
    throw DKDurationExceptionEx(*this);
  DKDurationEx result(*this);
  result.SetCount(static_cast<DKInt64>(m_duration) / divisor);
  return result;
}

namespace {

DKDurationEx Combine(const DKDurationEx& a, const DKDurationEx& b, int sign) {
  if (!a.IsValid() || !b.IsValid())
    return DKDurationEx::invalid_;
  const DKDurationEx::Unit finer = a.GetUnit() > b.GetUnit() ? a.GetUnit() : b.GetUnit();
  const DKInt64 fa = FactorToFiner(a.GetUnit(), finer);
  const DKInt64 fb = FactorToFiner(b.GetUnit(), finer);
  if (fa == 0 || fb == 0)
    return DKDurationEx::invalid_;
  const DKInt64 count = a.GetDuration() * fa + sign * (b.GetDuration() * fb);
  if (count < DKDurationEx::minimum_ || count > DKDurationEx::maximum_)
    throw DKDurationExceptionEx(count, finer);
  return DKDurationEx(static_cast<long>(count), finer);
}

} // namespace

DKDurationEx operator+(const DKDurationEx& a, const DKDurationEx& b) { return Combine(a, b, 1); }
DKDurationEx operator-(const DKDurationEx& a, const DKDurationEx& b) { return Combine(a, b, -1); }

const DKChar* DKDurationEx::GetLongName(Unit unit) noexcept { return IsUnit(unit) ? longNames[unit] : DK_T(""); }
const DKChar* DKDurationEx::GetShortName(Unit unit) noexcept { return IsUnit(unit) ? shortNames[unit] : DK_T(""); }

// ---------------------------------------------------------------------------------------------
// Text

void DKDurationEx::AsString(DKString& out, bool longForm) const {
  out.Clear();
  if (!IsValid())
    return;
  if (m_duration == 0) {
    out = DK_T("0");
    return;
  }
  dkdt::AppendInt(out, m_duration);
  if (longForm) {
    out += DK_T(' ');
    out += longNames[m_unit];
    if (m_duration > 1 || m_duration < -1)
      out += DK_T('s');
  } else {
    out += shortNames[m_unit];
  }
}

DKString DKDurationEx::AsString(bool longForm) const {
  DKString out;
  AsString(out, longForm);
  return out;
}

DKString DKDurationEx::AsElapsedString() const {
  const DKInt64 ms = AsMilliSeconds();
  // The magnitude, kept unsigned: the saturated minimum has no positive counterpart.
  const DKUInt64 magnitude = ms < 0 ? 0 - static_cast<DKUInt64>(ms) : static_cast<DKUInt64>(ms);
  const DKUInt64 days = magnitude / 86400000;
  const DKUInt64 rest = magnitude % 86400000;
  DKString out(ms < 0 ? DK_T("-") : DK_T(""));
  if (days != 0)
    out += DKString().Format(DK_T("%I64u days, "), days);
  out += DKString().Format(DK_T("%I64u:%02I64u:%02I64u.%03I64u"), rest / 3600000, rest / 60000 % 60, rest / 1000 % 60, rest % 1000);
  return out;
}

bool DKDurationEx::FromString(const DKString& text, Unit defaultUnit) {
  if (text.IsEmpty()) {
    *this = invalid_;
    return false;
  }
  const int count = text.AsInt();
  if (count < minimum_)
    throw DKDurationExceptionEx(count, defaultUnit);
  m_duration = count;
  m_unit = CheckedUnit(defaultUnit);

  const std::size_t start = text.FindFirstNotOf(DK_T("-+0123456789 "));
  if (start == DKString::npos)
    return IsValid();
  DKString word = text.SubStr(start);
  word.RTrim(DK_T(' '));
  if (word.Length() > 2)
    word.RTrim(DK_T('s'));
  if (!word.IsEmpty()) {
    m_unit = Invalid;
    for (int unit = 0; unit < unitCount && m_unit == Invalid; ++unit)
      if (word == longNames[unit] || word == shortNames[unit])
        m_unit = static_cast<Unit>(unit);
  }
  return IsValid();
}

namespace {

// The parts of the readable text: years and months for the calendar units (counted in
// months), days to milliseconds for the others (counted in milliseconds).
struct ReadablePart {
  DKDurationEx::Unit unit;
  DKInt64 length;
};
constexpr ReadablePart calendarParts[] = {{DKDurationEx::Year, 12}, {DKDurationEx::Month, 1}};
constexpr ReadablePart clockParts[] = {{DKDurationEx::Day, 86400000}, {DKDurationEx::Hour, 3600000},
                                       {DKDurationEx::Minute, 60000}, {DKDurationEx::Second, 1000},
                                       {DKDurationEx::Millisecond, 1}};

constexpr bool IsCalendarUnit(DKDurationEx::Unit unit) noexcept { return unit <= DKDurationEx::Month; }

// The length of a unit in the finest unit of its family (months or milliseconds).
constexpr DKInt64 FamilyLength(DKDurationEx::Unit unit) noexcept {
  return unit == DKDurationEx::Year ? 12 : unit == DKDurationEx::Month ? 1 : unitMs[unit];
}

void AppendPart(DKString& out, DKInt64 count, DKDurationEx::Unit unit, bool longForm) {
  dkdt::AppendInt(out, count);
  if (longForm) {
    out += DK_T(' ');
    out += longNames[unit];
    if (count != 1 && count != -1)
      out += DK_T('s');
  } else {
    out += shortNames[unit];
  }
}

// The unit a word names (long name, long name with "s", or short name); Invalid otherwise.
DKDurationEx::Unit UnitByWord(const DKChar* word, std::size_t length) noexcept {
  const DKStringView text(word, length);
  for (int unit = 0; unit < unitCount; ++unit) {
    const DKStringView name(longNames[unit]);
    if (text == DKStringView(shortNames[unit]) || text == name ||
        (length == name.size() + 1 && text.substr(0, name.size()) == name && word[length - 1] == 's'))
      return static_cast<DKDurationEx::Unit>(unit);
  }
  return DKDurationEx::Invalid;
}

} // namespace

DKString DKDurationEx::AsReadableString(bool longForm) const {
  DKString out;
  if (!IsValid())
    return out;
  if (m_duration == 0) {
    AppendPart(out, 0, m_unit, longForm);
    return out;
  }
  const DKInt64 amount = static_cast<DKInt64>(m_duration) * FamilyLength(m_unit); // at most 1.3e18
  const DKInt64 sign = amount < 0 ? -1 : 1;
  DKInt64 rest = amount * sign;
  for (const ReadablePart& part : IsCalendarUnit(m_unit) ? std::span<const ReadablePart>(calendarParts)
                                                          : std::span<const ReadablePart>(clockParts)) {
    const DKInt64 count = rest / part.length;
    rest %= part.length;
    if (count == 0)
      continue;
    if (!out.IsEmpty())
      out += DK_T(' ');
    AppendPart(out, sign * count, part.unit, longForm);
  }
  return out;
}

bool DKDurationEx::FromReadableString(const DKString& text) {
  *this = invalid_;
  const DKChar* p = text.c_str();
  const DKChar* const end = p + text.Length();
  const auto skipBlanks = [&] {
    while (p != end && *p == ' ')
      ++p;
  };
  skipBlanks();
  if (p == end)
    return false;
  int previous = -1;
  bool negative = false;
  DKInt64 total = 0; // in months or milliseconds
  Unit finest = Invalid;
  for (int part = 0; p != end; ++part) {
    const bool minus = *p == '-';
    if (*p == '-' || *p == '+')
      ++p;
    if (part == 0)
      negative = minus;
    else if (minus != negative)
      return false;
    if (p == end || *p < '0' || *p > '9')
      return false;
    // A part may hold more than a count can (2147483647 weeks are written as days), but never
    // more than the largest amount, so that the sum cannot overflow.
    constexpr DKInt64 largestAmount = DKInt64{maximum_} * unitMs[Week];
    DKInt64 count = 0;
    for (; p != end && *p >= '0' && *p <= '9'; ++p) {
      const int digit = *p - '0';
      if (count > (largestAmount - digit) / 10)
        return false;
      count = count * 10 + digit;
    }
    skipBlanks();
    const DKChar* const word = p;
    while (p != end && ((*p >= 'a' && *p <= 'z') || (*p >= 'A' && *p <= 'Z')))
      ++p;
    const Unit unit = UnitByWord(word, static_cast<std::size_t>(p - word));
    if (unit == Invalid || unit <= previous || (previous >= 0 && IsCalendarUnit(unit) != IsCalendarUnit(finest)))
      return false;
    if (p != end && *p != ' ')
      return false;
    skipBlanks();
    if (count > largestAmount / FamilyLength(unit))
      return false;
    previous = unit;
    finest = unit;
    total += count * FamilyLength(unit); // at most 8 parts of 1.3e18
  }
  // The finest unit named, or the nearest coarser one that holds the sum exactly when its
  // count would be too large (more than 2147483647 days can only be weeks).
  const int coarsest = IsCalendarUnit(finest) ? Year : Week;
  for (int unit = finest; unit >= coarsest; --unit) {
    const DKInt64 length = FamilyLength(static_cast<Unit>(unit));
    if (total % length == 0 && total / length <= maximum_) {
      m_unit = static_cast<Unit>(unit);
      m_duration = static_cast<std::int32_t>(negative ? -(total / length) : total / length);
      return true;
    }
  }
  return false;
}

std::ostream& operator<<(std::ostream& os, const DKDurationEx& duration) { return os << duration.AsString(); }

std::istream& operator>>(std::istream& is, DKDurationEx& duration) {
  std::string text;
  if (!(is >> text))
    return is;
  // A count alone may be followed by its unit word ("5 days").
  if (text.find_first_not_of("+-0123456789") == std::string::npos && is.good()) {
    is >> std::ws;
    const int next = is.good() ? is.peek() : std::char_traits<char>::eof();
    if (next != std::char_traits<char>::eof() && (next | 0x20) >= 'a' && (next | 0x20) <= 'z') {
      std::string word;
      is >> word;
      text += ' ';
      text += word;
    }
  }
  DKString wide;
  if (wide.SetFromUTF8(text.c_str(), text.size()).Bad() || !duration.FromString(wide, DKDurationEx::Second))
    is.setstate(std::ios::failbit);
  return is;
}
