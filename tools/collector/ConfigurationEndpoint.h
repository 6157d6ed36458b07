// A configuration endpoint on the loopback interface: answers
// GET /configuration/v1/configure with a configuration document (see
// platform/KVNConfigurationManager.h), so the configuration switching can be
// tried and tested without the real service.
//
// The "buckets" query item, when sent, is echoed into the served document as
// the beacon parameter "buckets" (the document must then be a JSON object),
// so a client can see which buckets reached the server. Every answer carries
// an ETag; a request whose If-None-Match matches gets "304 Not Modified".
//
// It runs stand-alone (start()) or inside another server that forwards the
// requests answer() handles (the beacon collector does, when given one).
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::tools {

class ConfigurationEndpoint {
 public:
  static constexpr const char* kPath = "/configuration/v1/configure";

  struct Answer {
    int status = 200;
    std::string body;
    std::string contentType = "application/json";
    std::optional<std::string> etag;
  };

  // A configured document with a fixed inid and no beacon endpoint.
  static std::string defaultConfiguration();

  explicit ConfigurationEndpoint(std::string configurationJson = defaultConfiguration());
  ~ConfigurationEndpoint();
  ConfigurationEndpoint(const ConfigurationEndpoint&) = delete;
  ConfigurationEndpoint& operator=(const ConfigurationEndpoint&) = delete;

  // Serves on host:port (port 0: an ephemeral one) on a thread of its own;
  // false when the address cannot be bound. Loopback hosts only.
  bool start(const std::string& host = "127.0.0.1", int port = 0);
  void stop();
  int port() const { return port_; }
  // "http://<hostName>:<port>/configuration/v1/configure"; hostName may
  // differ from the bound host ("localhost" for 127.0.0.1, for instance).
  std::string url(const std::string& hostName = "127.0.0.1") const;

  // The document served from now on (any text; invalid JSON is served as
  // is, without the buckets echo).
  void setConfiguration(std::string json);
  // The next count requests are answered with status instead.
  void failNext(int count, int status = 500);

  // Whether a request path is this endpoint's.
  static bool handles(std::string_view path);
  // The answer to one GET of target (path and query, as requested).
  Answer answer(std::string_view target, const std::optional<std::string>& ifNoneMatch);

  size_t requestCount() const;
  // Request targets in arrival order.
  std::vector<std::string> requestTargets() const;

 private:
  struct Server;

  mutable korvel::foundation::internal::Mutex mutex_;
  std::string configuration_ KORVEL_GUARDED_BY(mutex_);
  int failLeft_ KORVEL_GUARDED_BY(mutex_) = 0;
  int failStatus_ KORVEL_GUARDED_BY(mutex_) = 500;
  std::vector<std::string> targets_ KORVEL_GUARDED_BY(mutex_);

  std::unique_ptr<Server> server_;
  std::thread thread_;
  int port_ = 0;
};

}  // namespace korvel::tools
