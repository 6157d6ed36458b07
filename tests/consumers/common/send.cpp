#include "host.h"

#include <korvel/Korvel.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

int sendOneBeacon(const char* name) {
  const char* endpoint = std::getenv("KORVEL_EXAMPLE_ENDPOINT");
  if (endpoint == nullptr) {
    std::fprintf(stderr, "KORVEL_EXAMPLE_ENDPOINT is not set\n");
    return 1;
  }
  std::printf("korvel %s (headers %s)\n", korvel::versionString(), KORVEL_VERSION_STRING);

  korvel::Reporting::StartOptions options;
  options.bundleIdentifier = std::string("com.korvel.consumer.") + name;
  options.configure = [&](korvel::KVNConfiguration::Snapshot& c) {
    c.inid = "CONSUMER-INID";
    c.beacons.beaconEndpoint = endpoint;
  };
  if (auto started = korvel::Reporting::start(options); !started) {
    std::fprintf(stderr, "cannot start: %s\n", started.error.c_str());
    return 1;
  }
  const auto uuid = korvel::KVRBeacon::sendBeaconOfType(
      korvel::KVRBeaconTypeUserEvent, korvel::KVRParameters{{"consumer", name}});
  if (!uuid) {
    std::fprintf(stderr, "no beacon was made\n");
    return 1;
  }
  std::printf("beacon %s\n", uuid->c_str());
  std::fflush(stdout);
  return korvel::Reporting::shutdown(std::chrono::seconds(20)) ? 0 : 2;
}
