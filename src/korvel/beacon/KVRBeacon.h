// The single door through which every report leaves the process: builds the
// beacon record, hands it to the background executor as one HTTP GET whose
// whole content is in the URL, and announces the submission.
//
// Any thread may send. The send functions never throw: a failure inside
// the library (out of memory, an executor factory answering null) is logged
// on the "Reporting" category and the call returns no uuid. The executor is
// shared by every sender and lives until replaced.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNNetworkBackgroundRequestExecutor;

class KORVEL_EXPORT KVRBeacon {
 public:
  KVRBeacon() = delete;

  // Builds and sends a beacon; the beacon's uuid, or nothing for an unknown
  // type. The uuid is returned also when beacons are off (empty endpoint) and
  // nothing was sent. While reporting is not allowed (see
  // setReportingAllowed) no record is made, nothing is sent and the result
  // is nothing. Nothing either when the beacon could not be built or queued;
  // an observer of the submission that throws is logged and does not change
  // the answer.
  static std::optional<std::string> sendBeaconOfType(KVRBeaconType type,
                                                     const KVRParameters& parameters) noexcept;
  static std::optional<std::string> sendBeaconOfType(KVRBeaconType type,
                                                     const KVRParameters& parameters,
                                                     std::optional<std::string> event) noexcept;

  // The record a send would make, without sending it; null for an unknown
  // type or when it could not be built.
  static KVRTaskPtr taskOfType(KVRBeaconType type, const KVRParameters& parameters,
                               std::optional<std::string> event) noexcept;

  // Queues a GET for the record on the background executor (nothing while
  // reporting is not allowed).
  static void sendBeacon(const KVRTaskPtr& task, KVRBeaconType type) noexcept;

  // The shared executor, made on first use by the Env for the session
  // identifier "<bundle identifier>.backgroundBeacons" (on the default Env
  // of a program that links korvel::Reporting, before start(), the one that
  // keeps beacons in memory until start(): see korvel/Korvel.h).
  static std::shared_ptr<KVNNetworkBackgroundRequestExecutor> backgroundSession();
  // The executor in use, without making one; null before the first use.
  static std::shared_ptr<KVNNetworkBackgroundRequestExecutor> existingBackgroundSession();
  // Installs the executor the library uses from now on (a host choosing its
  // delivery, or a test capturing requests); null goes back to making one on
  // first use.
  static void setBackgroundSession(std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor);
  // Drops the executor in use and makes none on first use until
  // setBackgroundSession is called again (Reporting::shutdown): a report
  // call then sends nothing and starts no thread.
  static void closeBackgroundSession();
  static bool backgroundSessionClosed();

  // Whether report operations make and send beacons (true until set
  // otherwise). The host's consent switch (Reporting::setOptedOut in
  // korvel/Korvel.h) and shutdown turn it off; it is not persisted here.
  // Checked on every report call with one atomic load; safe from any thread.
  // Turning it off waits for the report calls already past that check (on
  // other threads) to hand their beacon over: none is queued afterwards.
  static void setReportingAllowed(bool allowed);
  static bool reportingAllowed();

  // The beacon's URL as the configuration says now: the endpoint template
  // with "{inid}", "{appversion}" and "{devicemodel}" filled in, the event as
  // the last path component, and the query items clientcreationtimestamp,
  // clientbeaconuuid, the parameters in order, then the template's own.
  // Nothing when there is no endpoint or it is not an absolute URL.
  static std::optional<std::string> endpointURLString(const KVRReliableNetworkingTask& task,
                                                      KVRBeaconType type);

  // The restoration kind of beacon requests in durable executors.
  static constexpr const char* kRestorationKind = "KVRBeacon";
  // Makes durable executors able to restore stored beacon requests.
  static void registerRequestRestorer();
};

}  // namespace korvel
