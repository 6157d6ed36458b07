// A host's whole use of the library: start, report, shut down.
//
// KORVEL_EXAMPLE_ENDPOINT overrides the beacon endpoint template (the CI
// points it at the loopback collector); the library keeps its files under
// $XDG_DATA_HOME/korvel/com.example.app.
#include <korvel/Korvel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

int main() {
  const char* endpoint = std::getenv("KORVEL_EXAMPLE_ENDPOINT");

  korvel::Reporting::StartOptions options;
  options.bundleIdentifier = "com.example.app";
  options.appVersion = "2.1";
  options.configure = [&](korvel::KVNConfiguration::Snapshot& c) {
    c.inid = "INSTALLATION-ID";
    c.beacons.beaconEndpoint =
        endpoint ? endpoint : "https://beacons.example.com/b/{inid}/{appversion}/{devicemodel}";
  };
  if (auto started = korvel::Reporting::start(options); !started) {
    std::fprintf(stderr, "cannot start reporting: %s\n", started.error.c_str());
    return 1;
  }

  // From the host's settings screen, when the user says no:
  //   korvel::Reporting::setOptedOut(true, korvel::Reporting::PendingBeacons::Purge);

  const auto uuid = korvel::KVRBeacon::sendBeaconOfType(korvel::KVRBeaconTypeUserEvent,
                                                        korvel::KVRParameters{{"type", "share"}});
  std::printf("beacon %s\n", uuid ? uuid->c_str() : "not sent (opted out)");

  // Delivers what it can before the deadline; the rest is kept on disk and
  // sent by the next start.
  if (!korvel::Reporting::shutdown(std::chrono::seconds(10))) {
    std::fprintf(stderr, "beacon not delivered yet: kept for the next start\n");
    return 2;
  }
  return 0;
}
