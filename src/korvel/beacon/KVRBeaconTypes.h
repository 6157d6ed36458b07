// The twenty beacon types and the record class each one makes. A class fixes
// its event (the wire name), whether it is valid, and, for some, whether it
// is reliable; the dispatcher sends a beacon whatever these say.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>

namespace korvel {

// Signed; the host may pass any value, and values outside 1...20 make no
// beacon. Only the event name goes on the wire, never the number.
enum KVRBeaconType : int {
  KVRBeaconTypeStartup = 1,
  KVRBeaconTypeResume = 2,
  KVRBeaconTypeTagged = 3,
  KVRBeaconTypeError = 4,
  KVRBeaconTypeDeepLink = 5,
  KVRBeaconTypeTagHistory = 6,
  KVRBeaconTypeUserEvent = 7,
  KVRBeaconTypePageView = 8,
  KVRBeaconTypeWebInitiated = 9,
  KVRBeaconTypeUserSession = 10,
  KVRBeaconTypeAutoTag = 11,
  KVRBeaconTypeImpression = 12,
  KVRBeaconTypeTagSync = 13,
  KVRBeaconTypeWatchTagged = 14,
  KVRBeaconTypeTaggedVariant = 15,
  KVRBeaconTypeTestTagged = 16,
  KVRBeaconTypeWidget = 17,
  KVRBeaconTypeExceptions = 18,
  KVRBeaconTypeAuthentication = 19,
  KVRBeaconTypePerformance = 20,
};

// Gives a record class its copy() and className() from Derived::kClassName.
template <class Derived, class Base = KVRReliableNetworkingTask>
class KVRBeaconClass : public Base {
 public:
  KVRTaskPtr copy() const override {
    auto target = std::make_shared<Derived>();
    this->copyInto(*target);
    return target;
  }
  std::string_view className() const override { return Derived::kClassName; }

 protected:
  bool parametersHold(std::string_view key) const { return this->parameters().contains(key); }
};

class KORVEL_EXPORT KVRStartupBeacon final : public KVRBeaconClass<KVRStartupBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRStartupBeacon";
  std::optional<std::string> event() const override { return "startup"; }
  bool isValid() const override { return parametersHold(kKVRTagDuration); }
};

class KORVEL_EXPORT KVRResumeBeacon final : public KVRBeaconClass<KVRResumeBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRResumeBeacon";
  std::optional<std::string> event() const override { return "resume"; }
  bool isValid() const override { return parametersHold(kKVRTagDuration); }
};

// Tagged beacons of types 3, 14, 15 and 16; the type is kept so that type 16
// can name itself "testtagged".
class KORVEL_EXPORT KVRTaggedBeacon : public KVRBeaconClass<KVRTaggedBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRTaggedBeacon";

  // Runs the designated initialiser (which announces the record) and then
  // stores the type, in that order.
  template <class T = KVRTaggedBeacon>
  static std::shared_ptr<T> make(const KVRParameters& parameters,
                                 const KVRUserSession* userSession, int beaconType) {
    auto task = KVRReliableNetworkingTask::make<T>(parameters, userSession);
    task->setBeaconType(beaconType);
    return task;
  }

  int beaconType() const { return beaconType_; }
  void setBeaconType(int type) { beaconType_ = type; }

  std::optional<std::string> event() const override {
    return std::string(beaconType_ == KVRBeaconTypeTestTagged ? kKVRTestTagged : kKVRTagged);
  }
  bool isValid() const override { return true; }

 private:
  int beaconType_ = 0;
};

class KORVEL_EXPORT KVRAutoTagBeacon final : public KVRBeaconClass<KVRAutoTagBeacon, KVRTaggedBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRAutoTagBeacon";
  std::optional<std::string> event() const override { return "autotag"; }
  bool isValid() const override { return parametersHold(kKVRTrackID); }
};

class KORVEL_EXPORT KVRErrorBeacon final : public KVRBeaconClass<KVRErrorBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRErrorBeacon";
  std::optional<std::string> event() const override { return "error"; }
  bool isValid() const override { return true; }
};

class KORVEL_EXPORT KVRDeepLinkBeacon final : public KVRBeaconClass<KVRDeepLinkBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRDeepLinkBeacon";
  std::optional<std::string> event() const override { return "deeplink"; }
  bool isValid() const override { return true; }
};

// Valid whenever it has a parameter dictionary, which every record has.
class KORVEL_EXPORT KVRTagHistoryBeacon final : public KVRBeaconClass<KVRTagHistoryBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRTagHistoryBeacon";
  std::optional<std::string> event() const override { return "tagHistory"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRUserEventBeacon final : public KVRBeaconClass<KVRUserEventBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRUserEventBeacon";
  std::optional<std::string> event() const override { return "userevent"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRPageViewBeacon final : public KVRBeaconClass<KVRPageViewBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRPageViewBeacon";
  std::optional<std::string> event() const override { return "pageview"; }
  bool isValid() const override { return parametersHold(kKVRScreenName); }
};

// Its event is whatever the web page asked for (set after creation, so its
// creation notification carries no "type").
class KORVEL_EXPORT KVRWebInitiatedBeacon final : public KVRBeaconClass<KVRWebInitiatedBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRWebInitiatedBeacon";
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRUserSessionBeacon final : public KVRBeaconClass<KVRUserSessionBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRUserSessionBeacon";
  std::optional<std::string> event() const override { return "usersession"; }
  bool isValid() const override { return true; }
};

class KORVEL_EXPORT KVRImpressionBeacon final : public KVRBeaconClass<KVRImpressionBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRImpressionBeacon";
  std::optional<std::string> event() const override { return "impression"; }
  bool isValid() const override { return parametersHold(kKVRScreenName); }
};

class KORVEL_EXPORT KVRTagSyncBeacon final : public KVRBeaconClass<KVRTagSyncBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRTagSyncBeacon";
  std::optional<std::string> event() const override { return "tagsync"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRWidgetBeacon final : public KVRBeaconClass<KVRWidgetBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRWidgetBeacon";
  std::optional<std::string> event() const override { return "widget"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRExceptionsBeacon final : public KVRBeaconClass<KVRExceptionsBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRExceptionsBeacon";
  std::optional<std::string> event() const override { return "exceptions"; }
  bool isValid() const override { return true; }
};

class KORVEL_EXPORT KVRAuthenticationBeacon final : public KVRBeaconClass<KVRAuthenticationBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRAuthenticationBeacon";
  std::optional<std::string> event() const override { return "auth"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

class KORVEL_EXPORT KVRPerformanceBeacon final : public KVRBeaconClass<KVRPerformanceBeacon> {
 public:
  static constexpr std::string_view kClassName = "KVRPerformanceBeacon";
  std::optional<std::string> event() const override { return "performance"; }
  bool isValid() const override { return true; }
  std::optional<bool> isReliable() const override { return true; }
};

// One beacon type as the factory makes it: its record class and the event
// it sends (none for a web-initiated beacon, whose event the page chooses).
struct KVRBeaconTypeDescription {
  KVRBeaconType type;
  std::string_view className;
  std::optional<std::string> event;
};

class KORVEL_EXPORT KVRBeaconFactory {
 public:
  KVRBeaconFactory() = delete;

  // Every type 1...20 in order, read from the record classes themselves
  // (tools that check beacons use it to know which events exist).
  static std::vector<KVRBeaconTypeDescription> beaconTypes();

  // A record of the type's class, or null for a type outside 1...20.
  static KVRTaskPtr beaconForType(KVRBeaconType type, const KVRParameters& parameters) noexcept;
  // The same, then the event set (it shows only on web-initiated beacons;
  // the other classes' constant event hides it).
  static KVRTaskPtr beaconForType(KVRBeaconType type, const KVRParameters& parameters,
                                  std::optional<std::string> event) noexcept;

  // A record of the class stored in an archive, made with the plain
  // initialiser; null for an unknown class name.
  static KVRTaskPtr emptyRecordOfClass(std::string_view className);
};

}  // namespace korvel
