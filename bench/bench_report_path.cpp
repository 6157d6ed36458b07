// The cost of one report on the calling thread, and of building its URL on
// the executor's thread.
//
//   BM_SendUserEvent/delegate:0   a 20-entry user event, no session delegate
//   BM_SendUserEvent/delegate:1   the same with a delegate that supplies every
//                                 field of the global reporting data
//   BM_EndpointURLString          the URL of such a beacon
//
// Reports go through a real InProcessRequestExecutor whose transport drops
// everything; its queue is drained outside the timed region every batch so
// it cannot grow without bound.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <string>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRGlobalReportingData.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/platform/Env.h>
#include <korvel/network/InProcessRequestExecutor.h>
#include <korvel/foundation/KVNConfiguration.h>

namespace {

using namespace korvel;

constexpr int kBatch = 256;

KVRParameters userEventParameters() {
  KVRParameters p;
  p.set("type", "share");
  p.set("origin", "trackpage");
  p.set("providername", "applemusic");
  p.set("screenname", "track");
  p.set("action", "tap");
  p.set("trackkey", "123456789");
  p.set("track_adam_id", "1440818839");
  p.set("artist_adam_id", "5468295");
  p.set("tagid", "A1B2C3D4-E5F6-4711-8899-AABBCCDDEEFF");
  p.set("campaign", "spring sale & more");
  p.set("destination", "https://example.com/a?b=c");
  p.set("cardtype", "metadata_track");
  p.set("cardposition", 3);
  p.set("section", "highlights");
  p.set("matchcategory", "music");
  p.set("timespent", 12.75);
  p.set("success", true);
  p.set("value", int64_t{-42});
  p.set("details", "日本🎵");
  p.set("event", "tapped");
  return p;
}

class FullDelegate : public KVRUserSessionDelegate {
 public:
  FullDelegate() {
    auto g = std::make_shared<KVRGlobalReportingData>();
    g->setLibrarySyncActive(true);
    g->setAppleMusicConnected(true);
    g->setAreLiveActivitiesEnabled(true);
    g->setMicrophonePermissionStatus("authorized");
    g->setLocationPermissionStatus("denied");
    g->setCameraPermissionStatus("notDetermined");
    g->setNotificationPermissionStatus("authorized");
    g->setAppleMusicPermissionStatus("authorized");
    g->setAppleMusicMemberStatus("member");
    g->setDeviceLanguage("en-GB");
    g->setCurrentScreenName("home");
    global_ = std::move(g);
    session_ = std::make_shared<KVRUserSessionData>();
  }
  std::shared_ptr<const KVRGlobalReportingData> globalReportingData() override { return global_; }
  std::shared_ptr<const KVRUserSessionData> userSessionData() override { return session_; }
  bool shouldSendUserSessionBeacon() override { return true; }

 private:
  std::shared_ptr<const KVRGlobalReportingData> global_;
  std::shared_ptr<const KVRUserSessionData> session_;
};

std::shared_ptr<InProcessRequestExecutor> setUpLibrary() {
  platform::setMainBundleIdentifier("com.korvel.bench");
  KVNConfiguration::Snapshot config = KVNConfiguration::machineDefaults();
  config.inid = "B3E1C0DE-0000-4000-8000-000000000001";
  config.configured = true;
  config.deviceModel = "iPhone14,2";
  config.deviceSystemVersion = "17.1";
  config.beacons.beaconEndpoint =
      "https://beacons.example.com/b/{inid}/{appversion}/{devicemodel}?platform=ios";
  config.beacons.beaconParameters = {{"exp", "a1"}, {"cohort", "7"}};
  KVNConfiguration::sharedInstance().replace(config);
  KVNConfiguration::setAppShortVersion("15.2.1");
  KVNConfiguration::setDeviceOSBuildNumber("21B74");

  auto executor = std::make_shared<InProcessRequestExecutor>(
      "com.korvel.bench.backgroundBeacons",
      [](const KVNNetworkRequest&, const KVNEndpoint&) { return true; });
  KVRBeacon::setBackgroundSession(executor);
  KVRUserSession::startSession();
  return executor;
}

void BM_SendUserEvent(benchmark::State& state) {
  auto executor = setUpLibrary();
  KVRUserSession::setUserSessionDelegate(state.range(0) != 0 ? std::make_shared<FullDelegate>()
                                                             : nullptr);
  const KVRParameters parameters = userEventParameters();
  int inBatch = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters));
    if (++inBatch == kBatch) {
      state.PauseTiming();
      executor->flush(std::chrono::seconds(30));
      inBatch = 0;
      state.ResumeTiming();
    }
  }
  executor->flush(std::chrono::seconds(30));
  KVRUserSession::setUserSessionDelegate(nullptr);
  KVRBeacon::setBackgroundSession(nullptr);
}
BENCHMARK(BM_SendUserEvent)
    ->ArgName("delegate")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_EndpointURLString(benchmark::State& state) {
  auto executor = setUpLibrary();
  KVRUserSession::setUserSessionDelegate(std::make_shared<FullDelegate>());
  const auto task = KVRBeacon::taskOfType(KVRBeaconTypeUserEvent, userEventParameters(),
                                          std::nullopt);
  for (auto _ : state) {
    benchmark::DoNotOptimize(KVRBeacon::endpointURLString(*task, KVRBeaconTypeUserEvent));
  }
  KVRUserSession::setUserSessionDelegate(nullptr);
  KVRBeacon::setBackgroundSession(nullptr);
}
BENCHMARK(BM_EndpointURLString)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
