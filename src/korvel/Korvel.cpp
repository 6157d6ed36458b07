#include <korvel/Korvel.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <deque>
#include <iterator>
#include <span>
#include <string_view>
#include <vector>
#include <system_error>

#include <korvel/beacon/KVRLogging.h>
#include <korvel/beacon/internal/KVRBeaconHooks.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/foundation/URLComponents.h>
#include <korvel/platform/Files.h>
#include <korvel/platform/Logging.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

namespace fs = std::filesystem;

constexpr const char* kConsentFileName = "consent";
constexpr const char* kBeaconsFolderName = "beacons";
constexpr std::string_view kOptedOutContent = "opted-out\n";

struct State {
  Mutex mutex;
  bool started KORVEL_GUARDED_BY(mutex) = false;
  bool userSession KORVEL_GUARDED_BY(mutex) = false;
  std::string bundleIdentifier KORVEL_GUARDED_BY(mutex);
  fs::path dataDirectory KORVEL_GUARDED_BY(mutex);
  // The host's own executor, when it gave one.
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> hostExecutor KORVEL_GUARDED_BY(mutex);
  // The limits start() was given, for the library's executor.
  size_t maxStoredBeacons KORVEL_GUARDED_BY(mutex) = 0;
  uint64_t maxStoredBytes KORVEL_GUARDED_BY(mutex) = 0;
  std::chrono::seconds maxBeaconAge KORVEL_GUARDED_BY(mutex){0};
  int sendConcurrency KORVEL_GUARDED_BY(mutex) = 0;
  std::function<void(const Reporting::DeliveryEvent&)> deliveryObserver KORVEL_GUARDED_BY(mutex);
  // Whether start() installed the host's log sink (shutdown removes it).
  bool hostLog KORVEL_GUARDED_BY(mutex) = false;
  // Read without the mutex by optedOut().
  std::atomic<bool> optedOut{false};
  // started, for report calls, which take no lock.
  std::atomic<bool> running{false};
  // Whether a report before start() without a beacon endpoint was logged
  // (once until the next shutdown).
  std::atomic<bool> toldUnsentBeforeStart{false};
};

State& state() {
  static State* s = new State;
  return *s;
}

platform::Logger logger() {
  return platform::Logger(platform::env().mainBundleIdentifier().value_or("Unknown bundle"),
                          "Reporting");
}

// Beacons reported before start(): kept in memory, in the order they came,
// until start() hands them to the executor it makes. The default Env makes
// this executor (one for the process) on the first report before start(),
// so that such a report makes no folder, no file and no thread; past
// kCapacity beacons each further one is dropped and counted.
class WaitingRoom final : public KVNNetworkBackgroundRequestExecutor {
 public:
  static constexpr size_t kCapacity = 1000;

  // What waited when the room was emptied: handed over, or dropped.
  struct Emptied {
    size_t waited = 0;
    uint64_t droppedOverCapacity = 0;
    uint64_t total() const { return waited + droppedOverCapacity; }
  };

  // The process's waiting room, made with identifier the first time.
  static std::shared_ptr<WaitingRoom> shared(const std::string& identifier) {
    struct Shared {
      Mutex mutex;
      std::shared_ptr<WaitingRoom> room KORVEL_GUARDED_BY(mutex);
    };
    static Shared* shared = new Shared;
    MutexLock lock(shared->mutex);
    if (!shared->room) shared->room = std::shared_ptr<WaitingRoom>(new WaitingRoom(identifier));
    return shared->room;
  }

  const std::string& backgroundSessionIdentifier() const override { return identifier_; }

  void executeRequest(KVNNetworkRequest request) noexcept override try {
    std::string line;
    {
      MutexLock lock(mutex_);
      // Handed over already: the report call got this room before start()
      // put the executor in its place. Forwarded under the lock, so that
      // it follows whatever the same thread reported before.
      if (target_) {
        target_->executeRequest(std::move(request));
        return;
      }
      if (waiting_.size() < kCapacity) {
        waiting_.push_back(std::move(request));
        if (!toldWaiting_) {
          toldWaiting_ = true;
          line = "a beacon was reported before korvel::Reporting::start(): it waits in memory, "
                 "with those that follow (at most " + std::to_string(kCapacity) +
                 "), and is sent once start() succeeds";
        }
      } else {
        ++dropped_;
        if (!toldFull_) {
          toldFull_ = true;
          line = std::to_string(kCapacity) +
                 " beacons reported before korvel::Reporting::start() wait already: each "
                 "further one is dropped until start()";
        }
      }
    }
    if (!line.empty()) logger().log(platform::LogLevel::Error, line);
  } catch (...) {
    KVRLogging::logReportFailure("Reporting: keeping a beacon reported before start()");
  }

  // Nothing is sent from here: true only when nothing waits.
  bool flush(std::chrono::milliseconds deadline) override {
    std::shared_ptr<KVNNetworkBackgroundRequestExecutor> target;
    {
      MutexLock lock(mutex_);
      if (!target_) return waiting_.empty();
      target = target_;
    }
    return target->flush(deadline);
  }

  size_t purge() override {
    MutexLock lock(mutex_);
    const size_t purged = waiting_.size();
    waiting_.clear();
    return purged;
  }

  size_t waiting() const {
    MutexLock lock(mutex_);
    return waiting_.size();
  }

  // Hands what waits to target, in the order it came, and every request
  // that reaches the room from now on.
  Emptied forwardTo(std::shared_ptr<KVNNetworkBackgroundRequestExecutor> target) {
    MutexLock lock(mutex_);
    Emptied emptied{waiting_.size(), dropped_};
    for (auto& request : waiting_) target->executeRequest(std::move(request));
    waiting_.clear();
    dropped_ = 0;
    target_ = std::move(target);
    return emptied;
  }

  // Drops what waits and keeps requests again from now on (shutdown).
  Emptied reset() {
    MutexLock lock(mutex_);
    Emptied emptied{waiting_.size(), dropped_};
    waiting_.clear();
    dropped_ = 0;
    target_.reset();
    toldWaiting_ = false;
    toldFull_ = false;
    return emptied;
  }

 private:
  explicit WaitingRoom(std::string identifier) : identifier_(std::move(identifier)) {}

  const std::string identifier_;
  mutable Mutex mutex_;
  std::deque<KVNNetworkRequest> waiting_ KORVEL_GUARDED_BY(mutex_);
  // The executor start() made; null until then and after shutdown.
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> target_ KORVEL_GUARDED_BY(mutex_);
  uint64_t dropped_ KORVEL_GUARDED_BY(mutex_) = 0;
  // Whether the first waiting beacon, and the first dropped one, were logged.
  bool toldWaiting_ KORVEL_GUARDED_BY(mutex_) = false;
  bool toldFull_ KORVEL_GUARDED_BY(mutex_) = false;
};

// The default Env makes the waiting room for a report before start(),
// unless the host installed a factory of its own first.
[[maybe_unused]] const bool waitingRoomInstalled =
    platform::installDefaultBackgroundExecutorFactoryIfNone(
        [](const std::string& identifier) -> std::shared_ptr<KVNNetworkBackgroundRequestExecutor> {
          return WaitingRoom::shared(identifier);
        });

// A beacon made before start() while no endpoint is configured yet is not
// sent, nor kept: said once.
void unsentBeaconBeforeStart() noexcept try {
  State& s = state();
  if (s.running.load() || s.toldUnsentBeforeStart.exchange(true)) return;
  logger().log(platform::LogLevel::Error,
               "a beacon was reported before korvel::Reporting::start() with no beacon endpoint "
               "configured: it is not sent, nor kept; report after start(), or configure the "
               "endpoint first");
} catch (...) {
  KVRLogging::logReportFailure("Reporting: a beacon reported before start() without an endpoint");
}

[[maybe_unused]] const bool unsentBeaconHookInstalled =
    (beacon::internal::setUnsentBeaconHook(unsentBeaconBeforeStart), true);

bool isWaitingRoom(const std::shared_ptr<KVNNetworkBackgroundRequestExecutor>& executor) {
  return dynamic_cast<const WaitingRoom*>(executor.get()) != nullptr;
}

std::string beaconsBeforeStart(const WaitingRoom::Emptied& emptied, const std::string& what) {
  std::string line = std::to_string(emptied.waited) +
                     " beacons reported before start() " + what;
  if (emptied.droppedOverCapacity > 0) {
    line += "; " + std::to_string(emptied.droppedOverCapacity) +
            " more were dropped over the bound of " + std::to_string(WaitingRoom::kCapacity);
  }
  return line;
}

// Drops the beacons waiting for start(), saying how many when there were any.
uint64_t dropWaiting(const std::string& why) {
  const auto emptied = WaitingRoom::shared("Unknown bundle.backgroundBeacons")->reset();
  if (emptied.total() > 0) {
    logger().log(platform::LogLevel::Error, why + ": " + beaconsBeforeStart(emptied, "dropped, unsent"));
  }
  return emptied.total();
}

// The executor beacons go to, made when there is none yet: the host's, or
// the durable one in the data directory, held while the user is opted out.
// Runs with the state's mutex held, after start.
std::shared_ptr<KVNNetworkBackgroundRequestExecutor> ensureExecutor(State& s)
    KORVEL_REQUIRES(s.mutex) {
  if (auto existing = KVRBeacon::existingBackgroundSession(); existing && !isWaitingRoom(existing)) {
    return existing;
  }
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor = s.hostExecutor;
  if (!executor) {
    network::internal::DurableRequestExecutor::Options options;
    options.directory = s.dataDirectory / kBeaconsFolderName;
    options.startPaused = s.optedOut.load();
    options.maxStoredRequests = s.maxStoredBeacons;
    options.maxStoredBytes = s.maxStoredBytes;
    options.maxAge = s.maxBeaconAge;
    options.concurrency = s.sendConcurrency;
    if (s.deliveryObserver) {
      options.observer = [observer = s.deliveryObserver](
                             const network::internal::DurableRequestExecutor::Event& event) {
        using From = network::internal::DurableRequestExecutor::Event::Outcome;
        using To = Reporting::DeliveryEvent::Outcome;
        Reporting::DeliveryEvent out;
        out.outcome = event.outcome == From::Delivered   ? To::Delivered
                      : event.outcome == From::WillRetry ? To::WillRetry
                                                         : To::Dropped;
        out.reason = event.reason;
        out.beaconUUID = event.uuid;
        out.count = event.count;
        observer(out);
      };
    }
    executor = std::make_shared<network::internal::DurableRequestExecutor>(
        s.bundleIdentifier + ".backgroundBeacons", std::move(options));
  } else if (s.optedOut.load()) {
    executor->setPaused(true);
  }
  // What waited for start goes first; a report that got the waiting room
  // before the executor takes its place is forwarded. The room is made now
  // if no report made it yet, so that one racing this start cannot make it
  // later and be left there.
  const auto emptied =
      WaitingRoom::shared(s.bundleIdentifier + ".backgroundBeacons")->forwardTo(executor);
  KVRBeacon::setBackgroundSession(executor);
  if (emptied.total() > 0) {
    logger().log(platform::LogLevel::Default, beaconsBeforeStart(emptied, "handed over for delivery"));
  }
  return executor;
}

Reporting::Result failure(std::string error) {
  logger().log(platform::LogLevel::Error, "cannot start: " + error);
  Reporting::Result result;
  result.error = std::move(error);
  return result;
}

// Why the limits cannot be used; nothing when they can.
std::optional<std::string> invalidLimits(const Reporting::StartOptions& o) {
  auto outside = [](const char* name, auto value, const char* range) {
    return std::optional<std::string>(std::string(name) + " is " + std::to_string(value) +
                                      ": it must be " + range);
  };
  if (o.maxStoredBeacons < 1 || o.maxStoredBeacons > 10'000'000) {
    return outside("maxStoredBeacons", o.maxStoredBeacons, "from 1 to 10,000,000");
  }
  if (o.maxStoredBytes < (uint64_t{64} << 10) || o.maxStoredBytes > (uint64_t{16} << 30)) {
    return outside("maxStoredBytes", o.maxStoredBytes, "from 64 KiB to 16 GiB");
  }
  if (o.maxBeaconAge < std::chrono::minutes(1) || o.maxBeaconAge > std::chrono::hours(24 * 366)) {
    return outside("maxBeaconAge", o.maxBeaconAge.count(),
                   "from 60 to 31,622,400 seconds (1 minute to 366 days)");
  }
  if (o.sendConcurrency < 1 || o.sendConcurrency > 32) {
    return outside("sendConcurrency", o.sendConcurrency, "from 1 to 32");
  }
  return std::nullopt;
}

// Why a beacon endpoint template cannot be used; nothing when it can. Its
// placeholders must be known, and once they are filled in it must be an
// http or https URL with a host.
std::optional<std::string> invalidEndpoint(const std::string& endpoint) {
  static constexpr std::string_view kKnown[] = {"{inid}", "{appversion}", "{devicemodel}"};
  std::string filled;
  for (size_t i = 0; i < endpoint.size();) {
    if (endpoint[i] != '{') {
      filled += endpoint[i++];
      continue;
    }
    const size_t close = endpoint.find('}', i);
    const std::string_view placeholder = std::string_view(endpoint).substr(
        i, close == std::string::npos ? std::string::npos : close - i + 1);
    if (std::find(std::begin(kKnown), std::end(kKnown), placeholder) == std::end(kKnown)) {
      return "the beacon endpoint has an unknown placeholder " + std::string(placeholder) +
             " (known: {inid}, {appversion}, {devicemodel})";
    }
    filled += 'x';
    i = close + 1;
  }
  const auto url = URLComponents::parse(filled);
  std::string scheme = url ? url->scheme() : std::string();
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (!url || (scheme != "http" && scheme != "https") || url->host().empty()) {
    return "the beacon endpoint \"" + endpoint + "\" is not an http or https URL with a host";
  }
  return std::nullopt;
}

// What keeps beacons from being sent with this configuration, though it is
// valid: they are made, and wait (or, without an endpoint, are not sent).
std::vector<std::string> deliveryWarnings(const KVNConfiguration::Snapshot& c) {
  std::vector<std::string> warnings;
  if (!c.beacons.beaconEndpoint || c.beacons.beaconEndpoint->empty()) {
    warnings.emplace_back(
        "no beacon endpoint: report calls return a UUID but no beacon is sent until one is "
        "configured");
  }
  if (!c.inid || c.inid->empty()) {
    warnings.emplace_back("no inid: beacons are stored but not sent until one is configured");
  }
  return warnings;
}

bool persistConsent(State& s, bool optedOut) KORVEL_REQUIRES(s.mutex) {
  const fs::path file = s.dataDirectory / kConsentFileName;
  std::error_code error;
  if (optedOut) {
    const auto bytes = std::span(reinterpret_cast<const uint8_t*>(kOptedOutContent.data()),
                                 kOptedOutContent.size());
    if (platform::writeFileReplacing(file, bytes, error)) return true;
  } else {
    fs::remove(file, error);
    if (!error) return true;
  }
  logger().log(platform::LogLevel::Error,
               "cannot record the user's choice in " + file.string() + ": " + error.message());
  return false;
}

}  // namespace

namespace {

Reporting::Result startLocked(State& s, Reporting::StartOptions& options)
    KORVEL_REQUIRES(s.mutex) {
  if (options.bundleIdentifier.empty()) return failure("no bundle identifier");
  if (auto invalid = invalidLimits(options)) return failure(*invalid);
  // The configuration as it will be, checked before anything changes.
  KVNConfiguration::Snapshot configuration = *KVNConfiguration::sharedInstance().snapshot();
  if (options.configure) options.configure(configuration);
  if (configuration.beacons.beaconEndpoint && !configuration.beacons.beaconEndpoint->empty()) {
    if (auto invalid = invalidEndpoint(*configuration.beacons.beaconEndpoint)) {
      return failure(*invalid);
    }
  }
  fs::path directory = options.dataDirectory.empty()
                           ? Reporting::defaultDataDirectory(options.bundleIdentifier)
                           : options.dataDirectory;
  if (directory.empty()) return failure("no data directory (no home directory)");
  std::error_code error;
  if (!platform::createPrivateDirectories(directory, error)) {
    return failure("cannot make the data directory " + directory.string() + ": " +
                   error.message());
  }
  // A folder another user made, or one others may write to, would let them
  // plant or remove the files the library keeps there.
  if (auto unsafe = platform::unsafePrivateDirectory(directory)) {
    return failure("the data directory " + directory.string() + " is not private: " + *unsafe);
  }

  s.bundleIdentifier = options.bundleIdentifier;
  s.dataDirectory = directory;
  s.hostExecutor = options.executor;
  s.maxStoredBeacons = options.maxStoredBeacons;
  s.maxStoredBytes = options.maxStoredBytes;
  s.maxBeaconAge = options.maxBeaconAge;
  s.sendConcurrency = options.sendConcurrency;
  s.deliveryObserver = options.deliveryObserver;
  s.optedOut = fs::exists(directory / kConsentFileName, error);

  platform::setMainBundleIdentifier(options.bundleIdentifier);
  if (!options.appVersion.empty()) KVNConfiguration::setAppShortVersion(options.appVersion);
  const std::vector<std::string> warnings = deliveryWarnings(configuration);
  KVNConfiguration::sharedInstance().replace(std::move(configuration));
  KVRBeacon::registerRequestRestorer();

  // Whatever executor was in use before start goes, but for the beacons
  // waiting for start (handed over below); beacons an earlier run left are
  // delivered now, unless the user opted out.
  if (!isWaitingRoom(KVRBeacon::existingBackgroundSession())) {
    KVRBeacon::setBackgroundSession(nullptr);
  }
  Reporting::Result result;
  result.ok = true;
  auto warn = [&result](const std::string& warning) {
    logger().log(platform::LogLevel::Error, "started, but " + warning);
    result.warning += (result.warning.empty() ? "" : "; ") + warning;
  };
  for (const auto& warning : warnings) warn(warning);
  if (s.optedOut) {
    // Reports stop first, so that none waits after the room is emptied.
    KVRBeacon::setReportingAllowed(false);
    dropWaiting("the user has opted out");
    if (isWaitingRoom(KVRBeacon::existingBackgroundSession())) {
      KVRBeacon::setBackgroundSession(nullptr);
    }
  } else {
    auto durable =
        std::dynamic_pointer_cast<network::internal::DurableRequestExecutor>(ensureExecutor(s));
    if (durable && !durable->stats().durable) {
      result.durable = false;
      const std::string& why = durable->storeFailure();
      warn("beacons cannot be stored in " + durable->directory().string() +
           (why.empty() ? "" : " (" + why + ")") + ": they are kept in memory only, and lost if the process ends before they are "
           "delivered");
    }
  }
  KVRBeacon::setReportingAllowed(!s.optedOut);

  s.userSession = options.startUserSession;
  if (s.userSession) KVRUserSession::load();
  s.started = true;
  s.running = true;
  return result;
}

}  // namespace

Reporting::Result Reporting::start(StartOptions options) {
  State& s = state();
  MutexLock lock(s.mutex);
  if (s.started) return failure("already started");
  // First, so that start's own lines reach the host's sink.
  const bool hostLog = static_cast<bool>(options.logCallback);
  if (hostLog) platform::setLogCallback(options.logLevel, options.logCallback);
  Result result = startLocked(s, options);
  if (!result && hostLog) platform::setLogCallback(platform::LogLevel::Default, nullptr);
  if (result) s.hostLog = hostLog;
  return result;
}

bool Reporting::started() {
  State& s = state();
  MutexLock lock(s.mutex);
  return s.started;
}

fs::path Reporting::defaultDataDirectory(const std::string& bundleIdentifier) {
  // The same base the durable executor uses on its own:
  // $XDG_DATA_HOME/korvel/<name with unsafe characters replaced>.
  return network::internal::DurableRequestExecutor::defaultDirectory(bundleIdentifier);
}

std::optional<fs::path> Reporting::dataDirectory() {
  State& s = state();
  MutexLock lock(s.mutex);
  if (!s.started) return std::nullopt;
  return s.dataDirectory;
}

namespace {

// What the library's executor had delivered and dropped when a flush or
// shutdown last answered: the next answer counts from there.
struct Counted {
  Mutex mutex;
  std::weak_ptr<KVNNetworkBackgroundRequestExecutor> executor KORVEL_GUARDED_BY(mutex);
  uint64_t delivered KORVEL_GUARDED_BY(mutex) = 0;
  uint64_t dropped KORVEL_GUARDED_BY(mutex) = 0;
};

Counted& counted() {
  static auto* c = new Counted;
  return *c;
}

// While the user is opted out the executor is held: a flush answers false at
// once when kept beacons wait, and still waits for the store's last sync.
Reporting::DeliveryResult flushExecutor(std::chrono::milliseconds deadline) {
  Reporting::DeliveryResult result;
  auto executor = KVRBeacon::existingBackgroundSession();
  if (!executor) {
    result.ok = true;
    return result;
  }
  if (auto room = std::dynamic_pointer_cast<WaitingRoom>(executor)) {
    // Not started: nothing is sent, nothing to wait for.
    result.pending = room->waiting();
    result.ok = result.pending == 0;
    return result;
  }
  const bool flushed = executor->flush(deadline);
  // A host's own executor gives no figures: its flush is the answer.
  if (auto durable = std::dynamic_pointer_cast<network::internal::DurableRequestExecutor>(executor)) {
    const auto stats = durable->stats();
    const uint64_t dropped = stats.droppedByServer + stats.droppedOverCap + stats.droppedTooOld +
                             stats.droppedOversize;
    Counted& c = counted();
    MutexLock lock(c.mutex);
    // Another executor than last time (a new start): it counts from zero.
    if (c.executor.owner_before(executor) || executor.owner_before(c.executor)) {
      c.executor = executor;
      c.delivered = 0;
      c.dropped = 0;
    }
    result.delivered = stats.delivered - c.delivered;
    result.dropped = dropped - c.dropped;
    // Those that could not be read back stay stored for the next start.
    result.pending = stats.waiting + stats.leftUnreadable;
    c.delivered = stats.delivered;
    c.dropped = dropped;
  }
  result.ok = flushed && result.pending == 0 && result.dropped == 0;
  return result;
}

}  // namespace

Reporting::DeliveryResult Reporting::flush(std::chrono::milliseconds deadline) {
  return flushExecutor(deadline);
}

Reporting::DeliveryResult Reporting::shutdown(std::chrono::milliseconds deadline) {
  State& s = state();
  MutexLock lock(s.mutex);
  // Waits for report calls in progress: what they hand over is flushed too.
  KVRBeacon::setReportingAllowed(false);
  if (s.userSession) KVRUserSession::unload();
  uint64_t droppedBeforeStart = 0;
  if (!s.started) droppedBeforeStart = dropWaiting("shutdown() before start()");
  DeliveryResult delivered = flushExecutor(deadline);
  delivered.dropped += droppedBeforeStart;
  delivered.ok = delivered.ok && droppedBeforeStart == 0;
  // Reports before the next start wait again.
  if (s.started) WaitingRoom::shared(s.bundleIdentifier + ".backgroundBeacons")->reset();
  // The durable executor stops here (its last reference goes), keeping what
  // was not delivered for the next start; none is made again until start().
  KVRBeacon::closeBackgroundSession();
  s.hostExecutor.reset();
  s.deliveryObserver = nullptr;
  if (s.hostLog) platform::setLogCallback(platform::LogLevel::Default, nullptr);
  s.hostLog = false;
  s.started = false;
  s.running = false;
  s.toldUnsentBeforeStart = false;
  s.userSession = false;
  return delivered;
}

bool Reporting::setOptedOut(bool out, PendingBeacons pending) {
  State& s = state();
  MutexLock lock(s.mutex);
  s.optedOut = out;
  if (out) {
    // First stop new reports, then hold what is queued.
    KVRBeacon::setReportingAllowed(false);
    if (auto executor = KVRBeacon::existingBackgroundSession()) executor->setPaused(true);
  }
  if (!s.started) {
    if (!out) KVRBeacon::setReportingAllowed(true);
    if (out && pending == PendingBeacons::Purge) {
      WaitingRoom::shared("Unknown bundle.backgroundBeacons")->purge();
    }
    logger().log(platform::LogLevel::Error,
                 "the user's choice holds for this run only: the library is not started");
    return false;
  }
  const bool persisted = persistConsent(s, out);
  if (out) {
    if (pending == PendingBeacons::Purge) {
      const size_t purged = ensureExecutor(s)->purge();
      logger().log(platform::LogLevel::Info,
                   "opted out; " + std::to_string(purged) + " waiting beacons purged");
    }
  } else {
    ensureExecutor(s)->setPaused(false);
    KVRBeacon::setReportingAllowed(true);
  }
  return persisted;
}

bool Reporting::optedOut() { return state().optedOut.load(); }

void Reporting::applicationDidEnterBackground() {
  platform::env().notificationCenter().post(platform::ApplicationDidEnterBackgroundNotification);
}

void Reporting::applicationWillEnterForeground() {
  platform::env().notificationCenter().post(platform::ApplicationWillEnterForegroundNotification);
}

void Reporting::setInBackground(bool inBackground) {
  if (inBackground) {
    applicationDidEnterBackground();
  } else {
    applicationWillEnterForeground();
  }
}

size_t Reporting::purgePendingBeacons() {
  State& s = state();
  MutexLock lock(s.mutex);
  auto executor = s.started ? ensureExecutor(s) : KVRBeacon::existingBackgroundSession();
  return executor ? executor->purge() : 0;
}

}  // namespace korvel
