#include <korvel/beacon/KVRLogging.h>

#include <korvel/platform/Env.h>

namespace korvel {

const double KorvelReportingVersionNumber = 1.0;
const char* const KorvelReportingVersionString = KORVEL_REPORTING_VERSION_STRING;

std::string KVRLogging::subsystem() {
  return platform::env().mainBundleIdentifier().value_or("Unknown bundle");
}

const platform::Logger& KVRLogging::pageViewLogger() {
  // Made once; the subsystem is read when the logger is first used.
  static const platform::Logger logger(subsystem(), categoryPageView());
  return logger;
}

}  // namespace korvel
