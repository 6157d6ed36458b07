#include <korvel/beacon/KVRLogging.h>

#include <korvel/platform/Env.h>

namespace korvel {

const double KorvelReportingVersionNumber = 1.0;
const char* const KorvelReportingVersionString = KORVEL_REPORTING_VERSION_STRING;

const std::string& KVRLogging::subsystem() {
  static const std::string subsystem =
      platform::env().mainBundleIdentifier().value_or("Unknown bundle");
  return subsystem;
}

const platform::Logger& KVRLogging::pageViewLogger() {
  static const platform::Logger logger(subsystem(), categoryPageView());
  return logger;
}

}  // namespace korvel
