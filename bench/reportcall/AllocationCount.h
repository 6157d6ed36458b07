// How many times the calling thread has allocated through operator new.
//
// ReportCallBench replaces the global allocation functions to count: every
// container and string of the library allocates through them, so the count
// over a run of report calls is what one call allocates, times the calls.
#pragma once

#include <cstdint>

namespace korvel::bench {

uint64_t threadAllocations() noexcept;

}  // namespace korvel::bench
