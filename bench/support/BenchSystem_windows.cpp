#include "BenchSystem.h"

#include <atomic>
#include <chrono>
#include <system_error>

#include <windows.h>
#include <psapi.h>

namespace korvel::bench {

namespace {

double seconds(const FILETIME& t) {
  const ULARGE_INTEGER ticks{{t.dwLowDateTime, t.dwHighDateTime}};
  return static_cast<double>(ticks.QuadPart) / 1e7;  // 100 ns ticks
}

}  // namespace

std::string loadAverage() {
  return "none on Windows";
}

std::filesystem::path temporaryDirectory(std::string_view purpose) {
  static std::atomic<unsigned> serial{0};
  std::error_code ec;
  const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
  if (ec) return {};
  const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path candidate =
        base / ("korvel-" + std::string(purpose) + "-" + std::to_string(GetCurrentProcessId()) + "-" +
                std::to_string(stamp) + "-" + std::to_string(serial++));
    if (std::filesystem::create_directory(candidate, ec) && !ec) return candidate;
  }
  return {};
}

long involuntarySwitches() {
  return -1;
}

long threadMinorFaults() {
  return -1;
}

ProcessCpu processCpu() {
  FILETIME created, exited, kernel, user;
  if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return {};
  return {seconds(user), seconds(kernel)};
}

Memory memory() {
  PROCESS_MEMORY_COUNTERS counters{};
  counters.cb = sizeof counters;
  Memory m;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return m;
  m.peakKiB = static_cast<long>(counters.PeakWorkingSetSize / 1024);
  m.residentKiB = static_cast<long>(counters.WorkingSetSize / 1024);
  return m;
}

std::vector<ThreadSample> threadSamples() {
  return {};
}

}  // namespace korvel::bench
