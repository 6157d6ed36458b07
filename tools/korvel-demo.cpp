// korvel-demo: a scripted host session against a beacon collector embedded in
// this process, on 127.0.0.1. It starts the library, launches, recognises a
// song, shows a few pages, taps a few things and goes to the background;
// every beacon is printed as the collector receives it, then a summary.
//
// Exits 0 when every beacon the library submitted arrived, 1 when one was
// lost, 2 when the demo could not start.
//
//   korvel-demo [--keep]     --keep leaves the temporary store directory
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "collector/BeaconCollector.h"
#include "core/KVRBeacon.h"
#include "core/KVRConstants.h"
#include "core/KVRUserSession.h"
#include "pageviews/BeaconReporter.h"
#include "pageviews/PageViewManager.h"
#include "platform/Application.h"
#include "platform/DurableRequestExecutor.h"
#include "platform/Env.h"
#include "platform/KVNConfiguration.h"
#include "platform/NotificationCenter.h"
#include "reporters/KVRNotificationReporter.h"
#include "reporters/KVRPlayerReporter.h"
#include "reporters/KVRSearchReporter.h"
#include "reporters/KVRTaggingReporter.h"
#include "reporters/KVRUserEventReporter.h"
#include "reporters/KVRWidgetReporter.h"

using namespace korvel;
using namespace std::chrono_literals;

namespace {

// The host's page-view reporter: one "pageview" beacon per visible stretch.
class DemoPageViewReporter : public PageViewReporter {
 public:
  void report(const PageView& pageView) override {
    ReportingParameters parameters = pageView.reportingParameters;
    parameters.insert(ReportingParameter(std::string(kKVRScreenName), pageView.name.reportingValue()));
    parameters.insert(ReportingParameter(std::string(kKVRDuration),
                                         ReportingValue::int_(static_cast<int64_t>(
                                             pageView.duration * 1000.0))));
    BeaconReporter::report(KVRBeaconTypePageView, parameters, {});
  }
};

void printBeacon(size_t number, const tools::CollectedBeacon& beacon) {
  size_t width = 0;
  for (const auto& [key, value] : beacon.params) width = std::max(width, key.size());
  std::printf("\n#%zu  %s   GET %s\n", number, beacon.event.c_str(), beacon.path.c_str());
  for (const auto& [key, value] : beacon.params) {
    std::printf("      %-*s  %s\n", static_cast<int>(width), key.c_str(), value.c_str());
  }
  std::fflush(stdout);
}

// Lets the previous step's beacons arrive (and print) before the next one.
void step(platform::DurableRequestExecutor& executor, const char* what) {
  executor.flush(2s);
  std::printf("\n-- %s\n", what);
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const bool keepStore = argc > 1 && std::strcmp(argv[1], "--keep") == 0;

  // The collector prints each beacon as it arrives.
  std::mutex mutex;
  std::set<std::string> receivedUUIDs;
  size_t receivedCount = 0;
  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.keepBeacons = false;
  collectorOptions.onBeacon = [&](const tools::CollectedBeacon& beacon) {
    std::lock_guard lock(mutex);
    printBeacon(++receivedCount, beacon);
    receivedUUIDs.insert(beacon.value(std::string(KVRBeaconUUIDKey)).value_or(""));
  };
  tools::BeaconCollector collector(collectorOptions);
  if (!collector.start()) {
    std::fprintf(stderr, "korvel-demo: cannot listen on 127.0.0.1\n");
    return 2;
  }

  char pattern[] = "/tmp/korvel-demo-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("korvel-demo: mkdtemp");
    return 2;
  }
  const std::filesystem::path storeDirectory = pattern;

  // What the server would have configured.
  platform::setMainBundleIdentifier("com.korvel.demo");
  KVNConfiguration::setAppShortVersion("14.2");
  KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
    s.inid = "DEMO-INID-4F2A9C";
    s.configured = true;
    s.deviceModel = "Laptop14,2";
    s.beacons.beaconEndpoint =
        collector.baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
    s.beacons.beaconParameters = KVRParameters{{"cohort", "demo"}};
  });

  // Durable delivery into a temporary store (a host normally lets the
  // library pick $XDG_DATA_HOME/korvel/...).
  KVRBeacon::registerRequestRestorer();
  platform::DurableRequestExecutor::Options options;
  options.directory = storeDirectory;
  options.concurrency = 1;  // one connection: beacons arrive in the order reported
  auto executor = std::make_shared<platform::DurableRequestExecutor>(
      "com.korvel.demo.backgroundBeacons", options);
  KVRBeacon::setBackgroundSession(executor);

  // Count what the library submits.
  std::set<std::string> reportedUUIDs;
  auto& center = platform::env().notificationCenter();
  platform::ObserverRegistration submitted(
      center, center.addObserver(std::string(KVRReliableNetworkingTaskSubmittedNotification),
                                 [&](const platform::Notification& n) {
                                   auto task = std::any_cast<
                                       std::shared_ptr<const KVRReliableNetworkingTask>>(&n.object);
                                   if (task == nullptr) return;
                                   std::lock_guard lock(mutex);
                                   reportedUUIDs.insert((*task)->uuid());
                                 }));

  std::printf("korvel-demo: collector on %s, store in %s\n", collector.baseURL().c_str(),
              storeDirectory.c_str());

  step(*executor, "launch");
  KVRUserSession::load();
  KVRStartupReporter::reportAppStartupTime(0.84);
  auto pages = std::make_unique<PageViewManager>(std::make_shared<DemoPageViewReporter>(), true);
  const PageID home = PageID::make();
  pages->trackPageAppeared(home, PageName("home"), {});
  std::this_thread::sleep_for(120ms);

  step(*executor, "a recognition, with a match");
  KVRTagDetails tag;
  tag.tagID = "6D1F0E7A-0C4B-4E8F-A1D2-9B3C5E7F0A12";
  tag.trackID = "571234567";
  tag.adamID = "1440818584";
  tag.artistAdamID = "136975";
  tag.type = "music";
  tag.recognitionType = "music";
  tag.tagTypeString = "manual";
  tag.recordDuration = 3.2;
  tag.sampleLength = 3.0;
  tag.sampleRate = 44100.0;
  tag.microphone = "builtin";
  tag.tagDuration = 3.4;
  KVRTaggingReporter::reportTaggingSessionStarted("demo-session-1", 0, std::nullopt, false);
  std::this_thread::sleep_for(60ms);
  KVRTaggingReporter::reportTaggingSessionEnded("demo-session-1", &tag, 0, false, nullptr);
  KVRTaggingReporter::reportTag(&tag, 1);

  step(*executor, "the track page, then back home");
  const PageID track = PageID::make();
  pages->trackPageAppeared(track, PageName("track"),
                           {ReportingParameter::trackID(*tag.trackID),
                            ReportingParameter::tagID(*tag.tagID)});
  std::this_thread::sleep_for(150ms);
  KVRPlayerReporter::reportUserScrolledToBottomOfTracklist();
  KVRUserEventReporter::reportShareSheetSelectedForProvider("messages", true, std::nullopt);
  pages->trackPageClosed(track);

  step(*executor, "search and a few more taps");
  const PageID search = PageID::make();
  pages->trackPageAppeared(search, PageName("search"), {});
  KVRSearchReporter::reportChartsCardTappedInSearch();
  std::this_thread::sleep_for(80ms);
  pages->trackPageClosed(search);
  KVRUserEventReporter::reportUserScrolled();
  KVRNotificationReporter::reportAutoMatchNotificationSent();
  KVRWidgetReporter::reportUserHasiOS14Widgets(true);

  step(*executor, "to the background (ends the session)");
  center.post(platform::ApplicationDidEnterBackgroundNotification);

  // Wait for delivery, with a deadline.
  const bool flushed = executor->flush(15s);
  size_t reported;
  {
    std::lock_guard lock(mutex);
    reported = reportedUUIDs.size();
  }
  collector.waitForBeacons(reported, flushed ? 2s : 0ms);

  pages.reset();
  KVRUserSession::unload();
  KVRBeacon::setBackgroundSession(nullptr);
  executor.reset();
  collector.stop();
  submitted.reset();

  size_t lost = 0;
  size_t received;
  {
    std::lock_guard lock(mutex);
    received = receivedCount;
    for (const auto& uuid : reportedUUIDs) lost += receivedUUIDs.count(uuid) == 0 ? 1 : 0;
  }
  std::printf("\nkorvel-demo: reported %zu, received %zu", reported, received);
  if (lost > 0) std::printf(", LOST %zu", lost);
  std::printf("\n");

  if (!keepStore) {
    std::error_code ec;
    std::filesystem::remove_all(storeDirectory, ec);
  }
  return lost == 0 && reported > 0 ? 0 : 1;
}
