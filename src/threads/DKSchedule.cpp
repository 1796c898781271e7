// DKSchedule: the text form, its canonical writing, and the next occurrence.
//
// The reader splits the text into words, numbers, clock times and commas, then reads the days,
// the times and the zone in that order. The next occurrence walks the days from the one before
// the instant's local day: on each day the schedule runs on, its readings map to instants in
// the same order as the readings themselves (a skipped reading maps to the end of the gap, a
// repeated one to its first occurrence), so a binary search over the day's readings finds the
// first instant after the given one, and the first day that has one holds the answer.
#include <DorvikCore/DKSchedule.h>

#include <DorvikCore/DKFormat.h>

#include "datetime/DKCalendar.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

constexpr std::int32_t kDay = 86400;

enum class TokenKind { Word, Number, Time, Comma, End };

struct Token {
  TokenKind kind = TokenKind::End;
  std::size_t position = 0;
  std::string word;       // Word: lower-case ASCII
  std::int64_t value = 0; // Number; Time: seconds of the day
};

const char* const kWeekDayNames[7][2] = {
    {"mon", "monday"}, {"tue", "tuesday"}, {"wed", "wednesday"}, {"thu", "thursday"},
    {"fri", "friday"}, {"sat", "saturday"}, {"sun", "sunday"},
};

// The bit of a week day's name (full, three letters, or full with a plural "s"); 0 for none.
unsigned WeekDayBit(const std::string& word) {
  for (unsigned day = 0; day < 7; ++day) {
    const std::string full = kWeekDayNames[day][1];
    if (word == kWeekDayNames[day][0] || word == full || word == full + "s" || (day == 1 && word == "tues") ||
        (day == 3 && (word == "thur" || word == "thurs")))
      return 1u << day;
  }
  return 0;
}

class Reader {
public:
  explicit Reader(const DKString& text) : m_text(text) {}

  DKErrorID Read(DKSchedule& out) {
    if (m_text.Length() > DKSchedule::MaxTextLength)
      return Fail(DKSchedule::MaxTextLength, "the text is longer than 4096 characters");
    if (DKErrorID split = Split(); split.Bad())
      return split;
    if (Peek().kind == TokenKind::End)
      return Fail(Peek().position, "the schedule is empty");
    DKSchedule made;
    bool hasDays = false;
    bool hasTimes = false;
    if (DKErrorID days = ReadDays(made, hasDays); days.Bad())
      return days;
    if (DKErrorID times = ReadTimes(made, hasTimes); times.Bad())
      return times;
    if (IsWord("utc") || IsWord("local")) {
      made.SetZone(Next().word == "utc" ? DKTimeZone::UTC : DKTimeZone::Local);
    }
    if (!hasDays && !hasTimes)
      return Fail(Peek().position, "expected days (\"every day\", \"weekdays\", \"on monday\", ...) or times "
                                   "(\"at 08:30\", \"every 15 minutes\")");
    if (Peek().kind != TokenKind::End)
      return Fail(Peek().position, "unexpected " + Describe(Peek()));
    out = made;
    return DKErrorID();
  }

private:
  // ------------------------------------------------------------------------------------------
  // Tokens

  DKErrorID Split() {
    const std::size_t length = m_text.Length();
    for (std::size_t i = 0; i < length;) {
      const DKChar c = m_text[i];
      Token token;
      token.position = i;
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
        ++i;
        continue;
      }
      if (c == ',') {
        token.kind = TokenKind::Comma;
        ++i;
      } else if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
        token.kind = TokenKind::Word;
        while (i < length && ((m_text[i] >= 'a' && m_text[i] <= 'z') || (m_text[i] >= 'A' && m_text[i] <= 'Z'))) {
          token.word += static_cast<char>(m_text[i] | 0x20);
          ++i;
        }
      } else if (c >= '0' && c <= '9') {
        if (DKErrorID read = ReadNumberOrTime(i, token); read.Bad())
          return read;
      } else {
        return Fail(i, "unexpected character");
      }
      m_tokens.push_back(token);
    }
    Token end;
    end.position = length;
    m_tokens.push_back(end);
    return DKErrorID();
  }

  // Digits, or a clock time H:MM or HH:MM[:SS].
  DKErrorID ReadNumberOrTime(std::size_t& i, Token& token) {
    const std::size_t start = i;
    std::int64_t fields[3] = {0, 0, 0};
    std::size_t widths[3] = {0, 0, 0};
    int count = 0;
    for (;;) {
      while (i < m_text.Length() && m_text[i] >= '0' && m_text[i] <= '9') {
        if (widths[count] >= 9)
          return Fail(start, "the number is too long");
        fields[count] = fields[count] * 10 + (m_text[i] - '0');
        ++widths[count];
        ++i;
      }
      ++count;
      if (count == 3 || i >= m_text.Length() || m_text[i] != ':')
        break;
      ++i; // the ':'
      if (i >= m_text.Length() || m_text[i] < '0' || m_text[i] > '9')
        return Fail(i, "expected digits after \":\"");
    }
    if (i < m_text.Length() && m_text[i] == ':')
      return Fail(i, "a time has at most hours, minutes and seconds");
    if (count == 1) {
      token.kind = TokenKind::Number;
      token.value = fields[0];
      return DKErrorID();
    }
    if (widths[0] > 2 || fields[0] > 23)
      return Fail(start, "the hour must be 0 to 23");
    if (widths[1] != 2 || fields[1] > 59)
      return Fail(start, "the minutes must be two digits, 00 to 59");
    if (count == 3 && (widths[2] != 2 || fields[2] > 59))
      return Fail(start, "the seconds must be two digits, 00 to 59");
    token.kind = TokenKind::Time;
    token.value = fields[0] * 3600 + fields[1] * 60 + fields[2];
    return DKErrorID();
  }

  const Token& Peek(std::size_t ahead = 0) const {
    return m_tokens[std::min(m_next + ahead, m_tokens.size() - 1)];
  }
  const Token& Next() {
    const Token& token = Peek();
    if (m_next + 1 < m_tokens.size())
      ++m_next;
    return token;
  }
  bool IsWord(const char* word, std::size_t ahead = 0) const {
    const Token& token = Peek(ahead);
    return token.kind == TokenKind::Word && token.word == word;
  }
  // Reads a list separator: ",", "and" or ", and". False when none is next.
  bool Separator() {
    if (Peek().kind == TokenKind::Comma) {
      Next();
      if (IsWord("and"))
        Next();
      return true;
    }
    if (IsWord("and")) {
      Next();
      return true;
    }
    return false;
  }
  DKErrorID Expect(const char* word) {
    if (!IsWord(word))
      return Fail(Peek().position, std::string("expected \"") + word + "\" instead of " + Describe(Peek()));
    Next();
    return DKErrorID();
  }

  std::string Describe(const Token& token) const {
    switch (token.kind) {
    case TokenKind::Word: return "\"" + token.word + "\"";
    case TokenKind::Number: return "the number " + std::to_string(token.value);
    case TokenKind::Time: return "a time";
    case TokenKind::Comma: return "\",\"";
    default: return "the end of the text";
    }
  }

  DKErrorID Fail(std::size_t position, const std::string& what) const {
    constexpr std::size_t shown = 60;
    DKSmartPtr<DKErrorWithArgs> error = DKLibraryError(DK_MSG_INVALID_SCHEDULE);
    error->AddParam(m_text.Length() > shown ? m_text.SubStr(0, shown) + DK_T("...") : m_text);
    error->AddParam(static_cast<long>(position));
    error->AddParam(DKString::FromUTF8(what));
    return DKErrorID(error);
  }

  // ------------------------------------------------------------------------------------------
  // Days

  DKErrorID ReadDays(DKSchedule& made, bool& found) {
    found = true;
    if (IsWord("daily"))
      return WeekDays(made, DKSchedule::EveryDay, 1);
    if (IsWord("weekdays"))
      return WeekDays(made, DKSchedule::MondayToFriday, 1);
    if (IsWord("weekends"))
      return WeekDays(made, DKSchedule::Weekend, 1);
    if (IsWord("every")) {
      if (IsWord("day", 1))
        return WeekDays(made, DKSchedule::EveryDay, 2);
      if (IsWord("weekday", 1))
        return WeekDays(made, DKSchedule::MondayToFriday, 2);
      if (IsWord("weekend", 1))
        return WeekDays(made, DKSchedule::Weekend, 2);
      if (Peek(1).kind == TokenKind::Word && WeekDayBit(Peek(1).word)) {
        Next();
        return ReadWeekDays(made);
      }
      found = false; // "every 15 minutes"
      return DKErrorID();
    }
    if (IsWord("the"))
      return ReadLastDay(made);
    if (IsWord("on")) {
      Next();
      if (IsWord("weekdays"))
        return WeekDays(made, DKSchedule::MondayToFriday, 1);
      if (IsWord("weekends"))
        return WeekDays(made, DKSchedule::Weekend, 1);
      if (IsWord("the"))
        return ReadLastDay(made);
      if (IsWord("day") || IsWord("days"))
        return ReadMonthDays(made);
      if (Peek().kind == TokenKind::Word && WeekDayBit(Peek().word))
        return ReadWeekDays(made);
      return Fail(Peek().position, "expected a day of the week or \"day\" after \"on\"");
    }
    if (Peek().kind == TokenKind::Word && WeekDayBit(Peek().word))
      return ReadWeekDays(made);
    found = false;
    return DKErrorID();
  }

  // A fixed set of week days named by the next `words` words.
  DKErrorID WeekDays(DKSchedule& made, unsigned days, int words) {
    while (words-- > 0)
      Next();
    return Set(made.SetWeekDays(days));
  }

  static DKErrorID Set(bool accepted) {
    return accepted ? DKErrorID() : DKLibraryErrorID(DK_MSG_INVALID_ARGUMENT, "schedule");
  }

  DKErrorID ReadWeekDays(DKSchedule& made) {
    unsigned days = 0;
    do {
      const Token& token = Peek();
      const unsigned bit = token.kind == TokenKind::Word ? WeekDayBit(token.word) : 0;
      if (!bit)
        return Fail(token.position, "expected a day of the week instead of " + Describe(token));
      days |= bit;
      Next();
    } while (Separator());
    return Set(made.SetWeekDays(days));
  }

  // "the last day of the month" ("the" is next).
  DKErrorID ReadLastDay(DKSchedule& made) {
    for (const char* word : {"the", "last", "day"})
      if (DKErrorID expected = Expect(word); expected.Bad())
        return expected;
    if (DKErrorID month = OfTheMonth(); month.Bad())
      return month;
    return Set(made.SetMonthDays(DKSchedule::LastDayOfMonth));
  }

  // "of the month" or "of every month".
  DKErrorID OfTheMonth() {
    if (DKErrorID of = Expect("of"); of.Bad())
      return of;
    if (IsWord("the") || IsWord("every"))
      Next();
    else
      return Fail(Peek().position, "expected \"the month\" or \"every month\" instead of " + Describe(Peek()));
    return Expect("month");
  }

  // "day(s) <list> of the month" ("day" or "days" is next).
  DKErrorID ReadMonthDays(DKSchedule& made) {
    Next();
    std::uint32_t days = 0;
    do {
      const Token& token = Peek();
      if (token.kind == TokenKind::Number && token.value >= 1 && token.value <= 31)
        days |= 1u << token.value;
      else if (IsWord("last"))
        days |= DKSchedule::LastDayOfMonth;
      else
        return Fail(token.position, "expected a day of the month, 1 to 31 or \"last\", instead of " + Describe(token));
      Next();
    } while (Separator());
    if (DKErrorID month = OfTheMonth(); month.Bad())
      return month;
    return Set(made.SetMonthDays(days));
  }

  // ------------------------------------------------------------------------------------------
  // Times

  DKErrorID ReadTimes(DKSchedule& made, bool& found) {
    found = true;
    if (IsWord("at")) {
      Next();
      std::vector<std::int32_t> times;
      do {
        std::int32_t time = 0;
        if (DKErrorID read = ReadTime(time); read.Bad())
          return read;
        if (times.size() == DKSchedule::MaxTimes)
          return Fail(Peek().position, "more than 256 times");
        times.push_back(time);
      } while (Separator());
      return Set(made.SetTimes(times));
    }
    if (!IsWord("every")) {
      found = false;
      return DKErrorID();
    }
    Next();
    std::int64_t count = 1;
    std::size_t countPosition = Peek().position;
    if (Peek().kind == TokenKind::Number) {
      count = Next().value;
      if (count < 1)
        return Fail(countPosition, "the count must be at least 1");
    }
    std::int64_t unit = 0;
    const Token& unitToken = Peek();
    if (IsWord("second") || IsWord("seconds"))
      unit = 1;
    else if (IsWord("minute") || IsWord("minutes"))
      unit = 60;
    else if (IsWord("hour") || IsWord("hours"))
      unit = 3600;
    else
      return Fail(unitToken.position, "expected \"seconds\", \"minutes\" or \"hours\" instead of " + Describe(unitToken));
    Next();
    if (count * unit > kDay)
      return Fail(countPosition, "the step must be at most 24 hours");
    std::int32_t first = 0;
    std::int32_t last = kDay - 1;
    if (IsWord("between")) {
      Next();
      if (DKErrorID read = ReadTime(first); read.Bad())
        return read;
      if (DKErrorID and_ = Expect("and"); and_.Bad())
        return and_;
      const std::size_t lastPosition = Peek().position;
      if (DKErrorID read = ReadTime(last); read.Bad())
        return read;
      if (last < first)
        return Fail(lastPosition, "the window ends before it starts");
    }
    return Set(made.SetInterval(static_cast<std::int32_t>(count * unit), first, last));
  }

  DKErrorID ReadTime(std::int32_t& seconds) {
    const Token& token = Peek();
    if (token.kind == TokenKind::Time)
      seconds = static_cast<std::int32_t>(token.value);
    else if (IsWord("noon"))
      seconds = 12 * 3600;
    else if (IsWord("midnight"))
      seconds = 0;
    else
      return Fail(token.position, "expected a time such as 08:30 instead of " + Describe(token));
    Next();
    return DKErrorID();
  }

  const DKString& m_text;
  std::vector<Token> m_tokens;
  std::size_t m_next = 0;
};

DKString TimeText(std::int32_t seconds) {
  char text[16];
  if (seconds % 60)
    std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60, seconds % 60);
  else
    std::snprintf(text, sizeof text, "%02d:%02d", seconds / 3600, seconds / 60 % 60);
  return DKString::FromUTF8(text);
}

} // namespace

DKSchedule::DKSchedule() = default;

bool operator==(const DKSchedule& a, const DKSchedule& b) noexcept {
  return a.m_dayKind == b.m_dayKind && a.m_weekDays == b.m_weekDays && a.m_monthDays == b.m_monthDays &&
         a.m_times == b.m_times && a.m_step == b.m_step && a.m_first == b.m_first && a.m_last == b.m_last &&
         a.m_zone == b.m_zone;
}

DKErrorID DKSchedule::FromString(const DKString& text) { return Reader(text).Read(*this); }

bool DKSchedule::SetWeekDays(unsigned weekDays) {
  if (weekDays == 0 || weekDays > EveryDay)
    return false;
  m_dayKind = WeekDays;
  m_weekDays = weekDays;
  m_monthDays = 0;
  return true;
}

bool DKSchedule::SetMonthDays(std::uint32_t monthDays) {
  if (monthDays == 0)
    return false;
  m_dayKind = MonthDays;
  m_monthDays = monthDays;
  m_weekDays = 0;
  return true;
}

bool DKSchedule::SetTimes(const std::vector<std::int32_t>& secondsOfDay) {
  if (secondsOfDay.empty() || secondsOfDay.size() > MaxTimes)
    return false;
  for (const std::int32_t time : secondsOfDay)
    if (time < 0 || time >= kDay)
      return false;
  m_times = secondsOfDay;
  std::sort(m_times.begin(), m_times.end());
  m_times.erase(std::unique(m_times.begin(), m_times.end()), m_times.end());
  m_step = 0;
  m_first = 0;
  m_last = kDay - 1;
  return true;
}

bool DKSchedule::SetInterval(std::int32_t stepSeconds, std::int32_t firstSecond, std::int32_t lastSecond) {
  if (stepSeconds < 1 || stepSeconds > kDay || firstSecond < 0 || lastSecond >= kDay || lastSecond < firstSecond)
    return false;
  m_times.clear();
  m_step = stepSeconds;
  m_first = firstSecond;
  m_last = lastSecond;
  return true;
}

DKString DKSchedule::ToString() const {
  std::vector<DKString> parts;
  if (m_dayKind == WeekDays) {
    if (m_weekDays == MondayToFriday) {
      parts.push_back(DK_T("weekdays"));
    } else if (m_weekDays == Weekend) {
      parts.push_back(DK_T("weekends"));
    } else if (m_weekDays == EveryDay) {
      if (m_step == 0)
        parts.push_back(DK_T("every day"));
    } else {
      DKString days(DK_T("on "));
      for (unsigned day = 0, listed = 0; day < 7; ++day)
        if (m_weekDays & (1u << day)) {
          if (listed++)
            days += DK_T(", ");
          days += DKString::FromUTF8(kWeekDayNames[day][0]);
        }
      parts.push_back(days);
    }
  } else if (m_monthDays == LastDayOfMonth) {
    parts.push_back(DK_T("the last day of the month"));
  } else {
    const bool one = (m_monthDays & (m_monthDays - 1)) == 0;
    DKString days(one ? DK_T("on day ") : DK_T("on days "));
    unsigned listed = 0;
    for (unsigned day = 1; day <= 31; ++day)
      if (m_monthDays & (1u << day))
        days += DKStrCat(listed++ ? ", " : "", day);
    if (m_monthDays & LastDayOfMonth)
      days += listed ? DK_T(", last") : DK_T("last");
    parts.push_back(days + DK_T(" of the month"));
  }

  if (m_step == 0) {
    DKString times(DK_T("at "));
    for (std::size_t i = 0; i < m_times.size(); ++i) {
      if (i)
        times += DK_T(", ");
      times += TimeText(m_times[i]);
    }
    parts.push_back(times);
  } else {
    const char* unit = m_step % 3600 == 0 ? "hour" : m_step % 60 == 0 ? "minute" : "second";
    const std::int32_t count = m_step / (m_step % 3600 == 0 ? 3600 : m_step % 60 == 0 ? 60 : 1);
    DKString every = count == 1 ? DKStrCat("every ", unit) : DKStrCat("every ", count, " ", unit, "s");
    if (m_first != 0 || m_last != kDay - 1)
      every += DKStrCat(" between ", TimeText(m_first), " and ", TimeText(m_last));
    parts.push_back(every);
  }
  if (m_zone.IsUTC())
    parts.push_back(DK_T("UTC"));

  DKString text;
  for (const DKString& part : parts) {
    if (!text.IsEmpty())
      text += DK_T(" ");
    text += part;
  }
  return text;
}

bool DKSchedule::RunsOn(DKInt64 dayNumber) const {
  if (m_dayKind == WeekDays) {
    const int mondayFirst = (dkcal::WeekDayOfDays(dayNumber) + 6) % 7;
    return (m_weekDays & (1u << mondayFirst)) != 0;
  }
  std::int64_t year = 0;
  int month = 0;
  int day = 0;
  dkcal::CivilFromDays(dayNumber, year, month, day);
  return (m_monthDays & (1u << day)) != 0 ||
         ((m_monthDays & LastDayOfMonth) != 0 && day == dkcal::DaysInMonth(year, month));
}

std::size_t DKSchedule::SlotCount() const noexcept {
  return m_step == 0 ? m_times.size() : static_cast<std::size_t>((m_last - m_first) / m_step) + 1;
}

std::int32_t DKSchedule::Slot(std::size_t index) const noexcept {
  return m_step == 0 ? m_times[index] : m_first + static_cast<std::int32_t>(index) * m_step;
}

DKInt64 DKSchedule::Resolve(DKInt64 wallSeconds) const {
  const DKInt64 instant = m_zone.ToUTC(wallSeconds);
  if (m_zone.FromUTC(instant) == wallSeconds)
    return instant; // it exists (the first of two, when repeated)
  // In the gap where the clock jumps forward: the instant of the jump, which the conversion has
  // passed by less than a day. The offset changes there and nowhere else in that day.
  const int after = m_zone.GetOffset(instant);
  DKInt64 low = instant - kDay;
  DKInt64 high = instant;
  while (high - low > 1) {
    const DKInt64 middle = low + (high - low) / 2;
    (m_zone.GetOffset(middle) == after ? high : low) = middle;
  }
  return high;
}

bool DKSchedule::NextAfter(DKInt64 utcSeconds, DKInt64& next) const {
  // Far outside the years a calendar can hold there is nothing to find.
  constexpr DKInt64 limit = DKInt64{1} << 52;
  if (utcSeconds < -limit || utcSeconds > limit)
    return false;
  const DKInt64 firstDay = dkcal::FloorDiv(m_zone.FromUTC(utcSeconds), kDay) - 1;
  const std::size_t slots = SlotCount();
  for (DKInt64 day = firstDay; day <= firstDay + 401; ++day) {
    if (!RunsOn(day))
      continue;
    const DKInt64 base = day * kDay;
    if (Resolve(base + Slot(slots - 1)) <= utcSeconds)
      continue;
    std::size_t low = 0; // the first slot whose instant is after utcSeconds
    std::size_t high = slots - 1;
    while (low < high) {
      const std::size_t middle = low + (high - low) / 2;
      if (Resolve(base + Slot(middle)) > utcSeconds)
        high = middle;
      else
        low = middle + 1;
    }
    next = Resolve(base + Slot(low));
    return true;
  }
  return false;
}

DKDateTimeEx DKSchedule::NextAfter(const DKDateTimeEx& after) const {
  DKInt64 seconds = 0;
  std::int32_t milliseconds = 0;
  DKInt64 next = 0;
  DKDateTimeEx result;
  if (!after.AsUnixTime(seconds, &milliseconds) || !NextAfter(seconds, next) || !result.FromUnixTime(next))
    return DKDateTimeEx();
  return result;
}
