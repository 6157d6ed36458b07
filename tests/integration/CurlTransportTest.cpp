// The libcurl transport against a collector on 127.0.0.1: many requests on
// the wire at once, each answered once with its own answer, whatever the
// collector does in between.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "collector/BeaconCollector.h"
#include <korvel/network/internal/DeliveryTransport.h>

namespace korvel::network::internal {
namespace {

using namespace std::chrono_literals;

// Hands out count requests to /b/<n>, records the answers by request, and
// how many were on the wire at once at most.
class CountingFeed final : public DeliveryFeed {
 public:
  CountingFeed(std::string base, int count) : base_(std::move(base)), count_(count) {}

  bool next(DeliveryJob& job) override {
    if (given_ == count_) return false;
    urls_.push_back(base_ + "/b/" + std::to_string(given_));
    job.tag = static_cast<uint64_t>(given_);
    job.url = &urls_.back();
    ++given_;
    ++onWire_;
    mostOnWire_ = std::max(mostOnWire_, onWire_);
    return true;
  }

  void done(uint64_t tag, DeliveryResponse response) override {
    --onWire_;
    answers_[static_cast<int>(tag)].push_back(std::move(response));
  }

  int given() const { return given_; }
  int mostOnWire() const { return mostOnWire_; }
  const std::map<int, std::vector<DeliveryResponse>>& answers() const { return answers_; }

 private:
  std::string base_;
  int count_;
  int given_ = 0;
  int onWire_ = 0;
  int mostOnWire_ = 0;
  std::deque<std::string> urls_;  // stable addresses
  std::map<int, std::vector<DeliveryResponse>> answers_;
};

TEST(CurlTransportTest, AnswersEveryRequestOnceWithManyOnTheWire) {
  struct Case {
    const char* name;
    int failEvery;
    std::chrono::milliseconds delay;
    size_t transfers;
    int count;
  };
  // The collector sends a 503's body apart from its head, which delays it
  // (Nagle against delayed ACKs): the failing cases send fewer.
  const Case cases[] = {
      {"all answered", 0, 0ms, 4, 400},
      {"every 8th a 503", 8, 0ms, 4, 200},
      {"slow answers", 0, 20ms, 4, 40},
      {"one at a time", 3, 0ms, 1, 45},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tools::BeaconCollector::Options collectorOptions;
    collectorOptions.failEvery = c.failEvery;
    collectorOptions.failStatus = 503;
    collectorOptions.delay = c.delay;
    tools::BeaconCollector collector(collectorOptions);
    ASSERT_TRUE(collector.start());
    std::atomic<bool> cancelled{false};
    TransportOptions options;
    options.transfers = c.transfers;
    auto transport = makeSystemTransport(cancelled, options);
    EXPECT_EQ(transport->parallelism(), c.transfers);

    const int count = c.count;
    CountingFeed feed(collector.baseURL(), count);
    {
      // Cancels the transport if the sends outlive their deadline, so that a
      // stall shows up as aborted answers rather than a hung test.
      std::promise<void> sent;
      auto watchdog = std::async(std::launch::async, [&cancelled, done = sent.get_future()] {
        if (done.wait_for(20s) != std::future_status::ready) cancelled = true;
      });
      transport->send(feed);
      sent.set_value();
    }
    EXPECT_FALSE(cancelled) << "the transfers stalled";
    EXPECT_EQ(feed.given(), count);
    EXPECT_LE(feed.mostOnWire(), static_cast<int>(c.transfers));
    if (c.transfers > 1 && c.delay > 0ms) {
      EXPECT_EQ(feed.mostOnWire(), static_cast<int>(c.transfers));
    }
    ASSERT_EQ(feed.answers().size(), static_cast<size_t>(count));
    int failed = 0;
    for (const auto& [tag, answers] : feed.answers()) {
      ASSERT_EQ(answers.size(), 1u) << "request " << tag;
      EXPECT_TRUE(answers[0].status == 204 || answers[0].status == 503)
          << "request " << tag << ": " << answers[0].status << " " << answers[0].error;
      if (answers[0].status == 503) ++failed;
    }
    EXPECT_EQ(failed, c.failEvery > 0 ? count / c.failEvery : 0);
    // Each request reached the collector once.
    EXPECT_EQ(collector.requestCount(), static_cast<size_t>(count));
  }
}

// A server on 127.0.0.1 that keeps every request's bytes as they arrived and
// answers 204, or a redirect to the path given after "/to" (for "/to/new"
// to "/new") and to itself for "/loop". Keep-alive, one connection at a
// time.
class RawServer {
 public:
  RawServer() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener_, 8) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawServer() {
    shutdown(listener_, SHUT_RDWR);
    close(listener_);
    if (thread_.joinable()) thread_.join();
  }
  int port() const { return port_; }
  std::vector<std::string> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    for (;;) {
      const int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) return;
      std::string buffer;
      char chunk[4096];
      for (;;) {
        const size_t end = buffer.find("\r\n\r\n");
        if (end == std::string::npos) {
          const ssize_t got = recv(connection, chunk, sizeof chunk, 0);
          if (got <= 0) break;
          buffer.append(chunk, static_cast<size_t>(got));
          continue;
        }
        const std::string request = buffer.substr(0, end + 4);
        buffer.erase(0, end + 4);
        {
          std::lock_guard lock(mutex_);
          requests_.push_back(request);
        }
        const std::string target = request.substr(4, request.find(' ', 4) - 4);
        std::string answer = "HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n";
        if (target.starts_with("/to/")) {
          answer = "HTTP/1.1 302 Found\r\nLocation: " + target.substr(3) +
                   "\r\nContent-Length: 0\r\n\r\n";
        } else if (target.starts_with("/loop")) {
          answer = "HTTP/1.1 301 Moved\r\nLocation: /loop\r\nContent-Length: 0\r\n\r\n";
        }
        if (send(connection, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) break;
      }
      close(connection);
    }
  }

  int listener_ = -1;
  int port_ = 0;
  std::thread thread_;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
};

// What goes on the wire is the URL's target as built (percent escapes,
// "+", commas untouched), with libcurl's own clean-up where it makes one
// (dot segments, a fragment), and redirects are followed as libcurl does.
TEST(CurlTransportTest, PutsEachTargetOnTheWireAsLibcurlWouldAndFollowsRedirects) {
  struct Case {
    std::string path;                  // after http://127.0.0.1:port
    std::vector<std::string> targets;  // request lines' targets, in order
    long status;
  };
  const std::vector<Case> cases = {
      {"/b/INID/1.0/Bench14%2C2?a=1&b=x+y&c=%E2%82%AC&d=a%26b", {"/b/INID/1.0/Bench14%2C2?a=1&b=x+y&c=%E2%82%AC&d=a%26b"}, 204},
      {"/b/./x/../y?q=1", {"/b/y?q=1"}, 204},
      {"/b/x?q=1#fragment", {"/b/x?q=1"}, 204},
      {"/to/new?x=1", {"/to/new?x=1", "/new?x=1"}, 204},
      {"/to/to/to/new", {"/to/to/to/new", "/to/to/new", "/to/new", "/new"}, 204},
      // libcurl's limit: five redirects followed, then an error.
      {"/loop", std::vector<std::string>(6, "/loop"), 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    RawServer server;
    ASSERT_GT(server.port(), 0);
    std::atomic<bool> cancelled{false};
    auto transport = makeSystemTransport(cancelled);
    const std::string origin = "http://127.0.0.1:" + std::to_string(server.port());
    const DeliveryResponse response = transport->get(origin + c.path);
    EXPECT_EQ(response.status, c.status) << response.error;
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), c.targets.size());
    for (size_t i = 0; i < requests.size(); ++i) {
      EXPECT_EQ(requests[i], "GET " + c.targets[i] + " HTTP/1.1\r\nHost: 127.0.0.1:" +
                                 std::to_string(server.port()) + "\r\nAccept: */*\r\n\r\n");
    }
  }
}

// Told there is no proxy only when none is named in the environment: one
// that is gets every request, with the full URL on the request line.
TEST(CurlTransportTest, AProxyNamedInTheEnvironmentGetsTheRequests) {
  struct Case {
    const char* variable;  // nullptr: none set
    bool throughProxy;
  };
  const Case cases[] = {{nullptr, false}, {"http_proxy", true}, {"all_proxy", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.variable != nullptr ? c.variable : "none");
    RawServer target, proxy;
    ASSERT_GT(target.port(), 0);
    ASSERT_GT(proxy.port(), 0);
    const std::string proxyURL = "http://127.0.0.1:" + std::to_string(proxy.port());
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY",
                             "no_proxy", "NO_PROXY"}) {
      unsetenv(name);
    }
    if (c.variable != nullptr) setenv(c.variable, proxyURL.c_str(), 1);
    std::atomic<bool> cancelled{false};
    auto transport = makeSystemTransport(cancelled);
    const std::string url = "http://127.0.0.1:" + std::to_string(target.port()) + "/b/1?x=1";
    const DeliveryResponse response = transport->get(url);
    if (c.variable != nullptr) unsetenv(c.variable);
    EXPECT_EQ(response.status, 204) << response.error;
    const auto viaProxy = proxy.requests();
    const auto direct = target.requests();
    ASSERT_EQ(viaProxy.size() + direct.size(), 1u);
    if (c.throughProxy) {
      ASSERT_EQ(viaProxy.size(), 1u);
      EXPECT_TRUE(viaProxy[0].starts_with("GET " + url + " HTTP/1.1\r\n")) << viaProxy[0];
    } else {
      ASSERT_EQ(direct.size(), 1u);
      EXPECT_TRUE(direct[0].starts_with("GET /b/1?x=1 HTTP/1.1\r\n")) << direct[0];
    }
  }
}

}  // namespace
}  // namespace korvel::network::internal
