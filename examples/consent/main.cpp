// The user's consent: what a host does when the user says no, changes their
// mind, or wants what is still waiting thrown away.
//
// The choice is kept in the data directory across launches; while the user
// is opted out no beacon is made, stored or sent, and report calls return no
// UUID. KORVEL_EXAMPLE_ENDPOINT overrides the beacon endpoint template.
#include <korvel/Korvel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

std::optional<std::string> reportShare(const char* step) {
  return korvel::KVRBeacon::sendBeaconOfType(
      korvel::KVRBeaconTypeUserEvent, korvel::KVRParameters{{"type", "share"}, {"step", step}});
}

}  // namespace

int main() {
  const char* endpoint = std::getenv("KORVEL_EXAMPLE_ENDPOINT");

  korvel::Reporting::StartOptions options;
  options.bundleIdentifier = "com.example.consent";
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
  if (korvel::Reporting::optedOut()) {
    // The user said no in an earlier launch: nothing to report until they
    // change their mind in the host's settings.
    std::printf("opted out in an earlier launch\n");
    korvel::Reporting::setOptedOut(false);
  }

  // Consent given: beacons are made and delivered.
  const auto first = reportShare("consented");
  if (!first) {
    std::fprintf(stderr, "no beacon made although the user consented\n");
    return 1;
  }
  std::printf("beacon %s\n", first->c_str());
  if (!korvel::Reporting::flush(std::chrono::seconds(10))) {
    std::fprintf(stderr, "beacon not delivered within 10 s\n");
    return 2;
  }

  // The user opts out in the host's settings: from now on report calls make
  // nothing and return no UUID. Beacons still waiting would be kept, unsent,
  // until the user opts in again.
  if (!korvel::Reporting::setOptedOut(true)) {
    std::fprintf(stderr, "the choice could not be saved; it holds for this run only\n");
  }
  if (const auto made = reportShare("opted out")) {
    std::fprintf(stderr, "beacon %s made while opted out\n", made->c_str());
    return 1;
  }
  std::printf("opted out: no beacon made\n");

  // Opting in again lets beacons go.
  korvel::Reporting::setOptedOut(false);
  const auto second = reportShare("opted in again");
  if (!second) {
    std::fprintf(stderr, "no beacon made after opting in again\n");
    return 1;
  }
  std::printf("beacon %s\n", second->c_str());
  korvel::Reporting::flush(std::chrono::seconds(10));

  // "Delete my data": opt out and drop whatever has not been delivered yet,
  // in memory and on disk. A beacon already on the wire may still arrive.
  const auto last = reportShare("purged");
  korvel::Reporting::setOptedOut(true, korvel::Reporting::PendingBeacons::Purge);
  std::printf("opted out with purge (a beacon reported just before: %s)\n",
              last ? last->c_str() : "none");

  // The example opts in again on its way out, so that its next run starts
  // from consent; a host leaves the user's choice alone.
  korvel::Reporting::setOptedOut(false);
  korvel::Reporting::shutdown(std::chrono::seconds(10));
  return 0;
}
