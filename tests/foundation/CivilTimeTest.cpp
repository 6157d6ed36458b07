#include <korvel/foundation/internal/CivilTime.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

using korvel::foundation::internal::daysFromCivil;
using korvel::foundation::internal::utcCalendarTime;

namespace korvel::platform {
namespace {

struct Moment {
  int64_t seconds;
  int year, month, day, hour, minute, second, weekday, dayOfYear;
};

TEST(CivilTimeTest, BreaksMomentsIntoUTCCalendarTimeBothWaysOf1970) {
  const std::vector<Moment> moments = {
      {0, 1970, 1, 1, 0, 0, 0, 4, 0},
      {-1, 1969, 12, 31, 23, 59, 59, 3, 364},
      {951782400, 2000, 2, 29, 0, 0, 0, 2, 59},          // a leap day of a 400th year
      {4107542400, 2100, 3, 1, 0, 0, 0, 1, 59},          // 2100 is no leap year
      {1700000000, 2023, 11, 14, 22, 13, 20, 2, 317},
      {-2208988800, 1900, 1, 1, 0, 0, 0, 1, 0},
      {-62135596800, 1, 1, 1, 0, 0, 0, 1, 0},
      {-62135596801, 0, 12, 31, 23, 59, 59, 0, 365},     // year 0 is a leap year
      {253402300799, 9999, 12, 31, 23, 59, 59, 5, 364},
  };
  for (const Moment& m : moments) {
    SCOPED_TRACE(m.seconds);
    const auto tm = utcCalendarTime(m.seconds);
    ASSERT_TRUE(tm.has_value());
    EXPECT_EQ(std::tuple(tm->tm_year + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour, tm->tm_min,
                         tm->tm_sec, tm->tm_wday, tm->tm_yday),
              std::tuple(m.year, m.month, m.day, m.hour, m.minute, m.second, m.weekday,
                         m.dayOfYear));
    EXPECT_EQ(daysFromCivil(m.year, static_cast<unsigned>(m.month), static_cast<unsigned>(m.day)) *
                      86400 + m.hour * 3600 + m.minute * 60 + m.second,
              m.seconds);
  }
}

TEST(CivilTimeTest, GivesNothingWhereTheYearOutgrowsAnInt) {
  EXPECT_FALSE(utcCalendarTime(INT64_MAX).has_value());
  EXPECT_FALSE(utcCalendarTime(INT64_MIN + 86400).has_value());
  EXPECT_TRUE(utcCalendarTime(int64_t{67767976233316800}).has_value());  // year 2147485547
}

}  // namespace
}  // namespace korvel::platform
