#include <korvel/beacon/KVRLogging.h>

#include <exception>

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

void KVRLogging::logReportFailure(const char* what) noexcept {
  try {
    std::string reason = "an exception that is not a std::exception";
    if (auto current = std::current_exception()) {
      try {
        std::rethrow_exception(current);
      } catch (const std::exception& e) {
        reason = e.what();
      } catch (...) {
      }
    }
    platform::Logger(subsystem(), categoryReporting())
        .log(platform::LogLevel::Error,
             std::string(what) + " failed: " + reason);
  } catch (...) {
    // Out of memory for the line itself; the report is dropped silently
    // rather than taking the host down.
  }
}

}  // namespace korvel
