// The library's logging identity: subsystem = the host's bundle identifier
// ("Unknown bundle" without one), and the page-view category.
#pragma once

#include <korvel/export.h>

#include <string>

#include <korvel/platform/Logging.h>

namespace korvel {

class KORVEL_EXPORT KVRLogging {
 public:
  KVRLogging() = delete;
  static std::string subsystem();
  static std::string categoryPageView() { return "PageView"; }
  // The logger the page-view code writes through.
  static const platform::Logger& pageViewLogger();
};

// The page-view side's name for the same class.
using KorvelReportingLogging = KVRLogging;

// The library's version.
extern KORVEL_EXPORT const double KorvelReportingVersionNumber;
extern KORVEL_EXPORT const char* const KorvelReportingVersionString;

}  // namespace korvel
