// The host's life cycle and the user's consent, end to end: Reporting::start
// with the durable executor in a data directory, beacons delivered over
// libcurl to a collector on 127.0.0.1, opting out and in, purging, restarts.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>

#include "collector/BeaconCollector.h"
#include <korvel/Korvel.h>
#include "support/HostTest.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using tools::BeaconCollector;

// Generous: these wait for delivery, they do not measure it.
constexpr auto kDeadline = 20s;

// Regular files under dir and their total size.
struct Footprint {
  size_t files = 0;
  uintmax_t bytes = 0;
  friend bool operator==(const Footprint&, const Footprint&) = default;
};

Footprint footprint(const fs::path& dir) {
  Footprint f;
  std::error_code ec;
  if (!fs::exists(dir, ec)) return f;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    if (!entry.is_regular_file()) continue;
    ++f.files;
    f.bytes += entry.file_size();
  }
  return f;
}

class ConsentTest : public testing::HostTest {
 protected:
  ConsentTest() : HostTest("consent", kDeadline) {}

  void SetUp() override {
    HostTest::SetUp();
    if (HasFatalFailure()) return;
    ASSERT_TRUE(collector_.start());
    created_ = platform::ObserverRegistration(
        env_.notificationCenter(),
        env_.notificationCenter().addObserver(
            std::string(KVRReliableNetworkingTaskCreatedNotification),
            [this](const platform::Notification&) { ++recordsMade_; }));
  }

  void afterShutdown() override {
    created_.reset();
    collector_.stop();
  }

  fs::path dataDirectory() const { return root_ / "data"; }
  fs::path storeDirectory() const { return dataDirectory() / "beacons"; }

  // Starts the library as a host would; withInid false holds every beacon
  // (its configuration policy wants an inid) until allowDelivery().
  void start(bool withInid = true) {
    Reporting::StartOptions options;
    options.bundleIdentifier = "com.korvel.tests.consent";
    options.dataDirectory = dataDirectory();
    options.startUserSession = false;
    const std::string endpoint =
        collector_.baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
    options.configure = [&](KVNConfiguration::Snapshot& c) {
      c.beacons.beaconEndpoint = endpoint;
      c.inid = withInid ? std::optional<std::string>("TEST-INID") : std::nullopt;
    };
    const auto result = Reporting::start(std::move(options));
    ASSERT_TRUE(result) << result.error;
  }

  // Beacons kept while opted out stay pending, so shutdown's result is not
  // looked at here.
  void restart(bool withInid = true) {
    Reporting::shutdown(kDeadline);
    start(withInid);
  }

  static void allowDelivery() { KVNConfiguration::sharedInstance().setInid("TEST-INID"); }

  static std::optional<std::string> report(int seq) {
    return KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent,
                                       KVRParameters{{"type", "consent"}, {"seq", seq}});
  }

  std::vector<std::string> arrivedUUIDs() const {
    std::vector<std::string> out;
    for (const auto& b : collector_.beacons()) out.push_back(b.value("clientbeaconuuid").value_or(""));
    return out;
  }

  BeaconCollector collector_;
  platform::ObserverRegistration created_;
  std::atomic<int> recordsMade_{0};
};

TEST_F(ConsentTest, BeaconsArriveWhileOptedInAndOptedOutReportsMakeNothingAndReachNothing) {
  start();
  const auto uuid = report(0);  // the store exists and has been used once
  ASSERT_TRUE(uuid);
  ASSERT_TRUE(Reporting::flush(kDeadline));
  ASSERT_EQ(arrivedUUIDs(), std::vector<std::string>{*uuid});
  ASSERT_TRUE(Reporting::setOptedOut(true));
  const auto before = footprint(storeDirectory());
  const int recordsBefore = recordsMade_.load();

  constexpr int kReports = 50;
  for (int i = 1; i <= kReports; ++i) EXPECT_FALSE(report(i)) << "report " << i;

  EXPECT_EQ(recordsMade_.load(), recordsBefore) << "no record is made";
  EXPECT_EQ(submitted().size(), 1u) << "nothing submitted after opting out";
  EXPECT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(collector_.requestCount(), 1u) << "nothing sent";
  EXPECT_EQ(footprint(storeDirectory()), before) << "nothing written";
}

TEST_F(ConsentTest, RestartKeepsTheChoiceAndOptedOutAtStartMakesNoStoreAtAll) {
  start();
  ASSERT_TRUE(Reporting::setOptedOut(true));
  restart();
  ASSERT_TRUE(Reporting::optedOut());
  std::error_code ec;
  fs::remove_all(storeDirectory(), ec);
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(report(i));
  EXPECT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(collector_.requestCount(), 0u);
  EXPECT_FALSE(fs::exists(storeDirectory())) << "no store is made while opted out";

  ASSERT_TRUE(Reporting::setOptedOut(false));
  restart();
  EXPECT_FALSE(Reporting::optedOut());
  const auto uuid = report(2);
  ASSERT_TRUE(uuid);
  ASSERT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(arrivedUUIDs(), std::vector<std::string>{*uuid});
}

TEST_F(ConsentTest, PurgeOnOptOutDropsWhatWasQueuedForGood) {
  start(/*withInid=*/false);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(report(i));
  ASSERT_TRUE(Reporting::setOptedOut(true, Reporting::PendingBeacons::Purge));

  // Nothing holds them back any more; and a restart finds none stored.
  allowDelivery();
  restart();
  ASSERT_TRUE(Reporting::setOptedOut(false));
  ASSERT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(collector_.requestCount(), 0u);

  // The way to the collector works: a beacon reported now arrives alone.
  const auto uuid = report(99);
  ASSERT_TRUE(uuid);
  ASSERT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(arrivedUUIDs(), std::vector<std::string>{*uuid});
}

TEST_F(ConsentTest, OptOutWithoutPurgeKeepsQueuedBeaconsUntilOptIn) {
  start(/*withInid=*/false);
  std::vector<std::string> queued;
  for (int i = 0; i < 3; ++i) queued.push_back(*report(i));
  ASSERT_TRUE(Reporting::setOptedOut(true));
  allowDelivery();
  restart();  // opted out: the kept beacons are not even loaded
  EXPECT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(collector_.requestCount(), 0u);

  ASSERT_TRUE(Reporting::setOptedOut(false));
  ASSERT_TRUE(Reporting::flush(kDeadline));
  auto arrived = arrivedUUIDs();
  std::sort(arrived.begin(), arrived.end());
  std::sort(queued.begin(), queued.end());
  EXPECT_EQ(arrived, queued);
}

TEST_F(ConsentTest, PurgeOnItsOwnDropsOnlyWhatWasWaiting) {
  start(/*withInid=*/false);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(report(i));
  EXPECT_EQ(Reporting::purgePendingBeacons(), 4u);
  EXPECT_FALSE(Reporting::optedOut());

  const auto uuid = report(10);
  ASSERT_TRUE(uuid);
  allowDelivery();
  ASSERT_TRUE(Reporting::flush(kDeadline));
  EXPECT_EQ(arrivedUUIDs(), std::vector<std::string>{*uuid});
}

TEST_F(ConsentTest, StartRefusesWhatItCannotUse) {
  // A file where the data directory should be.
  const fs::path blocked = root_ / "file";
  std::ofstream(blocked) << "x";
  struct Case {
    const char* what;
    std::string bundle;
    fs::path directory;
  };
  const Case cases[] = {
      {"no bundle identifier", "", root_ / "a"},
      {"data directory under a file", "com.korvel.tests", blocked / "data"},
  };
  for (const auto& c : cases) {
    Reporting::StartOptions options;
    options.bundleIdentifier = c.bundle;
    options.dataDirectory = c.directory;
    options.startUserSession = false;
    const auto result = Reporting::start(options);
    EXPECT_FALSE(result) << c.what;
    EXPECT_FALSE(result.error.empty()) << c.what;
    EXPECT_FALSE(Reporting::started()) << c.what;
  }
  start();
  Reporting::StartOptions again;
  again.bundleIdentifier = "com.korvel.tests";
  again.dataDirectory = root_ / "other";
  EXPECT_FALSE(Reporting::start(again)) << "a second start";
  EXPECT_EQ(Reporting::dataDirectory(), dataDirectory());
}

TEST_F(ConsentTest, OptingOutBeforeStartHoldsForThisRunOnlyAndShutdownEndsReporting) {
  EXPECT_FALSE(Reporting::setOptedOut(true)) << "cannot be recorded before start";
  EXPECT_FALSE(report(1));
  EXPECT_FALSE(Reporting::setOptedOut(false));
  start();
  EXPECT_FALSE(Reporting::optedOut());
  EXPECT_TRUE(report(2));
  ASSERT_TRUE(Reporting::shutdown(kDeadline));
  EXPECT_FALSE(report(3)) << "reported after shutdown";
  EXPECT_EQ(collector_.requestCount(), 1u);
}

}  // namespace
}  // namespace korvel
