// DKSchedule and DKScheduleTimer: the text form (canonical writing, bad input with its position),
// the next occurrence against hand-worked calendars, daylight-saving gaps and repeated hours in
// three zones, and a schedule driving a timer.
#include "ThreadsTestSupport.h"
#include "datetime/DateTimeTestSupport.h"
#include "support/DKCaseFile.h"

#include <DorvikCore/DKSchedule.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Seconds since 1970 of a UTC reading "YYYY-MM-DD HH:MM[:SS]", by the standard calendar.
DKInt64 UtcSeconds(const std::string& text) {
  int year = 0, hour = 0, minute = 0, second = 0;
  unsigned month = 0, day = 0;
  if (std::sscanf(text.c_str(), "%d-%u-%u %d:%d:%d", &year, &month, &day, &hour, &minute, &second) < 5)
    throw std::invalid_argument(text);
  const std::chrono::sys_days date = std::chrono::year(year) / std::chrono::month(month) / std::chrono::day(day);
  return DKInt64{date.time_since_epoch().count()} * 86400 + hour * 3600 + minute * 60 + second;
}

DKSchedule Parse(const std::string& text) {
  DKSchedule schedule;
  const DKErrorID result = schedule.FromString(Text(text));
  EXPECT_TRUE(result.Good()) << text << ": " << result.AsString();
  return schedule;
}

// The fields of the lines of cases/schedule.txt whose first field is kind. A line of no known
// shape, and a kind without a case, fail the test.
std::vector<std::vector<std::string>> Cases(const std::string& kind) {
  const std::map<std::string, std::size_t> kFields = {{"write", 3}, {"refuse", 4}, {"next", 5}};
  std::vector<std::vector<std::string>> cases;
  for (const dktest::CaseLine& line : dktest::ReadCases(std::filesystem::path(DK_THREADS_CASES) / "schedule.txt", 0)) {
    const auto shape = kFields.find(line[0]);
    if (shape == kFields.end() || shape->second != line.fields.size())
      ADD_FAILURE() << line.where << " has no known shape";
    else if (line[0] == kind)
      cases.push_back(line.fields);
  }
  EXPECT_FALSE(cases.empty()) << "no " << kind << " case in schedule.txt";
  return cases;
}

} // namespace

TEST(DKScheduleTest, TextFormsReadAndWriteTheirCanonicalFormWhichReadsBackAlike) {
  for (const auto& c : Cases("write")) {
    const DKSchedule schedule = Parse(c[1]);
    EXPECT_EQ(schedule.ToString().AsUTF8(), c[2]) << c[1];
    EXPECT_EQ(Parse(c[2]), schedule) << c[2];
  }
  DKSchedule schedule;
  EXPECT_EQ(schedule.ToString().AsUTF8(), "every day at 00:00");
}

TEST(DKScheduleTest, BadTextIsRefusedWithThePositionAndTheScheduleKeepsItsValue) {
  std::vector<std::vector<std::string>> cases = Cases("refuse");
  cases.push_back({"refuse", std::string(4097, ' '), "4096", "longer than 4096 characters"});
  for (const auto& c : cases) {
    DKSchedule schedule = Parse("weekdays at 08:30");
    const DKErrorID result = schedule.FromString(Text(c[1]));
    ASSERT_EQ(result.GetCode(), DK_MSG_INVALID_SCHEDULE) << c[1];
    const auto* params = dynamic_cast<const DKErrorWithArgs*>(result.GetError().Get());
    ASSERT_NE(params, nullptr);
    long position = -1;
    ASSERT_TRUE(params->GetParam(position, 1)) << c[1];
    EXPECT_EQ(std::to_string(position), c[2]) << c[1];
    EXPECT_NE(result.AsString().AsUTF8().find(c[3]), std::string::npos) << c[1] << ": " << result.AsString();
    EXPECT_EQ(schedule.ToString().AsUTF8(), "weekdays at 08:30") << c[1];
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

// Schedules in UTC and in zones with daylight saving, whose gaps run after the gap and whose
// repeated hours run once.
TEST(DKScheduleTest, NextOccurrencesFollowTheCalendarAndTheZonesDaylightSaving) {
  for (const auto& c : Cases("next")) {
    DK_IN_ZONE(c[1].c_str());
    const DKSchedule schedule = Parse(c[2]);
    std::vector<DKInt64> expected, found;
    for (std::size_t start = 0, end = 0; end != std::string::npos; start = end + 2) {
      end = c[4].find(", ", start);
      expected.push_back(UtcSeconds(c[4].substr(start, end - start)));
    }
    for (DKInt64 after = UtcSeconds(c[3]), next = 0; found.size() < expected.size() && schedule.NextAfter(after, next);
         after = next)
      found.push_back(next);
    EXPECT_EQ(found, expected) << c[1] << ": " << c[2] << " after " << c[3];
  }
  const DKSchedule daily = Parse("every day at 12:00 UTC");
  EXPECT_EQ(daily.NextAfter(Utc(2024, 3, 1, 11, 59, 59, 999)), Utc(2024, 3, 1, 12));
  EXPECT_TRUE(daily.NextAfter(DKDateTimeEx()).IsNull());
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
  ConsoleCapture console;
  TraceLevelOverride verbose(1);
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
  // The timer thread reports the exception and goes on.
  EXPECT_EQ(console.Text(), "DKTimer: unhandled exception in a timer callback: first occurrence fails\n");
  std::lock_guard<std::mutex> guard(lock);
  for (std::size_t i = 0; i < occurrences.size(); ++i) {
    EXPECT_GE(wallMs[i], occurrences[i] * 1000) << "occurrence " << i << " ran early";
    if (i > 0) {
      EXPECT_GT(occurrences[i], occurrences[i - 1]);
    }
  }
}
