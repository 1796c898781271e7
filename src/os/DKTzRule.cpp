// POSIX TZ rules (os/DKTzRule.h).
//
// A rule's changes in one year are two UTC instants: the start (read on the standard clock) and
// the end (read on the daylight clock). At an instant, the state is that of the latest change
// at or before it, over the changes of the years around it; a change falls at most about nine
// days outside its own year (a day of 31 December or 1 January, 167 hours of time, a day of
// offset). The calendar repeats every 400 years, week days included, so an instant is first
// brought into the cycle that starts in 1970: the arithmetic then never overflows, whatever the
// instant.
#include "os/DKTzRule.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <limits>

namespace {

constexpr std::int64_t secondsPerDay = 86400;
constexpr std::int64_t cycleSeconds = 146097 * secondsPerDay; // 400 Gregorian years

std::int64_t SaturatingAdd(std::int64_t a, std::int64_t b) noexcept {
  std::int64_t sum = 0;
  if (__builtin_add_overflow(a, b, &sum))
    return b > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
  return sum;
}

// The second within the cycle of 400 years that starts on 1970-01-01.
std::int64_t InCycle(std::int64_t seconds) noexcept {
  const std::int64_t rest = seconds % cycleSeconds;
  return rest < 0 ? rest + cycleSeconds : rest;
}

// ---- Calendar (years near the cycle, well within std::chrono's range) ----

std::int64_t DayNumber(int year, unsigned month, unsigned day) noexcept {
  using namespace std::chrono;
  return sys_days{std::chrono::year{year} / month / day}.time_since_epoch().count();
}

std::chrono::sys_days DayOf(std::int64_t dayNumber) noexcept {
  return std::chrono::sys_days{std::chrono::days{static_cast<std::chrono::days::rep>(dayNumber)}};
}

int YearOfDay(std::int64_t dayNumber) noexcept {
  return static_cast<int>(std::chrono::year_month_day{DayOf(dayNumber)}.year());
}

// The day of a change in a year, as a day number.
std::int64_t ChangeDay(const DKTzRule::Change& change, int year) noexcept {
  using namespace std::chrono;
  const std::int64_t newYear = DayNumber(year, 1, 1);
  switch (change.form) {
  case DKTzRule::DayForm::Julian:
    return newYear + change.day - 1 + (change.day >= 60 && std::chrono::year{year}.is_leap() ? 1 : 0);
  case DKTzRule::DayForm::DayOfYear:
    return newYear + change.day;
  case DKTzRule::DayForm::MonthWeek:
    break;
  }
  const auto month = static_cast<unsigned>(change.month);
  const std::int64_t first = DayNumber(year, month, 1);
  const auto firstWeekDay = static_cast<int>(weekday{DayOf(first)}.c_encoding());
  const std::int64_t last =
      first + static_cast<unsigned>(year_month_day_last{std::chrono::year{year}, month_day_last{std::chrono::month{month}}}.day()) - 1;
  std::int64_t day = first + (change.day - firstWeekDay + 7) % 7 + 7 * (change.week - 1);
  while (day > last) // week 5: the last such day of the month
    day -= 7;
  return day;
}

struct Transition {
  std::int64_t at; // the first second of the new state
  bool daylight;
};

// The years' changes, in order, at most one at an instant (daylight saving wins a tie, so that
// a year's end and the next year's start at one instant leave it in force), and only those that
// change the state.
class Transitions {
public:
  Transitions(const DKTzRule& rule, int fromYear, int toYear) noexcept {
    for (int year = fromYear; year <= toYear; ++year) {
      m_items[m_count++] = {ChangeDay(rule.Start(), year) * secondsPerDay + rule.Start().time - rule.StandardOffset(), true};
      m_items[m_count++] = {ChangeDay(rule.End(), year) * secondsPerDay + rule.End().time - rule.DaylightOffset(), false};
    }
    std::sort(m_items.begin(), m_items.begin() + m_count, [](const Transition& a, const Transition& b) {
      return a.at != b.at ? a.at < b.at : a.daylight < b.daylight;
    });
    std::size_t kept = 0;
    for (std::size_t i = 0; i < m_count; ++i) {
      if (i + 1 < m_count && m_items[i + 1].at == m_items[i].at)
        continue;
      if (kept > 0 && m_items[kept - 1].daylight == m_items[i].daylight)
        continue;
      m_items[kept++] = m_items[i];
    }
    m_count = kept;
  }
  std::size_t size() const noexcept { return m_count; }
  const Transition& operator[](std::size_t i) const noexcept { return m_items[i]; }

private:
  static constexpr int maxYears = 7;
  std::array<Transition, 2 * maxYears> m_items{};
  std::size_t m_count = 0;
};

// ---- Reading ----

class Reader {
public:
  explicit Reader(std::string_view text) noexcept : m_text(text) {}
  bool AtEnd() const noexcept { return m_pos == m_text.size(); }
  char Peek() const noexcept { return AtEnd() ? '\0' : m_text[m_pos]; }
  bool Take(char ch) noexcept {
    if (Peek() != ch || AtEnd())
      return false;
    ++m_pos;
    return true;
  }
  static bool IsDigit(char ch) noexcept { return ch >= '0' && ch <= '9'; }
  static bool IsLetter(char ch) noexcept { return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z'); }

  // A decimal number of one or more digits, at most max.
  bool Number(int max, int& value) noexcept {
    if (!IsDigit(Peek()))
      return false;
    value = 0;
    while (IsDigit(Peek())) {
      value = value * 10 + (m_text[m_pos++] - '0');
      if (value > max)
        return false;
    }
    return true;
  }

  // A zone name: letters, or letters, digits, "+" and "-" between "<" and ">"; three or more.
  bool Name(std::string& name) {
    const bool quoted = Take('<');
    const std::size_t start = m_pos;
    while (!AtEnd() && (IsLetter(Peek()) || (quoted && (IsDigit(Peek()) || Peek() == '+' || Peek() == '-'))))
      ++m_pos;
    const std::size_t length = m_pos - start;
    if (length < 3 || (quoted && !Take('>')))
      return false;
    name.assign(m_text.substr(start, length));
    return true;
  }

  // [+|-]hh[:mm[:ss]] in seconds, hours at most maxHours.
  bool Clock(int maxHours, int& seconds) noexcept {
    const bool negative = Take('-');
    if (!negative)
      Take('+');
    int hours = 0, minutes = 0, secs = 0;
    if (!Number(maxHours, hours))
      return false;
    if (Take(':') && (!Number(59, minutes) || (Take(':') && !Number(59, secs))))
      return false;
    seconds = (hours * 60 + minutes) * 60 + secs;
    if (negative)
      seconds = -seconds;
    return true;
  }

  bool Change(DKTzRule::Change& change) noexcept {
    change = DKTzRule::Change{};
    if (Take('J')) {
      change.form = DKTzRule::DayForm::Julian;
      if (!Number(365, change.day) || change.day < 1)
        return false;
    } else if (Take('M')) {
      change.form = DKTzRule::DayForm::MonthWeek;
      if (!Number(12, change.month) || change.month < 1 || !Take('.') || !Number(5, change.week) || change.week < 1 ||
          !Take('.') || !Number(6, change.day))
        return false;
    } else {
      change.form = DKTzRule::DayForm::DayOfYear;
      if (!Number(365, change.day))
        return false;
    }
    return !Take('/') || Clock(167, change.time);
  }

private:
  std::string_view m_text;
  std::size_t m_pos = 0;
};

// ---- Writing ----

void WriteClock(std::string& out, int seconds) {
  if (seconds < 0)
    out += '-';
  const int value = seconds < 0 ? -seconds : seconds;
  out += std::to_string(value / 3600);
  const int minutes = value / 60 % 60, secs = value % 60;
  const auto twoDigits = [&](int n) {
    out += ':';
    out += static_cast<char>('0' + n / 10);
    out += static_cast<char>('0' + n % 10);
  };
  if (minutes != 0 || secs != 0)
    twoDigits(minutes);
  if (secs != 0)
    twoDigits(secs);
}

void WriteName(std::string& out, const std::string& name) {
  const bool plain = std::all_of(name.begin(), name.end(), Reader::IsLetter);
  if (!plain)
    out += '<';
  out += name;
  if (!plain)
    out += '>';
}

void WriteChange(std::string& out, const DKTzRule::Change& change) {
  out += ',';
  switch (change.form) {
  case DKTzRule::DayForm::Julian:
    out += 'J';
    out += std::to_string(change.day);
    break;
  case DKTzRule::DayForm::DayOfYear:
    out += std::to_string(change.day);
    break;
  case DKTzRule::DayForm::MonthWeek:
    out += 'M' + std::to_string(change.month) + '.' + std::to_string(change.week) + '.' + std::to_string(change.day);
    break;
  }
  if (change.time != DKTzRule::Change{}.time) {
    out += '/';
    WriteClock(out, change.time);
  }
}

} // namespace

bool DKTzRule::Parse(std::string_view text, DKTzRule& rule) {
  Reader in(text);
  DKTzRule parsed;
  int west = 0;
  if (!in.Name(parsed.m_standardName) || !in.Clock(24, west))
    return false;
  parsed.m_standardOffset = -west;
  if (!in.AtEnd()) {
    parsed.m_hasDaylight = true;
    if (!in.Name(parsed.m_daylightName))
      return false;
    if (in.AtEnd() || in.Peek() == ',') {
      parsed.m_daylightOffset = parsed.m_standardOffset + 3600;
    } else {
      if (!in.Clock(24, west))
        return false;
      parsed.m_daylightOffset = -west;
    }
    if (in.AtEnd()) {
      parsed.m_start = {DayForm::MonthWeek, 3, 2, 0, 7200};
      parsed.m_end = {DayForm::MonthWeek, 11, 1, 0, 7200};
    } else if (!in.Take(',') || !in.Change(parsed.m_start) || !in.Take(',') || !in.Change(parsed.m_end) || !in.AtEnd()) {
      return false;
    }
  }
  rule = std::move(parsed);
  return true;
}

std::string DKTzRule::ToString() const {
  std::string out;
  WriteName(out, m_standardName);
  WriteClock(out, -m_standardOffset);
  if (m_hasDaylight) {
    WriteName(out, m_daylightName);
    if (m_daylightOffset != m_standardOffset + 3600)
      WriteClock(out, -m_daylightOffset);
    WriteChange(out, m_start);
    WriteChange(out, m_end);
  }
  return out;
}

int DKTzRule::OffsetAt(std::int64_t utcSeconds, bool* daylight) const noexcept {
  bool inDaylight = false;
  if (m_hasDaylight) {
    const std::int64_t instant = InCycle(utcSeconds);
    const int year = YearOfDay(instant / secondsPerDay);
    // Four years back reach a change at or before the instant that no earlier year's passes.
    const Transitions changes(*this, year - 3, year + 1);
    for (std::size_t i = 0; i < changes.size() && changes[i].at <= instant; ++i)
      inDaylight = changes[i].daylight;
  }
  if (daylight)
    *daylight = inDaylight;
  return inDaylight ? m_daylightOffset : m_standardOffset;
}

std::int64_t DKTzRule::FromUtc(std::int64_t utcSeconds) const noexcept {
  return SaturatingAdd(utcSeconds, OffsetAt(utcSeconds));
}

std::int64_t DKTzRule::ToUtc(std::int64_t wallSeconds) const noexcept {
  if (!m_hasDaylight)
    return SaturatingAdd(wallSeconds, -std::int64_t{m_standardOffset});
  const std::int64_t reading = InCycle(wallSeconds);
  const int year = YearOfDay(reading / secondsPerDay);
  // The instant lies within a day or so of the reading; the years around hold every change
  // near it and, before those, one that fixes the state.
  const Transitions changes(*this, year - 4, year + 2);
  const auto offset = [&](std::size_t i) -> std::int64_t { return changes[i].daylight ? m_daylightOffset : m_standardOffset; };
  std::int64_t instant = std::numeric_limits<std::int64_t>::max();
  bool found = false;
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const std::int64_t candidate = reading - offset(i);
    const bool within = candidate >= changes[i].at && (i + 1 == changes.size() || candidate < changes[i + 1].at);
    if (within && candidate < instant) {
      instant = candidate;
      found = true;
    }
  }
  for (std::size_t i = 0; !found && i + 1 < changes.size(); ++i) {
    const std::int64_t jump = changes[i + 1].at;
    if (reading >= jump + offset(i) && reading < jump + offset(i + 1)) { // skipped by the jump forward
      instant = reading - offset(i);
      found = true;
    }
  }
  if (!found)
    instant = reading - m_standardOffset;
  return SaturatingAdd(wallSeconds, instant - reading);
}
