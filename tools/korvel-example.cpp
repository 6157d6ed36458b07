// A small host: starts the library, sends a few beacons and prints the URL of
// each one exactly as it would go on the wire.
//
//   korvel-example                 prints the URLs, sends nothing
//   korvel-example --send BASE     delivers them for real to a collector at
//                                  BASE (e.g. http://127.0.0.1:8787), through
//                                  the library's durable executor, its data
//                                  directory a temporary folder
//
// Written as a host writes it: public headers only.
#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <korvel/Korvel.h>
#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/pageviews/PageViewBeaconReporter.h>

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

  // Everything the library keeps goes to a temporary data directory,
  // removed on the way out.
  char pattern[] = "/tmp/korvel-example-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("korvel-example: mkdtemp");
    return 1;
  }
  const std::filesystem::path dataDirectory = pattern;
  const auto removeDataDirectory = [&dataDirectory] {
    std::error_code ec;
    std::filesystem::remove_all(dataDirectory, ec);
  };

  Reporting::StartOptions options;
  options.bundleIdentifier = "com.korvel.example";
  options.appVersion = "14.2";
  options.dataDirectory = dataDirectory;
  options.configure = [&](KVNConfiguration::Snapshot& s) {
    s.inid = "EXAMPLE-INID";
    s.configured = true;
    s.deviceModel = "Laptop14,2";
    s.beacons.beaconEndpoint = base + "/b/{inid}/{appversion}/{devicemodel}?src=example";
    s.beacons.beaconParameters = KVRParameters{{"cohort", "b"}};
  };
  if (!send) {
    // Print instead of sending: the executor thread builds each URL when it
    // takes the request, as a real executor does. With --send the library's
    // own durable executor delivers, keeping its journal in the data
    // directory.
    options.executor = std::make_shared<InProcessRequestExecutor>(
        "com.korvel.example.backgroundBeacons",
        [](const KVNNetworkRequest&, const KVNEndpoint& endpoint) {
          std::printf("GET %s\n", endpoint.urlString().c_str());
          return true;
        });
  }
  if (auto started = Reporting::start(std::move(options)); !started) {
    std::fprintf(stderr, "korvel-example: cannot start: %s\n", started.error.c_str());
    removeDataDirectory();
    return 1;
  }

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
  Reporting::applicationDidEnterBackground();

  const bool delivered = Reporting::shutdown(std::chrono::seconds(10)).ok;
  removeDataDirectory();
  if (send && !delivered) std::fprintf(stderr, "korvel-example: not every beacon was delivered\n");
  return delivered ? 0 : 1;
}
