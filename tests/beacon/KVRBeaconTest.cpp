// The dispatcher as the collector sees it: every test reads the URL that the
// executor would request, decoded with a plain form decoder.
#include <korvel/beacon/KVRBeacon.h>

#include <gtest/gtest.h>

#include <any>
#include <atomic>
#include <climits>
#include <limits>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/KeyedArchive.h>
#include "support/NotificationLog.h"
#include "support/TestEnv.h"
#include "support/WireText.h"

namespace korvel {
namespace {

using testing::CapturingExecutor;
using testing::NotificationLog;
using testing::decodeWireBeacon;
using testing::WireBeacon;
using Items = std::vector<std::pair<std::string, std::string>>;
using testing::params;
using Names = std::vector<std::string>;

constexpr const char* kReferenceTemplate =
    "https://b.example.com/b/{inid}/{appversion}/{devicemodel}?x=1";
constexpr const char* kUUID = "0F8C2A4E-6B1D-4E7F-9A3C-5D2E8B7F1A60";

Names queryNames(const WireBeacon& beacon) {
  Names names;
  for (const auto& item : beacon.query) names.push_back(item.first);
  return names;
}

class KVRBeaconTest : public testing::BeaconTest {
 protected:
  void SetUp() override {
    BeaconTest::SetUp();
    configure(kReferenceTemplate, "I", "iPhone14,2");
    KVNConfiguration::setAppShortVersion("1.0");
  }

  static void configure(std::optional<std::string> endpoint, std::optional<std::string> inid,
                        std::optional<std::string> model) {
    KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
      s.beacons.beaconEndpoint = std::move(endpoint);
      s.inid = std::move(inid);
      s.deviceModel = std::move(model);
    });
  }
};

TEST_F(KVRBeaconTest, ReferenceBeaconURL) {
  env_.queueUUIDs({kUUID});
  const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});
  ASSERT_EQ(uuid, kUUID);

  ASSERT_EQ(executor_->count(), 1u);
  EXPECT_EQ(executor_->urlAt(0),
            "https://b.example.com/b/I/1.0/iPhone14%2C2/userevent"
            "?clientcreationtimestamp=1700000000&clientbeaconuuid=" +
                std::string(kUUID) + "&a=b&x=1");
}

TEST_F(KVRBeaconTest, DeviceModelPerType) {
  struct Case {
    KVRBeaconType type;
    const char* pathEnd;
  };
  const std::vector<Case> cases = {
      {KVRBeaconTypeTagged, "/I/1.0/iPhone14%2C2/tagged"},
      {KVRBeaconTypeWatchTagged, "/I/1.0/watch/tagged"},
      {KVRBeaconTypeTaggedVariant, "/I/1.0/iPhone14%2C2/tagged"},
      {KVRBeaconTypeTestTagged, "/I/1.0/iPhone14%2C2/testtagged"},
      {KVRBeaconTypeAutoTag, "/I/1.0/iPhone14%2C2/autotag"},
  };
  // A type with an event of its own ignores the caller's.
  for (const auto& c : cases) KVRBeacon::sendBeaconOfType(c.type, {}, "foo");
  auto beacons = sent();
  ASSERT_EQ(beacons.size(), cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_TRUE(beacons[i].path.ends_with(cases[i].pathEnd))
        << "type " << cases[i].type << ": " << beacons[i].path;
  }

  // Every comma of the model is encoded.
  executor_->clear();
  configure(kReferenceTemplate, "I", "Mac,1,2");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {}, "foo");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWatchTagged, {});
  beacons = sent();
  ASSERT_EQ(beacons.size(), 2u);
  EXPECT_TRUE(beacons[0].path.ends_with("/I/1.0/Mac%2C1%2C2/userevent")) << beacons[0].path;
  EXPECT_TRUE(beacons[1].path.ends_with("/I/1.0/watch/tagged")) << beacons[1].path;
}

TEST_F(KVRBeaconTest, ValuesGoOutAsTheirDescription) {
  KVRBeacon::sendBeaconOfType(
      KVRBeaconTypeUserEvent,
      {{"five", 5},
       {"half", 2.5},
       {"whole", 2500.0},
       {"max", std::numeric_limits<uint64_t>::max()},
       {"min", std::numeric_limits<int64_t>::min()},
       {"neg", -7},
       {"yes", true},
       {"no", false},
       {"text", "plain"},
       {"empty", ""}});
  EXPECT_EQ(onlySent().parameters(),
            params("five=5&half=2.5&whole=2500&max=18446744073709551615&min=-9223372036854775808&"
                   "neg=-7&yes=1&no=0&text=plain&empty=&x=1"));
}

TEST_F(KVRBeaconTest, ParametersKeepTheCallersOrder) {
  KVRParameters p;
  for (const char* key : {"zulu", "alpha", "mike", "bravo", "yankee"}) p.set(key, key);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, p);
  EXPECT_EQ(queryNames(onlySent()), (Names{"clientcreationtimestamp", "clientbeaconuuid", "zulu",
                                           "alpha", "mike", "bravo", "yankee", "x"}));
}

TEST_F(KVRBeaconTest, EmptyDictionaryStillCarriesTheTwoClientItems) {
  configure("https://b.example.com/b/{inid}", "I", "m");
  env_.queueUUIDs({kUUID});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  EXPECT_EQ(onlySent().query,
            (Items{{"clientcreationtimestamp", "1700000000"}, {"clientbeaconuuid", kUUID}}));
}

TEST_F(KVRBeaconTest, HostileTextSurvivesAsSingleItems) {
  const Items hostile = {
      {"amp", "a&b"},
      {"eq", "x=y=z"},
      {"plus", "1+1"},
      {"hash", "#frag?q"},
      {"percent", "100% %41"},
      {"space", " two words "},
      {"newline", "line1\nline2\r\n"},
      {"unicode", "日本🎵"},
      {"k=&y", "key with = and &"},
      {"日本", "unicode key"},
      {"slash", "a/b?c"},
  };
  KVRParameters p;
  for (const auto& [k, v] : hostile) p.set(k, v);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, p);

  const auto beacon = onlySent();
  EXPECT_EQ(beacon.query.size(), 2 + hostile.size() + 1);
  Items expected = hostile;
  expected.push_back({"x", "1"});
  EXPECT_EQ(beacon.parameters(), expected);
  // Nothing raw that a server would split on or stop at.
  const auto query = beacon.url.substr(beacon.url.find('?') + 1);
  EXPECT_EQ(query.find_first_of("# \n\r+"), std::string::npos) << query;
}

TEST_F(KVRBeaconTest, TemplateWithoutPlaceholdersIsUsedAsIs) {
  configure("https://collector.example.net/beacon", "I", "m");
  env_.queueUUIDs({kUUID});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});
  EXPECT_EQ(executor_->urlAt(0),
            "https://collector.example.net/beacon/userevent?clientcreationtimestamp=1700000000"
            "&clientbeaconuuid=" + std::string(kUUID) + "&a=b");
}

TEST_F(KVRBeaconTest, TemplatePathEdges) {
  struct Case {
    const char* templ;
    const char* path;
  };
  const std::vector<Case> cases = {
      {"https://b.example.com/b/{inid}/", "/b/I/userevent"},
      {"https://b.example.com/", "/userevent"},
      {"https://b.example.com", "/userevent"},
      {"https://b.example.com/{inid}/{inid}/{devicemodel}/{devicemodel}",
       "/I/I/iPhone14%2C2/iPhone14%2C2/userevent"},
      {"https://b.example.com:8443/v1/{appversion}?a=1&b=2", "/v1/1.0/userevent"},
  };
  for (const auto& c : cases) {
    executor_->clear();
    configure(c.templ, "I", "iPhone14,2");
    KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
    EXPECT_EQ(onlySent().path, c.path) << c.templ;
  }
  // The template's own items come after the beacon's.
  EXPECT_EQ(queryNames(onlySent()),
            (Names{"clientcreationtimestamp", "clientbeaconuuid", "a", "b"}));
  EXPECT_TRUE(onlySent().url.starts_with("https://b.example.com:8443/v1/1.0/userevent?"));

  // Placeholders in the template's query are filled in too.
  executor_->clear();
  configure("https://b.example.com/b?i={inid}&m={devicemodel}&v={appversion}", "I",
            "iPhone14,2");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.path, "/b/userevent");
  EXPECT_EQ(beacon.parameters(), params("a=b&i=I&m=iPhone14,2&v=1.0"));
}

TEST_F(KVRBeaconTest, URLUsesTheConfigurationAsItIsWhenBuilt) {
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});
  const auto records = submitted();
  ASSERT_EQ(records.size(), 1u);

  configure("https://other.example.org/c/{inid}/{appversion}/{devicemodel}?y=2", "J", "Pixel,7");
  KVNConfiguration::setAppShortVersion("2.0");

  const auto beacon = onlySent();
  EXPECT_TRUE(beacon.url.starts_with("https://other.example.org/c/J/2.0/Pixel%2C7/userevent?"))
      << beacon.url;
  EXPECT_EQ(queryNames(beacon),
            (Names{"clientcreationtimestamp", "clientbeaconuuid", "a", "y"}));
  // The record keeps what it captured; only the URL follows the configuration.
  EXPECT_EQ(records[0]->inid(), "I");
  EXPECT_EQ(records[0]->appVersion(), "1.0");

  // Beacons switched off after submission: the builder gives no endpoint.
  configure(std::nullopt, "J", "Pixel,7");
  ASSERT_EQ(executor_->count(), 1u);
  EXPECT_FALSE(executor_->requests()[0].buildEndpoint().has_value());
  configure("not a url", "J", "Pixel,7");
  EXPECT_FALSE(executor_->requests()[0].buildEndpoint().has_value());
}

TEST_F(KVRBeaconTest, NoEndpointMeansNothingSentButTheRecordIsStillMade) {
  for (std::optional<std::string> endpoint : {std::optional<std::string>(),
                                              std::optional<std::string>("")}) {
    configure(endpoint, "I", "m");
    NotificationLog log(env_.notificationCenter());
    env_.queueUUIDs({kUUID});

    const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});

    EXPECT_EQ(uuid, kUUID);
    EXPECT_EQ(executor_->count(), 0u);
    EXPECT_TRUE(log.submitted().empty());
    const auto created = log.created();
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(created[0].find("parameters")->asDictionary()->stringForKey("clientbeaconuuid"),
              kUUID);
  }
  EXPECT_TRUE(submitted().empty());
}

TEST_F(KVRBeaconTest, UnknownTypesMakeNothing) {
  NotificationLog log(env_.notificationCenter());
  for (int type : {0, -1, 21, INT_MIN, INT_MAX}) {
    const auto t = static_cast<KVRBeaconType>(type);
    EXPECT_EQ(KVRBeacon::sendBeaconOfType(t, {{"a", "b"}}), std::nullopt) << type;
    EXPECT_EQ(KVRBeacon::sendBeaconOfType(t, {{"a", "b"}}, "foo"), std::nullopt) << type;
    EXPECT_EQ(KVRBeacon::taskOfType(t, {}, std::nullopt), nullptr) << type;
  }
  EXPECT_TRUE(log.entries().empty());
  EXPECT_EQ(executor_->count(), 0u);
  // A missing record handed to sendBeacon queues nothing.
  KVRBeacon::sendBeacon(nullptr, KVRBeaconTypeUserEvent);
  EXPECT_EQ(executor_->count(), 0u);
}

TEST_F(KVRBeaconTest, CreatedThenSubmittedWithTheirPayloads) {
  NotificationLog log(env_.notificationCenter());
  env_.setNow(1700000000.6);
  env_.queueUUIDs({kUUID});

  const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});

  const auto entries = log.entries();
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].name, KVRReliableNetworkingTaskCreatedNotification);
  EXPECT_EQ(entries[1].name, KVRReliableNetworkingTaskSubmittedNotification);
  // Both are posted synchronously on the reporting thread.
  EXPECT_EQ(entries[0].thread, std::this_thread::get_id());
  EXPECT_EQ(entries[1].thread, std::this_thread::get_id());

  // Created: the dictionary representation, not the record.
  ASSERT_EQ(entries[0].object.type(), typeid(KVRParameters));
  const auto& representation = std::any_cast<const KVRParameters&>(entries[0].object);
  EXPECT_EQ(representation.keys(), (Names{"type", "parameters"}));
  EXPECT_EQ(representation.stringForKey("type"), "userevent");
  EXPECT_EQ(*representation.find("parameters")->asDictionary(),
            (KVRParameters{{"a", "b"},
                           {"clientcreationtimestamp", "1700000001"},
                           {"clientbeaconuuid", kUUID},
                           {"inid", "I"}}));

  // Submitted: the record itself, the one whose uuid was returned.
  ASSERT_EQ(entries[1].object.type(), typeid(std::shared_ptr<const KVRReliableNetworkingTask>));
  const auto record = log.submitted().at(0);
  EXPECT_EQ(std::tuple(record->uuid(), record->event(), record->className()),
            std::tuple(uuid, "userevent", "KVRUserEventBeacon"));
  EXPECT_EQ(record->parameters(), (KVRParameters{{"a", "b"}}));
  EXPECT_EQ(submitted().at(0).get(), record.get());
  EXPECT_EQ(onlySent().value("clientbeaconuuid"), uuid);
}

TEST_F(KVRBeaconTest, WebInitiatedBeaconsTakeTheirEventFromTheCaller) {
  NotificationLog log(env_.notificationCenter());
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, {{"a", "b"}}, "foo");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, {}, "two words/and a slash");
  // The event is set after the record announced itself: no "type" at creation.
  const auto created = log.created();
  ASSERT_EQ(created.size(), 2u);
  EXPECT_FALSE(created[0].contains("type"));
  EXPECT_TRUE(created[0].contains("parameters"));
  EXPECT_EQ(log.submitted().at(0)->event(), "foo");

  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 2u);
  EXPECT_TRUE(beacons[0].path.ends_with("/I/1.0/iPhone14%2C2/foo")) << beacons[0].path;
  // An event stays one path component whatever it holds.
  EXPECT_TRUE(beacons[1].path.starts_with("/b/I/1.0/iPhone14%2C2/")) << beacons[1].path;
  EXPECT_EQ(beacons[1].event, "two words/and a slash");
}

// A web-initiated beacon sent without an event has its event cleared and
// goes out to the template's own path, with no event component at all.
TEST_F(KVRBeaconTest, WebInitiatedWithoutEventHasNoEventComponent) {
  const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, {{"a", "b"}});
  ASSERT_TRUE(uuid.has_value());
  EXPECT_EQ(submitted().at(0)->event(), std::nullopt);
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.path, "/b/I/1.0/iPhone14%2C2");
  EXPECT_EQ(queryNames(beacon), (Names{"clientcreationtimestamp", "clientbeaconuuid", "a", "x"}));
}

TEST_F(KVRBeaconTest, PinnedUUIDIsTheIdentifierAndIsSentOnce) {
  NotificationLog log(env_.notificationCenter());
  const auto uuid = KVRBeacon::sendBeaconOfType(
      KVRBeaconTypeUserEvent, {{"a", "b"}, {"clientbeaconuuid", "PINNED-1"}, {"c", "d"}});
  EXPECT_EQ(uuid, "PINNED-1");

  const auto beacon = onlySent();
  EXPECT_EQ(queryNames(beacon),
            (Names{"clientcreationtimestamp", "clientbeaconuuid", "a", "c", "x"}));
  EXPECT_EQ(beacon.value("clientbeaconuuid"), "PINNED-1");
  EXPECT_FALSE(submitted().at(0)->parameters().contains("clientbeaconuuid"));
  EXPECT_EQ(log.created().at(0).find("parameters")->asDictionary()->stringForKey(
                "clientbeaconuuid"),
            "PINNED-1");
}

TEST_F(KVRBeaconTest, StoredBeaconsAreRestoredOnlyWithTheirArchivedUUID) {
  KVRBeacon::registerRequestRestorer();
  env_.queueUUIDs({kUUID});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"a", "b"}});
  const auto stored = executor_->requests().at(0);
  ASSERT_EQ(stored.restorationKind(), KVRBeacon::kRestorationKind);
  const auto restored =
      KVNRequestRestorers::restore(stored.restorationKind(), *stored.restorationPayload());
  ASSERT_TRUE(restored.has_value());
  EXPECT_EQ(restored->buildEndpoint()->urlString(), executor_->urlAt(0));

  // A stored payload whose record has no uuid as text would go out under a
  // fresh one, so it is not restored, and the log says why.
  const std::vector<std::optional<double>> uuids = {std::nullopt, 42.0};
  for (const auto& uuidAsNumber : uuids) {
    KeyedArchiver coder;
    coder.encodeObject("$class", std::string("KVRUserEventBeacon"));
    coder.encodeObject("parameters", KVRParameters{{"a", "b"}});
    coder.encodeDouble("creationTimestamp", 1700000000);
    if (uuidAsNumber) coder.encodeDouble("uuid", *uuidAsNumber);
    coder.encodeInt("beaconType", KVRBeaconTypeUserEvent);
    coder.encodeObject("beaconEvent", std::string("userevent"));
    env_.logs().clear();
    EXPECT_FALSE(KVNRequestRestorers::restore(KVRBeacon::kRestorationKind, coder.encodedData())
                     .has_value());
    const auto messages = env_.logs().messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("uuid"), std::string::npos) << messages[0];
  }
}

TEST_F(KVRBeaconTest, RequestSettings) {
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWatchTagged, {});
  const auto requests = executor_->requests();
  ASSERT_EQ(requests.size(), 2u);
  for (const auto& r : requests) {
    EXPECT_EQ(std::tuple(r.httpMethod(), r.backgroundSessionRetryCount(), r.priority(),
                         r.configurationPolicy()),
              std::tuple(KVNNetworkRequestHTTPMethodGET, 3, 1, 2));
    EXPECT_TRUE(r.endpointBuilderBlock() != nullptr);
  }
}

// Journals on users' machines hold restoration payloads written by earlier
// versions: the bytes of a payload are pinned here, and pinned bytes must
// restore to the beacon they were made from.
constexpr const char* kPinnedPayloadHex =
    "a86624636c617373754b5652576562496e69746961746564426561636f6e6a706172616d6574657273ad6173"
    "6d74657874202620e697a5e69cac616924636269671a000f42406175d80348ffffffffffffffff6164fa4020"
    "0000627069fb400921fb54442d186162f56464617465d8014800002040fc54d9416375726cd8025768747470"
    "733a2f2f612e6578616d706c652f783f793d316464696374a2617a01616183617802a1616efa3fc000006565"
    "6d707479606973657373696f6e69646953455353494f4e2d31637372766137716372656174696f6e54696d65"
    "7374616d70fb41d954fc401000006475756964782430463843324134452d364231442d344537462d39413343"
    "2d35443245384237463141363064696e696461496a61707056657273696f6e63312e306a626561636f6e5479"
    "7065096b626561636f6e4576656e74687765626576656e74";

std::string toHex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

std::string fromHex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16));
  }
  return out;
}

TEST_F(KVRBeaconTest, RestorationPayloadBytesArePinnedAndRestoreTheBeacon) {
  KVRUserSession::setSessionID("SESSION-1");
  KVNConfiguration::sharedInstance().setBeaconParameters({{"srv", "7"}});
  env_.queueUUIDs({kUUID});
  env_.setNow(1700000000.25);
  const KVRParameters parameters{
      {"s", "text & 日本"},
      {"i", -5},
      {"big", 1000000},
      {"u", std::numeric_limits<uint64_t>::max()},
      {"d", 2.5},
      {"pi", 3.141592653589793},
      {"b", true},
      {"date", KVRDate{1700000000.5}},
      {"url", KVRURL{"https://a.example/x?y=1"}},
      {"dict", KVRParameters{{"z", 1}, {"a", KVRList{"x", 2, KVRParameters{{"n", 1.5}}}}}},
      {"empty", ""},
  };
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, parameters, "webevent");
  ASSERT_EQ(executor_->count(), 1u);
  const std::string url = executor_->urlAt(0);
  const KVNNetworkRequest request = executor_->requests().at(0);
  ASSERT_EQ(request.restorationKind(), KVRBeacon::kRestorationKind);
  const std::string payload = request.restorationPayload().value_or("");
  EXPECT_EQ(toHex(payload), kPinnedPayloadHex);

  for (const std::string& bytes : {fromHex(kPinnedPayloadHex), payload}) {
    const auto restored = KVNRequestRestorers::restore(KVRBeacon::kRestorationKind, bytes);
    ASSERT_TRUE(restored);
    const auto endpoint = restored->buildEndpoint();
    ASSERT_TRUE(endpoint);
    EXPECT_EQ(endpoint->urlString(), url);
    EXPECT_EQ(restored->restorationPayload(), payload);
  }
}

// Counts the executors the library asks the Env to make.
class CountingEnv : public platform::EnvWrapper {
 public:
  using EnvWrapper::EnvWrapper;
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> makeBackgroundExecutor(
      const std::string& identifier) override {
    ++made;
    return EnvWrapper::makeBackgroundExecutor(identifier);
  }
  std::atomic<int> made{0};
};

TEST_F(KVRBeaconTest, BackgroundSessionIsMadeOnceOnFirstUse) {
  CountingEnv counting(env_);
  platform::ScopedEnv scope(counting);
  KVRBeacon::setBackgroundSession(nullptr);

  // Beacons switched off: nothing asks for the executor.
  configure(std::nullopt, "I", "m");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  EXPECT_EQ(counting.made, 0);

  configure(kReferenceTemplate, "I", "m");
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {});
  EXPECT_EQ(counting.made, 1);

  auto session = std::dynamic_pointer_cast<CapturingExecutor>(KVRBeacon::backgroundSession());
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->backgroundSessionIdentifier(), "com.korvel.tests.backgroundBeacons");
  EXPECT_EQ(session->count(), 2u);
  EXPECT_EQ(KVRBeacon::backgroundSession(), session);
  EXPECT_EQ(executor_->count(), 0u);

  env_.setMainBundleIdentifier(std::nullopt);
  KVRBeacon::setBackgroundSession(nullptr);
  EXPECT_EQ(KVRBeacon::backgroundSession()->backgroundSessionIdentifier(),
            "Unknown bundle.backgroundBeacons");
}

TEST_F(KVRBeaconTest, BackgroundSessionFirstUseRacesMakeOne) {
  CountingEnv counting(env_);
  platform::ScopedEnv scope(counting);
  KVRBeacon::setBackgroundSession(nullptr);

  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<KVNNetworkBackgroundRequestExecutor>> seen(kThreads);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      while (!go) std::this_thread::yield();
      seen[static_cast<size_t>(i)] = KVRBeacon::backgroundSession();
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(counting.made, 1);
  for (const auto& s : seen) EXPECT_EQ(s, seen[0]);
}

}  // namespace
}  // namespace korvel
