#include "collector/ConfigurationEndpoint.h"
#include "collector/FormDecoding.h"

#include <httplib.h>

#include <chrono>
#include <cstdint>
#include <cstdio>

#include <nlohmann/json.hpp>

using korvel::foundation::internal::MutexLock;

namespace korvel::tools {

namespace {

using Json = nlohmann::ordered_json;

// The decoded value of the first query item called name.
std::optional<std::string> queryValue(std::string_view target, std::string_view name) {
  const size_t question = target.find('?');
  if (question == std::string_view::npos) return std::nullopt;
  for (auto& [itemName, value] : formDecodeQuery(target.substr(question + 1))) {
    if (itemName == name) return std::move(value);
  }
  return std::nullopt;
}

std::string etagOf(const std::string& body) {
  uint64_t hash = 1469598103934665603ull;  // FNV-1a
  for (unsigned char c : body) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  char text[24];
  std::snprintf(text, sizeof text, "\"%016llx\"", static_cast<unsigned long long>(hash));
  return text;
}

}  // namespace

struct ConfigurationEndpoint::Server {
  httplib::Server http;
};

std::string ConfigurationEndpoint::defaultConfiguration() {
  return R"({"inid": "LOCAL-CONFIG-INID", "configured": true, "beacons": {"beaconParameters": {}}})";
}

ConfigurationEndpoint::ConfigurationEndpoint(std::string configurationJson)
    : configuration_(std::move(configurationJson)) {}

ConfigurationEndpoint::~ConfigurationEndpoint() { stop(); }

bool ConfigurationEndpoint::start(const std::string& host, int port) {
  if (server_) return true;
  if (host != "127.0.0.1" && host != "localhost" && host != "::1") return false;
  server_ = std::make_unique<Server>();
  server_->http.Get(kPath, [this](const httplib::Request& req, httplib::Response& res) {
    std::optional<std::string> ifNoneMatch;
    if (req.has_header("If-None-Match")) ifNoneMatch = req.get_header_value("If-None-Match");
    Answer a = answer(req.target, ifNoneMatch);
    res.status = a.status;
    if (a.etag) res.set_header("ETag", *a.etag);
    if (a.status != 304) res.set_content(a.body, a.contentType.c_str());
  });
  port_ = port == 0 ? server_->http.bind_to_any_port(host)
                    : (server_->http.bind_to_port(host, port) ? port : -1);
  if (port_ <= 0) {
    server_.reset();
    port_ = 0;
    return false;
  }
  thread_ = std::thread([this] { server_->http.listen_after_bind(); });
  // stop() only reaches a server whose loop is running: wait (bounded) for
  // it, so a stop right after start cannot be lost.
  for (int i = 0; i < 5000 && !server_->http.is_running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void ConfigurationEndpoint::stop() {
  if (!server_) return;
  server_->http.stop();
  if (thread_.joinable()) thread_.join();
  server_.reset();
}

std::string ConfigurationEndpoint::url(const std::string& hostName) const {
  return "http://" + hostName + ":" + std::to_string(port_) + kPath;
}

void ConfigurationEndpoint::setConfiguration(std::string json) {
  MutexLock lock(mutex_);
  configuration_ = std::move(json);
}

void ConfigurationEndpoint::failNext(int count, int status) {
  MutexLock lock(mutex_);
  failLeft_ = count;
  failStatus_ = status;
}

bool ConfigurationEndpoint::handles(std::string_view path) {
  const size_t question = path.find('?');
  return path.substr(0, question) == kPath;
}

ConfigurationEndpoint::Answer ConfigurationEndpoint::answer(
    std::string_view target, const std::optional<std::string>& ifNoneMatch) {
  std::string configuration;
  {
    MutexLock lock(mutex_);
    targets_.emplace_back(target);
    if (failLeft_ > 0) {
      --failLeft_;
      return Answer{failStatus_, "configuration unavailable\n", "text/plain", std::nullopt};
    }
    configuration = configuration_;
  }

  Answer a;
  a.body = std::move(configuration);
  if (auto buckets = queryValue(target, "buckets")) {
    Json document = Json::parse(a.body, nullptr, /*allow_exceptions=*/false);
    if (document.is_object()) {
      Json& beacons = document["beacons"];
      if (!beacons.is_object()) beacons = Json::object();
      Json& parameters = beacons["beaconParameters"];
      if (!parameters.is_object()) parameters = Json::object();
      parameters["buckets"] = *buckets;
      a.body = document.dump(-1, ' ', false, Json::error_handler_t::replace);
    }
  }
  a.etag = etagOf(a.body);
  if (ifNoneMatch && *ifNoneMatch == *a.etag) {
    a.status = 304;
    a.body.clear();
  }
  return a;
}

size_t ConfigurationEndpoint::requestCount() const {
  MutexLock lock(mutex_);
  return targets_.size();
}

std::vector<std::string> ConfigurationEndpoint::requestTargets() const {
  MutexLock lock(mutex_);
  return targets_;
}

}  // namespace korvel::tools
