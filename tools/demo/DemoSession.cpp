#include "demo/DemoSession.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"
#include <korvel/Korvel.h>
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/pageviews/PageViewBeaconReporter.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/reporters/KVRNotificationReporter.h>
#include <korvel/reporters/KVRPlayerReporter.h>
#include <korvel/reporters/KVRSearchReporter.h>
#include <korvel/reporters/KVRUserEventReporter.h>
#include <korvel/reporters/KVRWidgetReporter.h>

using korvel::foundation::internal::MutexLock;

namespace korvel::demo {

using namespace std::chrono_literals;

namespace {


KVRTagDetails demoTag() {
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
  return tag;
}

}  // namespace

DemoSession::DemoSession(bool keepStore, bool inspect)
    : keepStore_(keepStore), inspect_(inspect), road_(std::make_unique<BeaconRoad>(stdout)) {}

DemoSession::~DemoSession() = default;

bool DemoSession::start() {
  // The collector checks and keeps every beacon (the inspector shows them)
  // and the road printer prints each as it arrives.
  std::string storeError;
  store_ = tools::BeaconStore::open({}, &storeError);
  if (!store_) {
    std::fprintf(stderr, "korvel-demo: cannot open the beacon store: %s\n", storeError.c_str());
    return false;
  }
  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.keepBeacons = false;
  collectorOptions.store = store_;
  collectorOptions.onBeacon = [this](const tools::CollectedBeacon& beacon) {
    const auto uuid = beacon.value(std::string(KVRBeaconUUIDKey)).value_or("");
    // The store has it queued already: its newest record of that uuid.
    const auto records = store_->byUUID(uuid);
    std::string verdict = "unchecked";
    std::vector<std::string> reasons;
    if (!records.empty()) {
      verdict = records.back()["verdict"].get<std::string>();
      for (const auto& r : records.back()["reasons"]) reasons.push_back(r.get<std::string>());
    }
    std::string target = beacon.path;
    if (!records.empty()) target = records.back()["target"].get<std::string>();
    road_->arrived(target, 204, beacon.event, beacon.params, verdict, reasons);
    MutexLock lock(mutex_);
    ++receivedCount_;
    receivedUUIDs_.insert(uuid);
  };
  collector_ = std::make_unique<tools::BeaconCollector>(collectorOptions);
  if (!collector_->start()) {
    std::fprintf(stderr, "korvel-demo: cannot listen on 127.0.0.1\n");
    return false;
  }

  char pattern[] = "/tmp/korvel-demo-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    std::perror("korvel-demo: mkdtemp");
    return false;
  }
  storeDirectory_ = pattern;

  // What the server would have configured.
  platform::setMainBundleIdentifier("com.korvel.demo");
  KVNConfiguration::setAppShortVersion("14.2");
  KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
    s.inid = "DEMO-INID-4F2A9C";
    s.configured = true;
    s.deviceModel = "Laptop14,2";
    s.beacons.beaconEndpoint = collector_->baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
    s.beacons.beaconParameters = KVRParameters{{"cohort", "demo"}};
  });

  // Durable delivery into a temporary store (a host normally lets the
  // library pick $XDG_DATA_HOME/korvel/...).
  KVRBeacon::registerRequestRestorer();
  network::internal::DurableRequestExecutor::Options options;
  options.directory = storeDirectory_;
  options.concurrency = 1;  // one connection: beacons arrive in the order reported
  executor_ = std::make_shared<network::internal::DurableRequestExecutor>(
      "com.korvel.demo.backgroundBeacons", options);
  KVRBeacon::setBackgroundSession(executor_);

  // Follow the records the library makes, and count what it submits.
  auto& center = platform::env().notificationCenter();
  created_ = platform::ObserverRegistration(
      center, center.addObserver(std::string(KVRReliableNetworkingTaskCreatedNotification),
                                 [this](const platform::Notification& n) {
                                   // The record's dictionary representation.
                                   const auto* record = std::any_cast<KVRParameters>(&n.object);
                                   if (record == nullptr) return;
                                   const KVRValue* wire = record->find(KVRBeaconParametersJSONKey);
                                   const KVRParameters* parameters =
                                       wire ? wire->asDictionary() : nullptr;
                                   if (parameters == nullptr) return;
                                   road_->recordMade(
                                       parameters->stringForKey(KVRBeaconUUIDKey).value_or(""),
                                       record->stringForKey(KVRBeaconTypeJSONKey));
                                 }));
  submitted_ = platform::ObserverRegistration(
      center, center.addObserver(std::string(KVRReliableNetworkingTaskSubmittedNotification),
                                 [this](const platform::Notification& n) {
                                   auto task = std::any_cast<
                                       std::shared_ptr<const KVRReliableNetworkingTask>>(&n.object);
                                   if (task == nullptr) return;
                                   std::set<std::string> common;
                                   for (const auto& key : (*task)->commonParameters().keys()) {
                                     common.insert(key);
                                   }
                                   road_->submitted(std::string((*task)->className()),
                                                    (*task)->uuid(), std::move(common),
                                                    storeDirectory_.string());
                                   MutexLock lock(mutex_);
                                   reportedUUIDs_.insert((*task)->uuid());
                                 }));

  std::printf("korvel-demo: collector on %s, delivery journal in %s\n",
              collector_->baseURL().c_str(), storeDirectory_.c_str());
  return true;
}

void DemoSession::step(const char* what) {
  executor_->flush(2s);
  std::printf("\n-- %s\n", what);
  std::fflush(stdout);
}

void DemoSession::launch() {
  KVRUserSession::load();
  road_->hostCall("KVRStartupReporter::reportAppStartupTime(0.84)");
  KVRStartupReporter::reportAppStartupTime(0.84);
  pages_ = std::make_unique<PageViewManager>(std::make_shared<PageViewBeaconReporter>(), true);
  home_ = PageID::make();
  pages_->trackPageAppeared(home_, PageName("home"), {});
}

void DemoSession::recognise() {
  const std::string session = "demo-session-" + std::to_string(++recognitions_);
  tag_ = demoTag();
  KVRTaggingReporter::reportTaggingSessionStarted(session, 0, std::nullopt, false);
  std::this_thread::sleep_for(60ms);
  KVRTaggingReporter::reportTaggingSessionEnded(session, &tag_, 0, false, nullptr);
  KVRTaggingReporter::reportTag(&tag_, 1);
}

void DemoSession::openTrackPage() {
  if (trackOpen_) return;
  if (!tag_.trackID) tag_ = demoTag();
  track_ = PageID::make();
  pages_->trackPageAppeared(track_, PageName("track"),
                            {ReportingParameter::trackID(*tag_.trackID),
                             ReportingParameter::tagID(*tag_.tagID)});
  trackOpen_ = true;
}

void DemoSession::tapOnTrackPage() {
  KVRPlayerReporter::reportUserScrolledToBottomOfTracklist();
  KVRUserEventReporter::reportShareSheetSelectedForProvider("messages", true, std::nullopt);
}

void DemoSession::closeTrackPage() {
  if (!trackOpen_) return;
  pages_->trackPageClosed(track_);
  trackOpen_ = false;
}

void DemoSession::openSearch() {
  if (searchOpen_) return;
  search_ = PageID::make();
  pages_->trackPageAppeared(search_, PageName("search"), {});
  searchOpen_ = true;
}

void DemoSession::tapChartsCard() { KVRSearchReporter::reportChartsCardTappedInSearch(); }

void DemoSession::showSearchResults() {
  if (searchOpen_) pages_->trackPageNameChanged(PageName("search results"), search_);
}

void DemoSession::closeSearch() {
  if (!searchOpen_) return;
  pages_->trackPageClosed(search_);
  searchOpen_ = false;
}

void DemoSession::tapAround() {
  KVRUserEventReporter::reportUserScrolled();
  KVRNotificationReporter::reportAutoMatchNotificationSent();
  KVRWidgetReporter::reportUserHasiOS14Widgets(true);
}

void DemoSession::goToBackground() {
  if (inBackground_) return;
  Reporting::applicationDidEnterBackground();
  inBackground_ = true;
}

void DemoSession::comeToForeground() {
  if (!inBackground_) return;
  Reporting::applicationWillEnterForeground();
  inBackground_ = false;
}

void DemoSession::runScript() {
  step("launch");
  launch();
  std::this_thread::sleep_for(120ms);

  step("a recognition, with a match");
  recognise();

  step("the track page, then back home");
  openTrackPage();
  std::this_thread::sleep_for(150ms);
  tapOnTrackPage();
  closeTrackPage();

  step("search and a few more taps");
  openSearch();
  tapChartsCard();
  std::this_thread::sleep_for(80ms);
  closeSearch();
  tapAround();

  step("to the background (ends the session)");
  goToBackground();
}

void DemoSession::waitForInterrupt() {
  // The signals were blocked in every thread before any was started (see
  // blockInterrupts); they are taken here, not in a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  int signal = 0;
  sigwait(&signals, &signal);
}

void DemoSession::blockInterrupts() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int DemoSession::finish() {
  // Wait for delivery, with a deadline.
  const bool flushed = executor_->flush(15s);
  size_t reported;
  {
    MutexLock lock(mutex_);
    reported = reportedUUIDs_.size();
  }
  collector_->waitForBeacons(reported, flushed ? 2s : 0ms);

  pages_.reset();
  KVRUserSession::unload();
  KVRBeacon::setBackgroundSession(nullptr);
  executor_.reset();
  submitted_.reset();
  created_.reset();

  size_t lost = 0;
  size_t received;
  {
    MutexLock lock(mutex_);
    received = receivedCount_;
    for (const auto& uuid : reportedUUIDs_) lost += receivedUUIDs_.count(uuid) == 0 ? 1 : 0;
  }
  const auto counts = store_->counts();
  std::printf("\nkorvel-demo: reported %zu, received %zu", reported, received);
  if (lost > 0) std::printf(", LOST %zu", lost);
  std::printf(" (checked: %lld good, %lld resent, %lld bad)\n",
              static_cast<long long>(counts["good"].get<int64_t>()),
              static_cast<long long>(counts["retry"].get<int64_t>()),
              static_cast<long long>(counts["bad"].get<int64_t>()));
  std::fflush(stdout);

  if (inspect_) {
    std::printf("korvel-demo: inspector on %s/ (Ctrl-C to stop)\n", collector_->baseURL().c_str());
    std::fflush(stdout);
    waitForInterrupt();
  }
  collector_->stop();

  if (!keepStore_) {
    std::error_code ec;
    std::filesystem::remove_all(storeDirectory_, ec);
  }
  return lost == 0 && reported > 0 ? 0 : 1;
}

}  // namespace korvel::demo
