#include "ReportCallSystem.h"

#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>

namespace korvel::bench {

std::string loadAverage() {
  double load[3] = {0, 0, 0};
  if (getloadavg(load, 3) != 3) return "unknown";
  char text[64];
  std::snprintf(text, sizeof text, "%.2f %.2f %.2f", load[0], load[1], load[2]);
  return text;
}

std::filesystem::path temporaryDirectory() {
  char pattern[] = "/tmp/korvel-reportcall-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return {};
  return pattern;
}

long involuntarySwitches() {
  struct rusage usage {};
  if (getrusage(RUSAGE_THREAD, &usage) != 0) return -1;
  return usage.ru_nivcsw;
}

}  // namespace korvel::bench
