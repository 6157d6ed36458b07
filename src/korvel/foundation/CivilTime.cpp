#include <korvel/foundation/internal/CivilTime.h>

#include <limits>

namespace korvel::foundation::internal {

namespace {

// Floor division, for moments before 1970.
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

}  // namespace

// Eras of 400 years (146097 days) repeat the calendar exactly; within an era
// the year is counted from March, so that the leap day falls last.
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) noexcept {
  year -= month <= 2 ? 1 : 0;
  const int64_t era = floorDiv(year, 400);
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const unsigned dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<int64_t>(dayOfEra) - 719468;
}

std::optional<std::tm> utcCalendarTime(int64_t secondsSince1970) noexcept {
  const int64_t days = floorDiv(secondsSince1970, 86400);
  const int64_t secondsOfDay = secondsSince1970 - days * 86400;

  const int64_t shifted = days + 719468;
  const int64_t era = floorDiv(shifted, 146097);
  const auto dayOfEra = static_cast<unsigned>(shifted - era * 146097);
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned monthFromMarch = (5 * dayOfYear + 2) / 153;
  const unsigned day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const unsigned month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
  const int64_t year = static_cast<int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0);

  if (year - 1900 > std::numeric_limits<int>::max() || year - 1900 < std::numeric_limits<int>::min()) {
    return std::nullopt;
  }
  std::tm tm{};
  tm.tm_year = static_cast<int>(year - 1900);
  tm.tm_mon = static_cast<int>(month) - 1;
  tm.tm_mday = static_cast<int>(day);
  tm.tm_hour = static_cast<int>(secondsOfDay / 3600);
  tm.tm_min = static_cast<int>(secondsOfDay / 60 % 60);
  tm.tm_sec = static_cast<int>(secondsOfDay % 60);
  // 1970-01-01 was a Thursday.
  tm.tm_wday = static_cast<int>(floorDiv(days + 4, 7) * -7 + days + 4);
  tm.tm_yday = static_cast<int>(days - daysFromCivil(year, 1, 1));
  return tm;
}

}  // namespace korvel::foundation::internal
