// One beacon: the record of an analytics event, built by the factory, sent by
// the dispatcher and shown in the debug beacon log.
//
// A record is complete once made. The factory may set the event right after
// (web-initiated beacons) and the dispatcher sets it once more before sending;
// from then on nothing changes it, so the executor thread and the debug log
// may read it without locks.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNConfiguration;
class KVRUserSession;

class KeyedArchiver;
class KeyedUnarchiver;

class KVRReliableNetworkingTask;
using KVRTaskPtr = std::shared_ptr<KVRReliableNetworkingTask>;

class KORVEL_EXPORT KVRReliableNetworkingTask {
 public:
  // The plain initialiser: empty fields, no merge, no notification.
  KVRReliableNetworkingTask() = default;
  virtual ~KVRReliableNetworkingTask() = default;

  // Makes a record of class T with the designated initialiser and announces
  // it with the creation notification, whose object is the record's
  // dictionary representation (a KVRParameters).
  template <class T = KVRReliableNetworkingTask>
  static std::shared_ptr<T> make(const KVRParameters& parameters,
                                 const KVRUserSession* userSession) {
    auto task = std::make_shared<T>();
    task->initWithParameters(parameters, userSession);
    task->postCreationNotification();
    return task;
  }

  // Decodes an archive made by archivedData(): the record is made afresh
  // (so the creation notification is posted once more) and then takes the
  // archived parameters, time, uuid, inid and app version. The concrete class
  // is the archived one. Null when the bytes are not an archive or name no
  // known record class.
  static KVRTaskPtr unarchive(std::string_view data);
  // The same from an archive already opened (read once by a caller that
  // also reads keys of its own from it).
  static KVRTaskPtr unarchive(const KeyedUnarchiver& coder);
  // The archive key of the uuid.
  static constexpr std::string_view kArchiveUUIDKey = "uuid";
  // The keyed archive of this record, with its class name.
  std::string archivedData() const;

  // The archive form: "parameters", "creationTimestamp", "uuid", "inid" (the
  // resolved inid) and "appVersion".
  void encodeWithCoder(KeyedArchiver& coder) const;
  // Makes this record with the designated initialiser (no session), posts the
  // creation notification, then takes each archived field the coder holds; a
  // field that is missing or of another kind keeps the initialiser's value
  // (parameters empty, a fresh uuid, the current time, inid and app version).
  void initWithCoder(const KeyedUnarchiver& coder);

  // A new record of the same class with parameters, event, uuid, creation
  // time and the resolved inid; app version, debug inid and the caller's and
  // common parameters are not carried over.
  virtual KVRTaskPtr copy() const;

  // The class name, as stored in archives.
  virtual std::string_view className() const { return "KVRReliableNetworkingTask"; }

  // Whether the record carries what its kind requires.
  virtual bool isValid() const { return false; }
  // Whether the kind is reliable; nothing when the kind does not say.
  virtual std::optional<bool> isReliable() const { return std::nullopt; }

  // The wire name of the event; also the last path component of its URL.
  virtual std::optional<std::string> event() const { return event_; }
  virtual void setEvent(std::optional<std::string> event) { event_ = std::move(event); }

  const KVRParameters& parameters() const { return parameters_; }
  void setParameters(KVRParameters parameters);

  const std::string& uuid() const { return uuid_; }
  void setUuid(std::string uuid) { uuid_ = std::move(uuid); }

  // The captured inid; while it is the unconfigured marker, the
  // configuration's current inid (a record made before configuration
  // finished picks the inid up once there is one).
  std::optional<std::string> inid() const;
  void setInid(std::optional<std::string> inid) { inid_ = std::move(inid); }
  // The captured inid, unresolved.
  const std::optional<std::string>& debugInid() const { return inid_; }
  void setDebugInid(std::optional<std::string> inid) { inid_ = std::move(inid); }

  // The captured app version, or the configuration's when none was captured.
  std::string appVersion() const;
  void setAppVersion(std::optional<std::string> version) { appVersion_ = std::move(version); }

  // Exactly what the caller passed, and what the session added (empty when
  // the record was made without a session). Built when asked for (the debug
  // log): a record keeps one merged dictionary, not three.
  KVRParameters nonCommonParameters() const;
  void setNonCommonParameters(KVRParameters p);

  KVRParameters commonParameters() const;
  void setCommonParameters(KVRParameters p);

  double creationTimestamp() const { return creationTimestamp_; }
  void setCreationTimestamp(double t) { creationTimestamp_ = t; }

  // Whole seconds since 1970, rounded ("%.0f").
  std::string formattedCreationTimestampString() const;
  // True when inid() differs from the configuration's current inid (also
  // when either is missing).
  bool hasINIDExpired() const;
  // The configuration's inid, or the unconfigured marker.
  static std::string inidToBeacon();
  // The process-wide configuration the record reads its inid and app
  // version from (KVNConfiguration::sharedInstance()).
  KVNConfiguration& configuration() const;

  // {"type": event, "parameters": parameters + clientcreationtimestamp,
  //  clientbeaconuuid, the configuration's inid and expiredinid when expired}.
  KVRParameters dictionaryRepresentation() const;

 protected:
  // The designated initialiser's work: merges the session's common
  // parameters over the caller's, stamps uuid, time, inid and app version.
  void initWithParameters(const KVRParameters& parameters, const KVRUserSession* userSession);
  void postCreationNotification() const;
  // Copies the fields a copy carries into target.
  void copyInto(KVRReliableNetworkingTask& target) const;

 private:
  friend class KVRBeaconFactory;

  // Gives the caller's and the session's dictionaries their own storage
  // before parameters_ stops being their merge.
  void separateViews();

  KVRParameters parameters_;
  std::string uuid_;
  std::optional<std::string> event_;
  std::optional<std::string> inid_;
  std::optional<std::string> appVersion_;
  // While set, parameters_ is the caller's entries, unchanged, followed by
  // the session's: the first callerEntries_ entries are the caller's
  // dictionary and the rest the session's. Otherwise (a clash, a pinned
  // uuid, a setter) the two are kept below.
  std::optional<size_t> callerEntries_;
  KVRParameters nonCommonParameters_;
  KVRParameters commonParameters_;
  double creationTimestamp_ = 0;
};

}  // namespace korvel
