// UTC calendar arithmetic, the same on every system (the C library's
// gmtime_r and timegm are POSIX, and not everywhere).
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>

namespace korvel::foundation::internal {

// Days since 1970-01-01 of a date in the proleptic Gregorian calendar
// (month 1..12, day 1..31).
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day) noexcept;

// The UTC calendar time of a moment, as gmtime_r gives it (tm_year counts
// from 1900, tm_mon from 0); nothing when the year does not fit an int.
std::optional<std::tm> utcCalendarTime(int64_t secondsSince1970) noexcept;

}  // namespace korvel::foundation::internal
