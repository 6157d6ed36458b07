#include <korvel/beacon/KVRBeacon.h>

#include <array>
#include <atomic>
#include <charconv>
#include <mutex>
#include <thread>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/beacon/internal/KVRBeaconHooks.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Logging.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/KeyedArchive.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/foundation/URLComponents.h>
#include <korvel/foundation/internal/SharedSlot.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

constexpr int kBackgroundRetryCount = 3;
constexpr int kPriority = 1;
constexpr int kConfigurationPolicy = 2;

// Keys the restoration payload adds to the record's own archive.
constexpr std::string_view kPayloadTypeKey = "beaconType";
constexpr std::string_view kPayloadEventKey = "beaconEvent";

// The executor is read without a lock; making or replacing it takes
// makeMutex, so two first reports cannot make two executors.
struct ExecutorSlot {
  Mutex makeMutex;
  foundation::internal::SharedSlot<KVNNetworkBackgroundRequestExecutor> executor;
  // After closeBackgroundSession: none is made on first use.
  bool closed KORVEL_GUARDED_BY(makeMutex) = false;
};

std::atomic<bool> reportingAllowedFlag{true};
std::atomic<beacon::internal::UnsentBeaconHook> unsentBeaconHook{nullptr};

// Report calls between their check of reportingAllowedFlag and the hand-over
// to the executor: turning reporting off waits for them, so that none hands
// a beacon over (or makes an executor) after it returns. The counter and the
// flag are both sequentially consistent: either a report call sees the flag
// off, or the thread turning it off sees the call counted.
std::atomic<int> reportsInProgress{0};
// The calls counted above that the current thread is inside (an observer of
// a submission that turns reporting off must not wait for its own call).
thread_local int reportsOnThisThread = 0;

class ReportInProgress {
 public:
  ReportInProgress() noexcept {
    reportsInProgress.fetch_add(1);
    ++reportsOnThisThread;
  }
  ~ReportInProgress() {
    --reportsOnThisThread;
    reportsInProgress.fetch_sub(1);
  }
  ReportInProgress(const ReportInProgress&) = delete;
  ReportInProgress& operator=(const ReportInProgress&) = delete;
};

ExecutorSlot& executorSlot() {
  static ExecutorSlot* slot = new ExecutorSlot;
  return *slot;
}

void replaceAll(std::string& text, std::string_view placeholder, std::string_view value) {
  for (size_t at = text.find(placeholder); at != std::string::npos;
       at = text.find(placeholder, at + value.size())) {
    text.replace(at, placeholder.size(), value);
  }
}

std::string encodeCommas(std::string_view model) {
  std::string out;
  out.reserve(model.size());
  for (char c : model) {
    if (c == ',') {
      out += "%2C";
    } else {
      out += c;
    }
  }
  return out;
}

// Query names and values keep only the unreserved characters (A-Z a-z 0-9
// - . _ ~) as they are; every other byte is %XX, so each item survives as
// one item.
constexpr auto kUnreservedTable = [] {
  std::array<bool, 256> keep{};
  for (int c = 0; c < 256; ++c) {
    keep[static_cast<size_t>(c)] = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                                   (c >= '0' && c <= '9') || c == '-' || c == '.' || c == '_' ||
                                   c == '~';
  }
  return keep;
}();

// A path component keeps the unreserved characters, the sub-delimiters,
// ":" and "@"; "/" and the rest are %XX, so it stays one component.
constexpr auto kPathComponentTable = [] {
  std::array<bool, 256> keep = kUnreservedTable;
  for (unsigned char c : std::string_view("!$&'()*+,;=:@")) keep[c] = true;
  return keep;
}();

constexpr char kHexDigits[] = "0123456789ABCDEF";

void appendEncoded(std::string& out, std::string_view text, const std::array<bool, 256>& keep) {
  size_t run = 0;  // bytes kept as they are, appended in one go
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (keep[c]) continue;
    out.append(text.data() + run, i - run);
    const char escaped[3] = {'%', kHexDigits[c >> 4], kHexDigits[c & 0x0F]};
    out.append(escaped, 3);
    run = i + 1;
  }
  out.append(text.data() + run, text.size() - run);
}

void appendQueryText(std::string& out, std::string_view text) {
  appendEncoded(out, text, kUnreservedTable);
}

void appendPathComponent(std::string& out, std::string_view text) {
  appendEncoded(out, text, kPathComponentTable);
}

// A parameter's value as its description goes out, without a copy of it
// where the value is text or an integer.
void appendQueryValue(std::string& out, const KVRValue& value) {
  if (const std::string* text = value.asString()) {
    appendQueryText(out, *text);
    return;
  }
  char digits[24];
  std::to_chars_result printed{};
  switch (value.kind()) {
    case KVRValue::Kind::Int:
      printed = std::to_chars(digits, digits + sizeof digits, *value.asInt());
      break;
    case KVRValue::Kind::UInt:
      printed = std::to_chars(digits, digits + sizeof digits, *value.asUInt());
      break;
    default:
      appendQueryText(out, value.description());
      return;
  }
  out.append(digits, printed.ptr);  // digits and "-": all unreserved
}

// What a beacon URL takes from the endpoint template, worked out once per
// template, inid, app version and device model: everything before the
// event's path component, the template's own query items as they go out, and
// its fragment.
struct EndpointTemplate {
  std::string endpoint;
  std::string inid;
  std::string appVersion;
  std::string deviceModel;  // as configured
  std::string model;        // as it goes out
  bool valid = false;
  std::string base;  // scheme://[user@]host[:port]path
  bool pathEndsInSlash = false;
  std::string query;  // the template's items, encoded, joined with "&"
  bool hasFragment = false;
  std::string fragment;
};

void fillTemplate(EndpointTemplate& out) {
  std::string templ = out.endpoint;
  replaceAll(templ, "{inid}", out.inid);
  replaceAll(templ, "{appversion}", out.appVersion);
  replaceAll(templ, "{devicemodel}", out.model);
  out.valid = false;
  auto components = URLComponents::parse(templ);
  if (!components) return;
  out.pathEndsInSlash =
      !components->percentEncodedPath().empty() && components->percentEncodedPath().back() == '/';
  // Re-encoded item by item, as the beacon's own items are.
  out.query.clear();
  bool first = true;
  for (const auto& item : components->queryItems()) {
    if (!first) out.query += '&';
    first = false;
    appendQueryText(out.query, item.name);
    if (item.value) {
      out.query += '=';
      appendQueryText(out.query, *item.value);
    }
  }
  // The URL without its query: the base, then "#" and the fragment (which
  // holds no "#" of its own, nor does anything before it).
  components->setQueryItems({});
  const std::string rest = components->string();
  const size_t hash = rest.find('#');
  out.base = rest.substr(0, hash);
  out.hasFragment = hash != std::string::npos;
  out.fragment = out.hasFragment ? rest.substr(hash + 1) : std::string();
  out.valid = true;
}

// The template's parts for this configuration and type; nullptr when the
// filled-in template is no absolute URL. Kept per thread (one for watch
// beacons, one for the others) and worked out again when an input changed.
const EndpointTemplate* endpointTemplate(const KVNConfiguration::Snapshot& config,
                                         KVRBeaconType type) {
  thread_local EndpointTemplate cached[2];
  const bool watch = type == KVRBeaconTypeWatchTagged;
  EndpointTemplate& templ = cached[watch ? 1 : 0];
  const std::string& endpoint = *config.beacons.beaconEndpoint;
  const std::string_view inid = config.inid ? std::string_view(*config.inid) : std::string_view();
  std::string appVersion = KVNConfiguration::appShortVersion();
  const std::string_view model =
      config.deviceModel ? std::string_view(*config.deviceModel) : std::string_view();
  const bool same = templ.endpoint == endpoint && templ.inid == inid &&
                    templ.appVersion == appVersion && templ.deviceModel == model;
  if (!same) {
    templ.endpoint = endpoint;
    templ.inid = std::string(inid);
    templ.appVersion = std::move(appVersion);
    templ.deviceModel = std::string(model);
    templ.model = watch ? std::string("watch") : encodeCommas(model);
    fillTemplate(templ);
  }
  return templ.valid ? &templ : nullptr;
}

KVNNetworkRequest makeRequest(KVRTaskPtr task, KVRBeaconType type) {
  KVNNetworkRequest request;
  request.setHttpMethod(KVNNetworkRequestHTTPMethodGET);
  request.setBackgroundSessionRetryCount(kBackgroundRetryCount);
  request.setPriority(kPriority);
  request.setConfigurationPolicy(kConfigurationPolicy);
  request.setEndpointBuilderBlock([task, type]() -> std::optional<KVNEndpoint> {
    auto url = KVRBeacon::endpointURLString(*task, type);
    if (!url) return std::nullopt;
    return KVNEndpoint(std::move(*url));
  });
  request.setRestorationPayload(KVRBeacon::kRestorationKind, [task, type](std::string& out) {
    KeyedArchiver coder(out);
    coder.encodeObject("$class", task->className());
    task->encodeWithCoder(coder);
    coder.encodeInt(kPayloadTypeKey, type);
    if (auto event = task->event()) coder.encodeObject(kPayloadEventKey, *event);
  });
  return request;
}

std::optional<KVNNetworkRequest> restoreRequest(std::string_view payload) {
  auto coder = KeyedUnarchiver::open(payload);
  if (!coder) return std::nullopt;
  // Decoding would give a record without its archived uuid a fresh one, and
  // the beacon, perhaps delivered already under the first, would then count
  // twice at the collector. Such a stored request is not restored.
  if (!coder->decodeString(KVRReliableNetworkingTask::kArchiveUUIDKey)) {
    platform::Logger(KVRLogging::subsystem(), "Beacon")
        .log(platform::LogLevel::Error,
             "A stored beacon has no archived uuid; it is not restored, so that it never goes "
             "out under a second uuid");
    return std::nullopt;
  }
  auto task = KVRReliableNetworkingTask::unarchive(*coder);
  if (!task) return std::nullopt;
  auto type = coder->decodeInt(kPayloadTypeKey);
  if (!type) return std::nullopt;
  if (auto tagged = std::dynamic_pointer_cast<KVRTaggedBeacon>(task)) {
    tagged->setBeaconType(static_cast<int>(*type));
  }
  task->setEvent(coder->decodeString(kPayloadEventKey));
  return makeRequest(std::move(task), static_cast<KVRBeaconType>(*type));
}

// Hands the record to the executor; false (logged) when it could not.
bool queueOnExecutor(const KVRTaskPtr& task, KVRBeaconType type) noexcept try {
  auto executor = KVRBeacon::backgroundSession();
  if (!executor && KVRBeacon::backgroundSessionClosed()) {
    platform::Logger(KVRLogging::subsystem(), KVRLogging::categoryReporting())
        .log(platform::LogLevel::Error,
             "KVRBeacon: the library is shut down; beacon " + task->uuid() + " not sent");
    return false;
  }
  if (!executor) {
    platform::Logger(KVRLogging::subsystem(), KVRLogging::categoryReporting())
        .log(platform::LogLevel::Error,
             "KVRBeacon: the executor factory made no executor; beacon " + task->uuid() +
                 " not sent");
    return false;
  }
  executor->executeRequest(makeRequest(task, type));
  return true;
} catch (...) {
  KVRLogging::logReportFailure("KVRBeacon: queueing a beacon");
  return false;
}

}  // namespace

std::optional<std::string> KVRBeacon::sendBeaconOfType(KVRBeaconType type,
                                                       const KVRParameters& parameters) noexcept {
  return sendBeaconOfType(type, parameters, std::nullopt);
}

std::optional<std::string> KVRBeacon::sendBeaconOfType(KVRBeaconType type,
                                                       const KVRParameters& parameters,
                                                       std::optional<std::string> event) noexcept
    try {
  ReportInProgress inProgress;
  if (!reportingAllowedFlag.load()) return std::nullopt;
  auto task = taskOfType(type, parameters, event);
  if (!task) return std::nullopt;
  // Set also when no event was given: a web-initiated beacon sent without
  // one goes out without one.
  task->setEvent(std::move(event));

  const auto config = KVNConfiguration::sharedInstance().snapshot();
  const auto& endpoint = config->beacons.beaconEndpoint;
  if (endpoint && !endpoint->empty()) {
    if (!queueOnExecutor(task, type)) return std::nullopt;
    try {
      platform::env().notificationCenter().post(
          KVRReliableNetworkingTaskSubmittedNotification,
          std::shared_ptr<const KVRReliableNetworkingTask>(task));
    } catch (...) {
      // The observer's failure is its own: the beacon is on its way.
      KVRLogging::logReportFailure("KVRBeacon: an observer of the beacon's submission");
    }
  } else if (auto hook = unsentBeaconHook.load(std::memory_order_acquire)) {
    hook();
  }
  return task->uuid();
} catch (...) {
  KVRLogging::logReportFailure("KVRBeacon::sendBeaconOfType");
  return std::nullopt;
}

KVRTaskPtr KVRBeacon::taskOfType(KVRBeaconType type, const KVRParameters& parameters,
                                 std::optional<std::string> event) noexcept {
  // The factory catches its own failures and answers null.
  if (event) return KVRBeaconFactory::beaconForType(type, parameters, std::move(event));
  return KVRBeaconFactory::beaconForType(type, parameters);
}

void KVRBeacon::sendBeacon(const KVRTaskPtr& task, KVRBeaconType type) noexcept {
  ReportInProgress inProgress;
  if (!task || !reportingAllowedFlag.load()) return;
  queueOnExecutor(task, type);
}

void beacon::internal::setUnsentBeaconHook(UnsentBeaconHook hook) {
  unsentBeaconHook.store(hook, std::memory_order_release);
}

void KVRBeacon::setReportingAllowed(bool allowed) {
  reportingAllowedFlag.store(allowed);
  if (allowed) return;
  // A report call is a few microseconds: yielding beats sleeping here.
  while (reportsInProgress.load() > reportsOnThisThread) std::this_thread::yield();
}

bool KVRBeacon::reportingAllowed() {
  return reportingAllowedFlag.load(std::memory_order_relaxed);
}

std::shared_ptr<KVNNetworkBackgroundRequestExecutor> KVRBeacon::existingBackgroundSession() {
  return executorSlot().executor.load();
}

std::shared_ptr<KVNNetworkBackgroundRequestExecutor> KVRBeacon::backgroundSession() {
  auto& slot = executorSlot();
  if (auto existing = slot.executor.load()) return existing;
  MutexLock lock(slot.makeMutex);
  if (auto existing = slot.executor.load()) return existing;
  if (slot.closed) return nullptr;
  registerRequestRestorer();
  // The default Env makes this library's durable executor unless the host
  // installed a factory of its own first.
  platform::installDefaultBackgroundExecutorFactoryIfNone([](const std::string& identifier) {
    return std::make_shared<network::internal::DurableRequestExecutor>(identifier);
  });
  auto& env = platform::env();
  auto made = env.makeBackgroundExecutor(
      env.mainBundleIdentifier().value_or("Unknown bundle") + ".backgroundBeacons");
  slot.executor.store(made);
  return made;
}

void KVRBeacon::setBackgroundSession(
    std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor) {
  auto& slot = executorSlot();
  MutexLock lock(slot.makeMutex);
  registerRequestRestorer();
  slot.closed = false;
  slot.executor.store(std::move(executor));
}

void KVRBeacon::closeBackgroundSession() {
  auto& slot = executorSlot();
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> last;
  {
    MutexLock lock(slot.makeMutex);
    slot.closed = true;
    last = slot.executor.load();
    slot.executor.store(nullptr);
  }
  // Dropped outside the lock: the library's executor stops its threads here.
  last.reset();
}

bool KVRBeacon::backgroundSessionClosed() {
  auto& slot = executorSlot();
  MutexLock lock(slot.makeMutex);
  return slot.closed;
}

void KVRBeacon::registerRequestRestorer() {
  static std::once_flag once;
  std::call_once(once, [] { KVNRequestRestorers::registerRestorer(kRestorationKind, restoreRequest); });
}

std::optional<std::string> KVRBeacon::endpointURLString(const KVRReliableNetworkingTask& task,
                                                        KVRBeaconType type) {
  const auto config = KVNConfiguration::sharedInstance().snapshot();
  if (!config->beacons.beaconEndpoint || config->beacons.beaconEndpoint->empty()) {
    return std::nullopt;
  }
  const EndpointTemplate* templ = endpointTemplate(*config, type);
  if (templ == nullptr) return std::nullopt;

  const KVRParameters& parameters = task.parameters();
  const auto event = task.event();
  // Most bytes go out as they are: one block, grown at most once.
  size_t estimate = templ->base.size() + templ->query.size() + templ->fragment.size() + 96;
  for (const auto& [key, value] : parameters) {
    const std::string* text = value.asString();
    estimate += key.size() + (text != nullptr ? text->size() : 24) + 2;
  }
  if (event) estimate += event->size() + 1;
  std::string url;
  url.reserve(estimate + estimate / 4);

  url += templ->base;
  if (event) {
    if (!templ->pathEndsInSlash) url += '/';
    appendPathComponent(url, *event);
  }
  url += '?';
  appendQueryText(url, KVRBeaconCreationTimestampKey);
  url += '=';
  appendQueryText(url, task.formattedCreationTimestampString());
  url += '&';
  appendQueryText(url, KVRBeaconUUIDKey);
  url += '=';
  appendQueryText(url, task.uuid());
  for (const auto& [key, value] : parameters) {
    url += '&';
    appendQueryText(url, key);
    url += '=';
    appendQueryValue(url, value);
  }
  if (!templ->query.empty()) {
    url += '&';
    url += templ->query;
  }
  if (templ->hasFragment) {
    url += '#';
    url += templ->fragment;
  }
  return url;
}

}  // namespace korvel
