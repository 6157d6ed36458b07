// Beacons a host reports before Reporting::start(): they wait in memory,
// bounded, and go to the executor start() installs, in the order they came;
// shutdown() without start drops them; none of it makes a folder or a thread.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include <korvel/Korvel.h>
#include "support/HostTest.h"
#include "support/TestEnv.h"
#include "support/LibraryThreads.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::libraryThreads;
using testing::CapturingExecutor;

constexpr const char* kWaitLine = "a beacon was reported before korvel::Reporting::start()";

// The test's Env, but executors are made as on a host's machine: by the
// default Env's factory.
class HostEnv : public platform::EnvWrapper {
 public:
  using EnvWrapper::EnvWrapper;
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& identifier) override {
    return platform::Env::Default().makeBackgroundExecutor(identifier);
  }
};

class ReportsBeforeStartTest : public testing::HostTest {
 protected:
  ReportsBeforeStartTest() : HostTest("beforestart", 0ms) {}

  void SetUp() override {
    HostTest::SetUp();
    if (HasFatalFailure()) return;
    hostScope_.emplace(host_);
    // As in a process that has not sent yet: no executor.
    KVRBeacon::setBackgroundSession(nullptr);
    env_.logs().clear();
  }

  void afterShutdown() override { hostScope_.reset(); }

  Reporting::StartOptions options() const {
    Reporting::StartOptions o;
    o.bundleIdentifier = "com.korvel.tests.beforestart";
    o.dataDirectory = root_ / "data";
    o.startUserSession = false;
    o.executor = delivered_;
    return o;
  }

  static std::optional<std::string> report(const std::string& thread, int n) {
    return KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent,
                                       {{"thread", thread}, {"n", std::to_string(n)}});
  }

  // The "n" of every beacon the started library was given, in order.
  std::vector<int> deliveredNumbers() const {
    std::vector<int> numbers;
    for (const auto& url : delivered_->urls()) {
      numbers.push_back(std::stoi(testing::decodeWireBeacon(url).value("n").value_or("-1")));
    }
    return numbers;
  }

  size_t logLines(const std::string& text) { return env_.logs().messagesContaining(text); }

  HostEnv host_{env_};
  std::optional<platform::ScopedEnv> hostScope_;
  std::shared_ptr<CapturingExecutor> delivered_ = std::make_shared<CapturingExecutor>();
};

std::vector<int> upTo(int count) {
  std::vector<int> numbers;
  for (int n = 0; n < count; ++n) numbers.push_back(n);
  return numbers;
}

// They wait, making no folder nor thread, and go to the executor at start
// in order.
TEST_F(ReportsBeforeStartTest, TheyWaitAndGoToTheExecutorAtStartInOrder) {
  const fs::path data = root_ / "xdg-data";
  std::vector<std::string> uuids;
  {
    testing::ScopedEnvironmentVariable folder(testing::kDataFolderVariable, data.string());
    for (int n = 0; n < 5; ++n) {
      auto uuid = report("main", n);
      ASSERT_TRUE(uuid);
      uuids.push_back(*uuid);
    }
    EXPECT_FALSE(fs::exists(data));
    EXPECT_EQ(libraryThreads(), 0u);
  }
  EXPECT_EQ(logLines(kWaitLine), 1u);
  EXPECT_EQ(logLines("korvel::Reporting::start()"), 1u);
  const auto waiting = Reporting::flush(1s);
  EXPECT_FALSE(waiting);
  EXPECT_EQ(waiting.pending, 5u);
  EXPECT_EQ(delivered_->count(), 0u);

  const auto started = Reporting::start(options());
  ASSERT_TRUE(started) << started.error;
  EXPECT_EQ(deliveredNumbers(), upTo(5));
  std::vector<std::string> deliveredUUIDs;
  for (const auto& url : delivered_->urls()) {
    deliveredUUIDs.push_back(testing::decodeWireBeacon(url).value("clientbeaconuuid").value_or(""));
  }
  EXPECT_EQ(deliveredUUIDs, uuids);
  EXPECT_EQ(logLines("5 beacons reported before start() handed over for delivery"), 1u);
  EXPECT_EQ(logLines("dropped"), 0u);

  // After start a report goes straight on; nothing waits any more.
  ASSERT_TRUE(report("main", 5));
  EXPECT_EQ(deliveredNumbers(), upTo(6));
  EXPECT_EQ(logLines(kWaitLine), 1u);
}

TEST_F(ReportsBeforeStartTest, PastTheBoundEachFurtherOneIsDroppedAndCounted) {
  for (int n = 0; n < 1005; ++n) ASSERT_TRUE(report("main", n));
  EXPECT_EQ(logLines(kWaitLine), 1u);
  EXPECT_EQ(logLines("1000 beacons reported before korvel::Reporting::start() wait already"), 1u);

  ASSERT_TRUE(Reporting::start(options()));
  EXPECT_EQ(deliveredNumbers(), upTo(1000));
  EXPECT_EQ(logLines("1000 beacons reported before start() handed over for delivery; 5 more "
                     "were dropped over the bound of 1000"),
            1u);
}

TEST_F(ReportsBeforeStartTest, ShutdownWithoutStartDropsThemSayingHowMany) {
  for (int n = 0; n < 3; ++n) ASSERT_TRUE(report("main", n));
  const auto result = Reporting::shutdown(1s);
  EXPECT_FALSE(result);
  EXPECT_EQ(result.dropped, 3u);
  EXPECT_EQ(result.pending, 0u);
  EXPECT_EQ(logLines("shutdown() before start(): 3 beacons reported before start() dropped"), 1u);

  ASSERT_TRUE(Reporting::start(options()));
  EXPECT_EQ(delivered_->count(), 0u);
  EXPECT_EQ(logLines("handed over"), 0u);
}

TEST_F(ReportsBeforeStartTest, AUserWhoOptedOutHasThemDroppedAtStart) {
  fs::create_directories(root_ / "data");
  fs::permissions(root_ / "data", fs::perms::owner_all);
  std::ofstream(root_ / "data" / "consent") << "opted-out\n";
  for (int n = 0; n < 2; ++n) ASSERT_TRUE(report("main", n));

  ASSERT_TRUE(Reporting::start(options()));
  EXPECT_TRUE(Reporting::optedOut());
  EXPECT_EQ(delivered_->count(), 0u);
  EXPECT_EQ(logLines("the user has opted out: 2 beacons reported before start() dropped"), 1u);
  ASSERT_TRUE(Reporting::setOptedOut(false));
  EXPECT_EQ(delivered_->count(), 0u);
}

TEST_F(ReportsBeforeStartTest, WithoutAnEndpointYetTheyAreNotKeptAndOneLineSaysSo) {
  KVNConfiguration::sharedInstance().update(
      [](KVNConfiguration::Snapshot& c) { c.beacons.beaconEndpoint = std::nullopt; });
  for (int n = 0; n < 2; ++n) EXPECT_TRUE(report("main", n));
  EXPECT_EQ(logLines("a beacon was reported before korvel::Reporting::start() with no beacon "
                     "endpoint configured: it is not sent, nor kept"),
            1u);

  auto o = options();
  o.configure = [](KVNConfiguration::Snapshot& c) { c.beacons.beaconEndpoint = kEndpoint; };
  ASSERT_TRUE(Reporting::start(o));
  EXPECT_EQ(delivered_->count(), 0u);
  // Once started, the start's own warning is the one that speaks of it.
  KVNConfiguration::sharedInstance().update(
      [](KVNConfiguration::Snapshot& c) { c.beacons.beaconEndpoint = std::nullopt; });
  EXPECT_TRUE(report("main", 2));
  EXPECT_EQ(logLines("no beacon endpoint configured"), 1u);
}

TEST_F(ReportsBeforeStartTest, ReportsRacingStartAreNeitherLostNorDuplicatedAndKeepTheirOrder) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 200;  // all of them fit under the bound
  std::atomic<bool> go{false};
  std::atomic<int> reportersDone{0};
  std::vector<std::vector<std::string>> uuids(kThreads);
  std::vector<std::thread> reporters;
  for (int t = 0; t < kThreads; ++t) {
    reporters.emplace_back([&, t] {
      while (!go) std::this_thread::yield();
      for (int n = 0; n < kPerThread; ++n) {
        if (auto uuid = report(std::to_string(t), n)) uuids[static_cast<size_t>(t)].push_back(*uuid);
      }
      ++reportersDone;
    });
  }
  go = true;
  // Start once the reporters are under way, while they go on.
  while (delivered_->count() == 0 && reportersDone == 0 && !Reporting::flush(0ms).pending) {
    std::this_thread::yield();
  }
  const auto started = Reporting::start(options());
  for (auto& reporter : reporters) reporter.join();
  ASSERT_TRUE(started) << started.error;

  std::set<std::string> reported;
  for (const auto& mine : uuids) {
    EXPECT_EQ(mine.size(), static_cast<size_t>(kPerThread));
    reported.insert(mine.begin(), mine.end());
  }
  std::multiset<std::string> arrived;
  std::map<std::string, std::vector<int>> numbersByThread;
  for (const auto& url : delivered_->urls()) {
    const auto wire = testing::decodeWireBeacon(url);
    arrived.insert(wire.value("clientbeaconuuid").value_or(""));
    numbersByThread[wire.value("thread").value_or("")].push_back(
        std::stoi(wire.value("n").value_or("-1")));
  }
  EXPECT_EQ(arrived.size(), static_cast<size_t>(kThreads * kPerThread));
  EXPECT_EQ(std::set<std::string>(arrived.begin(), arrived.end()), reported);
  for (int t = 0; t < kThreads; ++t) {
    SCOPED_TRACE("thread " + std::to_string(t));
    EXPECT_EQ(numbersByThread[std::to_string(t)], upTo(kPerThread));
  }
}

}  // namespace
}  // namespace korvel
