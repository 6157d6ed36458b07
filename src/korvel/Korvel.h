// KorvelReporting for hosts: the one header to include, and the library's
// life cycle and consent switch.
//
//   #include <korvel/Korvel.h>
//
//   korvel::Reporting::StartOptions options;
//   options.bundleIdentifier = "com.example.app";
//   options.appVersion = "2.1";
//   options.configure = [](korvel::KVNConfiguration::Snapshot& c) {
//     c.inid = "INSTALLATION-ID";
//     c.beacons.beaconEndpoint = "https://beacons.example.com/b/{inid}/{appversion}/{devicemodel}";
//   };
//   if (auto started = korvel::Reporting::start(options); !started) { /* started.error */ }
//   korvel::KVRBeacon::sendBeaconOfType(korvel::KVRBeaconTypeUserEvent, {{"type", "share"}});
//   ...
//   korvel::Reporting::shutdown(std::chrono::seconds(2));  // before the host exits
//
// Life cycle. start() once, before the first report; report operations (the
// reporter classes, KVRBeacon) from any thread; flush(deadline) when the host
// wants what it reported delivered now (before a suspend, say), and
// shutdown(deadline) before it exits: it delivers what it can before the
// deadline, keeps the rest on disk for the next start and stops the
// library's threads. Beacons reported after shutdown are dropped. start()
// may be called again after shutdown().
//
// Reports before start(). A beacon reported before start() (with a beacon
// endpoint already configured) waits in memory: at most 1,000 do, each
// further one is dropped and counted. The first one logs a line naming
// Reporting::start(). When start() succeeds it hands them, in the order they
// were reported, to the executor it installs and logs how many (and how
// many were dropped over the bound); a user who opted out has them dropped
// there instead. shutdown() without start() drops them, with a line saying
// how many. Until start() no executor, folder, file or thread is made for
// them. A beacon reported before start() while no endpoint is configured
// yet is not sent nor kept (as any beacon without an endpoint); the first
// one logs a line. This holds on the default Env unless the host installed
// an executor factory of its own (platform::setDefaultBackgroundExecutorFactory)
// or an executor (KVRBeacon::setBackgroundSession) before reporting.
//
// Files. Everything the library keeps is in its data directory,
// StartOptions::dataDirectory, by default $XDG_DATA_HOME/korvel/<bundle
// identifier> (~/.local/share/korvel/<bundle identifier> without
// XDG_DATA_HOME):
//   beacons/   beacons not yet delivered (a journal; bounded by count and age)
//   consent    present while the user has opted out
// The developer tools (korvel_debug) keep their debug files under the
// documents directory ($XDG_DOCUMENTS_DIR, else ~/Documents) in DEBUG/, and
// the debug settings under $XDG_CONFIG_HOME/korvel/<bundle identifier>.
// Every file the library creates is readable by the user alone (0600) and
// every folder it creates is 0700, whatever the umask.
//
// Consent. setOptedOut(true) records the user's choice in the data directory
// (kept across launches); from then on report operations make no record,
// queue, write and send nothing, and return no UUID. Beacons reported before
// stay on disk, unsent, until the user opts in again, unless the host asks
// for them to be purged (PendingBeacons::Purge, or purgePendingBeacons()).
//
// Threads. start() and shutdown() are called by the host's main thread (or
// one thread at a time); the other operations from any thread. The library
// owns the executor and the threads it starts; the host owns nothing it gets
// from here.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <korvel/export.h>
#include <korvel/version.h>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/platform/Application.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRGlobalReportingData.h>
#include <korvel/beacon/KVRReportingUtilities.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/pageviews/BeaconReporter.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/pageviews/ReportingValue.h>
#include <korvel/reporters/KVRAccountsReporter.h>
#include <korvel/reporters/KVRArtistPageReporter.h>
#include <korvel/reporters/KVRAuthenticationReporter.h>
#include <korvel/reporters/KVREventsReporter.h>
#include <korvel/reporters/KVRHighlightsReporter.h>
#include <korvel/reporters/KVRIMessageReporter.h>
#include <korvel/reporters/KVRImpressionReporter.h>
#include <korvel/reporters/KVRLibraryReporter.h>
#include <korvel/reporters/KVRLibrarySyncReporter.h>
#include <korvel/reporters/KVRMetadataPageReporter.h>
#include <korvel/reporters/KVRNotificationReporter.h>
#include <korvel/reporters/KVRPlayerReporter.h>
#include <korvel/reporters/KVRPrivacyConsentReporter.h>
#include <korvel/reporters/KVRPromptReporter.h>
#include <korvel/reporters/KVRSearchReporter.h>
#include <korvel/reporters/KVRSocialReporter.h>
#include <korvel/reporters/KVRStreamingServiceReporter.h>
#include <korvel/reporters/KVRTagSyncReporter.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include <korvel/reporters/KVRTrackPageReporter.h>
#include <korvel/reporters/KVRUserEventReporter.h>
#include <korvel/reporters/KVRUserPreferenceReporter.h>
#include <korvel/reporters/KVRWebReporter.h>
#include <korvel/reporters/KVRWidgetReporter.h>

namespace korvel {

class KORVEL_EXPORT Reporting {
 public:
  Reporting() = delete;

  // What became of beacons, for StartOptions::deliveryObserver.
  struct DeliveryEvent {
    enum class Outcome { Delivered, WillRetry, Dropped };
    Outcome outcome = Outcome::Delivered;
    // The collector's answer ("HTTP 204", "refused with HTTP 404", "retries
    // used up, the last HTTP 500", a transport error) or the limit that
    // dropped it.
    std::string reason;
    // The beacon's uuid when it was sent; empty for the limits' drops, which
    // come summed (count).
    std::string beaconUUID;
    uint64_t count = 1;
  };

  struct StartOptions {
    // Required: the host's reverse-DNS name ("com.example.app"). It names
    // the data directory, the log subsystem and the delivery session.
    std::string bundleIdentifier;
    // Where the library keeps its files; empty: defaultDataDirectory().
    // Created (0700) when missing.
    std::filesystem::path dataDirectory;
    // The host's short version, the "{appversion}" of the endpoint; empty
    // leaves it as it is ("1.0" until set).
    std::string appVersion;
    // Edits the shared configuration before anything is sent: the beacon
    // endpoint template, the inid, the device model, server parameters. The
    // host may change it later through KVNConfiguration::sharedInstance().
    std::function<void(KVNConfiguration::Snapshot&)> configure;
    // Who delivers the beacons; null: the library's durable executor, which
    // keeps undelivered beacons in dataDirectory/beacons across launches.
    std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor;
    // Starts the user session and follows the application life-cycle
    // notifications (KVRUserSession::load).
    bool startUserSession = true;

    // Limits of the library's executor (ignored when the host gives its
    // own). Past maxStoredBeacons waiting beacons, or maxStoredBytes of them
    // as stored, the oldest are dropped; a beacon older than maxBeaconAge is
    // dropped unsent; each drop is counted in a log line. A value outside its
    // range makes start() fail, saying which.
    size_t maxStoredBeacons = 10'000;                                // 1 to 10,000,000
    uint64_t maxStoredBytes = uint64_t{64} << 20;                    // 64 KiB to 16 GiB
    std::chrono::seconds maxBeaconAge = std::chrono::hours(24 * 7);  // 1 minute to 366 days
    // Beacons sent at once at most, each on a keep-alive connection of its
    // own (or sharing one where the collector speaks HTTP/2), all driven by
    // one sending thread.
    int sendConcurrency = 4;  // 1 to 32

    // The host's log sink; null: the library's lines go to standard error
    // (KORVEL_LOG_LEVEL picks the level there). Lines below logLevel are not
    // passed on. Set first thing in start(), so that start's own lines reach
    // it, and removed when start fails or shutdown() returns. Called on the
    // thread that logs (any thread): it must not block for long nor call
    // into the library.
    platform::LogCallback logCallback;
    platform::LogLevel logLevel = platform::LogLevel::Default;

    // Told what became of each beacon the library's executor sent
    // (delivered, will be retried, dropped) and of those its limits dropped;
    // called on a delivery thread, without the library's locks: it must not
    // block for long. Not called for purged beacons, nor with the host's own
    // executor.
    std::function<void(const DeliveryEvent&)> deliveryObserver;
  };

  struct Result {
    bool ok = false;
    std::string error;  // why not, when !ok
    // False when started but beacons cannot be stored in the data directory
    // (the library's store could not be opened there: the folder is refused,
    // another process holds it, the disk is full, ...): they are delivered
    // from memory only, and lost if the process ends first.
    bool durable = true;
    // When started, what keeps beacons from being stored or sent ("; "
    // between several): not durable, no beacon endpoint, no inid. Each is
    // logged once too. Empty when all is well.
    std::string warning;
    explicit operator bool() const { return ok; }
  };

  // Starts the library: names the host, makes the data directory, reads the
  // user's consent, applies the configuration and starts delivery (a start
  // that finds beacons of an earlier run delivers them, unless the user has
  // opted out). Fails, changing nothing, without a bundle identifier, with a
  // limit outside its range, with a beacon endpoint that is not an http or
  // https URL with a host or names a placeholder other than {inid},
  // {appversion} and {devicemodel}, when the data directory cannot be made,
  // or when already started. Without an endpoint or an inid it starts, and
  // says so in the result's warning.
  static Result start(StartOptions options);
  static bool started();

  // $XDG_DATA_HOME/korvel/<bundle identifier>, or ~/.local/share/...; empty
  // when there is no home directory either.
  static std::filesystem::path defaultDataDirectory(const std::string& bundleIdentifier);
  // The data directory in use; nothing when not started.
  static std::optional<std::filesystem::path> dataDirectory();

  // What flush and shutdown answer: true when every beacon reported so far
  // was delivered, with the figures since the previous answer (or start):
  // how many were delivered, how many dropped (refused by the collector,
  // retries used up, over a limit, too old) and how many still wait. With
  // the host's own executor only ok is known (its flush's answer). Before
  // start, flush answers at once with the beacons waiting for start as
  // pending, and shutdown counts them as dropped.
  struct DeliveryResult {
    bool ok = false;  // nothing pending, nothing dropped
    uint64_t delivered = 0;
    uint64_t dropped = 0;
    uint64_t pending = 0;
    explicit operator bool() const { return ok; }
  };

  // Waits until every beacon reported so far has been delivered or given up
  // (and the store has recorded it), or the deadline passes. True at once
  // when nothing was ever sent. While the user is opted out it does not
  // wait: kept beacons stay pending.
  static DeliveryResult flush(std::chrono::milliseconds deadline);

  // flush(deadline), then stops delivery and the user session. Beacons not
  // delivered by then stay stored for the next start. A report call racing
  // it either hands its beacon over before the flush (and returns its UUID)
  // or returns nothing; reports made after it return nothing, send nothing
  // and start no thread. When it returns, none of the library's threads is
  // left (the host's own executor, if it gave one, is the host's). True when
  // everything was delivered; pending beacons are kept for the next start.
  static DeliveryResult shutdown(std::chrono::milliseconds deadline);

  enum class PendingBeacons {
    Keep,   // stored, unsent, until the user opts in again
    Purge,  // dropped from memory and disk: never sent
  };

  // Records the user's choice (persisted in the data directory; start()
  // reads it back). Opting out takes effect before this returns: from then
  // on no beacon is made, queued, written or sent, and report operations
  // return no UUID. Opting in lets the kept beacons go. False when it could
  // not be persisted (not started, or the file cannot be written); the
  // choice still holds for this run.
  static bool setOptedOut(bool optedOut, PendingBeacons pending = PendingBeacons::Keep);
  static bool optedOut();

  // Drops every beacon not yet delivered, in memory and on disk, whatever
  // the consent; returns how many. One already on the wire may still arrive,
  // but is never sent again.
  static size_t purgePendingBeacons();

  // The host's life cycle: call applicationDidEnterBackground() when the
  // application moves to the background and applicationWillEnterForeground()
  // when it is about to come back; setInBackground(b) calls the one that
  // matches b. The user session and page views follow them (they post
  // platform::ApplicationDidEnterBackgroundNotification and
  // ApplicationWillEnterForegroundNotification on the Env's notification
  // centre, which hosts no longer need to name). Any thread, started or not.
  static void applicationDidEnterBackground();
  static void applicationWillEnterForeground();
  static void setInBackground(bool inBackground);
};

}  // namespace korvel
