// Stops the program for a programming error the library cannot recover
// from (a refused initialiser, a clock reading in the past, a beacon without
// an identifier). Never used for bad data or host misuse that can be logged.
#pragma once

#include <korvel/export.h>

#include <string_view>

namespace korvel {

// Writes "Fatal error: <message>" to standard error and aborts.
[[noreturn]] KORVEL_EXPORT void fatalError(std::string_view message);

}  // namespace korvel
