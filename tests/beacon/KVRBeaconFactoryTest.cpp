#include <korvel/beacon/KVRBeaconTypes.h>

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <string>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include "support/NotificationLog.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

class KVRBeaconFactoryTest : public testing::BeaconTest {};

struct TypeRow {
  int type;
  const char* className;
  const char* event;
  // The key the record's parameters must hold to be valid; none when the
  // kind is always valid.
  const char* requiredKey;
  std::optional<bool> reliable;  // none: the kind does not answer
};

const std::vector<TypeRow> kTypes = {
    {1, "KVRStartupBeacon", "startup", "time", std::nullopt},
    {2, "KVRResumeBeacon", "resume", "time", std::nullopt},
    {3, "KVRTaggedBeacon", "tagged", nullptr, std::nullopt},
    {4, "KVRErrorBeacon", "error", nullptr, std::nullopt},
    {5, "KVRDeepLinkBeacon", "deeplink", nullptr, std::nullopt},
    {6, "KVRTagHistoryBeacon", "tagHistory", nullptr, true},
    {7, "KVRUserEventBeacon", "userevent", nullptr, true},
    {8, "KVRPageViewBeacon", "pageview", "screenname", std::nullopt},
    {9, "KVRWebInitiatedBeacon", nullptr, nullptr, true},
    {10, "KVRUserSessionBeacon", "usersession", nullptr, std::nullopt},
    {11, "KVRAutoTagBeacon", "autotag", "trackkey", std::nullopt},
    {12, "KVRImpressionBeacon", "impression", "screenname", std::nullopt},
    {13, "KVRTagSyncBeacon", "tagsync", nullptr, true},
    {14, "KVRTaggedBeacon", "tagged", nullptr, std::nullopt},
    {15, "KVRTaggedBeacon", "tagged", nullptr, std::nullopt},
    {16, "KVRTaggedBeacon", "testtagged", nullptr, std::nullopt},
    {17, "KVRWidgetBeacon", "widget", nullptr, true},
    {18, "KVRExceptionsBeacon", "exceptions", nullptr, std::nullopt},
    {19, "KVRAuthenticationBeacon", "auth", nullptr, true},
    {20, "KVRPerformanceBeacon", "performance", nullptr, true},
};

TEST_F(KVRBeaconFactoryTest, EveryTypeMakesItsClass) {
  for (const auto& row : kTypes) {
    SCOPED_TRACE("type " + std::to_string(row.type));
    // The event argument shows only where the type has no event of its own.
    const auto task =
        KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(row.type), {}, "foo");
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(task->className(), row.className);
    EXPECT_EQ(task->event(), row.event ? row.event : "foo");
    EXPECT_EQ(task->isReliable(), row.reliable);
    // An empty dictionary still counts as "parameters present".
    EXPECT_EQ(task->isValid(), row.requiredKey == nullptr);
  }
}

TEST_F(KVRBeaconFactoryTest, RequiredKeysMakeTheRecordValid) {
  for (const auto& row : kTypes) {
    if (row.requiredKey == nullptr) continue;
    SCOPED_TRACE("type " + std::to_string(row.type));
    const auto type = static_cast<KVRBeaconType>(row.type);
    EXPECT_TRUE(KVRBeaconFactory::beaconForType(type, {{row.requiredKey, "x"}})->isValid());
    // Any value counts, an empty text too.
    EXPECT_TRUE(KVRBeaconFactory::beaconForType(type, {{row.requiredKey, ""}})->isValid());
    EXPECT_TRUE(KVRBeaconFactory::beaconForType(type, {{row.requiredKey, 0}})->isValid());
    EXPECT_FALSE(KVRBeaconFactory::beaconForType(type, {{"other", "x"}})->isValid());
  }
}

// Validity looks at the merged parameters, so a common parameter counts.
TEST_F(KVRBeaconFactoryTest, ValidityReadsTheMergedParameters) {
  KVRUserSession::addAdditionalReportingParametersToCurrentSession(
      {{"time", 1}, {"trackkey", "T"}, {"screenname", "S"}});
  for (auto type : {KVRBeaconTypeStartup, KVRBeaconTypeResume, KVRBeaconTypeAutoTag,
                    KVRBeaconTypePageView, KVRBeaconTypeImpression}) {
    const auto task = KVRBeaconFactory::beaconForType(type, {});
    EXPECT_TRUE(task->nonCommonParameters().empty());
    EXPECT_TRUE(task->isValid()) << type;
  }
}

TEST_F(KVRBeaconFactoryTest, TaggedRecordsKeepTheirBeaconType) {
  for (int type : {3, 11, 14, 15, 16}) {
    const auto task = std::dynamic_pointer_cast<KVRTaggedBeacon>(
        KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(type), {}));
    ASSERT_NE(task, nullptr) << type;
    EXPECT_EQ(task->beaconType(), type);
  }
  // Only the tagged types are tagged records.
  for (int type : {1, 7, 9, 10, 12, 13, 17, 20}) {
    EXPECT_EQ(std::dynamic_pointer_cast<KVRTaggedBeacon>(
                  KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(type), {})),
              nullptr)
        << type;
  }
}

TEST_F(KVRBeaconFactoryTest, TypesOutsideTheTableMakeNothingAndAnnounceNothing) {
  testing::NotificationLog log(env_.notificationCenter());
  for (int type : {0, -1, 21, 22, 100, INT_MIN, INT_MAX}) {
    EXPECT_EQ(KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(type), {{"a", "b"}}),
              nullptr)
        << type;
    EXPECT_EQ(
        KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(type), {{"a", "b"}}, "e"),
        nullptr)
        << type;
  }
  EXPECT_TRUE(log.entries().empty());
  KVRBeaconFactory::beaconForType(KVRBeaconTypeStartup, {});
  KVRBeaconFactory::beaconForType(KVRBeaconTypePerformance, {});
  EXPECT_EQ(log.created().size(), 2u);
}

TEST_F(KVRBeaconFactoryTest, WebInitiatedWithoutAnEventHasNone) {
  EXPECT_EQ(KVRBeaconFactory::beaconForType(KVRBeaconTypeWebInitiated, {}, std::nullopt)->event(),
            std::nullopt);
}

TEST_F(KVRBeaconFactoryTest, EveryRecordGetsTheSessionsCommonParameters) {
  KVRUserSession::setSessionID("S1");
  for (const auto& row : kTypes) {
    const auto task =
        KVRBeaconFactory::beaconForType(static_cast<KVRBeaconType>(row.type), {{"k", "v"}});
    EXPECT_EQ(task->commonParameters().stringForKey("sessionid"), "S1") << row.type;
    EXPECT_EQ(task->parameters().stringForKey("sessionid"), "S1") << row.type;
    EXPECT_EQ(task->nonCommonParameters(), (KVRParameters{{"k", "v"}})) << row.type;
  }
  // The session is read afresh for every record.
  KVRUserSession::setSessionID("S2");
  EXPECT_EQ(KVRBeaconFactory::beaconForType(KVRBeaconTypeUserEvent, {})
                ->parameters()
                .stringForKey("sessionid"),
            "S2");
}

TEST_F(KVRBeaconFactoryTest, EmptyRecordOfClassKnowsEveryArchivedName) {
  for (const auto& row : kTypes) {
    const auto task = KVRBeaconFactory::emptyRecordOfClass(row.className);
    ASSERT_NE(task, nullptr) << row.className;
    EXPECT_EQ(task->className(), row.className);
    EXPECT_TRUE(task->uuid().empty());
  }
  EXPECT_NE(KVRBeaconFactory::emptyRecordOfClass("KVRReliableNetworkingTask"), nullptr);
  EXPECT_EQ(KVRBeaconFactory::emptyRecordOfClass("KVRNoSuchBeacon"), nullptr);
  EXPECT_EQ(KVRBeaconFactory::emptyRecordOfClass(""), nullptr);
}

TEST_F(KVRBeaconFactoryTest, BeaconTypesDescribeWhatTheFactoryMakes) {
  const auto types = KVRBeaconFactory::beaconTypes();
  ASSERT_EQ(types.size(), kTypes.size());
  for (size_t i = 0; i < types.size(); ++i) {
    const auto& row = kTypes[i];
    SCOPED_TRACE("type " + std::to_string(row.type));
    EXPECT_EQ(types[i].type, row.type);
    EXPECT_EQ(types[i].className, row.className);
    // So the same class and event as a record made for that type.
    EXPECT_EQ(types[i].event,
              row.event ? std::optional<std::string>(row.event) : std::nullopt);
  }
}

}  // namespace
}  // namespace korvel
