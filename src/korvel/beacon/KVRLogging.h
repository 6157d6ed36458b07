// The library's logging identity: subsystem = the host's bundle identifier
// ("Unknown bundle" without one), and the page-view category.
#pragma once

#include <string>

#include <korvel/platform/Logging.h>

namespace korvel {

class KVRLogging {
 public:
  KVRLogging() = delete;
  // Read from the Env once, at the first use of any logger of the library,
  // and kept for the process: every logger names the same subsystem.
  static const std::string& subsystem();
  static std::string categoryPageView() { return "PageView"; }
  // The logger the page-view code writes through.
  static const platform::Logger& pageViewLogger();
};

// The page-view side's name for the same class.
using KorvelReportingLogging = KVRLogging;

// The library's version.
extern const double KorvelReportingVersionNumber;
extern const char* const KorvelReportingVersionString;

}  // namespace korvel
