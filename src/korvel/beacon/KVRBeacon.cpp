#include <korvel/beacon/KVRBeacon.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstring>
#include <limits>
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
#include <korvel/foundation/KVNRequestReload.h>
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

// A beacon's URL as the configuration says now, with writeParameters
// appending "&name=value" for each of the beacon's parameters; nothing when
// there is no endpoint or it is not an absolute URL.
template <class WriteParameters>
std::optional<std::string> writeURL(KVRBeaconType type, std::string_view timestamp,
                                    std::string_view uuid, const std::optional<std::string>& event,
                                    size_t parameterBytes, WriteParameters&& writeParameters) {
  const auto config = KVNConfiguration::sharedInstance().snapshot();
  if (!config->beacons.beaconEndpoint || config->beacons.beaconEndpoint->empty()) {
    return std::nullopt;
  }
  const EndpointTemplate* templ = endpointTemplate(*config, type);
  if (templ == nullptr) return std::nullopt;

  // Most bytes go out as they are: one block, grown at most once.
  size_t estimate = templ->base.size() + templ->query.size() + templ->fragment.size() +
                    parameterBytes + 96;
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
  appendQueryText(url, timestamp);
  url += '&';
  appendQueryText(url, KVRBeaconUUIDKey);
  url += '=';
  appendQueryText(url, uuid);
  writeParameters(url);
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

// MARK: - Read back to be sent

// A stored beacon read back when its turn to be sent comes needs only its
// URL: rather than a record built value by value (an allocation for every
// text), its archive is kept as it is and the URL written from it. Only
// archives as this library writes them are taken so; anything else (a value
// that is not text, a number or a boolean, a key twice, a field missing or
// of another kind) is restored the full way, which decides what it is.

// One CBOR item's head, bounds-checked; definite lengths only.
struct Head {
  unsigned major = 0;
  unsigned info = 0;
  uint64_t argument = 0;  // for major type 7: nothing (see readFloat)
};

bool readHead(const unsigned char*& at, const unsigned char* end, Head& head) {
  if (at == end) return false;
  head.major = *at >> 5;
  head.info = *at & 0x1Fu;
  ++at;
  head.argument = head.info;
  if (head.major == 7 || head.info < 24) return true;
  if (head.info > 27) return false;  // indefinite or reserved
  const size_t width = size_t{1} << (head.info - 24);
  if (static_cast<size_t>(end - at) < width) return false;
  head.argument = 0;
  for (size_t i = 0; i < width; ++i) head.argument = (head.argument << 8) | at[i];
  at += width;
  return true;
}

bool readText(const unsigned char*& at, const unsigned char* end, std::string_view& text) {
  Head head;
  if (!readHead(at, end, head) || head.major != 3 ||
      head.argument > static_cast<uint64_t>(end - at)) {
    return false;
  }
  text = std::string_view(reinterpret_cast<const char*>(at), static_cast<size_t>(head.argument));
  at += head.argument;
  return true;
}

// A float's value after its head (info 26 or 27); false for other simple values.
bool readFloat(const unsigned char*& at, const unsigned char* end, unsigned info, double& value) {
  const size_t width = info == 26 ? 4 : info == 27 ? 8 : 0;
  if (width == 0 || static_cast<size_t>(end - at) < width) return false;
  uint64_t bits = 0;
  for (size_t i = 0; i < width; ++i) bits = (bits << 8) | at[i];
  at += width;
  if (width == 4) {
    const auto narrow = static_cast<uint32_t>(bits);
    float f = 0;
    std::memcpy(&f, &narrow, sizeof f);
    value = static_cast<double>(f);
  } else {
    std::memcpy(&value, &bits, sizeof value);
  }
  return true;
}

// Moves past one item of the kinds the archiver writes.
bool skipItem(const unsigned char*& at, const unsigned char* end, int depth) {
  Head head;
  if (depth > 64 || !readHead(at, end, head)) return false;
  switch (head.major) {
    case 0:
    case 1:
      return true;
    case 2:
    case 3:
      if (head.argument > static_cast<uint64_t>(end - at)) return false;
      at += head.argument;
      return true;
    case 4:
    case 5: {
      const uint64_t items = head.major == 5 ? 2 * head.argument : head.argument;
      if (head.argument > static_cast<uint64_t>(end - at)) return false;
      for (uint64_t i = 0; i < items; ++i) {
        if (!skipItem(at, end, depth + 1)) return false;
      }
      return true;
    }
    case 6: {
      // The archiver's one-byte tag, on a byte string.
      if (head.info != 24) return false;
      Head bytes;
      if (!readHead(at, end, bytes) || bytes.major != 2 ||
          bytes.argument > static_cast<uint64_t>(end - at)) {
        return false;
      }
      at += bytes.argument;
      return true;
    }
    default: {
      if (head.info == 20 || head.info == 21 || head.info == 22) return true;
      double ignored = 0;
      return readFloat(at, end, head.info, ignored);
    }
  }
}

// A number as the record's decodeDouble gives it: any integer or float.
bool readNumber(const unsigned char*& at, const unsigned char* end, double& value) {
  Head head;
  if (!readHead(at, end, head)) return false;
  if (head.major == 0) {
    value = head.argument <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())
                ? static_cast<double>(static_cast<int64_t>(head.argument))
                : static_cast<double>(head.argument);
    return true;
  }
  if (head.major == 1) {
    if (head.argument > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
    value = static_cast<double>(-1 - static_cast<int64_t>(head.argument));
    return true;
  }
  return head.major == 7 && readFloat(at, end, head.info, value);
}

// Appends one parameter value as its description goes out; false for a
// kind left to the record (containers, dates, URLs, null).
bool appendArchivedValue(const unsigned char*& at, const unsigned char* end, std::string* url) {
  Head head;
  if (!readHead(at, end, head)) return false;
  char digits[24];
  switch (head.major) {
    case 0: {  // an Int, or a UInt past the signed range: the same digits
      const auto printed = std::to_chars(digits, digits + sizeof digits, head.argument);
      if (url != nullptr) url->append(digits, printed.ptr);
      return true;
    }
    case 1: {
      if (head.argument > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return false;
      const auto printed = std::to_chars(digits, digits + sizeof digits,
                                         -1 - static_cast<int64_t>(head.argument));
      if (url != nullptr) url->append(digits, printed.ptr);
      return true;
    }
    case 3: {
      if (head.argument > static_cast<uint64_t>(end - at)) return false;
      if (url != nullptr) {
        appendQueryText(*url, std::string_view(reinterpret_cast<const char*>(at),
                                               static_cast<size_t>(head.argument)));
      }
      at += head.argument;
      return true;
    }
    case 7: {
      if (head.info == 20 || head.info == 21) {
        if (url != nullptr) *url += head.info == 21 ? '1' : '0';
        return true;
      }
      double value = 0;
      if (!readFloat(at, end, head.info, value)) return false;
      if (url != nullptr) appendQueryText(*url, KVRValue(value).description());
      return true;
    }
    default:
      return false;
  }
}

// Walks the parameters map (count entries from at), appending each as
// "&name=value" when url is given; false when one is not for this path.
bool walkParameters(const unsigned char* at, const unsigned char* end, uint64_t count,
                    std::string* url) {
  for (uint64_t i = 0; i < count; ++i) {
    std::string_view key;
    if (!readText(at, end, key)) return false;
    if (url != nullptr) {
      *url += '&';
      appendQueryText(*url, key);
      *url += '=';
    }
    if (!appendArchivedValue(at, end, url)) return false;
  }
  return true;
}

// What the URL takes from an archived beacon.
struct ArchivedBeacon {
  std::shared_ptr<const std::string> payload;
  KVRTaskPtr shell;  // a record of its class with its event, nothing else
  KVRBeaconType type = KVRBeaconTypeUserEvent;
  std::string timestamp;
  std::string_view uuid;       // in payload
  size_t parameters = 0;       // where the parameters' entries start in payload
  uint64_t parameterCount = 0;
};

std::optional<ArchivedBeacon> readArchivedBeacon(std::string_view payload) {
  auto kept = std::make_shared<const std::string>(payload);
  const auto* begin = reinterpret_cast<const unsigned char*>(kept->data());
  const auto* end = begin + kept->size();
  const auto* at = begin;
  Head top;
  if (!readHead(at, end, top) || top.major != 5 || top.argument > kept->size()) return std::nullopt;

  std::string_view className, uuid;
  std::optional<std::string_view> event;
  std::optional<double> timestamp;
  std::optional<int64_t> type;
  const unsigned char* parameters = nullptr;
  uint64_t parameterCount = 0;
  std::string_view seen[16];
  size_t seenCount = 0;
  for (uint64_t i = 0; i < top.argument; ++i) {
    std::string_view key;
    if (!readText(at, end, key)) return std::nullopt;
    // A key twice: the later one wins in place, which the full path sorts out.
    if (seenCount == std::size(seen) ||
        std::find(seen, seen + seenCount, key) != seen + seenCount) {
      return std::nullopt;
    }
    seen[seenCount++] = key;
    if (key == "$class" || key == KVRReliableNetworkingTask::kArchiveUUIDKey ||
        key == kPayloadEventKey) {
      std::string_view text;
      if (!readText(at, end, text)) return std::nullopt;
      if (key == "$class") className = text;
      else if (key == kPayloadEventKey) event = text;
      else uuid = text;
    } else if (key == "creationTimestamp") {
      double value = 0;
      if (!readNumber(at, end, value)) return std::nullopt;
      timestamp = value;
    } else if (key == kPayloadTypeKey) {
      Head head;
      if (!readHead(at, end, head)) return std::nullopt;
      if (head.major == 0 && head.argument <= static_cast<uint64_t>(INT64_MAX)) {
        type = static_cast<int64_t>(head.argument);
      } else if (head.major == 1 && head.argument <= static_cast<uint64_t>(INT64_MAX)) {
        type = -1 - static_cast<int64_t>(head.argument);
      } else {
        return std::nullopt;
      }
    } else if (key == "parameters") {
      Head head;
      if (!readHead(at, end, head) || head.major != 5 ||
          head.argument > static_cast<uint64_t>(end - at)) {
        return std::nullopt;
      }
      parameters = at;
      parameterCount = head.argument;
      // Each value of a kind this path writes, and no name twice. Names
      // are compared only where a cheap fingerprint of theirs (length and
      // ends) was seen before.
      std::string_view names[64];
      uint64_t fingerprints[4] = {0, 0, 0, 0};
      for (uint64_t p = 0; p < parameterCount; ++p) {
        std::string_view name;
        if (p >= std::size(names) || !readText(at, end, name)) return std::nullopt;
        const size_t bit =
            name.empty() ? 0
                         : (name.size() * 31 + static_cast<unsigned char>(name.front()) * 7 +
                            static_cast<unsigned char>(name.back())) & 255;
        uint64_t& word = fingerprints[bit / 64];
        const uint64_t mask = uint64_t{1} << (bit % 64);
        if ((word & mask) != 0 && std::find(names, names + p, name) != names + p) {
          return std::nullopt;
        }
        word |= mask;
        if (!appendArchivedValue(at, end, nullptr)) return std::nullopt;
        names[p] = name;
      }
    } else if (!skipItem(at, end, 0)) {
      return std::nullopt;
    }
  }
  if (at != end || className.empty() || uuid.empty() || !timestamp || !type ||
      parameters == nullptr) {
    return std::nullopt;
  }
  ArchivedBeacon beacon;
  beacon.shell = KVRBeaconFactory::emptyRecordOfClass(className);
  if (!beacon.shell) return std::nullopt;
  if (auto tagged = std::dynamic_pointer_cast<KVRTaggedBeacon>(beacon.shell)) {
    tagged->setBeaconType(static_cast<int>(*type));
  }
  beacon.shell->setEvent(event ? std::optional<std::string>(*event) : std::nullopt);
  beacon.shell->setCreationTimestamp(*timestamp);
  beacon.timestamp = beacon.shell->formattedCreationTimestampString();
  beacon.type = static_cast<KVRBeaconType>(*type);
  beacon.uuid = uuid;
  beacon.parameters = static_cast<size_t>(parameters - begin);
  beacon.parameterCount = parameterCount;
  beacon.payload = std::move(kept);
  return beacon;
}

// A request for a beacon read back to be sent; nothing when the archive is
// not one for this path.
std::optional<KVNNetworkRequest> readBackRequest(std::string_view payload) {
  auto archived = readArchivedBeacon(payload);
  if (!archived) return std::nullopt;
  auto beacon = std::make_shared<const ArchivedBeacon>(std::move(*archived));
  KVNNetworkRequest request;
  request.setHttpMethod(KVNNetworkRequestHTTPMethodGET);
  request.setBackgroundSessionRetryCount(kBackgroundRetryCount);
  request.setPriority(kPriority);
  request.setConfigurationPolicy(kConfigurationPolicy);
  request.setEndpointBuilderBlock([beacon]() -> std::optional<KVNEndpoint> {
    const auto* begin = reinterpret_cast<const unsigned char*>(beacon->payload->data());
    const auto* end = begin + beacon->payload->size();
    auto url = writeURL(beacon->type, beacon->timestamp, beacon->uuid, beacon->shell->event(),
                        static_cast<size_t>(end - begin), [&](std::string& out) {
                          walkParameters(begin + beacon->parameters, end, beacon->parameterCount,
                                         &out);
                        });
    if (!url) return std::nullopt;
    return KVNEndpoint(std::move(*url));
  });
  // The archive as it was stored.
  request.setRestorationPayload(KVRBeacon::kRestorationKind,
                                [beacon](std::string& out) { out += *beacon->payload; });
  return request;
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
  // Read back to be sent (not restored at a start, which announces the
  // record): the URL straight from the archive where it can be.
  if (KVNRequestReloading()) {
    if (auto request = readBackRequest(payload)) return request;
  }
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
      // Asked first: with nobody observing, the notification's object is
      // not made at all.
      auto& center = platform::env().notificationCenter();
      if (center.hasObservers(KVRReliableNetworkingTaskSubmittedNotification)) {
        center.post(KVRReliableNetworkingTaskSubmittedNotification,
                    std::shared_ptr<const KVRReliableNetworkingTask>(task));
      }
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
  const KVRParameters& parameters = task.parameters();
  size_t parameterBytes = 0;
  for (const auto& [key, value] : parameters) {
    const std::string* text = value.asString();
    parameterBytes += key.size() + (text != nullptr ? text->size() : 24) + 2;
  }
  return writeURL(type, task.formattedCreationTimestampString(), task.uuid(), task.event(),
                  parameterBytes, [&](std::string& url) {
                    for (const auto& [key, value] : parameters) {
                      url += '&';
                      appendQueryText(url, key);
                      url += '=';
                      appendQueryValue(url, value);
                    }
                  });
}

}  // namespace korvel
