#include "trace/TimeStamp.h"

#include <gtest/gtest.h>

using trace::timeStamp;

namespace {

std::tm localTime(int year, int month, int day, int hour, int minute, int second) {
  std::tm local{};
  local.tm_year = year - 1900;
  local.tm_mon = month - 1;
  local.tm_mday = day;
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
  return local;
}

TEST(TimeStamp, IsMonthDayYearAndTimeWithATrailingBlank) {
  EXPECT_EQ(timeStamp(localTime(2024, 11, 23, 14, 45, 56)), "11/23/2024 14:45:56 ");
}

TEST(TimeStamp, FieldsAreFilledWithZeros) {
  EXPECT_EQ(timeStamp(localTime(2005, 1, 2, 3, 4, 5)), "01/02/2005 03:04:05 ");
  EXPECT_EQ(timeStamp(localTime(987, 12, 31, 0, 0, 0)), "12/31/0987 00:00:00 ");
}

TEST(TimeStamp, HoursRunToTwentyThreeAndALeapSecondIsShown) {
  EXPECT_EQ(timeStamp(localTime(2016, 12, 31, 23, 59, 60)), "12/31/2016 23:59:60 ");
}

TEST(TimeStamp, AYearOfMoreThanFourDigitsIsNotTruncated) {
  EXPECT_EQ(timeStamp(localTime(12345, 1, 1, 0, 0, 0)), "01/01/12345 00:00:00 ");
}

} // namespace
