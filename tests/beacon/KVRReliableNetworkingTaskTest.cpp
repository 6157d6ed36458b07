#include <korvel/beacon/KVRReliableNetworkingTask.h>

#include <gtest/gtest.h>

#include <charconv>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/foundation/KeyedArchive.h>
#include "support/NotificationLog.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

using Names = std::vector<std::string>;
constexpr const char* kUUID = "7A3E1B2C-4D5F-4A6B-8C7D-9E0F1A2B3C4D";

class KVRReliableNetworkingTaskTest : public testing::BeaconTest {
 protected:
  void SetUp() override {
    BeaconTest::SetUp();
    log_.emplace(env_.notificationCenter());
  }
  void TearDown() override {
    log_.reset();
    BeaconTest::TearDown();
  }

  std::vector<KVRParameters> created() const { return log_->created(); }

  template <class T = KVRUserEventBeacon>
  std::shared_ptr<T> makeRecord(const KVRParameters& parameters, bool withSession = true) {
    const KVRUserSession session;
    return KVRReliableNetworkingTask::make<T>(parameters, withSession ? &session : nullptr);
  }

  // What a record carries besides its parameters.
  static auto fields(const KVRReliableNetworkingTask& t) {
    return std::tuple(t.className(), t.event(), t.uuid(), t.creationTimestamp(), t.debugInid(),
                      t.appVersion());
  }

  static void setInid(std::optional<std::string> inid) {
    KVNConfiguration::sharedInstance().setInid(std::move(inid));
  }

 private:
  std::optional<testing::NotificationLog> log_;
};

TEST_F(KVRReliableNetworkingTaskTest, CreationMergesCommonParametersOverTheCallers) {
  KVNConfiguration::sharedInstance().setBeaconParameters({{"srv", "S"}});
  KVRUserSession::setSessionID("SESSION");
  env_.queueUUIDs({kUUID});
  env_.setNow(1700000123.25);

  const KVRParameters caller{{"sessionid", "caller"}, {"a", "1"}, {"screenname", "mine"}};
  const auto task = makeRecord(caller);

  EXPECT_EQ(task->nonCommonParameters(), caller);
  EXPECT_EQ(task->nonCommonParameters().keys(), caller.keys());
  EXPECT_EQ(task->commonParameters().keys(), (Names{"sessionid", "srv"}));
  EXPECT_EQ(task->commonParameters().stringForKey("sessionid"), "SESSION");
  // Common parameters win on a clash; new ones follow the caller's keys.
  EXPECT_EQ(task->parameters().keys(), (Names{"sessionid", "a", "screenname", "srv"}));
  EXPECT_EQ(task->parameters().stringForKey("sessionid"), "SESSION");
  EXPECT_EQ(task->parameters().stringForKey("screenname"), "mine");

  EXPECT_EQ(fields(*task), std::tuple("KVRUserEventBeacon", "userevent", kUUID, 1700000123.25,
                                      "TEST-INID", "9.9"));
  EXPECT_EQ(task->inid(), "TEST-INID");
  EXPECT_FALSE(task->hasINIDExpired());
}

// The record keeps one merged dictionary; the caller's and the session's
// are views of it until something makes them differ.
TEST_F(KVRReliableNetworkingTaskTest, CallerAndSessionViewsMatchTheMergeInEveryCase) {
  KVNConfiguration::sharedInstance().setBeaconParameters({{"srv", "S"}});
  KVRUserSession::setSessionID("SESSION");
  const std::string uuidKey(KVRBeaconUUIDKey);
  struct Case {
    const char* name;
    KVRParameters caller;
    Names merged;
    Names common;
  };
  const Case cases[] = {
      {"disjoint", {{"b", 2}, {"a", "1"}}, {"b", "a", "sessionid", "srv"}, {"sessionid", "srv"}},
      {"clash", {{"srv", "mine"}, {"a", "1"}}, {"srv", "a", "sessionid"}, {"sessionid", "srv"}},
      {"pinned uuid", {{"a", "1"}, {uuidKey, kUUID}}, {"a", "sessionid", "srv"},
       {"sessionid", "srv"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto task = makeRecord(c.caller);
    EXPECT_EQ(task->parameters().keys(), c.merged);
    EXPECT_EQ(task->parameters().stringForKey("srv"), "S");
    EXPECT_EQ(task->nonCommonParameters(), c.caller);
    EXPECT_EQ(task->nonCommonParameters().keys(), c.caller.keys());
    EXPECT_EQ(task->commonParameters().keys(), c.common);

    // Replacing the merged dictionary leaves the views as they were.
    task->setParameters({{"z", "0"}});
    EXPECT_EQ(task->nonCommonParameters(), c.caller);
    EXPECT_EQ(task->commonParameters().keys(), c.common);
    EXPECT_EQ(task->parameters().keys(), Names{"z"});
  }
}

TEST_F(KVRReliableNetworkingTaskTest, WithoutSessionTheParametersAreTheCallers) {
  KVRUserSession::setSessionID("SESSION");
  const KVRParameters caller{{"b", 2}, {"a", "1"}};
  const auto task = makeRecord(caller, /*withSession=*/false);
  EXPECT_TRUE(task->commonParameters().empty());
  EXPECT_EQ(task->parameters().keys(), (Names{"b", "a"}));
  EXPECT_EQ(task->parameters(), caller);
}

TEST_F(KVRReliableNetworkingTaskTest, CreationIsAnnouncedOnceWithTheStampedRecord) {
  env_.queueUUIDs({kUUID});
  env_.setNow(1700000000.6);
  const auto task = makeRecord({{"a", "b"}});

  const auto all = created();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0], task->dictionaryRepresentation());
  EXPECT_EQ(all[0].stringForKey("type"), "userevent");
  const auto* wire = all[0].find("parameters")->asDictionary();
  ASSERT_NE(wire, nullptr);
  EXPECT_EQ(wire->keys(), (Names{"a", "clientcreationtimestamp", "clientbeaconuuid", "inid"}));
  EXPECT_EQ(std::tuple(wire->stringForKey("clientcreationtimestamp"),
                       wire->stringForKey("clientbeaconuuid"), wire->stringForKey("inid")),
            std::tuple("1700000001", kUUID, "TEST-INID"));
}

TEST_F(KVRReliableNetworkingTaskTest, RecordMadeBeforeConfigurationPicksUpTheInidLater) {
  setInid(std::nullopt);
  const auto task = makeRecord({});
  EXPECT_EQ(task->debugInid(), KVNConfigurationUnconfiguredInid);
  EXPECT_EQ(task->inid(), std::nullopt);
  // Neither side has an inid yet: that counts as expired.
  EXPECT_TRUE(task->hasINIDExpired());
  EXPECT_FALSE(created().at(0).find("parameters")->asDictionary()->contains("inid"));

  setInid("LATER");
  EXPECT_EQ(task->inid(), "LATER");
  EXPECT_EQ(task->debugInid(), KVNConfigurationUnconfiguredInid);
  EXPECT_FALSE(task->hasINIDExpired());
  const auto wire = *task->dictionaryRepresentation().find("parameters")->asDictionary();
  EXPECT_EQ(wire.stringForKey("inid"), "LATER");
  EXPECT_FALSE(wire.contains("expiredinid"));
}

TEST_F(KVRReliableNetworkingTaskTest, InidChangedAfterCreationMarksTheRecordExpired) {
  setInid("A");
  const auto task = makeRecord({{"k", "v"}});
  setInid("B");
  EXPECT_EQ(task->inid(), "A");
  EXPECT_TRUE(task->hasINIDExpired());
  const auto wire = *task->dictionaryRepresentation().find("parameters")->asDictionary();
  EXPECT_EQ(wire.stringForKey("inid"), "B");
  ASSERT_TRUE(wire.contains("expiredinid"));
  EXPECT_EQ(*wire.find("expiredinid"), KVRValue(true));

  // The configuration losing its inid also expires the record.
  setInid(std::nullopt);
  EXPECT_TRUE(task->hasINIDExpired());
  const auto lost = *task->dictionaryRepresentation().find("parameters")->asDictionary();
  EXPECT_FALSE(lost.contains("inid"));
  EXPECT_TRUE(lost.contains("expiredinid"));
}

// The record's configuration is the shared one, read live: what the host
// sets there is what the record sees, and what the record's inid rules use.
TEST_F(KVRReliableNetworkingTaskTest, ConfigurationIsTheSharedInstance) {
  setInid("A");
  const auto task = makeRecord({});
  KVNConfiguration& configuration = task->configuration();
  EXPECT_EQ(&configuration, &KVNConfiguration::sharedInstance());
  configuration.setInid("B");
  EXPECT_EQ(KVNConfiguration::sharedInstance().snapshot()->inid, "B");
  EXPECT_TRUE(task->hasINIDExpired());
}

TEST_F(KVRReliableNetworkingTaskTest, CreationTimestampIsPrintedAsWholeSeconds) {
  struct Case {
    double t;
    const char* text;
  };
  const std::vector<Case> cases = {
      {1700000000.6, "1700000001"},
      {1700000000.4, "1700000000"},
      {1700000000.0, "1700000000"},
      {0.0, "0"},
      {0.9, "1"},
      {4102444800.75, "4102444801"},  // beyond 32-bit seconds
  };
  KVRReliableNetworkingTask task;
  for (const auto& c : cases) {
    task.setCreationTimestamp(c.t);
    EXPECT_EQ(task.formattedCreationTimestampString(), c.text) << c.t;
  }
  // A decoded archive can carry any time; the text is never cut short.
  task.setCreationTimestamp(1e80);
  char expected[200];
  const auto end =
      std::to_chars(expected, expected + sizeof expected, 1e80, std::chars_format::fixed, 0);
  EXPECT_EQ(task.formattedCreationTimestampString(), std::string(expected, end.ptr));
}

TEST_F(KVRReliableNetworkingTaskTest, AppVersionIsCapturedWithConfigurationFallback) {
  const auto task = makeRecord({});
  KVNConfiguration::setAppShortVersion("10.0");
  EXPECT_EQ(task->appVersion(), "9.9");

  KVRReliableNetworkingTask plain;
  EXPECT_EQ(plain.appVersion(), "10.0");
  task->setAppVersion(std::nullopt);
  EXPECT_EQ(task->appVersion(), "10.0");
}

TEST_F(KVRReliableNetworkingTaskTest, ArchiveRoundTripKeepsTheRecord) {
  const KVRParameters typed{
      {"s", "text with spaces & 日本"},
      {"i", -5},
      {"zero", 0},
      {"u", std::numeric_limits<uint64_t>::max()},
      {"d", 2.5},
      {"b", true},
      {"f", false},
      {"date", KVRDate{1700000000.5}},
      {"url", KVRURL{"https://a.example/x?y=1"}},
      {"dict", KVRParameters{{"z", 1}, {"a", KVRList{"x", 2, KVRParameters{{"n", 1.5}}}}}},
      {"empty", ""},
  };
  setInid(std::nullopt);
  env_.queueUUIDs({kUUID});
  env_.setNow(1700000000.75);
  const auto original = makeRecord(typed, /*withSession=*/false);
  // The resolved inid is what gets archived.
  setInid("RESOLVED");
  const std::string data = original->archivedData();

  KVNConfiguration::setAppShortVersion("10.0");
  setInid("NEWER");
  env_.setNow(1800000000);
  ASSERT_EQ(created().size(), 1u);

  const auto decoded = KVRReliableNetworkingTask::unarchive(data);
  ASSERT_NE(decoded, nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<KVRUserEventBeacon>(decoded), nullptr);
  EXPECT_EQ(fields(*decoded), std::tuple("KVRUserEventBeacon", "userevent", kUUID,
                                         1700000000.75, "RESOLVED", "9.9"));
  EXPECT_EQ(decoded->parameters(), typed);
  EXPECT_EQ(decoded->parameters().keys(), typed.keys());
  EXPECT_EQ(decoded->parameters().find("u")->kind(), KVRValue::Kind::UInt);
  EXPECT_EQ(decoded->parameters().find("zero")->kind(), KVRValue::Kind::Int);

  // Decoding announces a record once more: two creations in all.
  EXPECT_EQ(created().size(), 2u);
}

TEST_F(KVRReliableNetworkingTaskTest, ArchiveKeepsEveryRecordClass) {
  for (int type = 1; type <= 20; ++type) {
    const auto original =
        KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(type), {{"k", "v"}});
    ASSERT_NE(original, nullptr);
    const auto decoded = KVRReliableNetworkingTask::unarchive(original->archivedData());
    ASSERT_NE(decoded, nullptr) << type;
    EXPECT_EQ(decoded->className(), original->className()) << type;
    EXPECT_EQ(typeid(*decoded), typeid(*original)) << type;
    EXPECT_EQ(decoded->uuid(), original->uuid());
  }
  KVRReliableNetworkingTask base;
  base.setUuid("U");
  const auto decoded = KVRReliableNetworkingTask::unarchive(base.archivedData());
  ASSERT_NE(decoded, nullptr);
  EXPECT_EQ(decoded->className(), "KVRReliableNetworkingTask");
  EXPECT_EQ(decoded->uuid(), "U");
}

TEST_F(KVRReliableNetworkingTaskTest, DamagedArchivesDecodeToNothing) {
  const auto original = makeRecord({{"a", "b"}, {"n", KVRParameters{{"c", KVRList{1, 2}}}}});
  const std::string data = original->archivedData();

  for (size_t length = 0; length < data.size(); ++length) {
    EXPECT_EQ(KVRReliableNetworkingTask::unarchive(data.substr(0, length)), nullptr)
        << "prefix of " << length << " bytes";
  }
  // Flipped bytes must never crash; whatever decodes is a whole record.
  for (size_t i = 0; i < data.size(); ++i) {
    for (unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string damaged = data;
      damaged[i] = static_cast<char>(static_cast<unsigned char>(damaged[i]) ^ mask);
      if (auto task = KVRReliableNetworkingTask::unarchive(damaged)) {
        EXPECT_FALSE(task->className().empty());
      }
    }
  }
  for (std::string_view garbage : {std::string_view(""), std::string_view("not an archive"),
                                   std::string_view("\xff\xff\xff\xff", 4),
                                   std::string_view("\x00", 1)}) {
    EXPECT_EQ(KVRReliableNetworkingTask::unarchive(garbage), nullptr);
  }
}

TEST_F(KVRReliableNetworkingTaskTest, ArchivesWithoutAKnownClassDecodeToNothing) {
  auto archive = [](std::optional<std::string> className) {
    KeyedArchiver coder;
    if (className) coder.encodeObject("$class", *className);
    coder.encodeObject("parameters", KVRParameters{{"a", "b"}});
    coder.encodeDouble("creationTimestamp", 1.0);
    coder.encodeObject("uuid", std::string("U"));
    return coder.encodedData();
  };
  using R = KVRReliableNetworkingTask;
  EXPECT_EQ(R::unarchive(archive("NoSuchBeacon")), nullptr);
  EXPECT_EQ(R::unarchive(archive(std::nullopt)), nullptr);
  EXPECT_EQ(R::unarchive(archive("")), nullptr);
  EXPECT_TRUE(created().empty()) << "a failed decode announces nothing";
}

// Decoding runs the designated initialiser first; a field the archive lacks,
// or holds as another kind, keeps what the initialiser gave it.
TEST_F(KVRReliableNetworkingTaskTest, ArchivesMissingFieldsKeepTheInitialisersValues) {
  enum class Field { None, Parameters, Time, UUID, Inid, AppVersion };
  enum class Damage { Missing, OtherKind };
  struct Row {
    Field field;
    Damage damage;
  };
  const std::vector<Row> rows = {
      {Field::None, Damage::Missing},
      {Field::Parameters, Damage::Missing},  {Field::Parameters, Damage::OtherKind},
      {Field::Time, Damage::Missing},        {Field::Time, Damage::OtherKind},
      {Field::UUID, Damage::Missing},        {Field::UUID, Damage::OtherKind},
      {Field::Inid, Damage::Missing},        {Field::Inid, Damage::OtherKind},
      {Field::AppVersion, Damage::Missing},  {Field::AppVersion, Damage::OtherKind},
  };
  const KVRParameters archived{{"a", "b"}, {"n", 2}};
  constexpr const char* kFresh = "11111111-2222-4333-8444-555555555555";
  env_.setNow(1800000000.5);
  KVNConfiguration::setAppShortVersion("10.0");
  setInid("CURRENT");

  for (const auto& row : rows) {
    SCOPED_TRACE(::testing::Message() << "field " << static_cast<int>(row.field) << ", damage "
                                    << static_cast<int>(row.damage));
    KeyedArchiver coder;
    coder.encodeObject("$class", std::string("KVRPageViewBeacon"));
    auto put = [&](Field field, auto write, auto writeOtherKind) {
      if (row.field != field) return write();
      if (row.damage == Damage::OtherKind) writeOtherKind();
    };
    const std::string wrongKind = "not a dictionary";
    put(Field::Parameters, [&] { coder.encodeObject("parameters", archived); },
        [&] { coder.encodeObject("parameters", wrongKind); });
    put(Field::Time, [&] { coder.encodeDouble("creationTimestamp", 1700000000.25); },
        [&] { coder.encodeObject("creationTimestamp", std::string("1700000000.25")); });
    put(Field::UUID, [&] { coder.encodeObject("uuid", std::string(kUUID)); },
        [&] { coder.encodeDouble("uuid", 7.0); });
    put(Field::Inid, [&] { coder.encodeObject("inid", std::string("OLD-INID")); },
        [&] { coder.encodeInt("inid", 3); });
    put(Field::AppVersion, [&] { coder.encodeObject("appVersion", std::string("8.0")); },
        [&] { coder.encodeBool("appVersion", true); });

    env_.queueUUIDs({kFresh});
    const size_t announced = created().size();
    const auto decoded = KVRReliableNetworkingTask::unarchive(coder.encodedData());
    ASSERT_NE(decoded, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<KVRPageViewBeacon>(decoded), nullptr);
    EXPECT_EQ(created().size(), announced + 1);

    const bool lost = row.field != Field::None;
    EXPECT_EQ(decoded->parameters(),
              lost && row.field == Field::Parameters ? KVRParameters{} : archived);
    EXPECT_EQ(fields(*decoded),
              std::tuple("KVRPageViewBeacon", "pageview",
                         lost && row.field == Field::UUID ? kFresh : kUUID,
                         lost && row.field == Field::Time ? 1800000000.5 : 1700000000.25,
                         lost && row.field == Field::Inid ? "CURRENT" : "OLD-INID",
                         lost && row.field == Field::AppVersion ? "10.0" : "8.0"));
  }
}

// A record read back to be sent (not announced again, so made without a
// fresh record first) ends as one decoded the announcing way, whatever the
// archive holds or lacks.
TEST_F(KVRReliableNetworkingTaskTest, RecordsReadBackToBeSentEndAsDecodedOnes) {
  struct Row {
    const char* name;
    bool parameters, time, uuid, inid, appVersion;
    bool pinned;  // the parameters carry a clientbeaconuuid of their own
  };
  const Row rows[] = {
      {"everything", true, true, true, true, true, false},
      {"no parameters", false, true, true, true, true, false},
      {"no time", true, false, true, true, true, false},
      {"no uuid", true, true, false, true, true, false},
      {"no inid", true, true, true, false, true, false},
      {"no app version", true, true, true, true, false, false},
      {"a pinned uuid", true, true, true, true, true, true},
      {"a pinned uuid and no uuid", true, true, false, true, true, true},
      {"nothing but the class", false, false, false, false, false, false},
  };
  constexpr const char* kFresh = "11111111-2222-4333-8444-555555555555";
  constexpr const char* kKind = "test.recordReadBack";
  KVRTaskPtr readBack;
  KVNRequestRestorers::registerRestorer(kKind, [&readBack](std::string_view payload) {
    readBack = KVRReliableNetworkingTask::unarchive(payload);
    return std::optional<KVNNetworkRequest>(KVNNetworkRequest{});
  });
  env_.setNow(1800000000.5);
  KVNConfiguration::setAppShortVersion("10.0");
  setInid("CURRENT");

  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    KVRParameters parameters{{"a", "b"}, {"n", 2}, {"list", KVRList{"x", 1}}};
    if (row.pinned) parameters.set(KVRBeaconUUIDKey, "PINNED-UUID");
    KeyedArchiver coder;
    coder.encodeObject("$class", std::string("KVRPageViewBeacon"));
    if (row.parameters) coder.encodeObject("parameters", parameters);
    if (row.time) coder.encodeDouble("creationTimestamp", 1700000000.25);
    if (row.uuid) coder.encodeObject("uuid", std::string(kUUID));
    if (row.inid) coder.encodeObject("inid", std::string("OLD-INID"));
    if (row.appVersion) coder.encodeObject("appVersion", std::string("8.0"));
    const std::string archive = coder.encodedData();

    env_.queueUUIDs({kFresh});
    const auto decoded = KVRReliableNetworkingTask::unarchive(archive);
    env_.queueUUIDs({kFresh});
    const size_t announced = created().size();
    readBack.reset();
    ASSERT_TRUE(KVNReloadRequest(kKind, archive));
    ASSERT_NE(decoded, nullptr);
    ASSERT_NE(readBack, nullptr);
    EXPECT_EQ(created().size(), announced);  // not announced again

    EXPECT_NE(std::dynamic_pointer_cast<KVRPageViewBeacon>(readBack), nullptr);
    EXPECT_EQ(readBack->archivedData(), decoded->archivedData());
    EXPECT_EQ(readBack->parameters().keys(), decoded->parameters().keys());
    EXPECT_EQ(readBack->parameters(), decoded->parameters());
    EXPECT_EQ(readBack->nonCommonParameters(), decoded->nonCommonParameters());
    EXPECT_EQ(readBack->commonParameters(), decoded->commonParameters());
    EXPECT_EQ(readBack->uuid(), decoded->uuid());
    EXPECT_EQ(readBack->creationTimestamp(), decoded->creationTimestamp());
    EXPECT_EQ(readBack->debugInid(), decoded->debugInid());
    EXPECT_EQ(readBack->appVersion(), decoded->appVersion());
    // Views taken after a change still follow the same record.
    readBack->setCommonParameters({{"c", 1}});
    decoded->setCommonParameters({{"c", 1}});
    EXPECT_EQ(readBack->nonCommonParameters(), decoded->nonCommonParameters());
  }
}

TEST_F(KVRReliableNetworkingTaskTest, CopyCarriesTheWireFieldsOnly) {
  KVRUserSession::setSessionID("SESSION");
  setInid(std::nullopt);
  const auto original = makeRecord<KVRPageViewBeacon>({{"screenname", "home"}});
  setInid("RESOLVED");
  const size_t announced = created().size();

  const auto copy = original->copy();
  EXPECT_EQ(created().size(), announced);  // a copy is not announced
  ASSERT_NE(std::dynamic_pointer_cast<KVRPageViewBeacon>(copy), nullptr);
  EXPECT_EQ(copy->parameters(), original->parameters());
  // The copy stores the inid resolved at copy time, not the marker.
  EXPECT_EQ(fields(*copy), std::tuple("KVRPageViewBeacon", "pageview", original->uuid(),
                                      original->creationTimestamp(), "RESOLVED", "9.9"));
  EXPECT_TRUE(copy->isValid());
  EXPECT_FALSE(original->commonParameters().empty());
  EXPECT_TRUE(copy->commonParameters().empty());
  EXPECT_TRUE(copy->nonCommonParameters().empty());

  // The app version is not copied: the copy reads the configuration's.
  KVNConfiguration::setAppShortVersion("10.0");
  EXPECT_EQ(original->appVersion(), "9.9");
  EXPECT_EQ(copy->appVersion(), "10.0");
}

TEST_F(KVRReliableNetworkingTaskTest, CopyOfWebInitiatedKeepsItsEvent) {
  const auto original =
      KVRBeaconFactory::beaconForType(KVRBeaconTypeWebInitiated, {{"a", "b"}}, "from_web");
  const auto copy = original->copy();
  ASSERT_NE(std::dynamic_pointer_cast<KVRWebInitiatedBeacon>(copy), nullptr);
  EXPECT_EQ(copy->event(), "from_web");
  EXPECT_EQ(copy->isReliable(), true);
}

}  // namespace
}  // namespace korvel
