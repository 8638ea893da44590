// SPDX-License-Identifier: MIT
//
// Dates: from text, from and to broken-down times, to text, the local time.
//
// Sections: dates from text; dates from broken-down times; broken-down times
// from dates; day by day; SYSTEMTIME; dates as text; the local time.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "support/printed.h"
#include "zir.h"

namespace {

constexpr int kLargestInt = std::numeric_limits<int>::max();
constexpr int kSmallestInt = std::numeric_limits<int>::min();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kSecondsOfDay = 86400.0;

constexpr double at(double day, int hour, int minute, int second) {
  return day + (3600 * hour + 60 * minute + second) / kSecondsOfDay;
}

// ---------------------------------------------------------------------------
// Dates from text
// ---------------------------------------------------------------------------

struct TextRow {
  std::wstring text;
  double date;
};

void expect_dates(const std::vector<TextRow>& rows) {
  for (const TextRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    DATE date = -1.5;
    HRESULT result = E_FAIL;
    const std::string printed = printed::by(
        [&] { result = VarDateFromStr(row.text.c_str(), 0, 0, &date); });

    EXPECT_EQ(result, S_OK);
    EXPECT_EQ(date, row.date);
    EXPECT_EQ(printed, "");
  }
}

TEST(DateText, IsReadInEveryFormat) {
  expect_dates({{L"2024/01/01 18:00:30", at(45292, 18, 0, 30)},
                {L"2024/01/01 18:05", at(45292, 18, 5, 0)},
                {L"2024/01/01", 45292.0},
                {L"2024-01-01 18:00:30", at(45292, 18, 0, 30)},
                {L"2024-01-01 18:00", 45292.75},
                {L"2024-01-01", 45292.0},
                {L"18:00:00", 0.75},
                {L"00:00:00", 0.0},
                {L"23:59:59", at(0, 23, 59, 59)}});
}

TEST(DateText, MayGoToTheEdgesOfItsFields) {
  expect_dates({{L"1899/12/30", 0.0},
                {L"1899/12/29", -1.0},
                {L"1899/12/29 18:00:00", -0.25},
                {L"9999/12/31 23:59:59", at(2958465, 23, 59, 59)},
                {L"0100/01/01", -657434.0},
                {L"0000/03/01", -693899.0},
                // Four digits are not asked for, a century is not guessed.
                {L"99/01/01", -657799.0},
                {L"2024/1/2", 45293.0},
                {L"2024/1/2 3:4:5", at(45293, 3, 4, 5)},
                {L"3:4:5", at(0, 3, 4, 5)},
                // Leap seconds add up, days are not checked by month.
                {L"23:59:60", 1.0},
                {L"23:59:61", 1.0 + 1 / kSecondsOfDay},
                {L"2024/01/01 23:59:60", 45293.0},
                {L"2024/02/29", 45351.0},
                {L"2024/02/30", 45352.0},
                {L"2023/02/29", 44986.0},
                {L"2024/12/31", 45657.0}});
}

TEST(DateText, MayHaveAnythingBehindIt) {
  expect_dates({{L"2024/01/01 18:00:00 o'clock", 45292.75},
                {L"2024/01/01 18:00:00.999", 45292.75},
                {L"2024/01/01xyz", 45292.0},
                {L"2024/01/01\u00e4\u20ac\U0001F600", 45292.0},
                {L"2024-01-01T18:00:00", 45292.0},
                {L"18:00:00Z", 0.75}});
}

TEST(DateText, MayHaveAnyWhiteSpaceForASpace) {
  expect_dates({{L"2024/01/0118:00:00", 45292.75},
                {L"2024/01/01\t\n 18:00:00", 45292.75},
                {L"2024-01-0118:00", 45292.75},
                {L"  2024/01/01", 45292.0}});
}

// Deliberate: what a format has read before it failed stays for the next one.
TEST(DateText, KeepsWhatAFailedFormatHasRead) {
  expect_dates({{L"2024/01/01 18", 45292.75},
                {L"2024-01-01 18", 45292.75},
                {L"2024/01/01 12:xx", 45292.5},
                {L"2024-01-01 12:xx", 45292.5},
                {L"2024/01/01 12:30:xx", at(45292, 12, 30, 0)},
                {L"2024/01/01 12:30:62", at(45292, 12, 30, 0)},
                {L"2024/01/01 25:00", 45292.0}});
}

void expect_no_dates(const std::vector<const wchar_t*>& texts) {
  for (const wchar_t* text : texts) {
    SCOPED_TRACE(testing::PrintToString(text));
    DATE date = -1.5;
    HRESULT result = S_OK;
    const std::string printed =
        printed::by([&] { result = VarDateFromStr(text, 0, 0, &date); });

    EXPECT_EQ(result, E_INVALIDARG);
    EXPECT_EQ(date, -1.5);
    EXPECT_EQ(printed, "");
  }
}

TEST(NoDateText, IsRefusedWithTheDateUntouched) {
  expect_no_dates({L"",
                   L" ",
                   L"abc",
                   L"12:30",
                   L"18",
                   L"24:00:00",
                   L"23:59:62",
                   L"12:60:00",
                   L"01.01.2024",
                   L"20240101",
                   L"2024",
                   L"2024/01",
                   L"2024-01",
                   L"2024/13/01",
                   L"2024/00/10",
                   L"2024/01/00",
                   L"2024/01/32",
                   L"2024-13-01",
                   L"2024/01-01",
                   L"2024-01/01",
                   L"20240/01/01",
                   L"-2024/01/01",
                   L"x2024/01/01",
                   L"2024\\01\\01",
                   L"-1:00:00",
                   L"\u0662\u0660\u0662\u0664/01/01",
                   L"Jan 1 2024"});
}

TEST(NoDateText, MayBeNull) {
  DATE date = -1.5;

  EXPECT_EQ(VarDateFromStr(nullptr, 0, 0, &date), E_INVALIDARG);
  EXPECT_EQ(date, -1.5);
}

TEST(DateText, NeedsSomewhereToGo) {
  EXPECT_EQ(VarDateFromStr(L"2024/01/02", 0, 0, nullptr), E_INVALIDARG);
}

TEST(DateText, IgnoresLocaleIdAndFlags) {
  DATE date = -1.5;

  EXPECT_EQ(VarDateFromStr(L"2024/01/02", 0xFFFFFFFF, 0xFFFFFFFF, &date), S_OK);
  EXPECT_EQ(date, 45293.0);
}

/// The date of `text` behind so many blanks; no value when it is refused.
std::optional<double> date_behind_blanks(std::size_t blanks,
                                         const wchar_t* text) {
  DATE date = 0;
  const std::wstring whole = std::wstring(blanks, L' ') + text;
  if (VarDateFromStr(whole.c_str(), 0, 0, &date) != S_OK) return {};
  return date;
}

TEST(OverlongDateText, IsCutBehind255Bytes) {
  EXPECT_EQ(date_behind_blanks(245, L"2024/01/12"), 45303.0);
  EXPECT_EQ(date_behind_blanks(246, L"2024/01/12"), 45292.0);
  EXPECT_EQ(date_behind_blanks(247, L"2024/01/12"), std::nullopt);
  EXPECT_EQ(date_behind_blanks(300, L"2024/01/12"), std::nullopt);
  EXPECT_EQ(date_behind_blanks(100000, L"2024/01/12"), std::nullopt);
}

TEST(OverlongDateText, IsNotContinuedBehindACutCharacter) {
  EXPECT_EQ(date_behind_blanks(240, L"2024/01/01 1\U0001F600:30:00"),
            at(45292, 1, 0, 0));
  EXPECT_EQ(date_behind_blanks(241, L"2024/01/01 1\U0001F600:30:00"),
            at(45292, 1, 0, 0));
  EXPECT_EQ(date_behind_blanks(243, L"2024/01/1\U0001F600"), 45292.0);
}

TEST(OverlongDateText, MayGoOnForLongBehindTheDate) {
  DATE date = -1.5;
  const std::wstring text = L"2024/01/01" + std::wstring(100000, L'\u00e4');

  EXPECT_EQ(VarDateFromStr(text.c_str(), 0, 0, &date), S_OK);
  EXPECT_EQ(date, 45292.0);
}

// ---------------------------------------------------------------------------
// Dates from broken-down times
// ---------------------------------------------------------------------------

/// The fields that count, with the rest set to what must not count.
std::tm broken_down(int year, int month, int day, int hour = 0, int minute = 0,
                    int second = 0) {
  std::tm time{};
  time.tm_year = year;
  time.tm_mon = month;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_sec = second;
  time.tm_wday = 77;
  time.tm_yday = -77;
  time.tm_isdst = 1;
  return time;
}

struct TimeRow {
  std::tm time;
  double date;
};

void expect_dates_of(const std::vector<TimeRow>& rows) {
  for (const auto& [time, date] : rows) {
    SCOPED_TRACE(testing::Message()
                 << time.tm_year << '/' << time.tm_mon << '/' << time.tm_mday
                 << ' ' << time.tm_hour << ':' << time.tm_min << ':'
                 << time.tm_sec);
    EXPECT_EQ(tm_double(time), date);
  }
}

TEST(BrokenDownTime, IsADateOfTheCalendar) {
  expect_dates_of(
      {{broken_down(-1, 11, 30), 0.0},
       {broken_down(-1, 11, 31), 1.0},
       {broken_down(0, 0, 1), 2.0},
       {broken_down(0, 1, 28), 60.0},
       {broken_down(0, 2, 1), 61.0},  // 1900: no leap year
       {broken_down(100, 1, 29), 36585.0},
       {broken_down(100, 2, 1), 36586.0},
       {broken_down(124, 0, 1, 18), 45292.75},
       {broken_down(-1, 11, 29, 18), -0.25},
       {broken_down(-1900, 2, 1), -693899.0},
       {broken_down(8099, 11, 31, 23, 59, 59), at(2958465, 23, 59, 59)}});
}

TEST(BrokenDownTime, MayHaveFieldsOutOfRange) {
  expect_dates_of({{broken_down(124, 0, 1, 24), 45293.0},
                   {broken_down(124, 0, 1, 0, 0, 90), at(45292, 0, 1, 30)},
                   {broken_down(124, 0, 1, 0, 1441), at(45293, 0, 1, 0)},
                   {broken_down(124, 0, 1, -6), 45291.75},
                   {broken_down(124, 0, 32), 45323.0},
                   {broken_down(124, 0, 0), 45291.0},
                   {broken_down(124, 12, 1), 45658.0},
                   {broken_down(124, 14, 1), 45719.0},
                   {broken_down(124, -1, 1), 45261.0},
                   // The divisions round toward zero, also before the year 0.
                   {broken_down(-1900, 0, 1), -693958.0},
                   {broken_down(-2300, 2, 1), -839996.0}});
}

TEST(BrokenDownTime, MayHaveTheLargestFields) {
  expect_dates_of(
      {{broken_down(kLargestInt, 2, 1), 784352296000.0},
       {broken_down(kLargestInt, 0, 1), 784352295941.0},
       {broken_down(kSmallestInt, 0, 1), -784352296302.0},
       {broken_down(124, kLargestInt, 1), 65713044889.0},
       {broken_down(124, kSmallestInt, 1), -65712954336.0},
       {broken_down(124, 0, kLargestInt), 2147528938.0},
       {broken_down(124, 0, kSmallestInt), -2147438357.0},
       {broken_down(124, 0, 1, kLargestInt),
        45292 + 3600.0 * kLargestInt / kSecondsOfDay},
       {broken_down(124, 0, 1, 0, kSmallestInt),
        45292 + 60.0 * kSmallestInt / kSecondsOfDay},
       {broken_down(124, 0, 1, kLargestInt, kLargestInt, kLargestInt),
        45292 + 3661.0 * kLargestInt / kSecondsOfDay}});
}

// ---------------------------------------------------------------------------
// Broken-down times from dates
// ---------------------------------------------------------------------------

/// A broken-down time with no field left at zero.
std::tm garbage() {
  std::tm time{};
  std::memset(&time, 0xA5, sizeof time);
  return time;
}

struct DateRow {
  double date;
  int year;  // of the calendar, as are month and day
  int month;
  int day;
  int hour;
  int minute;
  int second;
};

void expect_split(const std::vector<DateRow>& rows) {
  for (const DateRow& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.date));
    std::tm time = garbage();
    double_tm(row.date, &time);

    EXPECT_EQ(time.tm_year, row.year - 1900);
    EXPECT_EQ(time.tm_mon, row.month - 1);
    EXPECT_EQ(time.tm_mday, row.day);
    EXPECT_EQ(time.tm_hour, row.hour);
    EXPECT_EQ(time.tm_min, row.minute);
    EXPECT_EQ(time.tm_sec, row.second);
  }
}

TEST(Date, HasNoWeekDayDayOfYearOrZone) {
  for (const double date : {0.0, 0.5, -0.25, 45292.75, -700000.0, 1e300}) {
    SCOPED_TRACE(date);
    std::tm time = garbage();
    double_tm(date, &time);

    EXPECT_EQ(time.tm_wday, -1);
    EXPECT_EQ(time.tm_yday, -1);
    EXPECT_EQ(time.tm_isdst, -1);
    EXPECT_EQ(time.tm_gmtoff, 0);
    EXPECT_EQ(time.tm_zone, nullptr);
  }
}

TEST(Date, IsSplitByTheCalendar) {
  expect_split({{0.0, 1899, 12, 30, 0, 0, 0},
                {-0.0, 1899, 12, 30, 0, 0, 0},
                {1.0, 1899, 12, 31, 0, 0, 0},
                {2.0, 1900, 1, 1, 0, 0, 0},
                {60.0, 1900, 2, 28, 0, 0, 0},
                {61.0, 1900, 3, 1, 0, 0, 0},
                {36585.0, 2000, 2, 29, 0, 0, 0},
                {45292.75, 2024, 1, 1, 18, 0, 0},
                {2958465.0, 9999, 12, 31, 0, 0, 0},
                {2958466.0, 10000, 1, 1, 0, 0, 0},
                {700000000.0, 1918434, 11, 25, 0, 0, 0}});
}

TEST(Date, IsSplitBelowZeroToo) {
  expect_split({{-0.25, 1899, 12, 29, 18, 0, 0},
                {-1.0, 1899, 12, 29, 0, 0, 0},
                {-1.25, 1899, 12, 28, 18, 0, 0},
                {-657434.0, 100, 1, 1, 0, 0, 0},
                {-693899.0, 0, 3, 1, 0, 0, 0},
                {-693900.0, 0, 2, 29, 0, 0, 0},
                {-693899.5, 0, 2, 29, 12, 0, 0},
                {-693959.0, 0, 1, 1, 0, 0, 0},
                {-693960.0, -1, 12, 31, 0, 0, 0},
                {-694324.0, -1, 1, 1, 0, 0, 0},
                {-700000000.0, -1914635, 2, 2, 0, 0, 0}});
}

// 1/256 of a day is 337.5 seconds, exactly.
TEST(Date, IsRoundedHalfUp) {
  expect_split({{1 / 256.0, 1899, 12, 30, 0, 5, 38},
                {3 / 256.0, 1899, 12, 30, 0, 16, 53},
                {-1 / 256.0, 1899, 12, 29, 23, 54, 23},
                {-3 / 256.0, 1899, 12, 29, 23, 43, 8},
                {0.4 / 86400, 1899, 12, 30, 0, 0, 0},
                {0.6 / 86400, 1899, 12, 30, 0, 0, 1},
                {59.6 / 86400, 1899, 12, 30, 0, 1, 0},
                {3599.6 / 86400, 1899, 12, 30, 1, 0, 0}});
}

TEST(Date, IsNeverRoundedIntoTheNextDay) {
  expect_split({{86399.4 / 86400, 1899, 12, 30, 23, 59, 59},
                {86399.6 / 86400, 1899, 12, 30, 23, 59, 59},
                {0.999999, 1899, 12, 30, 23, 59, 59},
                {0.999999999, 1899, 12, 30, 23, 59, 59},
                {-0.0000001, 1899, 12, 29, 23, 59, 59},
                {45292.9999999, 2024, 1, 1, 23, 59, 59},
                // Too close to midnight to be told apart from it.
                {-1e-12, 1899, 12, 30, 0, 0, 0},
                {-1e-300, 1899, 12, 30, 0, 0, 0}});
}

bool is_a_time(const std::tm& time) {
  return time.tm_mon >= 0 && time.tm_mon <= 11 && time.tm_mday >= 1 &&
         time.tm_mday <= 31 && time.tm_hour >= 0 && time.tm_hour <= 23 &&
         time.tm_min >= 0 && time.tm_min <= 59 && time.tm_sec >= 0 &&
         time.tm_sec <= 59 && time.tm_wday == -1;
}

TEST(DateOutOfRange, IsClamped) {
  for (const double date : {1e12, 1e18, 1e19, 1e300, kInfinity}) {
    SCOPED_TRACE(date);
    std::tm after = garbage();
    std::tm before = garbage();
    double_tm(date, &after);
    double_tm(-date, &before);

    EXPECT_GT(after.tm_year, 1900000);
    EXPECT_LT(before.tm_year, -1900000);
    EXPECT_TRUE(is_a_time(after));
    EXPECT_TRUE(is_a_time(before));
  }
}

TEST(DateThatIsNoNumber, IsSplitIntoSomeTime) {
  for (const double date : {kNaN, -kNaN}) {
    std::tm time = garbage();
    double_tm(date, &time);

    EXPECT_TRUE(is_a_time(time));
  }
}

// ---------------------------------------------------------------------------
// Day by day
// ---------------------------------------------------------------------------

/// Walks the calendar by its rule, forwards and backwards.
struct Calendar {
  int year;
  int month;  // 1 to 12
  int day;
  std::int64_t date;

  static bool is_leap(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  }
  static int days_of(int year, int month) {
    static const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month - 1] + (month == 2 && is_leap(year) ? 1 : 0);
  }
  void forward() {
    ++date;
    if (++day <= days_of(year, month)) return;
    day = 1;
    if (++month <= 12) return;
    month = 1;
    ++year;
  }
  void back() {
    --date;
    if (--day >= 1) return;
    if (--month < 1) {
      month = 12;
      --year;
    }
    day = days_of(year, month);
  }
  bool shows(const std::tm& time, int second_of_day) const {
    return time.tm_year == year - 1900 && time.tm_mon == month - 1 &&
           time.tm_mday == day && time.tm_hour == second_of_day / 3600 &&
           time.tm_min == second_of_day / 60 % 60 &&
           time.tm_sec == second_of_day % 60;
  }
};

constexpr std::int64_t kDaysOfACycle = 146097;  // 400 years

TEST(EveryDay, OfSeveralCyclesSplitsAndComesBack) {
  Calendar calendar{1899, 12, 30, 0};
  int wrong_splits = 0;
  int wrong_dates = 0;
  while (calendar.date > -4 * kDaysOfACycle) calendar.back();
  for (; calendar.date < 4 * kDaysOfACycle; calendar.forward()) {
    const auto some_second = static_cast<int>((calendar.date * 7919) % 86400);
    for (const int second :
         {0, 1, 43200, 86399, some_second < 0 ? -some_second : some_second}) {
      const double date =
          static_cast<double>(calendar.date) + second / kSecondsOfDay;
      std::tm time{};
      double_tm(date, &time);
      if (!calendar.shows(time, second)) ++wrong_splits;
      if (tm_double(time) != date) ++wrong_dates;
    }
    if (wrong_splits + wrong_dates != 0) break;
  }

  EXPECT_EQ(wrong_splits, 0) << "on day " << calendar.date;
  EXPECT_EQ(wrong_dates, 0) << "on day " << calendar.date;
}

TEST(EveryDay, BeforeTheYearZeroSplits) {
  Calendar calendar{0, 3, 1, -693899};
  int wrong_splits = 0;
  for (std::int64_t i = 0; i < 2 * kDaysOfACycle && wrong_splits == 0; ++i) {
    calendar.back();
    for (const int second : {0, 43200, 86399}) {
      std::tm time{};
      double_tm(static_cast<double>(calendar.date) + second / kSecondsOfDay,
                &time);
      if (!calendar.shows(time, second)) ++wrong_splits;
    }
  }

  EXPECT_EQ(wrong_splits, 0) << "on day " << calendar.date;
}

TEST(EverySecond, OfADaySplitsAndComesBack) {
  const Calendar calendar{2024, 2, 29, 45351};
  int wrong = 0;
  for (int second = 0; second < 86400; ++second) {
    const double date = 45351 + second / kSecondsOfDay;
    std::tm time{};
    double_tm(date, &time);
    if (!calendar.shows(time, second) || tm_double(time) != date) ++wrong;
  }

  EXPECT_EQ(wrong, 0);
}

// ---------------------------------------------------------------------------
// SYSTEMTIME
// ---------------------------------------------------------------------------

struct SystemRow {
  SYSTEMTIME time{};
  double date;
};

TEST(SystemTime, IsADateWithoutBeingValidated) {
  const std::vector<SystemRow> rows = {
      {{2024, 1, 0, 1, 18, 0, 0, 0}, 45292.75},
      {{2024, 1, 6, 1, 18, 0, 30, 999}, at(45292, 18, 0, 30)},
      {{1899, 12, 0xFFFF, 30, 0, 0, 0, 0}, 0.0},
      {{1899, 12, 0, 29, 6, 7, 8, 0}, at(-1, 6, 7, 8)},
      {{2024, 0, 0, 1, 0, 0, 0, 0}, 45261.0},
      {{2024, 2, 0, 0, 0, 0, 0, 0}, 45322.0},
      {{2024, 13, 0, 1, 0, 0, 0, 0}, 45658.0},
      {{2024, 1, 0, 1, 48, 0, 0, 0}, 45294.0},
      {{0, 0, 0, 0, 0, 0, 0, 0}, -693990.0},
      {{65535, 1, 0, 1, 0, 0, 0, 0}, 23242208.0},
      {{65535, 65535, 65535, 65535, 0, 0, 0, 65535}, 25313080.0},
      {{2024, 1, 0, 1, 65535, 65535, 65535, 0},
       45292 + 3661.0 * 65535 / kSecondsOfDay},
  };
  for (const SystemRow& row : rows) {
    SYSTEMTIME time = row.time;
    double date = -1.5;

    EXPECT_EQ(SystemTimeToVariantTime(&time, &date), 1);
    EXPECT_EQ(date, row.date) << testing::PrintToString(row.date);
  }
}

TEST(SystemTime, OfADateHasNoWeekDayAndNoMilliseconds) {
  SYSTEMTIME time{};
  std::memset(&time, 0xA5, sizeof time);

  EXPECT_EQ(VariantTimeToSystemTime(at(45351, 17, 38, 59), &time), 1);
  EXPECT_EQ(time.wYear, 2024);
  EXPECT_EQ(time.wMonth, 2);
  EXPECT_EQ(time.wDayOfWeek, 0xFFFF);
  EXPECT_EQ(time.wDay, 29);
  EXPECT_EQ(time.wHour, 17);
  EXPECT_EQ(time.wMinute, 38);
  EXPECT_EQ(time.wSecond, 59);
  EXPECT_EQ(time.wMilliseconds, 0);
}

TEST(SystemTime, OfDayZero) {
  SYSTEMTIME time{};
  std::memset(&time, 0xA5, sizeof time);

  EXPECT_EQ(VariantTimeToSystemTime(0.0, &time), 1);
  EXPECT_EQ(time.wYear, 1899);
  EXPECT_EQ(time.wMonth, 12);
  EXPECT_EQ(time.wDayOfWeek, 0xFFFF);
  EXPECT_EQ(time.wDay, 30);
  EXPECT_EQ(time.wHour, 0);
  EXPECT_EQ(time.wMinute, 0);
  EXPECT_EQ(time.wSecond, 0);
  EXPECT_EQ(time.wMilliseconds, 0);
}

TEST(SystemTime, OfNoDateIsWritten) {
  for (const double date : {kNaN, kInfinity, -kInfinity, 1e300, -1e300}) {
    SYSTEMTIME time{};
    std::memset(&time, 0xA5, sizeof time);

    EXPECT_EQ(VariantTimeToSystemTime(date, &time), 1);
    EXPECT_EQ(time.wDayOfWeek, 0xFFFF);
    EXPECT_EQ(time.wMilliseconds, 0);
  }
}

// ---------------------------------------------------------------------------
// Dates as text
// ---------------------------------------------------------------------------

/// What VariantChangeType makes of a date.
struct DateAsText {
  explicit DateAsText(double date) {
    VARIANT value{};
    value.vt = VT_DATE;
    value.date = date;
    result = VariantChangeType(&text, &value, 0, VT_BSTR);
  }
  std::wstring units() const {
    if (text.vt != VT_BSTR || text.bstrVal == nullptr) return {};
    return {text.bstrVal, SysStringLen(text.bstrVal)};
  }

  _variant_t text;
  HRESULT result = E_FAIL;
};

TEST(DateAsText, LeavesOutWhatItHasNot) {
  struct Row {
    double date;
    const wchar_t* text;
  };
  const std::vector<Row> rows = {
      // The first day has no date,
      {0.0, L"00:00:00"},
      {-0.0, L"00:00:00"},
      {0.5, L"12:00:00"},
      {at(0, 3, 4, 5), L"03:04:05"},
      {0.999999, L"23:59:59"},
      {0.99999999, L"23:59:59"},
      // other days have no time when it is midnight.
      {1.0, L"1899/12/31"},
      {1.5, L"1899/12/31 12:00:00"},
      {45292.0, L"2024/01/01"},
      {45292.75, L"2024/01/01 18:00:00"},
      {45292 + 0.4 / 86400, L"2024/01/01"},
      {at(45292, 1, 0, 0), L"2024/01/01 01:00:00"},
      {at(45292, 0, 1, 0), L"2024/01/01 00:01:00"},
      {at(45292, 0, 0, 1), L"2024/01/01 00:00:01"},
      {at(45657, 23, 59, 59), L"2024/12/31 23:59:59"},
      {45292.999999, L"2024/01/01 23:59:59"},
      {-1.0, L"1899/12/29"},
      {-0.25, L"1899/12/29 18:00:00"},
      {-1e-12, L"1899/12/30"},
      {-1.25, L"1899/12/28 18:00:00"},
      {2958465.0, L"9999/12/31"},
      {at(2958465, 23, 59, 59), L"9999/12/31 23:59:59"},
      {-657434.0, L"0100/01/01"},
      {-693899.0, L"0000/03/01"},
      // Years of five places fit without a time,
      {2958466.0, L"10000/01/01"},
      // years with a sign with one.
      {-693960.0, L"-001/12/31"},
      {-693959.25, L"-001/12/31 18:00:00"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.date));
    const DateAsText made(row.date);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.units(), row.text);
  }
}

TEST(DateAsText, ThatDoesNotFitIsEmptyOrCut) {
  for (const double date : {2958466.75, 700000000.75, -700000000.75, 1e300,
                            -1e300, kInfinity, -kInfinity, kNaN}) {
    SCOPED_TRACE(date);
    const DateAsText made(date);

    EXPECT_EQ(made.result, S_OK);
    EXPECT_EQ(made.text.vt, VT_BSTR);
    EXPECT_LE(made.units().size(), 19U);
    EXPECT_EQ(made.units().find_first_not_of(L"0123456789/:- "),
              std::wstring::npos);
  }
}

TEST(DateAsText, ReadsBackAsTheSameDate) {
  for (int i = -3000; i < 3000; ++i) {
    const double date = i * 37 + (i & 0xFF) * 300 / kSecondsOfDay;
    DATE read = 0;
    const DateAsText made(date);

    ASSERT_EQ(VarDateFromStr(made.units().c_str(), 0, 0, &read), S_OK) << date;
    ASSERT_EQ(read, date);
  }
}

// ---------------------------------------------------------------------------
// The local time
// ---------------------------------------------------------------------------

/// Sets the time zone while it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* zone) {
    if (const char* const value = std::getenv("TZ")) before_ = value;
    setenv("TZ", zone, 1);
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;
  ~TimeZone() {
    if (before_) {
      setenv("TZ", before_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> before_;
};

std::int64_t milliseconds_now() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
}

/// The local clock at `milliseconds` since 1970, as if it were universal time.
std::int64_t local_clock(std::int64_t milliseconds) {
  const std::time_t second = milliseconds / 1000;
  std::tm time{};
  localtime_r(&second, &time);
  return std::int64_t{timegm(&time)} * 1000 + milliseconds % 1000;
}

TEST(LocalTime, IsThatOfTheZone) {
  for (const char* zone : {"UTC0", "AAA-5:45", "BBB12", "CCC-14", "DDD9:30",
                           "EEE5FFF,M1.1.0,M12.5.0", "GGG-1HHH,0/0,365/23"}) {
    SCOPED_TRACE(zone);
    const TimeZone set(zone);
    SYSTEMTIME time{};
    std::memset(&time, 0xA5, sizeof time);

    const std::int64_t earliest = local_clock(milliseconds_now());
    GetLocalTime(&time);
    const std::int64_t latest = local_clock(milliseconds_now());

    std::tm shown = {};
    shown.tm_year = time.wYear - 1900;
    shown.tm_mon = time.wMonth - 1;
    shown.tm_mday = time.wDay;
    shown.tm_hour = time.wHour;
    shown.tm_min = time.wMinute;
    shown.tm_sec = time.wSecond;
    const std::int64_t clock =
        std::int64_t{timegm(&shown)} * 1000 + time.wMilliseconds;
    EXPECT_GE(clock, earliest);
    EXPECT_LE(clock, latest);
    EXPECT_LT(time.wMilliseconds, 1000);
    EXPECT_EQ(time.wDayOfWeek, shown.tm_wday);
  }
}

TEST(LocalTime, HasTheClocksMilliseconds) {
  const TimeZone set("UTC0");
  int wrong = 0;
  const std::int64_t end = milliseconds_now() + 300;
  for (std::int64_t before = 0; (before = milliseconds_now()) < end;) {
    SYSTEMTIME time{};
    GetLocalTime(&time);
    const std::int64_t after = milliseconds_now();
    if (before / 1000 == after / 1000 && (time.wMilliseconds < before % 1000 ||
                                          time.wMilliseconds > after % 1000)) {
      ++wrong;
    }
  }

  EXPECT_EQ(wrong, 0);
}

}  // namespace
