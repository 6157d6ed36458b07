// A small host: starts the library, sends a few beacons and prints the URL of
// each one exactly as it would go on the wire.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReportingUtilities.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/pageviews/PageViewBeaconReporter.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/platform/Application.h>
#include <korvel/platform/Env.h>
#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/platform/NotificationCenter.h>

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

  // Page views: screens push, rename and close pages; the manager times the
  // visible page and reports each stretch when it ends.
  auto pageViews =
      std::make_shared<PageViewManager>(std::make_shared<PageViewBeaconReporter>(), true);
  const auto home = PageID::make();
  const auto track = PageID::make();
  pageViews->trackPageAppeared(home, PageName("home"), {});
  std::this_thread::sleep_for(std::chrono::milliseconds(120));
  pageViews->trackPageAppeared(track, PageName("track"),
                               {ReportingParameter::trackID("12345")});  // "home" ends
  std::this_thread::sleep_for(std::chrono::milliseconds(80));
  pageViews->trackPageNameChanged(PageName("lyrics"), track);  // "track" ends
  std::this_thread::sleep_for(std::chrono::milliseconds(40));
  pageViews->trackPageClosed(track);  // "lyrics" ends; "home" is visible again
  std::this_thread::sleep_for(std::chrono::milliseconds(30));

  // Going to the background ends the session and sends "usersession"; the
  // page view manager reports the page still open ("home").
  platform::env().notificationCenter().post(platform::ApplicationDidEnterBackgroundNotification);

  printer->flush(std::chrono::seconds(5));
  return 0;
}
