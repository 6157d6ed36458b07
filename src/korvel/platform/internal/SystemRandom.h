// The operating system's random source and its fork hook, for the UUIDs.
#pragma once

#include <cstddef>

namespace korvel::platform::internal {

// Fills out with bytes from the system's random source; false when it gives
// none (the caller falls back on something weaker rather than failing).
bool systemRandomBytes(unsigned char* out, size_t size) noexcept;

// Has child called in every child this process forks from now on (once per
// process, whatever the number of calls); nothing where processes do not
// fork.
void callInForkedChildren(void (*child)()) noexcept;

}  // namespace korvel::platform::internal
