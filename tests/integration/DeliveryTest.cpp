// Beacons from the dispatcher through the durable executor and libcurl to a
// collector on 127.0.0.1: retries, refusals, Retry-After, the configuration
// at send time, restarts, damaged files and the cap.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "collector/BeaconCollector.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using network::internal::DurableRequestExecutor;
using tools::BeaconCollector;
using ::testing::UnorderedElementsAreArray;

// Generous: these wait for delivery, they do not measure it.
constexpr auto kDeadline = 20s;

class DeliveryTest : public testing::BeaconTest {
 protected:
  void SetUp() override {
    BeaconTest::SetUp();
    KVRBeacon::registerRequestRestorer();
    char pattern[] = "/tmp/korvel-delivery-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    ASSERT_TRUE(collector_.start());
    pointAt(collector_.port(), "b", "TEST-INID");
  }

  void TearDown() override {
    stopExecutor();
    collector_.stop();
    std::error_code ec;
    fs::remove_all(dir_, ec);
    BeaconTest::TearDown();
  }

  void pointAt(int port, const std::string& prefix, const std::string& inid) {
    KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
      s.inid = inid;
      s.beacons.beaconEndpoint = "http://127.0.0.1:" + std::to_string(port) + "/" + prefix +
                                 "/{inid}/{appversion}/{devicemodel}";
    });
  }

  DurableRequestExecutor::Options options() const {
    DurableRequestExecutor::Options o;
    o.directory = dir_;
    o.retryBaseDelay = 10ms;
    o.maxRetryDelay = 40ms;
    o.syncInterval = 20ms;
    o.requestTimeout = 5s;
    return o;
  }

  DurableRequestExecutor& startExecutor(DurableRequestExecutor::Options o) {
    stopExecutor();
    durable_ = std::make_shared<DurableRequestExecutor>("test.backgroundBeacons", std::move(o));
    KVRBeacon::setBackgroundSession(durable_);
    return *durable_;
  }

  void stopExecutor() {
    KVRBeacon::setBackgroundSession(executor_);
    durable_.reset();
  }

  std::string report(int seq) {
    return KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent,
                                       KVRParameters{{"type", "demo"}, {"seq", seq}})
        .value_or("");
  }

  // A port nothing listens on.
  static int deadPort() {
    BeaconCollector gone;
    EXPECT_TRUE(gone.start());
    const int port = gone.port();
    gone.stop();
    return port;
  }

  std::vector<std::string> receivedUUIDs() const {
    std::vector<std::string> out;
    for (const auto& b : collector_.beacons()) out.push_back(b.value("clientbeaconuuid").value_or(""));
    return out;
  }

  bool logged(const std::string& text) {
    return env_.logs().messagesContaining(text) > 0;
  }

  fs::path dir_;
  BeaconCollector collector_;
  std::shared_ptr<DurableRequestExecutor> durable_;
};

TEST_F(DeliveryTest, ServerErrorsAreRetriedWithTheSameBeacon) {
  startExecutor(options());
  collector_.failNext(2, 500);
  const std::string uuid = report(1);
  ASSERT_TRUE(collector_.waitForBeacons(1, kDeadline));
  const auto requests = collector_.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0].status, 500);
  EXPECT_EQ(requests[2].status, 204);
  for (const auto& r : requests) {
    EXPECT_EQ(tools::CollectedBeacon::decode(r.target).value("clientbeaconuuid"), uuid);
  }
  const auto beacon = collector_.beacons().at(0);
  EXPECT_EQ(beacon.event, "userevent");
  EXPECT_EQ(beacon.value("seq"), "1");
  EXPECT_EQ(beacon.path, "/b/TEST-INID/9.9/TestDevice1%2C1/userevent");
}

TEST_F(DeliveryTest, ARefusedBeaconIsDroppedAtOnceWithALogLine) {
  auto& executor = startExecutor(options());
  collector_.failNext(1, 400);
  report(1);
  ASSERT_TRUE(executor.flush(kDeadline));
  EXPECT_EQ(collector_.requestCount(), 1u);
  EXPECT_EQ(collector_.beaconCount(), 0u);
  EXPECT_TRUE(logged("refused with HTTP 400"));
}

TEST_F(DeliveryTest, AConnectionClosedWithoutAnAnswerIsRetried) {
  startExecutor(options());
  collector_.dropNext(1);
  const std::string uuid = report(1);
  ASSERT_TRUE(collector_.waitForBeacons(1, kDeadline));
  EXPECT_EQ(collector_.requestCount(), 2u);
  EXPECT_EQ(receivedUUIDs(), std::vector<std::string>{uuid});
}

TEST_F(DeliveryTest, RetryAfterIsWaitedOutBeforeTheRetry) {
  startExecutor(options());  // backoff alone would retry within 10 ms
  collector_.failNext(1, 503, "1");
  report(1);
  ASSERT_TRUE(collector_.waitForBeacons(1, kDeadline));
  const auto requests = collector_.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_GE(requests[1].at - requests[0].at, 1s);
}

TEST_F(DeliveryTest, TheURLIsBuiltFromTheConfigurationAtSendTime) {
  auto o = options();
  o.startPaused = true;
  auto& executor = startExecutor(o);
  report(1);
  pointAt(collector_.port(), "c", "NEW-INID");
  executor.setPaused(false);
  ASSERT_TRUE(collector_.waitForBeacons(1, kDeadline));
  EXPECT_EQ(collector_.beacons().at(0).path, "/c/NEW-INID/9.9/TestDevice1%2C1/userevent");
}

TEST_F(DeliveryTest, ARestartDeliversWhatAnEarlierRunCouldNot) {
  pointAt(deadPort(), "b", "TEST-INID");
  std::vector<std::string> reported;
  {
    auto& executor = startExecutor(options());
    for (int i = 0; i < 5; ++i) reported.push_back(report(i));
    EXPECT_FALSE(executor.flush(300ms)) << "nothing listens: the beacons must wait";
    stopExecutor();
  }
  int recreated = 0;
  auto observer = platform::ObserverRegistration(
      env_.notificationCenter(),
      env_.notificationCenter().addObserver(std::string(KVRReliableNetworkingTaskCreatedNotification),
                                            [&](const platform::Notification&) { ++recreated; }));
  pointAt(collector_.port(), "b", "TEST-INID");
  auto& executor = startExecutor(options());
  ASSERT_TRUE(executor.flush(kDeadline));
  EXPECT_THAT(receivedUUIDs(), UnorderedElementsAreArray(reported));
  EXPECT_EQ(recreated, 5) << "restoring decodes each record, which announces it again";
  // Delivered ones are gone from the store: another start sends nothing.
  stopExecutor();
  startExecutor(options()).flush(kDeadline);
  EXPECT_EQ(collector_.beaconCount(), 5u);
}

TEST_F(DeliveryTest, DamagedJournalFilesAreSetAsideAndTheReadablePartSent) {
  pointAt(deadPort(), "b", "TEST-INID");
  std::vector<std::string> reported;
  {
    startExecutor(options());
    for (int i = 0; i < 3; ++i) reported.push_back(report(i));
    stopExecutor();
  }
  fs::path segment;
  for (const auto& e : fs::directory_iterator(dir_)) {
    if (e.path().extension() == ".log") segment = std::max(segment, e.path());
  }
  ASSERT_FALSE(segment.empty());
  fs::resize_file(segment, fs::file_size(segment) - 5);  // the third record torn
  std::ofstream(dir_ / "seg-0000000099.log") << "not a segment at all";

  pointAt(collector_.port(), "b", "TEST-INID");
  ASSERT_TRUE(startExecutor(options()).flush(kDeadline));
  EXPECT_THAT(receivedUUIDs(), UnorderedElementsAreArray({reported[0], reported[1]}));
  EXPECT_TRUE(logged("torn record at its end"));
  EXPECT_TRUE(logged("not a journal segment"));
  size_t aside = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(dir_ / "aside")) ++aside;
  EXPECT_EQ(aside, 2u);
}

TEST_F(DeliveryTest, PastTheCapTheOldestBeaconsAreDroppedWithALogLine) {
  auto o = options();
  o.startPaused = true;
  o.maxStoredRequests = 5;
  auto& executor = startExecutor(o);
  std::vector<std::string> reported;
  for (int i = 0; i < 8; ++i) reported.push_back(report(i));
  executor.setPaused(false);
  ASSERT_TRUE(executor.flush(kDeadline));
  EXPECT_THAT(receivedUUIDs(),
              UnorderedElementsAreArray(std::vector<std::string>(reported.begin() + 3, reported.end())));
  EXPECT_TRUE(logged("dropped the 3 oldest requests: more than 5 were waiting"));
}

}  // namespace
}  // namespace korvel
