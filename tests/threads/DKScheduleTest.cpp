// DKSchedule and DKScheduleTimer: the text form (canonical writing, bad input with its position),
// the next occurrence against hand-worked calendars, daylight-saving gaps and repeated hours in
// three zones, and a schedule driving a timer.
#include "ThreadsTestSupport.h"
#include "datetime/DateTimeTestSupport.h"

#include <DorvikCore/DKSchedule.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Seconds since 1970 of a UTC reading "YYYY-MM-DD HH:MM[:SS]", by the civil-day formula.
DKInt64 UtcSeconds(const std::string& text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (std::sscanf(text.c_str(), "%d-%d-%d %d:%d:%d", &year, &month, &day, &hour, &minute, &second) < 5)
    throw std::invalid_argument(text);
  const int y = year - (month <= 2);
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  const DKInt64 days = DKInt64{era} * 146097 + doe - 719468;
  return days * 86400 + hour * 3600 + minute * 60 + second;
}

DKSchedule Parse(const char* text) {
  DKSchedule schedule;
  const DKErrorID result = schedule.FromString(Text(text));
  EXPECT_TRUE(result.Good()) << text << ": " << result.AsString();
  return schedule;
}

// The next occurrences after an instant, each after the one before.
std::vector<DKInt64> Occurrences(const DKSchedule& schedule, DKInt64 after, std::size_t count) {
  std::vector<DKInt64> found;
  for (DKInt64 next = 0; found.size() < count && schedule.NextAfter(after, next); after = next)
    found.push_back(next);
  return found;
}

std::vector<DKInt64> Instants(const std::vector<std::string>& texts) {
  std::vector<DKInt64> instants;
  for (const std::string& text : texts)
    instants.push_back(UtcSeconds(text));
  return instants;
}

struct NextCase {
  const char* zone; // null: the schedule names UTC itself
  const char* schedule;
  const char* after;
  std::vector<std::string> expected; // UTC
};

void CheckNext(const NextCase& c) {
  const DKSchedule schedule = Parse(c.schedule);
  const std::vector<DKInt64> expected = Instants(c.expected);
  EXPECT_EQ(Occurrences(schedule, UtcSeconds(c.after), expected.size()), expected)
      << (c.zone ? c.zone : "UTC") << ": " << c.schedule << " after " << c.after;
}

} // namespace

TEST(DKScheduleTest, TextFormsReadAndWriteTheirCanonicalFormWhichReadsBackAlike) {
  const struct {
    const char* text;
    const char* canonical;
  } cases[] = {
      {"every day at 02:00", "every day at 02:00"},
      {"Weekdays at 8:30", "weekdays at 08:30"},
      {"every 15 minutes between 09:00 and 17:00", "every 15 minutes between 09:00 and 17:00"},
      {"the last day of the month", "the last day of the month at 00:00"},
      {"on the last day of every month at 23:30", "the last day of the month at 23:30"},
      {"daily at noon, midnight and 18:30:15", "every day at 00:00, 12:00, 18:30:15"},
      {"on Monday, Wednesday and fridays at 07:00 UTC", "on mon, wed, fri at 07:00 UTC"},
      {"every tues and thurs at 07:00 local", "on tue, thu at 07:00"},
      {"sat at 10:00", "on sat at 10:00"},
      {"every weekend every 2 hours", "weekends every 2 hours"},
      {"on weekdays every minute", "weekdays every minute"},
      {"on days 15, 1 and last of every month at 06:00", "on days 1, 15, last of the month at 06:00"},
      {"on day 31 of the month", "on day 31 of the month at 00:00"},
      {"every 90 seconds", "every 90 seconds"},
      {"every 120 seconds", "every 2 minutes"},
      {"every 24 hours", "every 24 hours"},
      {"every day every 3600 seconds between 00:00 and 23:59:59", "every hour"},
      {"on mon, tue, wed, thu, fri at 09:00", "weekdays at 09:00"},
      {"on mon,tue,wed,thu,fri,sat,sun at 09:00", "every day at 09:00"},
      {"at 08:00, 08:00 and 07:59", "every day at 07:59, 08:00"},
      {"  every\tday\r\nat 02:00  ", "every day at 02:00"},
  };
  for (const auto& c : cases) {
    const DKSchedule schedule = Parse(c.text);
    EXPECT_EQ(schedule.ToString().AsUTF8(), c.canonical) << c.text;
    EXPECT_EQ(Parse(c.canonical), schedule) << c.canonical;
  }
  DKSchedule schedule;
  EXPECT_EQ(schedule.ToString().AsUTF8(), "every day at 00:00");
}

TEST(DKScheduleTest, BadTextIsRefusedWithThePositionAndTheScheduleKeepsItsValue) {
  const struct {
    std::string text;
    long position;
    const char* reason; // part of the error's text
  } cases[] = {
      {"", 0, "the schedule is empty"},
      {"   ", 3, "the schedule is empty"},
      {"every day at 25:00", 13, "the hour must be 0 to 23"},
      {"at 24:00", 3, "the hour must be 0 to 23"},
      {"every day at 8:5", 13, "the minutes must be two digits"},
      {"at 08:00:60", 3, "the seconds must be two digits"},
      {"at 1:02:03:04", 10, "at most hours, minutes and seconds"},
      {"at 08:", 6, "expected digits after"},
      {"at 08:00,", 9, "expected a time such as 08:30 instead of the end of the text"},
      {"at 8", 3, "expected a time such as 08:30 instead of the number 8"},
      {"every 0 minutes", 6, "the count must be at least 1"},
      {"every 25 hours", 6, "the step must be at most 24 hours"},
      {"every 1234567890 seconds", 6, "the number is too long"},
      {"every 15 parsecs", 9, "expected \"seconds\", \"minutes\" or \"hours\" instead of \"parsecs\""},
      {"on day 32 of the month", 7, "expected a day of the month, 1 to 31"},
      {"on day 3 of the year", 16, "expected \"month\" instead of \"year\""},
      {"on day 3", 8, "expected \"of\""},
      {"the first day of the month", 4, "expected \"last\""},
      {"every 5 minutes between 17:00 and 09:00", 34, "the window ends before it starts"},
      {"every 5 minutes between 17:00", 29, "expected \"and\""},
      {"weekdays at 08:00 tomorrow", 18, "unexpected \"tomorrow\""},
      {"utc", 3, "expected days"},
      {"every day at 08:00 \xE2\x82\xAC", 19, "unexpected character"},
      {"on funday", 3, "expected a day of the week or \"day\" after \"on\""},
      {"mon and at 08:00", 8, "expected a day of the week instead of \"at\""},
      {std::string(4097, ' '), 4096, "longer than 4096 characters"},
  };
  for (const auto& c : cases) {
    DKSchedule schedule = Parse("weekdays at 08:30");
    const DKErrorID result = schedule.FromString(Text(c.text));
    ASSERT_EQ(result.GetCode(), DK_MSG_INVALID_SCHEDULE) << c.text;
    const auto* params = dynamic_cast<const DKErrorWithArgs*>(result.GetError().Get());
    ASSERT_NE(params, nullptr);
    long position = -1;
    ASSERT_TRUE(params->GetParam(position, 1)) << c.text;
    EXPECT_EQ(position, c.position) << c.text;
    EXPECT_NE(result.AsString().AsUTF8().find(c.reason), std::string::npos) << c.text << ": " << result.AsString();
    EXPECT_EQ(schedule.ToString().AsUTF8(), "weekdays at 08:30") << c.text;
  }
  DKSchedule schedule;
  EXPECT_EQ(schedule.FromString(Text("on day 31 of the month at 99:00")).AsString().AsUTF8(),
            "Invalid schedule \"on day 31 of the month at 99:00\" at position 26: the hour must be 0 to 23");
  std::string many = "at 00:00";
  for (int minute = 1; minute <= 256; ++minute) {
    char time[16];
    std::snprintf(time, sizeof time, ", %02d:%02d", minute / 60, minute % 60);
    many += time;
  }
  EXPECT_NE(schedule.FromString(Text(many)).AsString().AsUTF8().find("more than 256 times"), std::string::npos);
}

TEST(DKScheduleTest, TheSettersRefuseValuesOutOfRange) {
  DKSchedule schedule;
  EXPECT_FALSE(schedule.SetWeekDays(0));
  EXPECT_FALSE(schedule.SetWeekDays(0x80));
  EXPECT_FALSE(schedule.SetMonthDays(0));
  EXPECT_FALSE(schedule.SetTimes({}));
  EXPECT_FALSE(schedule.SetTimes({86400}));
  EXPECT_FALSE(schedule.SetTimes({-1}));
  EXPECT_FALSE(schedule.SetInterval(0));
  EXPECT_FALSE(schedule.SetInterval(86401));
  EXPECT_FALSE(schedule.SetInterval(60, 100, 99));
  EXPECT_EQ(schedule, DKSchedule());
  EXPECT_TRUE(schedule.SetMonthDays(DKSchedule::LastDayOfMonth | (1u << 10)));
  EXPECT_TRUE(schedule.SetTimes({3600, 60}));
  schedule.SetZone(DKTimeZone::UTC);
  EXPECT_EQ(schedule.ToString().AsUTF8(), "on days 10, last of the month at 00:01, 01:00 UTC");
}

TEST(DKScheduleTest, NextOccurrencesFollowTheCalendar) {
  const NextCase cases[] = {
      {nullptr, "weekdays at 08:30 utc", "2024-03-01 09:00",
       {"2024-03-04 08:30", "2024-03-05 08:30", "2024-03-06 08:30", "2024-03-07 08:30", "2024-03-08 08:30",
        "2024-03-11 08:30"}},
      {nullptr, "weekdays at 08:30 utc", "2024-03-01 08:30", {"2024-03-04 08:30"}}, // strictly after
      {nullptr, "the last day of the month at 23:00 UTC", "2024-01-31 23:00",
       {"2024-02-29 23:00", "2024-03-31 23:00", "2024-04-30 23:00", "2024-05-31 23:00"}},
      {nullptr, "the last day of the month at 23:00 UTC", "2025-01-31 23:00", {"2025-02-28 23:00"}},
      {nullptr, "on day 31 of the month UTC", "2024-03-31 00:00",
       {"2024-05-31 00:00", "2024-07-31 00:00", "2024-08-31 00:00", "2024-10-31 00:00"}},
      {nullptr, "on days 30, last of the month UTC", "2024-02-01 00:00",
       {"2024-02-29 00:00", "2024-03-30 00:00", "2024-03-31 00:00", "2024-04-30 00:00"}},
      {nullptr, "every 15 minutes between 09:00 and 10:00 UTC", "2024-03-01 09:50",
       {"2024-03-01 10:00", "2024-03-02 09:00", "2024-03-02 09:15"}},
      {nullptr, "every 7 minutes between 23:50 and 23:59:59 UTC", "2024-12-31 23:50",
       {"2024-12-31 23:57", "2025-01-01 23:50", "2025-01-01 23:57"}},
      {nullptr, "on sat, sun at 12:00, midnight UTC", "2024-03-01 12:00",
       {"2024-03-02 00:00", "2024-03-02 12:00", "2024-03-03 00:00", "2024-03-03 12:00", "2024-03-09 00:00"}},
      {nullptr, "every 10 hours utc", "2024-03-01 19:59:59",
       {"2024-03-01 20:00", "2024-03-02 00:00", "2024-03-02 10:00"}},
  };
  for (const NextCase& c : cases)
    CheckNext(c);
  const DKSchedule daily = Parse("every day at 12:00 UTC");
  EXPECT_EQ(daily.NextAfter(Utc(2024, 3, 1, 11, 59, 59, 999)), Utc(2024, 3, 1, 12));
  EXPECT_TRUE(daily.NextAfter(DKDateTimeEx()).IsNull());
}

TEST(DKScheduleTest, DaylightSavingGapsRunAfterTheGapAndRepeatedHoursRunOnce) {
  const NextCase cases[] = {
      // Paris: 2024-03-31 02:00 CET becomes 03:00 CEST (01:00 UTC); 2024-10-27 03:00 CEST
      // becomes 02:00 CET (01:00 UTC).
      {parisRule, "every day at 02:30", "2024-03-30 00:00",
       {"2024-03-30 01:30", "2024-03-31 01:00", "2024-04-01 00:30"}},
      {parisRule, "every day at 02:30", "2024-10-26 00:00",
       {"2024-10-26 00:30", "2024-10-27 00:30", "2024-10-28 01:30"}},
      {parisRule, "every 30 minutes between 01:00 and 04:00", "2024-03-30 23:30",
       {"2024-03-31 00:00", "2024-03-31 00:30", "2024-03-31 01:00", "2024-03-31 01:30", "2024-03-31 02:00",
        "2024-03-31 23:00"}},
      {parisRule, "every 30 minutes between 01:00 and 04:00", "2024-10-26 22:30",
       {"2024-10-26 23:00", "2024-10-26 23:30", "2024-10-27 00:00", "2024-10-27 00:30", "2024-10-27 02:00",
        "2024-10-27 02:30", "2024-10-27 03:00", "2024-10-28 00:00"}},
      {parisRule, "on sun at 02:00, 03:00", "2024-03-30 12:00",
       {"2024-03-31 01:00", "2024-04-07 00:00", "2024-04-07 01:00"}},
      // New York: 2024-03-10 02:00 EST becomes 03:00 EDT (07:00 UTC); 2024-11-03 02:00 EDT
      // becomes 01:00 EST (06:00 UTC).
      {newYorkRule, "every day at 02:30", "2024-03-09 12:00", {"2024-03-10 07:00", "2024-03-11 06:30"}},
      {newYorkRule, "every day at 01:30", "2024-11-02 12:00", {"2024-11-03 05:30", "2024-11-04 06:30"}},
      {newYorkRule, "every hour between 00:00 and 03:00", "2024-11-03 03:30",
       {"2024-11-03 04:00", "2024-11-03 05:00", "2024-11-03 07:00", "2024-11-03 08:00", "2024-11-04 05:00"}},
      // Lord Howe moves by half an hour: 2024-10-06 02:00 (+10:30) becomes 02:30 (+11); 2024-04-07
      // 02:00 (+11) becomes 01:30 (+10:30).
      {lordHoweRule, "every day at 02:15", "2024-10-04 12:00",
       {"2024-10-04 15:45", "2024-10-05 15:30", "2024-10-06 15:15"}},
      {lordHoweRule, "every day at 01:45", "2024-04-05 12:00",
       {"2024-04-05 14:45", "2024-04-06 14:45", "2024-04-07 15:15"}},
  };
  for (const NextCase& c : cases) {
    DK_IN_ZONE(c.zone);
    CheckNext(c);
  }
}

TEST(DKScheduleTimerTest, ACallbackRunsAtEachOccurrenceNeverEarlyAndKeepsGoingAfterAThrow) {
  DKSchedule everySecond;
  ASSERT_TRUE(everySecond.SetInterval(1));
  std::mutex lock;
  std::vector<DKInt64> occurrences;
  std::vector<DKInt64> wallMs;
  DKScheduleTimer timer(everySecond, DKMakeCallback([&] {
                          const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                               std::chrono::system_clock::now().time_since_epoch())
                                               .count();
                          std::lock_guard<std::mutex> guard(lock);
                          occurrences.push_back(DKScheduleTimer::CurrentOccurrence());
                          wallMs.push_back(now);
                          if (occurrences.size() == 1)
                            throw std::runtime_error("first occurrence fails");
                        }));
  EXPECT_FALSE(timer.IsArmed());
  ConsoleCapture console;
  TraceLevelOverride quiet(0);
  ASSERT_TRUE(timer.Start().Good());
  DKInt64 next = 0;
  EXPECT_TRUE(timer.GetNextOccurrence(next));
  ASSERT_TRUE(WaitUntil([&] {
    std::lock_guard<std::mutex> guard(lock);
    return occurrences.size() >= 3;
  }));
  EXPECT_TRUE(timer.Cancel());
  EXPECT_FALSE(timer.IsArmed());
  EXPECT_FALSE(timer.GetNextOccurrence(next));
  EXPECT_EQ(DKScheduleTimer::CurrentOccurrence(), 0);
  std::lock_guard<std::mutex> guard(lock);
  for (std::size_t i = 0; i < occurrences.size(); ++i) {
    EXPECT_GE(wallMs[i], occurrences[i] * 1000) << "occurrence " << i << " ran early";
    if (i > 0) {
      EXPECT_GT(occurrences[i], occurrences[i - 1]);
    }
  }
}
