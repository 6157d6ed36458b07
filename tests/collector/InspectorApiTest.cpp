// The inspector's HTTP side against a collector with a store: beacons sent
// as the library sends them, read back through the JSON API, the live
// stream and the expect command.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <httplib.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"
#include "collector/ExpectBeacons.h"

namespace korvel::tools {
namespace {

using json = nlohmann::json;

std::string beaconTarget(const std::string& event, const std::string& uuid,
                         const std::string& session, const std::string& rest = "") {
  // One creation time for every beacon of the program: a resend must carry
  // the same parameters as the first, even when a second ticks in between.
  static const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count();
  return "/b/INID/14.2/Model/" + event + "?clientcreationtimestamp=" + std::to_string(now) +
         "&clientbeaconuuid=" + uuid + "&sessionid=" + session + (rest.empty() ? "" : "&" + rest);
}

// Sends requests one at a time on one connection to 127.0.0.1:port, as curl
// writes them (httplib's client always sends a length), and reads each
// answer: its head, then the body its Content-Length announces, or what
// comes until the server closes. The answers, one after the other.
std::string exchange(int port, const std::vector<std::string>& requests) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return "socket failed";
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  std::string answers;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
    for (const auto& request : requests) {
      if (::send(fd, request.data(), request.size(), 0) != static_cast<ssize_t>(request.size())) {
        break;
      }
      std::string answer;
      size_t complete = std::string::npos;
      char buffer[4096];
      while (answer.size() < complete) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0) break;
        answer.append(buffer, static_cast<size_t>(n));
        const size_t head = answer.find("\r\n\r\n");
        const size_t length = answer.find("Content-Length: ");
        if (head != std::string::npos && length != std::string::npos && length < head) {
          complete = head + 4 + std::strtoul(answer.c_str() + length + 16, nullptr, 10);
        }
      }
      answers += answer;
    }
  }
  ::close(fd);
  return answers;
}

// The status codes of the answers in a raw exchange, in order.
std::vector<int> statuses(const std::string& answers) {
  std::vector<int> out;
  for (size_t at = answers.find("HTTP/1.1 "); at != std::string::npos;
       at = answers.find("HTTP/1.1 ", at + 1)) {
    out.push_back(std::atoi(answers.c_str() + at + 9));
  }
  return out;
}

class InspectorApiTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    store_ = BeaconStore::open({}, &error);
    ASSERT_NE(store_, nullptr) << error;
    BeaconCollector::Options options;
    options.store = store_;
    collector_ = std::make_unique<BeaconCollector>(options);
    ASSERT_TRUE(collector_->start());
    client_ = std::make_unique<httplib::Client>(collector_->baseURL());
  }

  void send(const std::string& target) {
    const auto answer = client_->Get(target);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->status, 204) << target;
  }

  json get(const std::string& path, int status = 200) {
    const auto answer = client_->Get(path);
    EXPECT_TRUE(answer) << path;
    if (!answer) return {};
    EXPECT_EQ(answer->status, status) << path << ": " << answer->body;
    return json::parse(answer->body, nullptr, false);
  }

  std::vector<std::string> events(const json& list) {
    std::vector<std::string> out;
    for (const auto& b : list["beacons"]) out.push_back(b["event"]);
    return out;
  }

  void sendThree() {
    send(beaconTarget("pageview", "U1", "S1", "screenname=home&duration=1.2"));
    send(beaconTarget("userevent", "U2", "S1", "type=scroll"));
    send(beaconTarget("bogus", "U3", "S2"));
  }

  std::shared_ptr<BeaconStore> store_;
  std::unique_ptr<BeaconCollector> collector_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(InspectorApiTest, ListsFiltersAndViews) {
  sendThree();
  EXPECT_EQ(collector_->beaconCount(), 3u);  // still counted as beacons
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"/api/beacons", {"bogus", "userevent", "pageview"}},
      {"/api/beacons?event=userevent", {"userevent"}},
      {"/api/beacons?type=scroll", {"userevent"}},
      {"/api/beacons?session=S2", {"bogus"}},
      {"/api/beacons?uuid=U1", {"pageview"}},
      {"/api/beacons?screenname=home", {"pageview"}},
      {"/api/beacons?param=duration%3D1.2", {"pageview"}},
      {"/api/good", {"userevent", "pageview"}},
      {"/api/bad", {"bogus"}},
      {"/api/good?session=S1&limit=1", {"userevent"}},
      // inid and app version as the endpoint template places them in the path
      {"/api/beacons?inid=INID&appversion=14.2", {"bogus", "userevent", "pageview"}},
      {"/api/beacons?inid=OTHER", {}},
      {"/api/beacons?appversion=14.3", {}},
  };
  for (const auto& [path, expected] : cases) {
    EXPECT_EQ(events(get(path)), expected) << path;
  }
  const json bad = get("/api/bad");
  EXPECT_EQ(bad["beacons"][0]["reasons"][0],
            "event \"bogus\" is not one the library makes (a web page's own event must be "
            "allowed)");
  EXPECT_EQ(get("/api/count?good=false")["count"], 1);
  EXPECT_EQ(get("/api/count")["count"], 3);
  // A filter that does not parse is an error.
  EXPECT_EQ(get("/api/beacons?good=maybe", 400)["error"], "bad value for good: \"maybe\"");
  EXPECT_EQ(get("/api/count?limit=0", 400)["error"], "bad value for limit: \"0\"");
}

TEST_F(InspectorApiTest, OneBeaconCountsSessionsAndReset) {
  sendThree();
  send(beaconTarget("pageview", "U1", "S1", "screenname=home&duration=1.2"));  // a resend
  const json records = get("/api/beacons/U1");
  ASSERT_EQ(records["beacons"].size(), 2u);
  EXPECT_EQ(records["beacons"][1]["verdict"], "retry");
  EXPECT_EQ(get("/api/beacons/nope", 404)["error"], "no beacon with uuid nope");

  const json counts = get("/api/counts");
  EXPECT_EQ(std::tuple(counts["total"], counts["retry"],
                       counts["events"]["userevent"]["types"]["scroll"]),
            std::tuple(4, 1, 1));

  const json sessions = get("/api/sessions");
  ASSERT_EQ(sessions["sessions"].size(), 2u);
  const json timeline = get("/api/sessions/S1");
  EXPECT_EQ(timeline["beacons"].size(), 3u);
  EXPECT_EQ(timeline["pageviews"][0]["duration"], 1.2);
  get("/api/sessions/S9", 404);

  const auto reset = client_->Post("/api/reset");
  ASSERT_TRUE(reset);
  EXPECT_EQ(json::parse(reset->body)["removed"], 4);
  EXPECT_EQ(get("/api/count")["count"], 0);
}

// curl -s -X POST .../api/reset sends no body and no length; the answer comes
// at once, not after the server gave up reading a body. A request that does
// carry a body has it read, so the next one on the connection is understood.
TEST_F(InspectorApiTest, ResetAnswersWithOrWithoutABody) {
  struct Case {
    const char* name;
    std::vector<std::string> requests;
    std::vector<int> statuses;
    int64_t countAfter;
  };
  const std::string close = "Host: x\r\nConnection: close\r\n\r\n";
  const std::vector<Case> cases = {
      {"POST without a body", {"POST /api/reset HTTP/1.1\r\n" + close}, {200}, 0},
      {"DELETE without a body", {"DELETE /api/beacons HTTP/1.1\r\n" + close}, {200}, 0},
      {"POST without a body, then a count on the same connection",
       {"POST /api/reset HTTP/1.1\r\nHost: x\r\n\r\n", "GET /api/count HTTP/1.1\r\n" + close},
       {200, 200}, 0},
      {"POST with a body, then a count on the same connection",
       {"POST /api/reset HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc",
        "GET /api/count HTTP/1.1\r\n" + close},
       {200, 200}, 0},
      {"POST with a chunked body, then a count",
       {"POST /api/reset HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
        "3\r\nabc\r\n0\r\n\r\n",
        "GET /api/count HTTP/1.1\r\n" + close},
       {200, 200}, 0},
  };
  for (const auto& c : cases) {
    sendThree();
    const std::string answers = exchange(collector_->port(), c.requests);
    EXPECT_EQ(statuses(answers), c.statuses) << c.name << ":\n" << answers;
    EXPECT_NE(answers.find("{\"removed\":3}"), std::string::npos) << c.name << ":\n" << answers;
    EXPECT_EQ(get("/api/count")["count"], c.countAfter) << c.name;
  }
}

// Only the collector's beacon paths are beacons: a mistyped inspector
// address is a 404 that says so, and is not stored as a bad beacon (which
// would fail a CI's "expect --none good=false").
TEST_F(InspectorApiTest, AMistypedApiAddressIsA404NotABeacon) {
  struct Case {
    std::string request;
    std::string error;
  };
  const std::string close = " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  const std::vector<Case> cases = {
      {"GET /api/beacon?event=pageview" + close, "no such API: GET /api/beacon"},
      {"GET /api/" + close, "no such API: GET /api/"},
      {"GET /api" + close, "no such API: GET /api"},
      {"GET /api/sessions/S1/more" + close, "no such API: GET /api/sessions/S1/more"},
      {"POST /api/rest" + close, "no such API: POST /api/rest"},
      {"DELETE /api/beacon" + close, "no such API: DELETE /api/beacon"},
  };
  for (const auto& c : cases) {
    const std::string answer = exchange(collector_->port(), {c.request});
    EXPECT_EQ(statuses(answer), std::vector<int>{404}) << c.request << answer;
    EXPECT_NE(answer.find("{\"error\":\"" + c.error + "\"}"), std::string::npos)
        << c.request << answer;
  }
  EXPECT_EQ(collector_->beaconCount(), 0u);
  EXPECT_EQ(get("/api/count")["count"], 0);
  // The beacon paths still are beacons.
  send(beaconTarget("pageview", "U1", "S1", "screenname=home"));
  EXPECT_EQ(get("/api/count?good=true")["count"], 1);
}

TEST_F(InspectorApiTest, ServesThePageAndTheLibrarysEvents) {
  const auto page = client_->Get("/");
  ASSERT_TRUE(page);
  EXPECT_EQ(page->status, 200);
  EXPECT_NE(page->body.find("<script src=\"/inspector.js\">"), std::string::npos);
  const auto script = client_->Get("/inspector.js");
  ASSERT_TRUE(script);
  EXPECT_NE(script->body.find("EventSource"), std::string::npos);
  ASSERT_TRUE(client_->Get("/favicon.ico"));
  EXPECT_EQ(collector_->beaconCount(), 0u);  // the page is not a beacon

  const json types = get("/api/events")["types"];
  ASSERT_EQ(types.size(), 20u);
  EXPECT_EQ(types[7]["event"], "pageview");
  EXPECT_TRUE(types[8]["event"].is_null());  // web-initiated: the page names it
}

TEST_F(InspectorApiTest, TheStreamCarriesBeaconsAsTheyArrive) {
  send(beaconTarget("pageview", "OLD", "S1", "screenname=home"));
  store_->sync();
  std::string received;
  httplib::Client streamClient(collector_->baseURL());
  std::thread sender([&] {
    // Whether it lands before or after the stream opens, the stream starts
    // after id 1 and so carries it.
    httplib::Client c(collector_->baseURL());
    c.Get(beaconTarget("userevent", "NEW", "S1", "type=scroll"));
  });
  int chunks = 0;  // an idle line comes twice a second: give up after a while
  streamClient.Get("/api/stream?after=1", [&](const char* data, size_t length) {
    received.append(data, length);
    return received.find("\"NEW\"") == std::string::npos && ++chunks < 60;
  });
  sender.join();
  EXPECT_NE(received.find("data: "), std::string::npos);
  EXPECT_NE(received.find("\"NEW\""), std::string::npos);
  EXPECT_EQ(received.find("\"OLD\""), std::string::npos);  // only what came after id 1
}

TEST_F(InspectorApiTest, ExpectWaitsForMatchingBeacons) {
  sendThree();
  Expectation expectation;
  expectation.baseURL = collector_->baseURL();
  expectation.deadline = std::chrono::milliseconds(0);

  struct Case {
    std::multimap<std::string, std::string> filter;
    int64_t atLeast;
    bool none;
    ExpectationResult::Outcome outcome;
    int64_t matched;
  };
  using O = ExpectationResult::Outcome;
  const std::vector<Case> cases = {
      {{{"event", "userevent"}}, 1, false, O::Met, 1},
      {{{"session", "S1"}}, 2, false, O::Met, 2},
      {{{"session", "S1"}}, 3, false, O::NotMet, 2},
      {{{"screenname", "home"}}, 1, false, O::Met, 1},
      {{{"good", "false"}}, 0, true, O::NotMet, 1},
      {{{"event", "impression"}}, 0, true, O::Met, 0},
      {{{"good", "perhaps"}}, 1, false, O::Error, 0},
      // the fields taken from the path, as a CI names them
      {{{"inid", "INID"}, {"appversion", "14.2"}}, 3, false, O::Met, 3},
      {{{"inid", "INID"}, {"event", "pageview"}}, 1, false, O::Met, 1},
      {{{"inid", "OTHER-INID"}}, 1, false, O::NotMet, 0},
      {{{"appversion", "14.3"}}, 0, true, O::Met, 0},
  };
  for (const auto& c : cases) {
    expectation.filter = c.filter;
    expectation.atLeast = c.atLeast;
    expectation.none = c.none;
    const auto result = expectBeacons(expectation);
    EXPECT_EQ(result.outcome, c.outcome) << result.message;
    EXPECT_EQ(result.matched, c.matched) << result.message;
  }

  expectation.filter = {{"event", "userevent"}};
  expectation.none = false;
  const auto notMet = [&] {
    expectation.atLeast = 5;
    return expectBeacons(expectation);
  }();
  EXPECT_EQ(notMet.message, "only 1 of 5 beacons matching event=userevent arrived within 0 ms");

  collector_->stop();
  const auto unreachable = expectBeacons(expectation);
  EXPECT_EQ(unreachable.outcome, O::Error);
  EXPECT_EQ(unreachable.message,
            "cannot reach the collector at " + expectation.baseURL +
                ": no connection could be made (is korvel-collector running and listening "
                "there?)");
}

}  // namespace
}  // namespace korvel::tools
