// Reporting::start and shutdown as a host sees them: what start says about
// the store it got, and a report call racing shutdown.
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include <korvel/Korvel.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// The library's own threads ("korvel-send", "korvel-journal", ...) alive now.
size_t libraryThreads() {
  size_t count = 0;
  std::error_code ec;
  for (const auto& task : fs::directory_iterator("/proc/self/task", ec)) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name.starts_with("korvel-")) ++count;
  }
  return count;
}

class LifeCycleTest : public testing::BeaconTest {
 protected:
  void SetUp() override {
    BeaconTest::SetUp();
    char pattern[] = "/tmp/korvel-lifecycle-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
  }

  void TearDown() override {
    Reporting::shutdown(0ms);
    KVRBeacon::setReportingAllowed(true);
    std::error_code ec;
    fs::remove_all(root_, ec);
    BeaconTest::TearDown();
  }

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
    size_t n = 0;
    for (const auto& m : env_.logs().messages()) n += m.find(text) != std::string::npos;
    return n;
  }

  fs::path root_;
};

TEST_F(LifeCycleTest, StartSaysWhenBeaconsCanOnlyBeKeptInMemory) {
  struct Case {
    const char* name;
    bool beaconsFolderIsAFile;
    bool durable;
  };
  const Case cases[] = {
      {"a usable data directory", false, true},
      {"the beacons folder cannot be made", true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    env_.logs().clear();
    std::error_code ec;
    fs::remove_all(root_ / "data", ec);
    if (c.beaconsFolderIsAFile) {
      fs::create_directories(root_ / "data");
      std::ofstream(root_ / "data" / "beacons") << "not a folder";
    }
    const auto started = Reporting::start(options());
    ASSERT_TRUE(started) << started.error;
    EXPECT_EQ(started.durable, c.durable);
    EXPECT_EQ(started.warning.empty(), c.durable) << started.warning;
    EXPECT_EQ(logLines("started, but beacons cannot be stored"), c.durable ? 0u : 1u);
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
  ASSERT_GT(libraryThreads(), 0u);

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

}  // namespace
}  // namespace korvel
