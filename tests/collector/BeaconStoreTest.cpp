#include "collector/BeaconStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace korvel::tools {
namespace {

using json = nlohmann::ordered_json;

constexpr int64_t kNowMs = 1'800'000'000'000;
constexpr int64_t kNowSeconds = kNowMs / 1000;

// A beacon as the library sends it, with the parts a case changes.
struct Wire {
  std::string event = "pageview";
  std::string inid = "INID-A";
  std::string version = "14.2";
  std::optional<std::string> created = std::to_string(kNowSeconds - 5);
  std::optional<std::string> uuid = "UUID-1";
  std::optional<std::string> session = "S1";
  std::string rest = "screenname=home&duration=1.5";

  std::string target() const {
    std::string query;
    auto item = [&](const std::string& k, const std::optional<std::string>& v) {
      if (v) query += (query.empty() ? "" : "&") + k + "=" + *v;
    };
    item("clientcreationtimestamp", created);
    item("clientbeaconuuid", uuid);
    item("sessionid", session);
    if (!rest.empty()) query += (query.empty() ? "" : "&") + rest;
    return "/b/" + inid + "/" + version + "/Laptop14%2C2/" + event + "?" + query;
  }
};

std::shared_ptr<BeaconStore> openStore(BeaconStore::Options options = {}) {
  std::string error;
  auto store = BeaconStore::open(std::move(options), &error);
  EXPECT_NE(store, nullptr) << error;
  return store;
}

std::vector<std::string> reasonsOf(const json& beacon) {
  std::vector<std::string> reasons;
  for (const auto& r : beacon["reasons"]) reasons.push_back(r.get<std::string>());
  return reasons;
}

json newest(BeaconStore& store) {
  BeaconFilter filter;
  filter.limit = 1;
  return store.list(filter)["beacons"].at(0);
}

// Each rule with a case that breaks it and one that does not.
struct RuleCase {
  const char* name;
  std::vector<Wire> before;  // received first
  Wire beacon;
  const char* verdict;
  const char* reason;  // a part of the one reason expected; "" for none
};

Wire with(std::function<void(Wire&)> change) {
  Wire w;
  change(w);
  return w;
}

const std::vector<RuleCase> kRules = {
    {"a library event", {}, Wire{}, "good", ""},
    {"an event the library does not make", {}, with([](Wire& w) { w.event = "pagevew"; }), "bad",
     "event \"pagevew\" is not one the library makes"},
    {"a tagged beacon of the test type", {}, with([](Wire& w) { w.event = "testtagged"; }),
     "good", ""},
    {"no uuid", {}, with([](Wire& w) { w.uuid.reset(); }), "bad", "missing clientbeaconuuid"},
    {"an empty uuid", {}, with([](Wire& w) { w.uuid = ""; }), "bad", "missing clientbeaconuuid"},
    {"no creation time", {}, with([](Wire& w) { w.created.reset(); }), "bad",
     "missing clientcreationtimestamp"},
    {"no session", {}, with([](Wire& w) { w.session.reset(); }), "bad", "missing sessionid"},
    {"a creation time that is not a number", {}, with([](Wire& w) { w.created = "soon"; }),
     "bad", "is not a number of seconds"},
    {"a valid escape", {}, with([](Wire& w) { w.rest = "screenname=search%20results"; }), "good",
     ""},
    {"a malformed escape", {}, with([](Wire& w) { w.rest = "screenname=100%zz"; }), "bad",
     "malformed percent-encoding \"%zz\""},
    {"a cut escape at the end", {}, with([](Wire& w) { w.rest = "screenname=a%4"; }), "bad",
     "malformed percent-encoding \"%4\""},
    {"created a minute ahead (clock skew)", {},
     with([](Wire& w) { w.created = std::to_string(kNowSeconds + 60); }), "good", ""},
    {"created an hour ahead", {},
     with([](Wire& w) { w.created = std::to_string(kNowSeconds + 3600); }), "bad",
     "in the future"},
    {"created a day ago (delivered late)", {},
     with([](Wire& w) { w.created = std::to_string(kNowSeconds - 86400); }), "good", ""},
    {"created forty days ago", {},
     with([](Wire& w) { w.created = std::to_string(kNowSeconds - 40 * 86400); }), "bad",
     "40 days before it arrived"},
    {"a resend with the same parameters", {Wire{}}, Wire{}, "retry", "resend of #"},
    {"a uuid reused with other parameters", {Wire{}},
     with([](Wire& w) { w.rest = "screenname=track"; }), "bad",
     "uuid already received with other parameters"},
    {"a uuid reused for another event", {Wire{}},
     with([](Wire& w) { w.event = "userevent"; }), "bad",
     "uuid already received with other parameters"},
    {"the session's inid", {Wire{}}, with([](Wire& w) { w.uuid = "UUID-2"; }), "good", ""},
    {"another inid in the session", {Wire{}},
     with([](Wire& w) {
       w.uuid = "UUID-2";
       w.inid = "INID-B";
     }),
     "bad", "inid INID-B differs from the session's INID-A"},
    {"another inid in another session", {Wire{}},
     with([](Wire& w) {
       w.uuid = "UUID-2";
       w.inid = "INID-B";
       w.session = "S2";
     }),
     "good", ""},
    {"another app version in the session", {Wire{}},
     with([](Wire& w) {
       w.uuid = "UUID-2";
       w.version = "14.3";
     }),
     "bad", "app version 14.3 differs from the session's 14.2"},
};

TEST(BeaconStoreTest, EachRuleHasAGoodAndABadCase) {
  for (const auto& rule : kRules) {
    SCOPED_TRACE(rule.name);
    auto store = openStore();
    for (const auto& earlier : rule.before) store->add({kNowMs, 204, earlier.target()});
    store->add({kNowMs, 204, rule.beacon.target()});
    const json beacon = newest(*store);
    EXPECT_EQ(beacon["verdict"], rule.verdict);
    const auto reasons = reasonsOf(beacon);
    if (*rule.reason == '\0') {
      EXPECT_TRUE(reasons.empty()) << beacon["reasons"].dump();
    } else {
      ASSERT_EQ(reasons.size(), 1u) << beacon["reasons"].dump();
      EXPECT_NE(reasons[0].find(rule.reason), std::string::npos) << reasons[0];
    }
  }
}

TEST(BeaconStoreTest, KnowsEveryFixedEventOfTheLibrary) {
  auto store = openStore();
  for (const char* event : {"startup", "resume", "tagged", "error", "deeplink", "tagHistory",
                            "userevent", "pageview", "usersession", "autotag", "impression",
                            "tagsync", "testtagged", "widget", "exceptions", "auth",
                            "performance"}) {
    EXPECT_EQ(store->knownEvents().count(event), 1u) << event;
  }
  EXPECT_EQ(store->knownEvents().size(), 17u);

  // A web page's own event is bad until the host allows it.
  Wire web;
  web.event = "webpromo";
  store->add({kNowMs, 204, web.target()});
  EXPECT_EQ(newest(*store)["verdict"], "bad");
  BeaconStore::Options options;
  options.webEvents = {"webpromo"};
  auto allowing = openStore(options);
  allowing->add({kNowMs, 204, web.target()});
  EXPECT_EQ(newest(*allowing)["verdict"], "good");
}

TEST(BeaconStoreTest, ARetryOfAResendPointsAtTheFirst) {
  auto store = openStore();
  for (int i = 0; i < 3; ++i) store->add({kNowMs, i == 0 ? 500 : 204, Wire{}.target()});
  const json records = store->byUUID("UUID-1");
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0]["verdict"], "good");
  EXPECT_EQ(records[0]["status"], 500);
  EXPECT_EQ(records[1]["retryof"], records[0]["id"]);
  EXPECT_EQ(records[2]["retryof"], records[0]["id"]);
  EXPECT_TRUE(store->byUUID("UUID-9").empty());
}

TEST(BeaconStoreTest, KeepsTheDecodedBeacon) {
  auto store = openStore();
  Wire w;
  w.rest = "screenname=search+results&type=scroll";
  store->add({kNowMs, 204, w.target()});
  const json beacon = newest(*store);
  const json expected = {{"event", "pageview"},  {"type", "scroll"},    {"sessionid", "S1"},
                         {"uuid", "UUID-1"},     {"inid", "INID-A"},    {"appversion", "14.2"},
                         {"created", static_cast<double>(kNowSeconds - 5)},
                         {"received", kNowMs},   {"target", w.target()}};
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(beacon[key], value) << key;
  EXPECT_EQ(beacon["params"][3], json::array({"screenname", "search results"}));
}

// Five beacons over two sessions; each filter against the ids it selects.
class BeaconStoreFilterTest : public testing::Test {
 protected:
  void SetUp() override {
    store_ = openStore();
    auto add = [&](int64_t at, std::function<void(Wire&)> change) {
      Wire w;
      change(w);
      store_->add({kNowMs + at, 204, w.target()});
    };
    add(0, [](Wire& w) { w.uuid = "U1"; });  // 1 pageview home, S1
    add(10, [](Wire& w) {                    // 2 userevent scroll, S1
      w.uuid = "U2";
      w.event = "userevent";
      w.rest = "type=scroll";
    });
    add(20, [](Wire& w) {  // 3 userevent share, S2
      w.uuid = "U3";
      w.event = "userevent";
      w.session = "S2";
      w.rest = "type=share&provider=messages";
    });
    add(30, [](Wire& w) {  // 4 bad: unknown event, S2
      w.uuid = "U4";
      w.event = "bogus";
      w.session = "S2";
    });
    add(40, [](Wire& w) { w.uuid = "U1"; });  // 5 resend of 1
  }

  std::vector<int64_t> ids(const std::multimap<std::string, std::string>& items) {
    std::string error;
    const auto filter = BeaconFilter::fromQuery(items, &error);
    EXPECT_TRUE(filter) << error;
    if (!filter) return {};
    std::vector<int64_t> out;
    const json page = store_->list(*filter);
    for (const auto& b : page["beacons"]) out.push_back(b["id"].get<int64_t>());
    // A count ignores paging.
    if (items.count("limit") == 0 && items.count("before") == 0) {
      EXPECT_EQ(store_->count(*filter), static_cast<int64_t>(out.size()));
    }
    return out;
  }

  std::shared_ptr<BeaconStore> store_;
};

TEST_F(BeaconStoreFilterTest, EachFilterSelectsItsBeacons) {
  const std::string now = std::to_string(kNowMs);
  const std::vector<std::pair<std::multimap<std::string, std::string>, std::vector<int64_t>>>
      cases = {
          {{}, {5, 4, 3, 2, 1}},
          {{{"event", "userevent"}}, {3, 2}},
          {{{"type", "scroll"}}, {2}},
          {{{"session", "S2"}}, {4, 3}},
          {{{"sessionid", "S1"}}, {5, 2, 1}},
          {{{"uuid", "U1"}}, {5, 1}},
          {{{"param", "provider=messages"}}, {3}},
          {{{"provider", "messages"}}, {3}},
          {{{"param", "provider"}}, {3}},
          {{{"param", "screenname=home"}, {"session", "S2"}}, {4}},
          {{{"param", "screenname=home"}, {"param", "duration=1.5"}}, {5, 4, 1}},
          {{{"since", std::to_string(kNowMs + 10)}}, {5, 4, 3, 2}},
          {{{"until", std::to_string(kNowMs + 10)}}, {1}},
          {{{"since", std::to_string(kNowMs + 10)}, {"until", std::to_string(kNowMs + 30)}},
           {3, 2}},
          {{{"good", "false"}}, {4}},
          {{{"good", "true"}}, {5, 3, 2, 1}},
          {{{"verdict", "retry"}}, {5}},
          {{{"verdict", "good"}, {"event", "pageview"}}, {1}},
          {{{"limit", "2"}}, {5, 4}},
          {{{"limit", "2"}, {"before", "4"}}, {3, 2}},
          {{{"after", "3"}}, {4, 5}},
          {{{"event", "none"}}, {}},
      };
  for (const auto& [items, expected] : cases) {
    std::string text;
    for (const auto& [k, v] : items) text += k + "=" + v + " ";
    SCOPED_TRACE(text);
    EXPECT_EQ(ids(items), expected);
  }
}

TEST_F(BeaconStoreFilterTest, PagesLinkThroughNext) {
  BeaconFilter filter;
  filter.limit = 2;
  std::vector<int64_t> seen;
  for (int page = 0; page < 5; ++page) {
    const json answer = store_->list(filter);
    for (const auto& b : answer["beacons"]) seen.push_back(b["id"].get<int64_t>());
    if (answer["next"].is_null()) break;
    filter.before = answer["next"].get<int64_t>();
  }
  EXPECT_EQ(seen, (std::vector<int64_t>{5, 4, 3, 2, 1}));
}

TEST(BeaconFilterTest, RejectsValuesThatDoNotParse) {
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"good", "yes"}, {"verdict", "fine"}, {"limit", "0"},    {"limit", "1001"},
      {"since", "x"},  {"before", "-1"},   {"param", "=v"},    {"param", ""},
      {"until", "1e3"},
  };
  for (const auto& [k, v] : bad) {
    std::string error;
    EXPECT_FALSE(BeaconFilter::fromQuery({{k, v}}, &error)) << k << "=" << v;
    EXPECT_NE(error.find(k), std::string::npos) << error;
  }
}

TEST_F(BeaconStoreFilterTest, CountsByVerdictEventAndType) {
  const json counts = store_->counts();
  EXPECT_EQ(std::tuple(counts["total"], counts["good"], counts["retry"], counts["bad"]),
            std::tuple(5, 3, 1, 1));
  const json& events = counts["events"];
  EXPECT_EQ(std::tuple(events["userevent"]["total"], events["userevent"]["types"]["scroll"],
                       events["userevent"]["types"]["share"], events["pageview"]["total"],
                       events["bogus"]["total"]),
            std::tuple(2, 1, 1, 2, 1));
}

TEST_F(BeaconStoreFilterTest, SessionsAndTheirTimelines) {
  const json sessions = store_->sessions(10);
  ASSERT_EQ(sessions.size(), 2u);
  // S1 first: its newest beacon is the newest of all.
  EXPECT_EQ(std::tuple(sessions[0]["sessionid"], sessions[0]["beacons"], sessions[0]["bad"]),
            std::tuple("S1", 3, 0));
  EXPECT_EQ(std::tuple(sessions[1]["sessionid"], sessions[1]["bad"], sessions[1]["first"],
                       sessions[1]["last"]),
            std::tuple("S2", 1, kNowMs + 20, kNowMs + 30));

  const json s1 = store_->session("S1");
  ASSERT_EQ(s1["beacons"].size(), 3u);
  EXPECT_EQ(s1["beacons"][0]["id"], 1);  // arrival order
  ASSERT_EQ(s1["pageviews"].size(), 2u);
  EXPECT_EQ(s1["pageviews"][0]["screen"], "home");
  EXPECT_EQ(s1["pageviews"][0]["duration"], 1.5);
  EXPECT_TRUE(store_->session("S9")["beacons"].empty());
}

TEST_F(BeaconStoreFilterTest, ResetForgetsEverythingButNotTheIds) {
  EXPECT_EQ(store_->resets(), 0u);
  EXPECT_EQ(store_->reset(), 5);
  EXPECT_EQ(std::pair(store_->resets(), store_->count({})), std::pair(size_t{1}, int64_t{0}));
  store_->add({kNowMs, 204, Wire{}.target()});
  const json beacon = newest(*store_);
  EXPECT_EQ(beacon["id"], 6);  // a live page never mistakes it for one it has
  EXPECT_EQ(beacon["verdict"], "good");  // the uuid was forgotten too
}

TEST(BeaconStoreTest, AFileStoreIsPrivateAndKeepsItsBeacons) {
  const auto dir = std::filesystem::temp_directory_path() /
                   ("korvel-store-test-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  BeaconStore::Options options;
  options.file = dir / "beacons.sqlite";
  {
    auto store = openStore(options);
    store->add({kNowMs, 204, Wire{}.target()});
    store->sync();
  }
  struct stat st {};
  ASSERT_EQ(::stat(options.file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600);
  {
    auto store = openStore(options);
    EXPECT_EQ(store->count({}), 1);
    store->add({kNowMs, 204, Wire{}.target()});
    EXPECT_EQ(newest(*store)["verdict"], "retry");  // remembered across runs
  }
  std::filesystem::remove_all(dir);
}

TEST(BeaconStoreTest, AStoreThatCannotBeOpenedSaysWhy) {
  BeaconStore::Options options;
  options.file = "/nonexistent-dir/beacons.sqlite";
  std::string error;
  EXPECT_EQ(BeaconStore::open(options, &error), nullptr);
  EXPECT_NE(error.find("/nonexistent-dir/beacons.sqlite"), std::string::npos) << error;
}

TEST(BeaconStoreTest, KeepsAtMostMaxBeacons) {
  BeaconStore::Options options;
  options.maxBeacons = 3;
  auto store = openStore(options);
  for (int i = 0; i < 5; ++i) {
    Wire w;
    w.uuid = "U" + std::to_string(i);
    store->add({kNowMs, 204, w.target()});
  }
  BeaconFilter filter;
  std::vector<int64_t> ids;
  const json page = store->list(filter);
  for (const auto& b : page["beacons"]) ids.push_back(b["id"].get<int64_t>());
  EXPECT_EQ(ids, (std::vector<int64_t>{5, 4, 3}));
}

}  // namespace
}  // namespace korvel::tools
