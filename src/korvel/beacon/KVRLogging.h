// The library's logging identity: subsystem = the host's bundle identifier
// ("Unknown bundle" without one), and the page-view category; and the one
// line a report operation logs when it fails inside the library.
#pragma once

#include <korvel/export.h>

#include <string>

#include <korvel/platform/Logging.h>

namespace korvel {

class KORVEL_EXPORT KVRLogging {
 public:
  KVRLogging() = delete;
  // Read from the Env once, at the first use of any logger of the library,
  // and kept for the process: every logger names the same subsystem.
  static const std::string& subsystem();
  static std::string categoryPageView() { return "PageView"; }
  // The logger the page-view code writes through.
  static const platform::Logger& pageViewLogger();
  static std::string categoryReporting() { return "Reporting"; }

  // Called from a catch handler on a report call's path (a report
  // operation, the beacon dispatch, the record factory): logs one error line
  // on the "Reporting" category naming what failed and the exception being
  // handled, e.g.
  //   KVRSearchReporter::reportSearch failed: std::bad_alloc
  // Never throws: when even the line cannot be built (out of memory) nothing
  // is logged.
  static void logReportFailure(const char* what) noexcept;
};

// The page-view side's name for the same class.
using KorvelReportingLogging = KVRLogging;

// The library's version.
extern KORVEL_EXPORT const double KorvelReportingVersionNumber;
extern KORVEL_EXPORT const char* const KorvelReportingVersionString;

}  // namespace korvel
