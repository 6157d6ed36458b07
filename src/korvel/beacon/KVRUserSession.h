// The user session: one foreground stretch of the application. It gives every
// session an identifier, times it, reports it as a "usersession" beacon when
// it ends, and supplies the common parameters merged into every beacon.
//
// The session state is process-wide and shared between the main thread (life
// cycle, host calls) and every thread that reports. It is published as an
// immutable snapshot: a beacon copies the current snapshot pointer; the rare writers
// (start, end, added parameters, delegate) copy, edit and publish under a
// short mutex.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <korvel/beacon/KVRGlobalReportingData.h>
#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNTimer;

// Values the host keeps for the session beacon.
class KORVEL_EXPORT KVRUserSessionData {
 public:
  bool isDarkModeActive() const { return darkModeActive_; }
  void setDarkModeActive(bool v) { darkModeActive_ = v; }

  bool isStreamingServiceAutoSyncEnabled() const { return autoSyncEnabled_; }
  void setStreamingServiceAutoSyncEnabled(bool v) { autoSyncEnabled_ = v; }

  const std::optional<KVRValue>& tagCount() const { return tagCount_; }
  void setTagCount(std::optional<KVRValue> v) { tagCount_ = std::move(v); }

  uint64_t watchState() const { return watchState_; }
  void setWatchState(uint64_t v) { watchState_ = v; }

  const std::optional<std::string>& osMusicRecognitionUsageWithin31Days() const {
    return osMusicRecognitionUsage_;
  }
  void setOsMusicRecognitionUsageWithin31Days(std::optional<std::string> v) {
    osMusicRecognitionUsage_ = std::move(v);
  }

  uint64_t librarySyncSessionState() const { return librarySyncSessionState_; }
  void setLibrarySyncSessionState(uint64_t v) { librarySyncSessionState_ = v; }

 private:
  bool darkModeActive_ = false;
  bool autoSyncEnabled_ = false;
  std::optional<KVRValue> tagCount_;
  uint64_t watchState_ = 0;
  std::optional<std::string> osMusicRecognitionUsage_;
  uint64_t librarySyncSessionState_ = 0;
};

// The host's object. It is asked from whatever thread builds a beacon, so it
// should hand out immutable snapshots (the shared pointers make that cheap).
class KORVEL_EXPORT KVRUserSessionDelegate {
 public:
  virtual ~KVRUserSessionDelegate() = default;
  // Read for every beacon's common parameters and for the session beacon.
  virtual std::shared_ptr<const KVRGlobalReportingData> globalReportingData() = 0;
  // Read for the session beacon only.
  virtual std::shared_ptr<const KVRUserSessionData> userSessionData() = 0;
  // False suppresses the session beacon.
  virtual bool shouldSendUserSessionBeacon() = 0;
};

class KORVEL_EXPORT KVRUserSession {
 public:
  // The factory makes one of these per beacon; it reads the shared state.
  KVRUserSession() = default;

  // The host's start call: registers for the application's did-enter-
  // background and will-enter-foreground notifications on the current Env's
  // notification centre and starts the first session. Idempotent.
  static void load();
  // Stops observing the life cycle (for hosts that tear the library down).
  static void unload();

  static void startSession();
  static void endSession();
  static void resetSession();
  // startSession().
  static void applicationWillEnterForeground();
  // endSession() when a session is running (started and not yet ended); a
  // repeated background is ignored.
  static void applicationEnteredBackground();

  static std::optional<std::string> sessionID();
  static void setSessionID(std::optional<std::string> sessionID);

  static std::shared_ptr<KVRUserSessionDelegate> delegate();
  static void setUserSessionDelegate(std::shared_ptr<KVRUserSessionDelegate> delegate);

  // Merges entries into the current session's parameters (later values win).
  static void addAdditionalReportingParametersToCurrentSession(const KVRParameters& parameters);
  static KVRParameters sessionParameters();

  // The session beacon's parameters for a duration.
  static KVRParameters sessionParametersWithDuration(const std::optional<KVRValue>& duration);
  // Sends the session beacon unless the delegate vetoes it.
  static void reportUserSessionWithDuration(const std::optional<KVRValue>& duration);

  // The session's stopwatch (key "kKVRUserSessionTimer").
  static KVNTimer& sessionTimer();

  // Words for the session beacon: watch state 1-3, library sync state 1-8.
  static std::optional<std::string> stringFromWatchState(uint64_t watchState);
  static std::optional<std::string> stringFromLibrarySyncSessionState(uint64_t state);

  // The common parameters for one beacon, given the beacon's own.
  KVRParameters commonBeaconParametersForBeaconWithParameters(
      const KVRParameters& parameters) const;
  // The delegate's current screen name.
  std::optional<std::string> currentScreenName() const;
};

// Sends the application's start-up time.
class KORVEL_EXPORT KVRStartupReporter {
 public:
  KVRStartupReporter() = delete;
  static void reportAppStartupTime(const KVRValue& value);
};

// Reports the end of an automatic-recognition session.
class KORVEL_EXPORT KVRSessionReporter {
 public:
  KVRSessionReporter() = delete;
  static void reportAutoKorvelSessionWithDuration(const KVRValue& duration);
};

}  // namespace korvel
