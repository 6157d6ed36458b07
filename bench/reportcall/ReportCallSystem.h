// What ReportCallBench asks of the operating system, one file per system.
#pragma once

#include <filesystem>
#include <string>

namespace korvel::bench {

// The 1, 5 and 15 minute load averages, or why there are none.
std::string loadAverage();

// A new empty directory for one executor's store; empty when none could be
// made.
std::filesystem::path temporaryDirectory();

// How many times the calling thread has been descheduled while others ran;
// -1 where the system does not count it.
long involuntarySwitches();

}  // namespace korvel::bench
