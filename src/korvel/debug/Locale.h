// The user's locale and time zone, and the locale-aware text operations the
// debug screens need (through ICU).
//
// Both come from the process environment (LANG / LC_ALL, TZ and the system
// zone) unless the host, or a test, sets them. Any thread.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

// An ICU locale identifier such as "en_US" or "de_DE".
KORVEL_EXPORT std::string currentLocaleIdentifier();
// Nothing returns to the environment's locale.
KORVEL_EXPORT void setCurrentLocaleIdentifier(std::optional<std::string> identifier);

// An Olson time zone identifier such as "Europe/Berlin" or "UTC".
KORVEL_EXPORT std::string currentTimeZoneIdentifier();
KORVEL_EXPORT void setCurrentTimeZoneIdentifier(std::optional<std::string> identifier);

enum class DateFormatStyle { None, Short, Medium, Long, Full };

// The instant in the current locale and time zone, with the locale's
// patterns of the given date and time styles ("November 14, 2023 at
// 10:13:20 PM UTC" for long/long in en_US). Empty when ICU cannot format.
KORVEL_EXPORT std::string formatDate(double secondsSince1970, DateFormatStyle dateStyle,
                       DateFormatStyle timeStyle);

// Compares as the current locale sorts, ignoring case (not accents):
// negative, zero or positive.
KORVEL_EXPORT int localizedCaseInsensitiveCompare(std::string_view a, std::string_view b);
// Sorted with localizedCaseInsensitiveCompare; texts it finds equal keep a
// fixed order (by their bytes).
KORVEL_EXPORT std::vector<std::string> sortedLocalizedCaseInsensitive(std::vector<std::string> texts);

}  // namespace korvel
