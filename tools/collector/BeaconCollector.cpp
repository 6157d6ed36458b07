#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"
#include "collector/ConfigurationEndpoint.h"
#include "collector/FormDecoding.h"
#include "collector/HttpServer.h"
#include "collector/InspectorRoutes.h"

#include <algorithm>

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <korvel/platform/internal/Threads.h>

using korvel::foundation::internal::MutexLock;

namespace korvel::tools {

CollectedBeacon CollectedBeacon::decode(std::string_view target) {
  CollectedBeacon beacon;
  const size_t question = target.find('?');
  beacon.path = std::string(target.substr(0, question));
  std::string_view path = beacon.path;
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  const size_t slash = path.rfind('/');
  beacon.event = formDecode(slash == std::string_view::npos ? path : path.substr(slash + 1), false,
                            &beacon.malformed);
  if (question != std::string_view::npos) {
    beacon.params = formDecodeQuery(target.substr(question + 1), &beacon.malformed);
  }
  return beacon;
}

std::optional<std::string> CollectedBeacon::value(std::string_view key) const {
  for (const auto& [k, v] : params) {
    if (k == key) return v;
  }
  return std::nullopt;
}

std::string CollectedBeacon::toJsonLine() const {
  nlohmann::ordered_json line;
  line["event"] = event;
  line["path"] = path;
  auto list = nlohmann::ordered_json::array();
  for (const auto& [k, v] : params) list.push_back({k, v});
  line["params"] = std::move(list);
  // Invalid UTF-8 in a decoded value is replaced, never thrown over.
  return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

namespace {

// A dropped request's answer announces this many bytes and sends none.
constexpr size_t kDroppedLength = 64;
constexpr const char* kFailureBody = "try again\n";

}  // namespace

struct BeaconCollector::Server {
  HttpServer http;
};

BeaconCollector::BeaconCollector() : BeaconCollector(Options{}) {}

BeaconCollector::BeaconCollector(Options options) : options_(std::move(options)) {
  dropLeft_ = options_.dropFirst;
  failLeft_ = options_.failFirst;
  failStatus_ = options_.failStatus;
  retryAfter_ = options_.retryAfter;
}

BeaconCollector::~BeaconCollector() { stop(); }

bool BeaconCollector::start() {
  if (server_) return true;
  server_ = std::make_unique<Server>();
  auto& http = server_->http;
  // Delivery keeps its connections open: never close them on a count.
  http.set_keep_alive_max_count(1'000'000);
  http.set_keep_alive_timeout(30);
  stopping_ = false;
  if (options_.store) {
    // Live pages hold a worker each for their stream.
    http.new_task_queue = [] { return new httplib::ThreadPool(16); };
    installInspectorRoutes(http, options_.store, &stopping_);
  }
  http.Get(R"(/.*)", [this](const httplib::Request& req, httplib::Response& res) {
    if (options_.configuration && ConfigurationEndpoint::handles(req.path)) {
      std::optional<std::string> ifNoneMatch;
      if (req.has_header("If-None-Match")) ifNoneMatch = req.get_header_value("If-None-Match");
      const auto answer = options_.configuration->answer(req.target, ifNoneMatch);
      res.status = answer.status;
      if (answer.etag) res.set_header("ETag", *answer.etag);
      if (answer.status != 304) res.set_content(answer.body, answer.contentType.c_str());
      return;
    }
    const Answer answer = answerBeacon(req.target);
    if (answer.drop) {
      // Announce a body, then fail to produce it: the connection closes
      // before the answer is complete.
      res.set_content_provider(
          kDroppedLength, "text/plain", [](size_t, size_t, httplib::DataSink&) { return false; });
    } else if (answer.status != 204) {
      res.status = answer.status;
      if (answer.retryAfter) res.set_header("Retry-After", *answer.retryAfter);
      res.set_content(kFailureBody, "text/plain");
    } else {
      res.status = 204;
    }
  });
  if (options_.port == 0) {
    port_ = http.bind_to_any_port(options_.host);
  } else {
    port_ = http.bind_to_port(options_.host, options_.port) ? options_.port : -1;
  }
  if (port_ <= 0) {
    server_.reset();
    port_ = 0;
    return false;
  }
  // The socket already listens: connections made before the thread runs
  // wait in the backlog. stop() is only heard once the accept loop runs, so
  // wait for it here (a stop() right after start() would otherwise hang).
  thread_ = std::thread([this] { server_->http.listen_after_bind(); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!http.is_running() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void BeaconCollector::stop() {
  if (!server_) return;
  stopping_ = true;
  server_->http.stopServing();
  if (thread_.joinable()) thread_.join();
  server_.reset();
}

BeaconCollector::Answer BeaconCollector::answerBeacon(const std::string& target) {
  if (options_.backgroundPriority) {
    thread_local bool lowered = false;
    if (!lowered) platform::internal::lowerThisThreadPriority();
    lowered = true;
  }
  if (options_.delay.count() > 0) std::this_thread::sleep_for(options_.delay);
  CollectedRequest record{std::chrono::steady_clock::now(), 0,
                          options_.keepBeacons ? target : std::string()};
  Answer answer;
  {
    MutexLock lock(mutex_);
    if (dropLeft_ > 0) {
      --dropLeft_;
      answer.drop = true;
    } else if (failLeft_ > 0) {
      --failLeft_;
      answer.status = failStatus_;
      answer.retryAfter = retryAfter_;
    } else if (options_.failEvery > 0 && ++answered_ % options_.failEvery == 0) {
      answer.status = options_.failStatus;
    }
  }
  record.status = answer.drop ? 0 : answer.status;

  if (options_.store) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    options_.store->add({std::chrono::duration_cast<std::chrono::milliseconds>(now).count(),
                         record.status, target});
  }
  std::optional<CollectedBeacon> beacon;
  if (record.status == 204) beacon = CollectedBeacon::decode(target);
  if (beacon && options_.onBeacon) {
    MutexLock lock(callbackMutex_);
    options_.onBeacon(*beacon);
  }
  bool wake = false;
  {
    MutexLock lock(mutex_);
    ++requestCount_;
    if (options_.keepBeacons) requests_.push_back(std::move(record));
    if (beacon) {
      ++beaconCount_;
      if (options_.keepBeacons) beacons_.push_back(std::move(*beacon));
    }
    // Waiters are woken once the count they wait for is reached, not at
    // every beacon (a context switch each while thousands arrive).
    if (beaconCount_ >= wakeAt_) {
      wakeAt_ = SIZE_MAX;
      wake = true;
    }
  }
  if (wake) arrived_.signalAll();
  return answer;
}

std::string BeaconCollector::baseURL() const {
  return "http://" + options_.host + ":" + std::to_string(port_);
}

void BeaconCollector::failNext(int count, int status, std::optional<std::string> retryAfter) {
  MutexLock lock(mutex_);
  failLeft_ = count;
  failStatus_ = status;
  retryAfter_ = std::move(retryAfter);
}

void BeaconCollector::dropNext(int count) {
  MutexLock lock(mutex_);
  dropLeft_ = count;
}

std::vector<CollectedBeacon> BeaconCollector::beacons() const {
  MutexLock lock(mutex_);
  return beacons_;
}

std::vector<CollectedRequest> BeaconCollector::requests() const {
  MutexLock lock(mutex_);
  return requests_;
}

size_t BeaconCollector::beaconCount() const {
  MutexLock lock(mutex_);
  return beaconCount_;
}

size_t BeaconCollector::requestCount() const {
  MutexLock lock(mutex_);
  return requestCount_;
}

bool BeaconCollector::waitForBeacons(size_t count, std::chrono::milliseconds deadline) const {
  const auto until = std::chrono::steady_clock::now() + deadline;
  MutexLock lock(mutex_);
  while (beaconCount_ < count) {
    wakeAt_ = std::min(wakeAt_, count);
    if (!arrived_.waitUntil(mutex_, until)) return beaconCount_ >= count;
  }
  return true;
}

}  // namespace korvel::tools
