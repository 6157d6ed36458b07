#include "ReportCallSystem.h"

#include <atomic>
#include <chrono>
#include <system_error>

#include <windows.h>

namespace korvel::bench {

std::string loadAverage() {
  return "none on Windows";
}

std::filesystem::path temporaryDirectory() {
  static std::atomic<unsigned> serial{0};
  std::error_code ec;
  const std::filesystem::path base = std::filesystem::temp_directory_path(ec);
  if (ec) return {};
  const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::filesystem::path candidate =
        base / ("korvel-reportcall-" + std::to_string(GetCurrentProcessId()) + "-" +
                std::to_string(stamp) + "-" + std::to_string(serial++));
    if (std::filesystem::create_directory(candidate, ec) && !ec) return candidate;
  }
  return {};
}

long involuntarySwitches() {
  return -1;
}

}  // namespace korvel::bench
