// What the benchmarks ask of the operating system, one file per system
// (BenchSystem_posix.cpp, BenchSystem_windows.cpp), and the readers of
// Linux's /proc files those answers come from (ProcFiles.cpp).
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvel::bench {

// The 1, 5 and 15 minute load averages ("0.52 0.61 0.70"), or why there are
// none.
std::string loadAverage();

// A new empty directory "korvel-<purpose>-..." in the system's temporary
// folder; empty when none could be made.
std::filesystem::path temporaryDirectory(std::string_view purpose);

// How many times the calling thread has been descheduled while others ran;
// -1 where the system does not count it.
long involuntarySwitches();

// How many page faults the calling thread has taken that needed no disk
// read (a page mapped in, or made writable); -1 where the system does not
// count them.
long threadMinorFaults();

// The CPU time this process has used so far, in seconds.
struct ProcessCpu {
  double user = 0;
  double system = 0;
};
ProcessCpu processCpu();

// This process's memory in KiB; -1 for what the system does not tell.
struct Memory {
  long peakKiB = -1;       // the most it has had resident (VmHWM)
  long residentKiB = -1;   // resident now (VmRSS)
  long anonymousKiB = -1;  // of which the heap and other anonymous pages (RssAnon)
  long fileKiB = -1;       // of which mapped files (RssFile)
};
Memory memory();

// One thread of this process as the system lists it.
struct ThreadSample {
  std::string id;
  std::string name;
  double cpuSeconds = 0;    // user and system
  long long switches = 0;   // context switches, voluntary and not
};
// Every thread of this process, as /proc lists them (Linux); empty where
// there is no /proc, Windows included.
std::vector<ThreadSample> threadSamples();

// Runs body in a child process of its own and gives back the figures it
// returned; empty when the child could not start or did not end with
// status 0 (a body that gives up calls _exit with another). POSIX only: the
// programs that use it are not built for Windows.
std::vector<double> inChildProcess(const std::function<std::vector<double>()>& body);

namespace procfs {

// The thread name and CPU seconds (user and system) in a
// /proc/<pid>/task/<tid>/stat line, at ticksPerSecond clock ticks a second;
// nothing when the line is not one.
struct TaskStat {
  std::string name;
  double cpuSeconds = 0;
};
std::optional<TaskStat> parseTaskStat(std::string_view stat, double ticksPerSecond);

// The number on the "key:" line of a /proc status file (the kB of
// "VmHWM:", the count of "voluntary_ctxt_switches:"); -1 when there is no
// such line.
long long statusField(std::string_view status, std::string_view key);

}  // namespace procfs

}  // namespace korvel::bench
