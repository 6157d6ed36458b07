#include <korvel/beacon/KVRUserSession.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <limits>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/platform/KVNTimer.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

using Items = std::vector<std::pair<std::string, std::string>>;
using Names = std::vector<std::string>;
using platform::ApplicationDidEnterBackgroundNotification;
using platform::ApplicationWillEnterForegroundNotification;

constexpr uint64_t kSecond = 1'000'000'000;

Items described(const KVRParameters& p) {
  Items out;
  for (const auto& [key, value] : p) out.emplace_back(key, value.description());
  return out;
}

// The host's delegate: hands out immutable snapshots, so any thread may ask.
class FakeSessionDelegate : public KVRUserSessionDelegate {
 public:
  std::shared_ptr<const KVRGlobalReportingData> globalReportingData() override {
    std::lock_guard lock(mutex_);
    return global_;
  }
  std::shared_ptr<const KVRUserSessionData> userSessionData() override {
    std::lock_guard lock(mutex_);
    return sessionData_;
  }
  bool shouldSendUserSessionBeacon() override { return send_; }

  void setGlobal(std::optional<KVRGlobalReportingData> g) {
    std::lock_guard lock(mutex_);
    global_ = g ? std::make_shared<const KVRGlobalReportingData>(*g) : nullptr;
  }
  void setSessionData(std::optional<KVRUserSessionData> d) {
    std::lock_guard lock(mutex_);
    sessionData_ = d ? std::make_shared<const KVRUserSessionData>(*d) : nullptr;
  }
  void setSend(bool send) { send_ = send; }

 private:
  std::mutex mutex_;
  std::shared_ptr<const KVRGlobalReportingData> global_;
  std::shared_ptr<const KVRUserSessionData> sessionData_;
  std::atomic<bool> send_{true};
};

KVRGlobalReportingData fullGlobalData() {
  KVRGlobalReportingData g;
  g.setLibrarySyncActive(true);
  g.setAppleMusicConnected(true);
  g.setAreLiveActivitiesEnabled(false);
  g.setMicrophonePermissionStatus("granted");
  g.setLocationPermissionStatus("denied");
  g.setCameraPermissionStatus("undetermined");
  g.setNotificationPermissionStatus("authorized");
  g.setAppleMusicPermissionStatus("restricted");
  g.setAppleMusicMemberStatus("active");
  g.setDeviceLanguage("en-GB");
  g.setCurrentScreenName("home");
  return g;
}

KVRUserSessionData fullSessionData() {
  KVRUserSessionData d;
  d.setDarkModeActive(true);
  d.setStreamingServiceAutoSyncEnabled(true);
  d.setTagCount(KVRValue(12));
  d.setWatchState(2);
  d.setOsMusicRecognitionUsageWithin31Days("yes");
  d.setLibrarySyncSessionState(1);
  return d;
}

class KVRUserSessionTest : public testing::BeaconTest {
 protected:
  void SetUp() override {
    BeaconTest::SetUp();
    delegate_ = std::make_shared<FakeSessionDelegate>();
  }

  void useFullDelegate() {
    delegate_->setGlobal(fullGlobalData());
    delegate_->setSessionData(fullSessionData());
    KVRUserSession::setUserSessionDelegate(delegate_);
  }

  void post(std::string_view name) { env_.notificationCenter().post(name); }

  std::vector<testing::WireBeacon> sentWithEvent(const std::string& event) const {
    std::vector<testing::WireBeacon> out;
    for (auto& b : sent()) {
      if (b.event == event) out.push_back(b);
    }
    return out;
  }

  static KVRParameters common(const KVRParameters& beacon = {}) {
    return KVRUserSession().commonBeaconParametersForBeaconWithParameters(beacon);
  }

  std::shared_ptr<FakeSessionDelegate> delegate_;
};

TEST_F(KVRUserSessionTest, LifecycleNotificationsEndAndStartSessions) {
  env_.setMonotonicNanos(10 * kSecond);
  KVRUserSession::load();
  const auto first = KVRUserSession::sessionID();
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->size(), 36u);
  EXPECT_EQ(*first, [&] {
    std::string upper = *first;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return upper;
  }());
  EXPECT_EQ(executor_->count(), 0u);  // starting sends nothing

  env_.advanceMonotonic(2 * kSecond + kSecond / 2);
  post(ApplicationDidEnterBackgroundNotification);
  auto sessions = sentWithEvent("usersession");
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].value("sessionid"), first);
  EXPECT_EQ(sessions[0].value("duration"), "2.5");

  // In the background beacons keep the last session's identifier.
  EXPECT_EQ(KVRUserSession::sessionID(), first);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "bg"}});
  EXPECT_EQ(sentWithEvent("userevent").at(0).value("sessionid"), first);

  post(ApplicationWillEnterForegroundNotification);
  const auto second = KVRUserSession::sessionID();
  ASSERT_TRUE(second.has_value());
  EXPECT_NE(second, first);

  env_.advanceMonotonic(90 * kSecond + kSecond / 4);
  post(ApplicationDidEnterBackgroundNotification);
  sessions = sentWithEvent("usersession");
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(sessions[1].value("sessionid"), second);
  EXPECT_EQ(sessions[1].value("duration"), "90.25");
}

TEST_F(KVRUserSessionTest, OnlyARunningSessionEndsOnEnteringTheBackground) {
  KVRUserSession::load();
  const auto id = KVRUserSession::sessionID();
  env_.advanceMonotonic(2 * kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  // A second background without a foreground in between finds no session.
  env_.advanceMonotonic(kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  auto sessions = sentWithEvent("usersession");
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].value("sessionid"), id);
  EXPECT_EQ(sessions[0].value("duration"), "2");
  EXPECT_EQ(KVRUserSession::sessionID(), id);

  // The next foreground starts one again, and its background reports it.
  post(ApplicationWillEnterForegroundNotification);
  env_.advanceMonotonic(5 * kSecond);
  post(ApplicationDidEnterBackgroundNotification);
  sessions = sentWithEvent("usersession");
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_NE(sessions[1].value("sessionid"), id);
  EXPECT_EQ(sessions[1].value("duration"), "5");
}

TEST_F(KVRUserSessionTest, LoadTwiceObservesOnce) {
  KVRUserSession::load();
  const auto id = KVRUserSession::sessionID();
  KVRUserSession::load();
  EXPECT_EQ(KVRUserSession::sessionID(), id);

  post(ApplicationDidEnterBackgroundNotification);
  EXPECT_EQ(sentWithEvent("usersession").size(), 1u);
  post(ApplicationWillEnterForegroundNotification);
  const auto next = KVRUserSession::sessionID();
  EXPECT_NE(next, id);

  // Unloaded, the life cycle no longer reaches the session.
  KVRUserSession::unload();
  post(ApplicationDidEnterBackgroundNotification);
  post(ApplicationWillEnterForegroundNotification);
  EXPECT_EQ(sentWithEvent("usersession").size(), 1u);
  EXPECT_EQ(KVRUserSession::sessionID(), next);
}

TEST_F(KVRUserSessionTest, VetoSuppressesTheBeaconButTheSessionStillEnds) {
  useFullDelegate();
  delegate_->setSend(false);
  KVRUserSession::load();
  KVRUserSession::addAdditionalReportingParametersToCurrentSession({{"extra", "1"}});
  env_.advanceMonotonic(3 * kSecond);

  post(ApplicationDidEnterBackgroundNotification);
  EXPECT_EQ(executor_->count(), 0u);
  EXPECT_TRUE(KVRUserSession::sessionParameters().empty());
  EXPECT_EQ(KVRUserSession::sessionTimer().elapsedTimeForKey("kKVRUserSessionTimer"),
            std::nullopt);

  // Allowed again, the next session is reported.
  delegate_->setSend(true);
  post(ApplicationWillEnterForegroundNotification);
  post(ApplicationDidEnterBackgroundNotification);
  EXPECT_EQ(sentWithEvent("usersession").size(), 1u);
}

TEST_F(KVRUserSessionTest, ResetEndsThenStarts) {
  KVRUserSession::startSession();
  const auto before = KVRUserSession::sessionID();
  KVRUserSession::resetSession();
  EXPECT_NE(KVRUserSession::sessionID(), before);
  const auto sessions = sentWithEvent("usersession");
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].value("sessionid"), before);
  // The new session's timer runs from the reset.
  env_.advanceMonotonic(4 * kSecond);
  EXPECT_EQ(KVRUserSession::sessionTimer().elapsedTimeForKey("kKVRUserSessionTimer"), 4.0);
}

TEST_F(KVRUserSessionTest, CommonParametersInOrder) {
  KVNConfiguration::sharedInstance().setDeviceSystemVersion("17.1");
  KVNConfiguration::setDeviceOSBuildNumber("21B74");
  KVNConfiguration::sharedInstance().setBeaconParameters({{"srv", "1"}, {"micon", "server"}});
  KVRUserSession::setSessionID("SID");
  KVRUserSession::addAdditionalReportingParametersToCurrentSession({{"sp", "x"}});
  // Without a delegate, or with one that has no global data, only these.
  EXPECT_EQ(described(common()), (Items{{"sessionid", "SID"},
                                        {"osversion", "17.1"},
                                        {"buildnum", "21B74"},
                                        {"srv", "1"},
                                        {"micon", "server"},
                                        {"sp", "x"}}));
  EXPECT_EQ(KVRUserSession().currentScreenName(), std::nullopt);
  delegate_->setGlobal(std::nullopt);
  KVRUserSession::setUserSessionDelegate(delegate_);
  EXPECT_EQ(common().keys(), (Names{"sessionid", "osversion", "buildnum", "srv", "micon", "sp"}));

  useFullDelegate();
  const Items expected = {
      {"aa", "1"},
      {"sessionid", "SID"},
      {"osversion", "17.1"},
      {"buildnum", "21B74"},
      {"amc", "1"},
      {"live_activities", "0"},
      {"osnoteon", "authorized"},
      {"micon", "server"},  // server parameters overwrite in place
      {"lcton", "denied"},
      {"cameraon", "undetermined"},
      {"applemusicon", "restricted"},
      {"ammember", "active"},
      {"devicelanguage", "en-GB"},
      {"srv", "1"},
      {"screenname", "home"},
      {"sp", "x"},
  };
  EXPECT_EQ(described(common()), expected);

  // On the wire they follow the caller's own parameters.
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "share"}, {"value", 3}});
  Items wire = {{"type", "share"}, {"value", "3"}};
  wire.insert(wire.end(), expected.begin(), expected.end());
  EXPECT_EQ(onlySent().parameters(), wire);

  // Missing values leave their keys out.
  KVRUserSession::setUserSessionDelegate(nullptr);
  KVRUserSession::setSessionID(std::nullopt);
  KVNConfiguration::sharedInstance().setDeviceSystemVersion(std::nullopt);
  KVNConfiguration::setDeviceOSBuildNumber(std::nullopt);
  EXPECT_EQ(common().keys(), (Names{"srv", "micon", "sp"}));
}

TEST_F(KVRUserSessionTest, LaterStepsOverwriteEarlierOnes) {
  KVNConfiguration::sharedInstance().setDeviceSystemVersion("17.1");
  KVRUserSession::setSessionID("SID");
  useFullDelegate();
  KVNConfiguration::sharedInstance().setBeaconParameters(
      {{"sessionid", "server-sid"}, {"osversion", "server-os"}, {"aa", "server-aa"}});
  auto p = common();
  EXPECT_EQ(std::tuple(p.stringForKey("sessionid"), p.stringForKey("osversion"),
                       p.stringForKey("aa")),
            std::tuple("server-sid", "server-os", "server-aa"));
  EXPECT_EQ(p.keys().front(), "aa");  // still first: overwritten in place

  KVRUserSession::addAdditionalReportingParametersToCurrentSession(
      {{"osversion", "session-os"}, {"new", 1}});
  KVRUserSession::addAdditionalReportingParametersToCurrentSession({{"new", 2}});
  p = common();
  EXPECT_EQ(p.stringForKey("osversion"), "session-os");
  EXPECT_EQ(*p.find("new"), KVRValue(2));
}

TEST_F(KVRUserSessionTest, ScreenNamePrecedence) {
  enum class Host { Screen, NoScreen, NoDelegate };
  struct Case {
    Host host;  // Screen: the delegate's current screen is "home"
    std::optional<std::string> beacons;
    std::optional<std::string> servers;
    std::optional<std::string> sessions;
    std::optional<std::string> wire;
  };
  const std::vector<Case> cases = {
      {Host::Screen, std::nullopt, std::nullopt, std::nullopt, "home"},
      {Host::Screen, "mine", std::nullopt, std::nullopt, "mine"},
      // The delegate's screen replaces a server-provided one ...
      {Host::Screen, std::nullopt, "server", std::nullopt, "home"},
      // ... but a beacon with its own screen name skips that step, so the
      // server's value, being common, wins over the beacon's.
      {Host::Screen, "mine", "server", std::nullopt, "server"},
      // Session parameters win over everything.
      {Host::Screen, "mine", "server", "session", "session"},
      {Host::Screen, std::nullopt, std::nullopt, "session", "session"},
      // Without a screen name to give, the step leaves the server's alone.
      {Host::NoScreen, std::nullopt, "server", std::nullopt, "server"},
      {Host::NoDelegate, std::nullopt, "server", std::nullopt, "server"},
      {Host::NoScreen, "mine", std::nullopt, std::nullopt, "mine"},
      {Host::NoDelegate, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    auto global = fullGlobalData();
    if (c.host == Host::NoScreen) global.setCurrentScreenName(std::nullopt);
    delegate_->setGlobal(global);
    KVRUserSession::setUserSessionDelegate(c.host == Host::NoDelegate ? nullptr : delegate_);
    executor_->clear();
    KVRParameters server;
    server.set("screenname", c.servers);
    KVNConfiguration::sharedInstance().setBeaconParameters(server);
    if (!KVRUserSession::sessionParameters().empty()) KVRUserSession::endSession();
    KVRParameters session;
    session.set("screenname", c.sessions);
    KVRUserSession::addAdditionalReportingParametersToCurrentSession(session);
    executor_->clear();

    KVRParameters beacon{{"type", "t"}};
    beacon.set("screenname", c.beacons);
    KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, beacon);
    const auto sent = onlySent();
    EXPECT_EQ(sent.value("screenname"), c.wire)
        << c.beacons.value_or("-") << "/" << c.servers.value_or("-") << "/"
        << c.sessions.value_or("-");
    const auto params = sent.parameters();
    EXPECT_EQ(std::count_if(params.begin(), params.end(),
                            [](const auto& item) { return item.first == "screenname"; }),
              c.wire ? 1 : 0);
  }
  useFullDelegate();
  EXPECT_EQ(KVRUserSession().currentScreenName(), "home");
}

TEST_F(KVRUserSessionTest, SessionParametersLastUntilTheSessionEnds) {
  KVRUserSession::load();
  const auto id = KVRUserSession::sessionID();
  KVRUserSession::addAdditionalReportingParametersToCurrentSession(
      {{"sessionid", "OVERRIDE"}, {"extra", "1"}});
  KVRUserSession::addAdditionalReportingParametersToCurrentSession({{"extra", "2"}});

  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  post(ApplicationDidEnterBackgroundNotification);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});

  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 3u);
  // The session beacon still carries them; they are cleared after it.
  const auto carried = [](const testing::WireBeacon& b) {
    return std::tuple(b.event, b.value("sessionid"), b.value("extra"));
  };
  EXPECT_EQ(carried(beacons[0]), std::tuple("userevent", "OVERRIDE", "2"));
  EXPECT_EQ(carried(beacons[1]), std::tuple("usersession", "OVERRIDE", "2"));
  EXPECT_EQ(carried(beacons[2]), std::tuple("userevent", id, std::nullopt));
}

TEST_F(KVRUserSessionTest, SessionBeaconParametersInOrder) {
  KVRUserSession::setSessionID("SID");
  useFullDelegate();
  EXPECT_EQ(described(KVRUserSession::sessionParametersWithDuration(KVRValue(12.5))),
            (Items{{"sessionid", "SID"},
                   {"duration", "12.5"},
                   {"tagcount", "12"},
                   {"used_os_musicrecognition", "yes"},
                   {"osnoteon", "authorized"},
                   {"micon", "granted"},
                   {"lcton", "denied"},
                   {"cameraon", "undetermined"},
                   {"applemusicon", "restricted"},
                   {"watchstate", "app_no_complication"},
                   {"icloudstatus", "original"},
                   {"darkmode", "1"},
                   {"autoaddon", "on"}}));

  KVRUserSession::setUserSessionDelegate(nullptr);
  EXPECT_EQ(described(KVRUserSession::sessionParametersWithDuration(KVRValue(1))),
            (Items{{"sessionid", "SID"}, {"duration", "1"}, {"darkmode", "0"}}));
  EXPECT_EQ(described(KVRUserSession::sessionParametersWithDuration(std::nullopt)),
            (Items{{"sessionid", "SID"}, {"darkmode", "0"}}));
}

TEST_F(KVRUserSessionTest, WatchStateWords) {
  useFullDelegate();
  // The library sync states are worded with the library sync reporter's.
  const std::vector<std::pair<uint64_t, std::optional<std::string>>> cases = {
      {0, std::nullopt}, {1, "watch_no_app"}, {2, "app_no_complication"},
      {3, "app_and_complication"}, {4, std::nullopt},
      {std::numeric_limits<uint64_t>::max(), std::nullopt},
  };
  for (const auto& [state, word] : cases) {
    auto data = fullSessionData();
    data.setWatchState(state);
    delegate_->setSessionData(data);
    const auto p = KVRUserSession::sessionParametersWithDuration(KVRValue(1));
    EXPECT_EQ(p.stringForKey("watchstate"), word) << state;
  }
}

TEST_F(KVRUserSessionTest, AutoAddOnOnlyWhenConnected) {
  struct Case {
    bool connected;
    bool autoSync;
    std::optional<std::string> word;
  };
  const std::vector<Case> cases = {
      {true, true, "on"},
      {true, false, "off"},
      {false, true, std::nullopt},
      {false, false, std::nullopt},
  };
  KVRUserSession::setUserSessionDelegate(delegate_);
  for (const auto& c : cases) {
    auto global = fullGlobalData();
    global.setAppleMusicConnected(c.connected);
    delegate_->setGlobal(global);
    auto data = fullSessionData();
    data.setStreamingServiceAutoSyncEnabled(c.autoSync);
    delegate_->setSessionData(data);
    EXPECT_EQ(KVRUserSession::sessionParametersWithDuration(KVRValue(1)).stringForKey("autoaddon"),
              c.word)
        << c.connected << c.autoSync;
  }
  // Connected, but no session data: auto-sync reads as off.
  delegate_->setGlobal(fullGlobalData());
  delegate_->setSessionData(std::nullopt);
  EXPECT_EQ(KVRUserSession::sessionParametersWithDuration(KVRValue(1)).stringForKey("autoaddon"),
            "off");
}

TEST_F(KVRUserSessionTest, SessionBeaconOnTheWireCarriesEachKeyOnce) {
  useFullDelegate();
  KVRUserSession::startSession();
  env_.advanceMonotonic(5 * kSecond);
  KVRUserSession::endSession();
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.event, "usersession");
  std::set<std::string> seen;
  for (const auto& [key, value] : beacon.query) {
    EXPECT_TRUE(seen.insert(key).second) << key << " sent twice";
  }
  EXPECT_EQ(std::tuple(beacon.value("duration"), beacon.value("osnoteon"), beacon.value("aa"),
                       beacon.value("autoaddon")),
            std::tuple("5", "authorized", "1", "on"));
}

TEST_F(KVRUserSessionTest, StartupReporter) {
  KVRStartupReporter::reportAppStartupTime(KVRValue(1.75));
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.event, "startup");
  EXPECT_EQ(beacon.parameters(), (Items{{"time", "1.75"}}));
  EXPECT_TRUE(submitted().at(0)->isValid());
}

TEST_F(KVRUserSessionTest, AutoRecognitionSessionReporter) {
  struct Case {
    platform::ApplicationState state;
    const char* background;
  };
  const std::vector<Case> cases = {
      {platform::ApplicationState::Active, "0"},
      {platform::ApplicationState::Inactive, "0"},
      {platform::ApplicationState::Background, "1"},
  };
  for (const auto& c : cases) {
    executor_->clear();
    env_.setApplicationState(c.state);
    KVRSessionReporter::reportAutoKorvelSessionWithDuration(KVRValue(42.5));
    const auto beacon = onlySent();
    EXPECT_EQ(beacon.event, "userevent");
    EXPECT_EQ(beacon.parameters(),
              (Items{{"type", "autoend"}, {"duration", "42.5"}, {"background", c.background}}));
  }
}

// Reporters on several threads while the main thread runs the life cycle,
// swaps the delegate and adds session parameters. Run under ThreadSanitizer
// this is the check that the shared session state is published safely.
TEST_F(KVRUserSessionTest, ConcurrentReportsSeeAConsistentSession) {
  std::mutex idsMutex;
  std::set<std::string> validIDs;
  KVRUserSession::startSession();
  validIDs.insert(*KVRUserSession::sessionID());

  delegate_->setGlobal(fullGlobalData());
  delegate_->setSessionData(fullSessionData());

  constexpr int kReporters = 3;
  constexpr int kReportsEach = 200;
  constexpr int kSessions = 40;
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int r = 0; r < kReporters; ++r) {
    threads.emplace_back([&, r] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < kReportsEach; ++i) {
        KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "t"}, {"r", r}, {"i", i}});
      }
    });
  }
  threads.emplace_back([&] {
    while (!go) std::this_thread::yield();
    for (int i = 0; i < kSessions; ++i) {
      KVRUserSession::setUserSessionDelegate(i % 2 == 0 ? delegate_ : nullptr);
      KVRUserSession::addAdditionalReportingParametersToCurrentSession({{"iteration", i}});
      env_.advanceMonotonic(kSecond);
      KVRUserSession::endSession();
      KVRUserSession::startSession();
      std::lock_guard lock(idsMutex);
      validIDs.insert(*KVRUserSession::sessionID());
    }
  });
  go = true;
  for (auto& t : threads) t.join();

  const auto beacons = sent();
  size_t userEvents = 0;
  for (const auto& b : beacons) {
    if (b.event == "userevent") ++userEvents;
    const auto id = b.value("sessionid");
    ASSERT_TRUE(id.has_value()) << b.url;
    EXPECT_TRUE(validIDs.count(*id)) << *id;
  }
  EXPECT_EQ(userEvents, static_cast<size_t>(kReporters * kReportsEach));
  // Half the sessions ended with a delegate that lets them report, half
  // without one: every end sends its beacon.
  EXPECT_EQ(beacons.size() - userEvents, static_cast<size_t>(kSessions));
}

}  // namespace
}  // namespace korvel
