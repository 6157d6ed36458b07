// A small host: starts the library, sends a few beacons and prints the URL of
// each one exactly as it would go on the wire.
//
//   korvel-example                 prints the URLs, sends nothing
//   korvel-example --send BASE     delivers them for real to a collector at
//                                  BASE (e.g. http://127.0.0.1:8787), through
//                                  the durable executor in a temporary folder
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
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
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/platform/NotificationCenter.h>

using namespace korvel;

int main(int argc, char** argv) {
  std::string base = "https://beacons.example.com";
  const bool send = argc == 3 && std::strcmp(argv[1], "--send") == 0;
  if (send) {
    base = argv[2];
  } else if (argc != 1) {
    std::fprintf(stderr, "usage: korvel-example [--send BASE_URL]\n");
    return 2;
  }

  platform::setMainBundleIdentifier("com.korvel.example");
  KVNConfiguration::setAppShortVersion("14.2");
  auto& config = KVNConfiguration::sharedInstance();
  config.update([&](KVNConfiguration::Snapshot& s) {
    s.inid = "EXAMPLE-INID";
    s.configured = true;
    s.deviceModel = "Laptop14,2";
    s.beacons.beaconEndpoint = base + "/b/{inid}/{appversion}/{devicemodel}?src=example";
    s.beacons.beaconParameters = KVRParameters{{"cohort", "b"}};
  });

  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor;
  std::filesystem::path journal;
  if (send) {
    char pattern[] = "/tmp/korvel-example-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      std::perror("korvel-example: mkdtemp");
      return 1;
    }
    journal = pattern;
    platform::DurableRequestExecutor::Options options;
    options.directory = journal;
    options.concurrency = 1;
    executor = std::make_shared<platform::DurableRequestExecutor>(
        "com.korvel.example.backgroundBeacons", options);
  } else {
    // Print instead of sending: the executor thread builds each URL when it
    // takes the request, as a real executor does.
    executor = std::make_shared<InProcessRequestExecutor>(
        "com.korvel.example.backgroundBeacons",
        [](const KVNNetworkRequest&, const KVNEndpoint& endpoint) {
          std::printf("GET %s\n", endpoint.urlString().c_str());
          return true;
        });
  }
  KVRBeacon::setBackgroundSession(executor);

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

  const bool delivered = executor->flush(std::chrono::seconds(10));
  KVRBeacon::setBackgroundSession(nullptr);
  executor.reset();
  if (send) {
    std::error_code ec;
    std::filesystem::remove_all(journal, ec);
    if (!delivered) std::fprintf(stderr, "korvel-example: not every beacon was delivered\n");
  }
  return delivered ? 0 : 1;
}
