#include <gtest/gtest.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/beacon/internal/KVRLibrarySyncStatusJSON.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/KVRLibraryReporter.h>
#include <korvel/reporters/KVRLibrarySyncReporter.h>
#include <korvel/reporters/KVRTagSyncReporter.h>
#include <korvel/reporters/KVRTaggingReporter.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "reporters/ReporterTestSupport.h"

using korvel::beacon::internal::toJSON;
using korvel::beacon::internal::librarySyncStatusFromJSON;

namespace korvel::testing {
namespace {

const KVRTagDetails& libraryTag() {
  static const KVRTagDetails tag = [] {
    KVRTagDetails t;
    t.trackID = "TRACK-1";
    t.tagID = "TAG-9";
    t.type = "music";
    return t;
  }();
  return tag;
}

std::shared_ptr<const KVNError> errorChain(std::initializer_list<int64_t> codes) {
  std::shared_ptr<const KVNError> chain;
  for (auto it = std::rbegin(codes); it != std::rend(codes); ++it) {
    chain = chain ? std::make_shared<const KVNError>(
                        KVNError::withUnderlying("KVRTest", *it, std::nullopt, chain))
                  : std::make_shared<const KVNError>("KVRTest", *it);
  }
  return chain;
}

// MARK: - Beacons

class LibraryBeaconTest : public ReportCaseTest {};

TEST_P(LibraryBeaconTest, SendsExactlyItsBeacon) {
  expectBeacon(GetParam(), tagWire(&libraryTag()));
}

INSTANTIATE_TEST_SUITE_P(
    Library, LibraryBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"ImpressionWithTag",
         [] { KVRLibraryReporter::reportLibraryImpressionOfType(4, &libraryTag()); }, "impression",
         "providername=trending&{tag}"},
        {"ImpressionUnknownTypeNoTag",
         [] { KVRLibraryReporter::reportLibraryImpressionOfType(99, nullptr); }, "impression",
         "providername=history"},
        {"OpenedTrack",
         [] { KVRLibraryReporter::reportOpenedTrack(&libraryTag(), KVRValue(3), 6); }, "userevent",
         "type=nav&destination=details&cardposition=3&cardtype=icloud_halfsheet&{tag}"},
        {"OpenedTrackWithoutPositionOrTag",
         [] { KVRLibraryReporter::reportOpenedTrack(nullptr, std::nullopt, -1); }, "userevent",
         "type=nav&destination=details&cardtype=history"},
        // The position follows the tag: written after the merge, it wins.
        {"PlayTrackGoesOutAsPlayback",
         [] { KVRLibraryReporter::reportPlayTrack(&libraryTag(), "spotify", KVRValue(2)); },
         "userevent", "type=playerplay&providername=spotify&{tag}&cardposition=2"},
        {"SeeAllWithOrigin", [] { KVRLibraryReporter::reportTappedSeeAllForType(5, "library"); },
         "userevent", "type=nav&destination=playlistsforyou&origin=library"},
        {"SeeAllWithoutOrigin",
         [] { KVRLibraryReporter::reportTappedSeeAllForType(0, std::nullopt); }, "userevent",
         "type=nav&destination=history"},
        {"UpsellCard", [] { KVRLibraryReporter::reportOpenedUpsellCard(); }, "userevent",
         "type=nav&destination=amupsell"},
        {"SearchTapped", [] { KVRLibraryReporter::reportSearchTapped(); }, "userevent",
         "type=nav&destination=search"},
        {"KorvelButton", [] { KVRLibraryReporter::reportKorvelButtonTapped(); }, "userevent",
         "type=nav&destination=home"},

        {"AuthorizedSyncFromOptOut",
         [] { KVRLibrarySyncReporter::reportUserAuthorizedSyncWithOrigin(1); }, "userevent",
         "type=accountlogin&action=signin&origin=optout&providername=icloud"},
        {"AuthorizedSyncFromMigration",
         [] { KVRLibrarySyncReporter::reportUserAuthorizedSyncWithOrigin(0); }, "userevent",
         "type=accountlogin&action=signin&origin=authmigration_anon&providername=icloud"},
        {"PrivacyTapped",
         [] {
           KVRLibrarySyncReporter::reportSyncStatusPrivacyTappedWithOrigin(
               KVRLibrarySyncStatusTemporarilyUnavailable);
         },
         "userevent", "type=nav&destination=privacy&origin=temporarilyunavailable"},
        {"PrivacyTappedUnknownStatus",
         [] {
           KVRLibrarySyncReporter::reportSyncStatusPrivacyTappedWithOrigin(
               KVRLibrarySyncStatusValue(-3));
         },
         "userevent", "type=nav&destination=privacy&origin=icloudon"},

        // "removed" goes out as "deleted", after "updated"; no "type".
        {"SyncResultFull",
         [] {
           KVRTagSyncReporter::reportSyncResult("success", 0, 1, KVRValue(10), KVRValue(2),
                                                KVRValue(3), KVRValue(4), nullptr);
         },
         "tagsync",
         "result=success&container=original&syncstep=2&uploaded=10&added=2&updated=4&deleted=3"},
        {"SyncResultErrorOnly",
         [] {
           KVRTagSyncReporter::reportSyncResult(std::nullopt, 5, 3, std::nullopt, std::nullopt,
                                                std::nullopt, std::nullopt,
                                                errorChain({4, -1009}).get());
         },
         "tagsync", "container=e2ee&error=4:-1009"},
        {"SyncResultNegativeStepHasNoStep",
         [] {
           KVRTagSyncReporter::reportSyncResult("failed", -1, -1, std::nullopt, KVRValue(0),
                                                std::nullopt, std::nullopt, nullptr);
         },
         "tagsync", "result=failed&container=e2ee&added=0"},
    }),
    reportCaseName);

// MARK: - Word tables

TEST(LibraryReporterWords, TablesAndTheirFallbacks) {
  expectWordTable(&KVRLibraryReporter::reportingStringForType, 1,
                  "amupsell ammodalupsell search trending playlistsforyou icloud_halfsheet",
                  "history");
  const auto statusWord = [](int64_t raw) {
    return KVRLibrarySyncReporter::stringFromStatusValue(KVRLibrarySyncStatusValue(raw));
  };
  expectWordTable(
      statusWord, 1,
      "optout notdetermined noicloudaccess restricted icloudfull temporarilyunavailable",
      "icloudon");
  for (int64_t raw : {kInt64Min, int64_t{0}, int64_t{3}, int64_t{7}}) {
    EXPECT_EQ(KVRLibrarySyncReporter::providerStringForSettingsLibrarySyncStatus(
                  KVRLibrarySyncStatusValue(raw)),
              statusWord(raw));
  }
  expectWordTable(&KVRLibrarySyncReporter::stringFromAuthorizationOrigin, 1, "optout",
                  "authmigration_anon");
  expectWordTable(&KVRTagSyncReporter::stringForContainer, 0, "original", "e2ee");
  // Steps count from one on the wire.
  expectWordTable(&KVRTagSyncReporter::stringForSyncStep, 0, "1 2 other",
                  std::optional<std::string>());
}

// MARK: - Error code chains

TEST(TagSyncErrorCodes, FollowTheUnderlyingChainOutermostFirst) {
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(nullptr), std::nullopt);
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(errorChain({7}).get()), "7");
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(errorChain({4, -1009}).get()), "4:-1009");
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(errorChain({1, 2, 3}).get()), "1:2:3");
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(errorChain({kInt64Min, kInt64Max}).get()),
            "-9223372036854775808:9223372036854775807");
}

TEST(TagSyncErrorCodes, DeepChainIsFollowedToTheEnd) {
  std::shared_ptr<const KVNError> chain = std::make_shared<const KVNError>("KVRTest", 0);
  std::string expected = "0";
  for (int64_t code = 1; code < 500; ++code) {
    chain = std::make_shared<const KVNError>(
        KVNError::withUnderlying("KVRTest", code, std::nullopt, chain));
    expected = std::to_string(code) + ":" + expected;
  }
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(chain.get()), expected);
}

TEST(TagSyncErrorCodes, NonErrorUnderTheUnderlyingKeyIsNotFollowed) {
  const KVNError error("KVRTest", 4, std::nullopt,
                       {{std::string(KVNUnderlyingErrorKey), KVRValue("not an error")}});
  ASSERT_TRUE(error.hasUserInfoValue(KVNUnderlyingErrorKey));
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(&error), "4");
}

TEST(TagSyncErrorCodes, SelfReferentialChainsEndAtTheFirstRepeat) {
  auto self = std::make_shared<KVNError>("KVRTest", 1);
  *self = KVNError::withUnderlying("KVRTest", 1, std::nullopt, self);
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(self.get()), "1");

  auto first = std::make_shared<KVNError>("KVRTest", 1);
  auto second =
      std::make_shared<const KVNError>(KVNError::withUnderlying("KVRTest", 2, std::nullopt, first));
  *first = KVNError::withUnderlying("KVRTest", 1, std::nullopt, second);
  EXPECT_EQ(KVRTagSyncReporter::errorCodesStringForError(first.get()), "1:2");

  // Break the cycles so the errors are freed.
  *self = KVNError("KVRTest", 1);
  *first = KVNError("KVRTest", 1);
}

// MARK: - Sync status value

TEST(LibrarySyncStatusValue, EncodesAsTheRawIntegerAlone) {
  EXPECT_EQ(toJSON(KVRLibrarySyncStatusValue(3)), nlohmann::json(3));
  EXPECT_EQ(toJSON(KVRLibrarySyncStatusValue(3)).dump(), "3");
  const nlohmann::json viaAdl = KVRLibrarySyncStatusValue(-2);
  EXPECT_EQ(viaAdl.dump(), "-2");
  EXPECT_EQ(nlohmann::json(std::vector{KVRLibrarySyncStatusOptOut, KVRLibrarySyncStatusICloudFull})
                .dump(),
            "[1,5]");
}

TEST(LibrarySyncStatusValue, DecodesAnyRawValueAndRoundTrips) {
  for (int64_t raw : {kInt64Min, int64_t{-1}, int64_t{0}, int64_t{3}, int64_t{99}, kInt64Max}) {
    const KVRLibrarySyncStatusValue status(raw);
    EXPECT_EQ(librarySyncStatusFromJSON(nlohmann::json::parse(toJSON(status).dump())),
              status)
        << raw;
    EXPECT_EQ(nlohmann::json(status).get<KVRLibrarySyncStatusValue>().rawValue(), raw);
  }
}

TEST(LibrarySyncStatusValue, RejectsAnythingButOneFittingInteger) {
  for (const char* text :
       {"\"3\"", "3.5", "null", "true", "[3]", "{\"rawValue\":3}", "18446744073709551615"}) {
    EXPECT_THROW(librarySyncStatusFromJSON(nlohmann::json::parse(text)),
                 std::invalid_argument)
        << text;
  }
}

// MARK: - Session wiring

class LibrarySyncSessionStateTest : public BeaconTest {};

TEST_F(LibrarySyncSessionStateTest, SessionBeaconWordsSyncStatesThreeToEightAsSettingsStatuses) {
  const std::vector<std::pair<uint64_t, std::optional<std::string>>> rows = {
      {0, std::nullopt},
      {1, "original"},
      {2, "e2ee"},
      {3, "optout"},
      {4, "notdetermined"},
      {5, "noicloudaccess"},
      {6, "restricted"},
      {7, "icloudfull"},
      {8, "temporarilyunavailable"},
      {9, std::nullopt},
      {UINT64_MAX, std::nullopt},
  };
  for (const auto& [state, word] : rows) {
    executor_->clear();
    KVRUserSession::setUserSessionDelegate(std::make_shared<ScreenNameDelegate>("home", state));
    KVRUserSession::reportUserSessionWithDuration(KVRValue(12));
    const auto beacon = onlySent();
    EXPECT_EQ(beacon.event, "usersession");
    EXPECT_EQ(beacon.value("icloudstatus"), word) << "state " << state;
  }
}

TEST_F(LibrarySyncSessionStateTest, CurrentPageNameIsTheSessionsScreenName) {
  EXPECT_EQ(KVRLibrarySyncReporter::currentPageName(), std::nullopt);
  KVRUserSession::setUserSessionDelegate(std::make_shared<ScreenNameDelegate>("library"));
  EXPECT_EQ(KVRLibrarySyncReporter::currentPageName(), "library");
}

}  // namespace
}  // namespace korvel::testing
