#include <korvel/beacon/KVRUserSession.h>

#include <array>
#include <atomic>
#include <functional>
#include <utility>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReportingUtilities.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/platform/KVNTimer.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/beacon/KVRLibrarySyncStatus.h>
#include <korvel/foundation/internal/SharedSlot.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

constexpr const char* kSessionTimerKey = "kKVRUserSessionTimer";

struct SessionState {
  std::optional<std::string> sessionID;
  KVRParameters sessionParameters;
  // Between a start and the next end; entering the background ends only a
  // running session.
  bool running = false;
};

class SharedSession {
 public:
  std::shared_ptr<const SessionState> state() const { return state_.load(); }

  void edit(const std::function<void(SessionState&)>& change) KORVEL_EXCLUDES(writeMutex_) {
    MutexLock lock(writeMutex_);
    auto next = std::make_shared<SessionState>(*state_.load());
    change(*next);
    state_.store(std::move(next));
  }

  std::shared_ptr<KVRUserSessionDelegate> delegate() const { return delegate_.load(); }
  void setDelegate(std::shared_ptr<KVRUserSessionDelegate> d) { delegate_.store(std::move(d)); }

  KVNTimer timer;

  // Life-cycle observers while loaded.
  Mutex lifecycleMutex;
  platform::NotificationCenter* observedCenter KORVEL_GUARDED_BY(lifecycleMutex) = nullptr;
  platform::ObserverRegistration background KORVEL_GUARDED_BY(lifecycleMutex);
  platform::ObserverRegistration foreground KORVEL_GUARDED_BY(lifecycleMutex);

 private:
  // Serialises edits: each starts from the state the previous one published.
  Mutex writeMutex_;
  foundation::internal::SharedSlot<const SessionState> state_{std::make_shared<const SessionState>()};
  foundation::internal::SharedSlot<KVRUserSessionDelegate> delegate_;
};

SharedSession& shared() {
  static SharedSession* instance = new SharedSession;
  return *instance;
}

void setBool(KVRParameters& p, std::string_view key, bool value) {
  p.set(key, KVRValue(static_cast<int64_t>(value ? 1 : 0)));
}

}  // namespace

void KVRUserSession::load() {
  auto& s = shared();
  {
    MutexLock lock(s.lifecycleMutex);
    auto& center = platform::env().notificationCenter();
    if (s.observedCenter == &center) return;
    s.observedCenter = &center;
    s.background = platform::ObserverRegistration(
        center,
        center.addObserver(std::string(platform::ApplicationDidEnterBackgroundNotification),
                           [](const platform::Notification&) { applicationEnteredBackground(); }));
    s.foreground = platform::ObserverRegistration(
        center,
        center.addObserver(std::string(platform::ApplicationWillEnterForegroundNotification),
                           [](const platform::Notification&) {
                             applicationWillEnterForeground();
                           }));
  }
  startSession();
}

void KVRUserSession::unload() {
  auto& s = shared();
  MutexLock lock(s.lifecycleMutex);
  s.background.reset();
  s.foreground.reset();
  s.observedCenter = nullptr;
}

void KVRUserSession::startSession() {
  shared().edit([id = platform::env().makeUUIDString()](SessionState& state) {
    state.sessionID = id;
    state.running = true;
  });
  shared().timer.startTimerForKey(kSessionTimerKey);
}

void KVRUserSession::endSession() {
  auto& s = shared();
  const auto elapsed = s.timer.elapsedTimeForKey(kSessionTimerKey);
  reportUserSessionWithDuration(elapsed ? std::optional<KVRValue>(*elapsed) : std::nullopt);
  s.timer.endTimerForKey(kSessionTimerKey);
  s.edit([](SessionState& state) {
    state.sessionParameters.clear();
    state.running = false;
  });
}

void KVRUserSession::resetSession() {
  endSession();
  startSession();
}

void KVRUserSession::applicationWillEnterForeground() { startSession(); }
void KVRUserSession::applicationEnteredBackground() {
  // A second background without a foreground in between has no session to
  // end: reporting again would send the old identifier without a duration.
  bool running = false;
  shared().edit([&](SessionState& state) { running = std::exchange(state.running, false); });
  if (running) endSession();
}

std::optional<std::string> KVRUserSession::sessionID() { return shared().state()->sessionID; }

void KVRUserSession::setSessionID(std::optional<std::string> sessionID) {
  shared().edit([&](SessionState& state) { state.sessionID = std::move(sessionID); });
}

std::shared_ptr<KVRUserSessionDelegate> KVRUserSession::delegate() { return shared().delegate(); }

void KVRUserSession::setUserSessionDelegate(std::shared_ptr<KVRUserSessionDelegate> delegate) {
  shared().setDelegate(std::move(delegate));
}

void KVRUserSession::addAdditionalReportingParametersToCurrentSession(
    const KVRParameters& parameters) {
  shared().edit([&](SessionState& state) { state.sessionParameters.merge(parameters); });
}

KVRParameters KVRUserSession::sessionParameters() {
  return shared().state()->sessionParameters;
}

KVNTimer& KVRUserSession::sessionTimer() { return shared().timer; }

std::optional<std::string> KVRUserSession::stringFromWatchState(uint64_t watchState) {
  static constexpr std::array<std::string_view, 3> kWords = {
      "watch_no_app", "app_no_complication", "app_and_complication"};
  if (watchState < 1 || watchState > kWords.size()) return std::nullopt;
  return std::string(kWords[watchState - 1]);
}

std::optional<std::string> KVRUserSession::stringFromLibrarySyncSessionState(uint64_t state) {
  // States 3 to 8 are the settings sync statuses 1 to 6, worded as settings
  // words them.
  constexpr uint64_t kFirstStatusState = 3;
  constexpr uint64_t kLastStatusState = 8;
  constexpr uint64_t kStatusOffset = 2;
  switch (state) {
    case 1: return "original";
    case 2: return "e2ee";
    default: break;
  }
  if (state < kFirstStatusState || state > kLastStatusState) return std::nullopt;
  return KVRLibrarySyncStatusWord(
      KVRLibrarySyncStatusValue(static_cast<int64_t>(state - kStatusOffset)));
}

KVRParameters KVRUserSession::commonBeaconParametersForBeaconWithParameters(
    const KVRParameters& parameters) const {
  constexpr size_t kOwnEntries = 3;      // sessionid, osversion, buildnum
  constexpr size_t kGlobalEntries = 11;  // the global data's, the screen name among them
  const auto state = shared().state();
  const auto delegate = shared().delegate();
  const auto global = delegate ? delegate->globalReportingData() : nullptr;
  const auto config = KVNConfiguration::sharedInstance().snapshot();

  // Sized to what can come, and no larger: a report call's dictionaries
  // stay small enough for the allocator's per-thread cache.
  KVRParameters common;
  common.reserve((global ? kGlobalEntries : 0) + kOwnEntries +
                 config->beacons.beaconParameters.size() + state->sessionParameters.size());
  if (global) setBool(common, "aa", global->isLibrarySyncActive());
  common.set("sessionid", state->sessionID);
  common.set("osversion", config->deviceSystemVersion);
  common.set("buildnum", KVNConfiguration::deviceOSBuildNumber());
  if (global) {
    setBool(common, "amc", global->isAppleMusicConnected());
    setBool(common, "live_activities", global->areLiveActivitiesEnabled());
    common.set("osnoteon", global->notificationPermissionStatus());
    common.set("micon", global->microphonePermissionStatus());
    common.set("lcton", global->locationPermissionStatus());
    common.set("cameraon", global->cameraPermissionStatus());
    common.set("applemusicon", global->appleMusicPermissionStatus());
    common.set("ammember", global->appleMusicMemberStatus());
    common.set("devicelanguage", global->deviceLanguage());
  }
  common.merge(config->beacons.beaconParameters);
  // A screen name only when there is one to give: without it the step leaves
  // a server-provided "screenname" where it is.
  if (!parameters.contains(kKVRScreenName) && global) {
    if (const auto& screen = global->currentScreenName()) common.set(kKVRScreenName, *screen);
  }
  common.merge(state->sessionParameters);
  return common;
}

std::optional<std::string> KVRUserSession::currentScreenName() const {
  const auto delegate = shared().delegate();
  const auto global = delegate ? delegate->globalReportingData() : nullptr;
  if (!global) return std::nullopt;
  return global->currentScreenName();
}

KVRParameters KVRUserSession::sessionParametersWithDuration(
    const std::optional<KVRValue>& duration) {
  const auto delegate = shared().delegate();
  const auto sessionData = delegate ? delegate->userSessionData() : nullptr;
  const auto global = delegate ? delegate->globalReportingData() : nullptr;

  KVRParameters p;
  p.set("sessionid", sessionID());
  p.set(kKVRDuration, duration);
  if (sessionData) {
    p.set("tagcount", sessionData->tagCount());
    p.set("used_os_musicrecognition", sessionData->osMusicRecognitionUsageWithin31Days());
  }
  if (global) {
    p.set("osnoteon", global->notificationPermissionStatus());
    p.set("micon", global->microphonePermissionStatus());
    p.set("lcton", global->locationPermissionStatus());
    p.set("cameraon", global->cameraPermissionStatus());
    p.set("applemusicon", global->appleMusicPermissionStatus());
  }
  // Without session data the states read as 0 and the flags as false.
  const KVRUserSessionData none;
  const KVRUserSessionData& data = sessionData ? *sessionData : none;
  p.set("watchstate", stringFromWatchState(data.watchState()));
  p.set("icloudstatus", stringFromLibrarySyncSessionState(data.librarySyncSessionState()));
  setBool(p, "darkmode", data.isDarkModeActive());
  if (global && global->isAppleMusicConnected()) {
    p.set("autoaddon", data.isStreamingServiceAutoSyncEnabled() ? kKVROn : kKVROff);
  }
  return p;
}

void KVRUserSession::reportUserSessionWithDuration(const std::optional<KVRValue>& duration) {
  const auto delegate = shared().delegate();
  if (delegate && !delegate->shouldSendUserSessionBeacon()) return;
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserSession, sessionParametersWithDuration(duration));
}

void KVRStartupReporter::reportAppStartupTime(const KVRValue& value) {
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeStartup, KVRParameters{{"time", value}});
}

void KVRSessionReporter::reportAutoKorvelSessionWithDuration(const KVRValue& duration) {
  auto p = KVRReportingUtilities::defaultUserEventBeaconParametersOfType(kKVRAutoEndType);
  p.set(kKVRDuration, duration);
  const bool background =
      platform::env().applicationState() == platform::ApplicationState::Background;
  p.set("background", KVRValue(static_cast<int64_t>(background ? 1 : 0)));
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, p);
}

}  // namespace korvel
