// A small host: starts the library, sends a few beacons and prints the URL of
// each one exactly as it would go on the wire.
#include <cstdio>
#include <memory>

#include "core/KVRBeacon.h"
#include "core/KVRConstants.h"
#include "core/KVRReportingUtilities.h"
#include "core/KVRUserSession.h"
#include "platform/Application.h"
#include "platform/Env.h"
#include "platform/InProcessRequestExecutor.h"
#include "platform/KVNConfiguration.h"
#include "platform/NotificationCenter.h"

using namespace korvel;

int main() {
  platform::setMainBundleIdentifier("com.korvel.example");
  KVNConfiguration::setAppShortVersion("14.2");
  auto& config = KVNConfiguration::sharedInstance();
  config.update([](KVNConfiguration::Snapshot& s) {
    s.inid = "EXAMPLE-INID";
    s.configured = true;
    s.deviceModel = "Laptop14,2";
    s.beacons.beaconEndpoint =
        "https://beacons.example.com/b/{inid}/{appversion}/{devicemodel}?src=example";
    s.beacons.beaconParameters = KVRParameters{{"cohort", "b"}};
  });

  // Print instead of sending: the executor thread builds each URL when it
  // takes the request, as a real executor does.
  auto printer = std::make_shared<InProcessRequestExecutor>(
      "com.korvel.example.backgroundBeacons",
      [](const KVNNetworkRequest&, const KVNEndpoint& endpoint) {
        std::printf("GET %s\n", endpoint.urlString().c_str());
        return true;
      });
  KVRBeacon::setBackgroundSession(printer);

  KVRUserSession::load();

  auto share = KVRReportingUtilities::defaultUserEventBeaconParametersOfType(kKVRShare);
  share.set(kKVRProviderName, "share");
  share.set("note", "rock & roll = 100% fun");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, share);

  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWatchTagged,
                              KVRParameters{{kKVRTrackID, "12345"}, {"samplerate", 44100.0}});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, KVRParameters{{"campaign", "fall"}},
                              "webpromo");

  // Going to the background ends the session and sends "usersession".
  platform::env().notificationCenter().post(platform::ApplicationDidEnterBackgroundNotification);

  printer->flush(std::chrono::seconds(5));
  return 0;
}
