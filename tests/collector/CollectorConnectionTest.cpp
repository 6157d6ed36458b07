// The collector's connections as a client sees them on the socket, with and
// without a store: pipelined requests are all answered, stop() does not wait
// for idle keep-alive connections, and a page that streams to a client
// notices it go away.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"
#include "collector/HttpServer.h"

namespace korvel::tools {
namespace {

using namespace std::chrono_literals;

// A connection to 127.0.0.1:port whose reads give up after 10 s (a request
// the server lost shows as a missing answer, not as a hang).
class Connection {
 public:
  explicit Connection(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    timeval timeout{10, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~Connection() { ::close(fd_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool send(const std::string& text) {
    return connected_ && ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) ==
                             static_cast<ssize_t>(text.size());
  }

  // The next answer: its head and the body its Content-Length announces, or
  // what came before the server closed (or nothing came for 10 s).
  std::string answer() {
    while (true) {
      const size_t head = pending_.find("\r\n\r\n");
      if (head != std::string::npos) {
        const size_t length = pending_.find("Content-Length: ");
        const size_t body =
            length < head ? std::strtoul(pending_.c_str() + length + 16, nullptr, 10) : 0;
        if (pending_.size() >= head + 4 + body) {
          std::string out = pending_.substr(0, head + 4 + body);
          pending_.erase(0, out.size());
          return out;
        }
      }
      char buffer[4096];
      const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) return std::exchange(pending_, {});
      pending_.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  int fd_;
  bool connected_ = false;
  std::string pending_;
};

std::string beaconRequest(const std::string& query, const std::string& headers = "") {
  return "GET /b/INID/14.2/Model/startup?" + query + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + headers +
         "\r\n";
}

std::unique_ptr<BeaconCollector> startCollector(bool withStore) {
  BeaconCollector::Options options;
  if (withStore) {
    std::string error;
    options.store = BeaconStore::open({}, &error);
    if (!options.store) return nullptr;
  }
  auto collector = std::make_unique<BeaconCollector>(options);
  if (!collector->start()) return nullptr;
  return collector;
}

// Requests written back to back on one connection, before any answer, are
// each answered in order.
TEST(CollectorConnectionTest, PipelinedRequestsAreAllAnswered) {
  for (bool withStore : {false, true}) {
    auto collector = startCollector(withStore);
    ASSERT_NE(collector, nullptr);
    collector->failNext(1, 503);
    Connection connection(collector->port());
    ASSERT_TRUE(connection.send(beaconRequest("n=1") + beaconRequest("n=2") +
                                beaconRequest("n=3", "Connection: close\r\n")));
    std::vector<int> statuses;
    for (int i = 0; i < 3; ++i) statuses.push_back(std::atoi(connection.answer().c_str() + 9));
    EXPECT_EQ(statuses, (std::vector<int>{503, 204, 204})) << "store: " << withStore;
    EXPECT_EQ(collector->beaconCount(), 2u);
    ASSERT_EQ(collector->beacons().size(), 2u);
    EXPECT_EQ(collector->beacons()[1].value("n"), "3");
  }
}

// A client that keeps its connection open after its last request does not
// hold stop() for the keep-alive timeout (30 s).
TEST(CollectorConnectionTest, StopEndsIdleKeepAliveConnections) {
  for (bool withStore : {false, true}) {
    auto collector = startCollector(withStore);
    ASSERT_NE(collector, nullptr);
    Connection connection(collector->port());
    ASSERT_TRUE(connection.send(beaconRequest("a=1")));
    ASSERT_EQ(std::atoi(connection.answer().c_str() + 9), 204);
    auto stopped = std::async(std::launch::async, [&] { collector->stop(); });
    EXPECT_EQ(stopped.wait_for(10s), std::future_status::ready) << "store: " << withStore;
    stopped.wait();
    // The server closed its side.
    EXPECT_EQ(connection.answer(), "");
  }
}

// A content provider with nothing to send learns from is_writable() that
// its client went away (the inspector's live stream frees its worker so).
TEST(CollectorConnectionTest, AProviderSeesItsClientGoAway) {
  HttpServer server;
  std::promise<void> noticed;
  server.Get("/stream", [&](const httplib::Request&, httplib::Response& res) {
    res.set_chunked_content_provider("text/event-stream", [&](size_t, httplib::DataSink& sink) {
      const auto until = std::chrono::steady_clock::now() + 20s;
      while (sink.is_writable() && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(5ms);
      }
      noticed.set_value();
      return false;
    });
  });
  const int port = server.bind_to_any_port("127.0.0.1");
  ASSERT_GT(port, 0);
  std::thread listening([&] { server.listen_after_bind(); });
  {
    Connection connection(port);
    ASSERT_TRUE(connection.send("GET /stream HTTP/1.1\r\nHost: x\r\n\r\n"));
  }
  EXPECT_EQ(noticed.get_future().wait_for(10s), std::future_status::ready);
  server.stopServing();
  listening.join();
}

}  // namespace
}  // namespace korvel::tools
