// Beacons from the dispatcher through the durable executor and libcurl to a
// collector on 127.0.0.1: retries, refusals, Retry-After, the configuration
// at send time, restarts, damaged files and the cap.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "collector/BeaconCollector.h"
#include <korvel/beacon/KVRConstants.h>
#include "support/DurableBeaconTest.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tools::BeaconCollector;
using ::testing::UnorderedElementsAreArray;

// Generous: these wait for delivery, they do not measure it.
constexpr auto kDeadline = 20s;

class DeliveryTest : public testing::DurableBeaconTest {
 protected:
  void SetUp() override {
    DurableBeaconTest::SetUp();
    if (HasFatalFailure()) return;
    KVNConfiguration::sharedInstance().setInid("TEST-INID");
    ASSERT_TRUE(collector_.start());
    pointAt(collector_.baseURL());
  }

  void TearDown() override {
    stopExecutor();
    collector_.stop();
    DurableBeaconTest::TearDown();
  }

  // An address nothing listens on.
  static std::string deadBase() {
    BeaconCollector gone;
    EXPECT_TRUE(gone.start());
    const std::string base = gone.baseURL();
    gone.stop();
    return base;
  }

  // Beacons reported by a run that could not send them (nothing listened),
  // left in its store; their uuids. The collector is the endpoint again.
  std::vector<std::string> leftByARunThatCouldNotSend(int count) {
    pointAt(deadBase());
    auto& executor = startExecutor(options());
    std::vector<std::string> reported;
    for (int i = 0; i < count; ++i) reported.push_back(report(i));
    EXPECT_FALSE(executor.flush(300ms)) << "nothing listens: the beacons must wait";
    stopExecutor();
    pointAt(collector_.baseURL());
    return reported;
  }

  std::vector<std::string> receivedUUIDs() const {
    std::vector<std::string> out;
    for (const auto& b : collector_.beacons()) out.push_back(b.value("clientbeaconuuid").value_or(""));
    return out;
  }

  bool logged(const std::string& text) {
    return env_.logs().messagesContaining(text) > 0;
  }

  BeaconCollector collector_;
};

// Server errors, a connection closed without an answer and a 503 with
// Retry-After are retried with the same beacon; Retry-After is waited out
// (backoff alone would retry within 10 ms).
TEST_F(DeliveryTest, FailedAttemptsAreRetriedWithTheSameBeacon) {
  struct Case {
    const char* name;
    std::function<void(BeaconCollector&)> fail;
    std::vector<int> statuses;  // of the attempts, in order (0: closed without an answer)
    std::chrono::milliseconds gap;  // at least, before the last attempt
  };
  const Case cases[] = {
      {"server errors", [](BeaconCollector& c) { c.failNext(2, 500); }, {500, 500, 204}, 0ms},
      {"connection closed", [](BeaconCollector& c) { c.dropNext(1); }, {0, 204}, 0ms},
      {"Retry-After", [](BeaconCollector& c) { c.failNext(1, 503, "1"); }, {503, 204}, 1s},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BeaconCollector collector;
    ASSERT_TRUE(collector.start());
    pointAt(collector.baseURL());
    auto o = options();
    o.directory = dir_ / c.name;
    startExecutor(o);
    c.fail(collector);
    const std::string uuid = report(1);
    ASSERT_TRUE(collector.waitForBeacons(1, kDeadline));
    const auto requests = collector.requests();
    std::vector<int> statuses;
    for (const auto& r : requests) {
      statuses.push_back(r.status);
      EXPECT_EQ(tools::CollectedBeacon::decode(r.target).value("clientbeaconuuid"), uuid);
    }
    EXPECT_EQ(statuses, c.statuses);
    ASSERT_GE(requests.size(), 2u);
    EXPECT_GE(requests.back().at - requests[requests.size() - 2].at, c.gap);
    const auto beacon = collector.beacons().at(0);
    EXPECT_EQ(beacon.event, "userevent");
    EXPECT_EQ(beacon.value("seq"), "1");
    EXPECT_EQ(beacon.path, "/b/TEST-INID/9.9/TestDevice1%2C1/userevent");
    stopExecutor();
  }
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

TEST_F(DeliveryTest, TheURLIsBuiltFromTheConfigurationAtSendTime) {
  auto o = options();
  o.startPaused = true;
  auto& executor = startExecutor(o);
  report(1);
  pointAt(collector_.baseURL(), "c");
  KVNConfiguration::sharedInstance().setInid("NEW-INID");
  executor.setPaused(false);
  ASSERT_TRUE(collector_.waitForBeacons(1, kDeadline));
  EXPECT_EQ(collector_.beacons().at(0).path, "/c/NEW-INID/9.9/TestDevice1%2C1/userevent");
}

TEST_F(DeliveryTest, ARestartDeliversWhatAnEarlierRunCouldNot) {
  const auto reported = leftByARunThatCouldNotSend(5);
  int recreated = 0;
  auto observer = platform::ObserverRegistration(
      env_.notificationCenter(),
      env_.notificationCenter().addObserver(std::string(KVRReliableNetworkingTaskCreatedNotification),
                                            [&](const platform::Notification&) { ++recreated; }));
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
  const auto reported = leftByARunThatCouldNotSend(3);
  fs::path segment;
  for (const auto& e : fs::directory_iterator(dir_)) {
    if (e.path().extension() == ".log") segment = std::max(segment, e.path());
  }
  ASSERT_FALSE(segment.empty());
  fs::resize_file(segment, fs::file_size(segment) - 5);  // the third record torn
  std::ofstream(dir_ / "seg-0000000099.log") << "not a segment at all";
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
