// The inspector's HTTP side against a collector with a store: beacons sent
// as the library sends them, read back through the JSON API, the live
// stream and the expect command.
#include <httplib.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

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
}

TEST_F(InspectorApiTest, OneBeaconCountsSessionsAndReset) {
  sendThree();
  send(beaconTarget("pageview", "U1", "S1", "screenname=home&duration=1.2"));  // a resend
  const json records = get("/api/beacons/U1");
  ASSERT_EQ(records["beacons"].size(), 2u);
  EXPECT_EQ(records["beacons"][1]["verdict"], "retry");
  EXPECT_EQ(get("/api/beacons/nope", 404)["error"], "no beacon with uuid nope");

  const json counts = get("/api/counts");
  EXPECT_EQ(counts["total"], 4);
  EXPECT_EQ(counts["retry"], 1);
  EXPECT_EQ(counts["events"]["userevent"]["types"]["scroll"], 1);

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

TEST_F(InspectorApiTest, ABadFilterIsAnError) {
  EXPECT_EQ(get("/api/beacons?good=maybe", 400)["error"], "bad value for good: \"maybe\"");
  EXPECT_EQ(get("/api/count?limit=0", 400)["error"], "bad value for limit: \"0\"");
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
  EXPECT_NE(unreachable.message.find("cannot reach the collector"), std::string::npos);
}

}  // namespace
}  // namespace korvel::tools
