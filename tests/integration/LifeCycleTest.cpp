// Reporting::start and shutdown as a host sees them: what start says about
// the store it got, and a report call racing shutdown.
#include <gtest/gtest.h>

#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "collector/BeaconCollector.h"
#include <korvel/Korvel.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include "support/HostTest.h"
#include "support/TestEnv.h"
#include "support/LibraryThreads.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::libraryThreads;

class LifeCycleTest : public testing::HostTest {
 protected:
  LifeCycleTest() : HostTest("lifecycle", 0ms) {}

  Reporting::StartOptions options() const {
    Reporting::StartOptions o;
    o.bundleIdentifier = "com.korvel.tests.lifecycle";
    o.dataDirectory = root_ / "data";
    o.startUserSession = false;
    o.configure = [](KVNConfiguration::Snapshot& c) {
      // Refused at once: beacons wait in the store.
      c.beacons.beaconEndpoint = "http://127.0.0.1:9/b/{inid}/{appversion}/{devicemodel}";
    };
    return o;
  }

  size_t logLines(const std::string& text) {
    return env_.logs().messagesContaining(text);
  }

};

// What start makes of the data directory it is given: one that is not the
// user's alone is refused, one open to others made private, and a store
// that cannot be made leaves beacons in memory, with a warning.
TEST_F(LifeCycleTest, StartSaysWhatItMakesOfTheDataDirectory) {
  struct Case {
    const char* name;
    std::optional<fs::perms> mode;  // made first with this mode; nothing: not made
    bool beaconsFolderIsAFile;
    bool otherOwner;  // needs root to hand the folder to another user
    const char* error;  // empty: started, and the folder is 0700 afterwards
    bool durable;
  };
  const Case cases[] = {
      {"a usable data directory", std::nullopt, false, false, "", true},
      {"the beacons folder cannot be made", fs::perms::owner_all, true, false, "", false},
      {"private already", fs::perms::owner_all, false, false, "", true},
      {"open to everyone, but ours", fs::perms::all, false, false, "", true},
      {"open to the group, but ours", fs::perms::owner_all | fs::perms::group_all, false, false, "", true},
      {"made by another user", fs::perms::all, false, true, "owned by another user", false},
      {"another user's, private", fs::perms::owner_all, false, true, "owned by another user", false},
  };
  const fs::path data = root_ / "data";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.otherOwner && ::geteuid() != 0) continue;
    env_.logs().clear();
    std::error_code ec;
    fs::remove_all(data, ec);
    if (c.mode) {
      fs::create_directory(data);
      fs::permissions(data, *c.mode);
    }
    if (c.beaconsFolderIsAFile) std::ofstream(data / "beacons") << "not a folder";
    if (c.otherOwner) {
      ASSERT_EQ(::chown(data.c_str(), 65534, 65534), 0);
    }
    const auto started = Reporting::start(options());
    if (std::string(c.error).empty()) {
      ASSERT_TRUE(started) << started.error;
      EXPECT_EQ(fs::status(data).permissions() & fs::perms::mask, fs::perms::owner_all);
      EXPECT_EQ(started.durable, c.durable);
      EXPECT_EQ(started.warning.empty(), c.durable) << started.warning;
      EXPECT_EQ(logLines("started, but beacons cannot be stored"), c.durable ? 0u : 1u);
    } else {
      EXPECT_FALSE(started);
      EXPECT_NE(started.error.find(c.error), std::string::npos) << started.error;
      EXPECT_NE(started.error.find(data.string()), std::string::npos) << started.error;
      // Nothing was written into the other user's folder.
      EXPECT_TRUE(fs::is_empty(data));
    }
    Reporting::shutdown(0ms);
  }
}

TEST_F(LifeCycleTest, AReportRacingShutdownIsHandedOverBeforeItOrNotAtAll) {
  // One report call is held inside (its record is made, not yet handed
  // over) until shutdown has returned, or for a moment if shutdown waits
  // for it.
  std::mutex mutex;
  std::condition_variable changed;
  bool holding = false;
  bool shutdownBegun = false;
  bool shutdownReturned = false;
  std::thread::id reporterThread;
  platform::ObserverRegistration created(
      env_.notificationCenter(),
      env_.notificationCenter().addObserver(
          std::string(KVRReliableNetworkingTaskCreatedNotification),
          [&](const platform::Notification&) {
            std::unique_lock lock(mutex);
            if (std::this_thread::get_id() != reporterThread) return;
            holding = true;
            changed.notify_all();
            changed.wait(lock, [&] { return shutdownBegun; });
            changed.wait_for(lock, 200ms, [&] { return shutdownReturned; });
          }));

  const auto started = Reporting::start(options());
  ASSERT_TRUE(started) << started.error;
  ASSERT_TRUE(testing::libraryThreadsAppear());

  std::optional<std::string> uuid;
  bool returnedAfterShutdown = false;
  std::thread reporter([&] {
    {
      std::lock_guard lock(mutex);
      reporterThread = std::this_thread::get_id();
    }
    uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "share"}});
    std::lock_guard lock(mutex);
    returnedAfterShutdown = shutdownReturned;
  });
  {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, 5s, [&] { return holding; }));
    shutdownBegun = true;
    changed.notify_all();
  }
  Reporting::shutdown(100ms);
  const size_t threadsLeft = libraryThreads();
  {
    std::lock_guard lock(mutex);
    shutdownReturned = true;
    changed.notify_all();
  }
  reporter.join();

  EXPECT_EQ(threadsLeft, 0u);
  // It began before shutdown: it was handed over, and said so, before
  // shutdown returned; no executor was made for it afterwards.
  EXPECT_FALSE(returnedAfterShutdown);
  EXPECT_TRUE(uuid.has_value());
  EXPECT_EQ(KVRBeacon::existingBackgroundSession(), nullptr);
  EXPECT_EQ(libraryThreads(), 0u);

  // After shutdown: nothing, and still no executor.
  EXPECT_FALSE(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "late"}}));
  KVRBeacon::setReportingAllowed(true);  // even a host that turns reporting back on
  EXPECT_FALSE(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "late"}}));
  EXPECT_EQ(KVRBeacon::existingBackgroundSession(), nullptr);
  EXPECT_EQ(libraryThreads(), 0u);
}

// MARK: - Configuration

TEST_F(LifeCycleTest, StartChecksTheConfigurationAndSaysWhatIsWrong) {
  struct Case {
    const char* name;
    std::optional<std::string> endpoint;
    std::optional<std::string> inid;
    bool ok;
    const char* says;  // in the error, or the warning when ok
  };
  const Case cases[] = {
      {"not a URL", "not a url", "INID", false, "is not an http or https URL with a host"},
      {"another scheme", "ftp://beacons.test/b/{inid}", "INID", false, "not an http or https"},
      {"no host", "https:///b/{inid}", "INID", false, "not an http or https"},
      {"an unknown placeholder", "https://beacons.test/b/{inid}/{bundle}", "INID", false,
       "unknown placeholder {bundle}"},
      {"an unclosed placeholder", "https://beacons.test/b/{inid", "INID", false,
       "unknown placeholder {inid"},
      {"all is well", "HTTPS://beacons.test/b/{inid}/{appversion}/{devicemodel}?k=v", "INID",
       true, ""},
      {"no endpoint", std::nullopt, "INID", true, "no beacon endpoint"},
      {"no inid", "https://beacons.test/b/{inid}", std::nullopt, true, "no inid"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    env_.logs().clear();
    const auto before = *KVNConfiguration::sharedInstance().snapshot();
    auto o = options();
    o.configure = [&c](KVNConfiguration::Snapshot& s) {
      s.beacons.beaconEndpoint = c.endpoint;
      s.inid = c.inid;
    };
    const auto started = Reporting::start(o);
    EXPECT_EQ(bool(started), c.ok) << started.error;
    const std::string& said = c.ok ? started.warning : started.error;
    EXPECT_NE(said.find(c.says), std::string::npos) << said;
    if (c.ok) {
      EXPECT_EQ(started.warning.empty(), std::string(c.says).empty()) << started.warning;
      EXPECT_EQ(logLines("started, but"), std::string(c.says).empty() ? 0u : 1u);
      EXPECT_EQ(KVNConfiguration::sharedInstance().snapshot()->beacons.beaconEndpoint, c.endpoint);
    } else {
      // Nothing changed: not started, the configuration as it was.
      EXPECT_FALSE(Reporting::started());
      EXPECT_EQ(KVNConfiguration::sharedInstance().snapshot()->beacons.beaconEndpoint,
                before.beacons.beaconEndpoint);
      EXPECT_EQ(logLines(c.says), 1u);
    }
    Reporting::shutdown(0ms);
    KVNConfiguration::sharedInstance().replace(before);
  }
}

// MARK: - The host's log sink

TEST_F(LifeCycleTest, TheHostsLogSinkGetsTheLibrarysLinesFromItsLevelUpUntilShutdown) {
  std::mutex mutex;
  std::vector<std::string> lines;  // "category: message"
  auto o = options();
  o.logLevel = platform::LogLevel::Error;
  o.logCallback = [&](platform::LogLevel, std::string_view category, std::string_view message) {
    std::lock_guard lock(mutex);
    lines.push_back(std::string(category) + ": " + std::string(message));
  };
  auto taken = [&] {
    std::lock_guard lock(mutex);
    return std::exchange(lines, {});
  };
  const platform::Logger logger("com.korvel.tests", "Test");

  // A start that fails says why to the host's sink, then lets it go.
  auto bad = o;
  bad.configure = [](KVNConfiguration::Snapshot& c) { c.beacons.beaconEndpoint = "not a url"; };
  EXPECT_FALSE(Reporting::start(bad));
  const auto failed = taken();
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_NE(failed[0].find("cannot start: the beacon endpoint"), std::string::npos) << failed[0];
  EXPECT_EQ(logLines("cannot start"), 0u);
  logger.log(platform::LogLevel::Error, "after a failed start");
  EXPECT_TRUE(taken().empty());
  EXPECT_EQ(logLines("after a failed start"), 1u);

  ASSERT_TRUE(Reporting::start(o));
  logger.log(platform::LogLevel::Info, "below the level");
  logger.log(platform::LogLevel::Error, "at the level");
  EXPECT_EQ(taken(), std::vector<std::string>{"Test: at the level"});
  EXPECT_EQ(logLines("below the level") + logLines("at the level"), 0u);

  Reporting::shutdown(0ms);
  taken();
  logger.log(platform::LogLevel::Error, "after shutdown");
  EXPECT_TRUE(taken().empty());
  EXPECT_EQ(logLines("after shutdown"), 1u);
}

// MARK: - What flush and shutdown answer

TEST_F(LifeCycleTest, FlushAndShutdownTellDeliveredFromDroppedFromPendingAndTheObserverHearsEach) {
  tools::BeaconCollector collector;
  ASSERT_TRUE(collector.start());
  std::mutex mutex;
  std::vector<std::string> heard;
  auto o = options();
  const std::string endpoint = collector.baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
  o.configure = [&](KVNConfiguration::Snapshot& c) { c.beacons.beaconEndpoint = endpoint; };
  o.sendConcurrency = 1;  // in order
  o.deliveryObserver = [&](const Reporting::DeliveryEvent& e) {
    using Outcome = Reporting::DeliveryEvent::Outcome;
    std::lock_guard lock(mutex);
    heard.push_back(std::string(e.outcome == Outcome::Delivered   ? "delivered "
                                : e.outcome == Outcome::WillRetry ? "will retry "
                                                                  : "dropped ") +
                    e.beaconUUID + " " + e.reason);
  };
  ASSERT_TRUE(Reporting::start(o));
  std::vector<std::string> uuids;
  auto report = [&uuids](int n) {
    for (int i = 0; i < n; ++i) {
      auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "share"}});
      ASSERT_TRUE(uuid);
      uuids.push_back(*uuid);
    }
  };
  struct Expected {
    bool ok;
    uint64_t delivered, dropped, pending;
  };
  auto expect = [](const Reporting::DeliveryResult& r, Expected e) {
    EXPECT_EQ(bool(r), e.ok);
    EXPECT_EQ(r.delivered, e.delivered);
    EXPECT_EQ(r.dropped, e.dropped);
    EXPECT_EQ(r.pending, e.pending);
  };

  {
    SCOPED_TRACE("one of three refused with 404");
    collector.failNext(1, 404);
    report(3);
    expect(Reporting::flush(20s), {false, 2, 1, 0});
  }
  {
    SCOPED_TRACE("counted from the previous answer");
    report(2);
    expect(Reporting::flush(20s), {true, 2, 0, 0});
  }
  {
    SCOPED_TRACE("the collector failing: still pending");
    collector.failNext(100, 503);
    report(1);
    expect(Reporting::flush(300ms), {false, 0, 0, 1});
    expect(Reporting::shutdown(0ms), {false, 0, 0, 1});
  }
  collector.stop();
  // Each beacon with its uuid; the last one's tries follow.
  std::lock_guard lock(mutex);
  ASSERT_GE(heard.size(), 5u);
  EXPECT_EQ(std::vector<std::string>(heard.begin(), heard.begin() + 5),
            (std::vector<std::string>{"dropped " + uuids[0] + " refused with HTTP 404",
                                      "delivered " + uuids[1] + " HTTP 204",
                                      "delivered " + uuids[2] + " HTTP 204",
                                      "delivered " + uuids[3] + " HTTP 204",
                                      "delivered " + uuids[4] + " HTTP 204"}));
}

// MARK: - Limits

// A limit outside its range is a start error naming it; the others reach
// the library's executor.
TEST_F(LifeCycleTest, TheLimitsReachTheLibrarysExecutorAndThoseOutOfRangeAreAStartError) {
  struct Case {
    const char* name;
    std::function<void(Reporting::StartOptions&)> set;
    const char* error = nullptr;  // the field the error names; nullptr: started
    size_t requests = 0;
    uint64_t bytes = 0;
    std::chrono::seconds age{};
    int concurrency = 0;
  };
  const Case cases[] = {
      {"no beacon may wait", [](auto& o) { o.maxStoredBeacons = 0; }, "maxStoredBeacons"},
      {"too many beacons", [](auto& o) { o.maxStoredBeacons = 10'000'001; }, "maxStoredBeacons"},
      {"too few bytes", [](auto& o) { o.maxStoredBytes = 1024; }, "maxStoredBytes"},
      {"too many bytes", [](auto& o) { o.maxStoredBytes = uint64_t{17} << 30; }, "maxStoredBytes"},
      {"an age of seconds", [](auto& o) { o.maxBeaconAge = 30s; }, "maxBeaconAge"},
      {"an age of years", [](auto& o) { o.maxBeaconAge = std::chrono::hours(24 * 400); }, "maxBeaconAge"},
      {"no sender", [](auto& o) { o.sendConcurrency = 0; }, "sendConcurrency"},
      {"too many senders", [](auto& o) { o.sendConcurrency = 33; }, "sendConcurrency"},
      {"the defaults", [](auto&) {}, nullptr, 10'000, uint64_t{64} << 20, std::chrono::hours(24 * 7), 4},
      {"the host's",
       [](auto& o) {
         o.maxStoredBeacons = 500;
         o.maxStoredBytes = uint64_t{1} << 20;
         o.maxBeaconAge = std::chrono::hours(36);
         o.sendConcurrency = 2;
       },
       nullptr, 500, uint64_t{1} << 20, std::chrono::hours(36), 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto o = options();
    c.set(o);
    const auto started = Reporting::start(o);
    if (c.error != nullptr) {
      EXPECT_FALSE(started);
      EXPECT_NE(started.error.find(c.error), std::string::npos) << started.error;
      EXPECT_FALSE(Reporting::started());
      continue;
    }
    ASSERT_TRUE(started) << started.error;
    auto executor = std::dynamic_pointer_cast<network::internal::DurableRequestExecutor>(
        KVRBeacon::existingBackgroundSession());
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(executor->options().maxStoredRequests, c.requests);
    EXPECT_EQ(executor->options().maxStoredBytes, c.bytes);
    EXPECT_EQ(executor->options().maxAge, c.age);
    EXPECT_EQ(executor->options().concurrency, c.concurrency);
    Reporting::shutdown(0ms);
  }
}

// MARK: - Life cycle calls

TEST_F(LifeCycleTest, TheLifeCycleCallsPostTheApplicationNotifications) {
  std::vector<std::string> posted;
  std::vector<platform::ObserverRegistration> observers;
  for (auto name : {platform::ApplicationDidEnterBackgroundNotification,
                    platform::ApplicationWillEnterForegroundNotification}) {
    observers.emplace_back(env_.notificationCenter(),
                           env_.notificationCenter().addObserver(
                               std::string(name), [&posted](const platform::Notification& n) {
                                 posted.emplace_back(n.name);
                               }));
  }
  Reporting::applicationDidEnterBackground();
  Reporting::setInBackground(false);
  Reporting::setInBackground(true);
  Reporting::applicationWillEnterForeground();
  EXPECT_EQ(posted, (std::vector<std::string>{"ApplicationDidEnterBackgroundNotification",
                                               "ApplicationWillEnterForegroundNotification",
                                               "ApplicationDidEnterBackgroundNotification",
                                               "ApplicationWillEnterForegroundNotification"}));
}

}  // namespace
}  // namespace korvel
