// The foundation library's configuration manager: downloads the
// application's configuration and applies it to KVNConfiguration.
//
// Where from: the text under "configurationURL" in the shared user defaults
// when it is a non-empty text, else the production configuration URL. Only
// http and https URLs are fetched; redirects are not followed.
//
// How: one background thread fetches (libcurl GET, bounded by
// requestTimeout()); requests that arrive while a fetch is queued share that
// fetch. The process-wide URLCache makes the request conditional (see
// URLCache.h): a "304 Not Modified" answer applies the cached body.
//
// After a failure the manager records the date under
// "kLastConfigurationErrorDate" in the shared user defaults and fetches
// nothing more until that date plus coolDownInterval() has passed; a
// reconfiguration asked for during the cool-down fails at once. A success
// removes the date.
//
// The configuration document (unknown keys are ignored; a key of the wrong
// type, or a document that is not a JSON object, fails the whole fetch and
// leaves the configuration untouched):
//
//   {
//     "inid": "A1B2...",                   text: the installation identifier
//     "configured": true,                  boolean; true when left out
//     "korvelFrameworksRaiseExceptions": false,   boolean, optional
//     "beacons": {                          object, optional; when present it
//                                           replaces the beacon settings
//       "beaconEndpoint": "https://...",   text or null: the URL template
//       "beaconParameters": {"k": "v"}     object of texts, numbers and
//                                           booleans; empty when left out
//     }
//   }
//
// Keys left out keep their current value, except as noted.
#pragma once

#include <korvel/export.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/network/KVNRetryHandler.h>

namespace korvel {

// Shared user defaults key of the date of the last configuration failure.
extern KORVEL_EXPORT const char* const kKVNLastConfigurationErrorDateKey;  // "kLastConfigurationErrorDate"
// Shared user defaults key of the configuration URL to fetch.
extern KORVEL_EXPORT const char* const kKVNConfigurationURLKey;  // "configurationURL"

class KORVEL_EXPORT KVNConfigurationManager {
 public:
  using Completion = std::function<void(bool success)>;

  static constexpr const char* kDefaultProductionConfigurationURL =
      "https://config.korvel.example/configuration/v1/configure";

  KVNConfigurationManager() = delete;

  // Fetches and applies the configuration now (unless cooling down after a
  // failure) and calls completion(success) on the fetching thread; any
  // thread. completion may be empty.
  static void forceReconfigureWithCompletion(Completion completion);

  // The URL a fetch would use now.
  static std::string configurationURL();

  // The production configuration URL (the built-in one unless set; an empty
  // optional restores it).
  static std::string productionConfigurationURL();
  static void setProductionConfigurationURL(std::optional<std::string> url);

  // How long after a failure nothing is fetched (60 seconds unless set).
  static double coolDownInterval();
  static void setCoolDownInterval(double seconds);
  // The longest a fetch may take (10 seconds unless set).
  static std::chrono::milliseconds requestTimeout();
  static void setRequestTimeout(std::chrono::milliseconds timeout);

  // Until when the manager is cooling down: the last error date plus the
  // cool-down interval; nothing when no failure is recorded.
  static std::optional<KVRDate> coolDownExpiryTime();

  // Parses a configuration document and applies it to configuration. On
  // failure returns false, leaves configuration untouched and, when error is
  // given, says why.
  static bool applyConfigurationDocument(std::string_view json, KVNConfiguration& configuration,
                                         std::string* error = nullptr);
};

// The manager's retry handler, registered with KVNRetryHandlerRegistry under
// "KVNConfigRetryHandler".
class KORVEL_EXPORT KVNConfigRetryHandler : public KVNRetryHandler {
 public:
  static constexpr const char* kRegisteredName = "KVNConfigRetryHandler";
  std::optional<KVRDate> coolDownExpiryTime() const override {
    return KVNConfigurationManager::coolDownExpiryTime();
  }
};

}  // namespace korvel
