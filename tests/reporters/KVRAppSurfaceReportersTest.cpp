#include <gtest/gtest.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/KVRAccountsReporter.h>
#include <korvel/reporters/KVRAuthenticationReporter.h>
#include <korvel/reporters/KVRIMessageReporter.h>
#include <korvel/reporters/KVRNotificationReporter.h>
#include <korvel/reporters/KVRPlayerReporter.h>
#include <korvel/reporters/KVRPrivacyConsentReporter.h>
#include <korvel/reporters/KVRPromptReporter.h>
#include <korvel/reporters/KVRSocialReporter.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include <korvel/reporters/KVRUserPreferenceReporter.h>
#include <korvel/reporters/KVRWebReporter.h>
#include <korvel/reporters/KVRWidgetReporter.h>

#include <memory>
#include <string>

#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

const KVRTagDetails& favouriteTag() {
  static const KVRTagDetails tag = [] {
    KVRTagDetails t;
    t.trackID = "TRACK-7";
    t.tagID = "TAG-3";
    t.favourite = true;
    return t;
  }();
  return tag;
}

const KVNError& migrationError() {
  static const KVNError error("KVRAccounts", 5, "Migration failed");
  return error;
}

class AppSurfaceBeaconTest : public ReportCaseTest {};

TEST_P(AppSurfaceBeaconTest, SendsExactlyItsBeacon) {
  expectBeacon(GetParam(), tagWire(&favouriteTag()));
}

INSTANTIATE_TEST_SUITE_P(
    Notification, AppSurfaceBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"OpenedAddsItsData",
         [] {
           KVRNotificationReporter::reportNotificationOpenedWithBeaconData(
               {{"campaign", "spring"}, {"id", 5}});
         },
         "deeplink", "type=notification&campaign=spring&id=5"},
        {"OpenedDataNamesItsOwnType",
         [] {
           KVRNotificationReporter::reportNotificationOpenedWithBeaconData(
               {{"x", "1"}, {"type", "promo"}});
         },
         "deeplink", "type=promo&x=1"},
        {"AutoMatchSent", [] { KVRNotificationReporter::reportAutoMatchNotificationSent(); },
         "userevent", "type=actionablenotificationsent&screenname=automatched"},
        {"BackgroundMatchSent",
         [] { KVRNotificationReporter::reportBackgroundMatchLocalNotificationSent("TRACK-1"); },
         "impression", "type=notification&deeplinkreferer=background_tag&trackid=TRACK-1"},
        {"BackgroundMatchSentWithoutTrack",
         [] { KVRNotificationReporter::reportBackgroundMatchLocalNotificationSent(std::nullopt); },
         "impression", "type=notification&deeplinkreferer=background_tag"},
        {"BackgroundNoMatchSent",
         [] { KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationSent(); },
         "impression", "type=notification&deeplinkreferer=background_nomatch"},
        {"BackgroundNoMatchTapped",
         [] { KVRNotificationReporter::reportBackgroundNoMatchLocalNotificationTapped(); },
         "deeplink", "type=notification&deeplinkreferer=background_nomatch"},
    }),
    reportCaseName);

INSTANTIATE_TEST_SUITE_P(
    Authentication, AppSurfaceBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"KorvelSuccessKeepsItsReason",
         [] {
           KVRAuthenticationReporter::
               reportKorvelLayerAuthenticationTokenGenerationSuccessWithSuccessType(3);
         },
         "auth", "type=korveltokengen&outcome=success&reason=3"},
        {"KorvelSuccessUnknownType",
         [] {
           KVRAuthenticationReporter::
               reportKorvelLayerAuthenticationTokenGenerationSuccessWithSuccessType(4);
         },
         "auth", "type=korveltokengen&outcome=success&reason=0"},
        {"KorvelFailure",
         [] {
           KVRAuthenticationReporter::
               reportKorvelLayerAuthenticationTokenGenerationFailureWithFailureType(7);
         },
         "auth", "type=korveltokengen&outcome=error&reason=1"},
        {"AMSSuccessDurationUnscaled",
         [] {
           KVRAuthenticationReporter::
               reportAMSLayerAuthenticationTokenGenerationSuccessWithDuration(1.25);
         },
         "auth", "type=amstokengen&outcome=success&duration=1.25"},
        {"AMSFailedWithChain",
         [] {
           KVRAuthenticationReporter::
               reportAMSLayerAuthenticationTokenGenerationFailedWithErrorCodeChain("4:-1009", 0.5);
         },
         "auth", "type=amstokengen&outcome=error&duration=0.5&errorcodechain=4:-1009"},
        {"AMSFailedWithoutChain",
         [] {
           KVRAuthenticationReporter::
               reportAMSLayerAuthenticationTokenGenerationFailedWithErrorCodeChain(std::nullopt, 2);
         },
         "auth", "type=amstokengen&outcome=error&duration=2"},
    }),
    reportCaseName);

INSTANTIATE_TEST_SUITE_P(
    AccountsSocialPrompt, AppSurfaceBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"MigrationSucceeded",
         [] { KVRAccountsReporter::reportSuccessfulAccountMigrationImpressionForAccount(1); },
         "impression", "type=migration&providername=success&streamingservice=spotify"},
        {"MigrationFailedWithError",
         [] {
           KVRAccountsReporter::reportFailedAccountMigrationImpressionForAccount(0,
                                                                                 &migrationError());
         },
         "impression",
         "type=migration&providername=failure&error=Error Domain=KVRAccounts Code=5 \"Migration "
         "failed\"&streamingservice=applemusic"},
        {"MigrationFailedWithoutError",
         [] { KVRAccountsReporter::reportFailedAccountMigrationImpressionForAccount(1, nullptr); },
         "impression", "type=migration&providername=failure&streamingservice=spotify"},

        {"TookScreenshot", [] { KVRSocialReporter::reportTookScreenshot(); }, "userevent",
         "type=tookscreenshot"},
        {"EducationSeen", [] { KVRSocialReporter::reportMyKorvelScreenshotEducationSeen(); },
         "userevent", "type=mykorveleducationseen"},
        {"EducationActionTapped",
         [] { KVRSocialReporter::reportMyKorvelScreenshotEducationActionTapped(); }, "userevent",
         "type=mykorveleducationactiontapped"},
        {"SocialLink", [] { KVRSocialReporter::reportTappedSocialMediaLink(2); }, "userevent",
         "type=opensocialnetwork&providername=facebook"},

        {"PromptShown", [] { KVRPromptReporter::reportImpressionForPromptType(3); }, "impression",
         "type=prompt&providername=photo_write_permissions"},
        {"PromptShownUnknownType", [] { KVRPromptReporter::reportImpressionForPromptType(0); },
         "impression", "type=prompt&providername=calendar_permissions"},
        {"PromptAction", [] { KVRPromptReporter::reportAction(1, 4); }, "userevent",
         "type=prompt&providername=offline_notify&action=notify_me"},
        {"PromptActionUnknowns", [] { KVRPromptReporter::reportAction(4, 5); }, "userevent",
         "type=prompt&providername=calendar_permissions&action=cancel"},
    }),
    reportCaseName);

INSTANTIATE_TEST_SUITE_P(
    WebWidgetPlayerConsent, AppSurfaceBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"WebBeaconEventIsThePath",
         [] {
           KVRWebReporter::reportWebBeaconWithParameters({{"page", "charts"}}, "webvisit");
         },
         "webvisit", "type=webbeacon&page=charts"},
        {"WebBeaconOwnTypeWins",
         [] {
           KVRWebReporter::reportWebBeaconWithParameters({{"a", "b & c"}, {"type", "promo"}},
                                                         "web event");
         },
         "web event",
         {{"type", "promo"}, {"a", "b & c"}}},

        {"HasWidgets", [] { KVRWidgetReporter::reportUserHasiOS14Widgets(true); }, "widget",
         "widget=1"},
        {"HasNoWidgets", [] { KVRWidgetReporter::reportUserHasiOS14Widgets(false); }, "widget",
         "widget=0"},

        {"ToArtistPage", [] { KVRPlayerReporter::reportNavigationToArtistPage(); }, "userevent",
         "type=nav&origin=player&destination=artist"},
        {"TrackTappedProviderAfterTag",
         [] {
           KVRPlayerReporter::reportUserTappedOnTrackInPlayerTracklistWithTagDetails(
               &favouriteTag(), "applemusic");
         },
         "userevent", "type=playerplay&{tag}&providername=applemusic"},
        {"TrackTappedWithNothing",
         [] {
           KVRPlayerReporter::reportUserTappedOnTrackInPlayerTracklistWithTagDetails(nullptr,
                                                                                     std::nullopt);
         },
         "userevent", "type=playerplay"},
        {"SavePlaylist",
         [] {
           KVRPlayerReporter::reportUserTappedSavePlaylistWithStreamingServiceProviderName(
               "spotify");
         },
         "userevent", "type=saveplaylist&providername=spotify"},
        {"SavePlaylistWithoutProvider",
         [] {
           KVRPlayerReporter::reportUserTappedSavePlaylistWithStreamingServiceProviderName(
               std::nullopt);
         },
         "userevent", "type=saveplaylist"},
        {"ScrolledToBottomIsTheScrollEvent",
         [] { KVRPlayerReporter::reportUserScrolledToBottomOfTracklist(); }, "userevent",
         "type=userscrolled"},

        {"ConsentNewUserKeepsFraction",
         [] {
           KVRPrivacyConsentReporter::reportChinaPIPLPrivacyConsentGrantedAtTimestamp(
               KVRDate{1700000000.25}, true);
         },
         "userevent",
         "type=consent&screenname=pipl&newuser=true&xbdt=agree&xbdt_timestamp=1700000000.25"},
        {"ConsentReturningUser",
         [] {
           KVRPrivacyConsentReporter::reportChinaPIPLPrivacyConsentGrantedAtTimestamp(KVRDate{-1.5},
                                                                                      false);
         },
         "userevent", "type=consent&screenname=pipl&newuser=false&xbdt=agree&xbdt_timestamp=-1.5"},
    }),
    reportCaseName);

INSTANTIATE_TEST_SUITE_P(
    IMessageAndFavourites, AppSurfaceBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"Opened", [] { KVRIMessageReporter::reportIMessageOpened(); }, "userevent",
         "type=imessageopen"},
        {"Expanded", [] { KVRIMessageReporter::reportIMessageExpandedForTrackID("T1"); },
         "userevent", "type=imessagetagopen&trackkey=T1"},
        {"WillSend", [] { KVRIMessageReporter::reportIMessageWillSendMessageForTrackID("T1"); },
         "userevent", "type=imessagesent&trackkey=T1"},
        {"WillSendWithoutTrack",
         [] { KVRIMessageReporter::reportIMessageWillSendMessageForTrackID(std::nullopt); },
         "userevent", "type=imessagesent"},
        {"WillSendFromOrigin",
         [] { KVRIMessageReporter::reportIMessageWillSendMessageFromOrigin(1, "T1"); }, "userevent",
         "type=imessagesent&trackkey=T1&origin=imessage_mykorvel"},
        {"TapPlayIsAlwaysFromATag",
         [] { KVRIMessageReporter::reportIMessageTapPlayWithTrackID("T1"); }, "userevent",
         "type=nav&trackkey=T1&destination=korvel&origin=imessagetag"},
        {"OpenAppleMusic",
         [] { KVRIMessageReporter::reportIMessageOpenAppleMusicTappedFromOrigin(-4, "T1"); },
         "userevent", "type=open&providername=applemusic&trackkey=T1&origin=manual"},
        {"OpenAppleMusicFromATagReturnsItsUUID",
         [] { return KVRIMessageReporter::reportIMessageOpenAppleMusicTappedFromOrigin(2, "T9"); },
         "userevent", "type=open&providername=applemusic&trackkey=T9&origin=imessagetag"},

        // Without a delegate there is no screen name, so the fallback sends
        // no source at all.
        {"FavouriteFromPlayer",
         [] { KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag(&favouriteTag(), 1); },
         "userevent",
         "type=add_to&{tag}&favouritesource=PLAYER&favouritevalue=1&providername=addtomytags"},
        {"FavouriteFromScreenWithoutScreenName",
         [] { KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag(&favouriteTag(), 3); },
         "userevent", "type=add_to&{tag}&favouritevalue=1&providername=addtomytags"},
    }),
    reportCaseName);

// MARK: - Favourite origins and the current screen

class FavouriteOriginTest : public BeaconTest {};

TEST_F(FavouriteOriginTest, OriginTableWithScreenNameFallback) {
  KVRUserSession::setUserSessionDelegate(std::make_shared<ScreenNameDelegate>("tagdetails"));
  struct Row {
    int64_t origin;
    const char* keys;
  };
  const std::vector<Row> rows = {
      {kInt64Min, "favouritesource=tagdetails"}, {-1, "favouritesource=tagdetails"},
      {0, "favouritesource=tagdetails"},         {1, "favouritesource=PLAYER"},
      {2, "favouritesource=AUDIO"},              {3, "favouritesource=tagdetails"},
      {4, "favouritesource=tagdetails"},         {5, "origin=track_overflow"},
      {6, "origin=deeplink"},                    {7, "favouritesource=tagdetails"},
      {kInt64Max, "favouritesource=tagdetails"},
  };
  for (const auto& row : rows) {
    executor_->clear();
    KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag(&favouriteTag(), row.origin);
    const WireParameters expected =
        params("type=add_to") + tagWire(&favouriteTag()) + params(row.keys) +
        params("favouritevalue=1&providername=addtomytags");
    EXPECT_EQ(withoutDelegateParameters(onlySent()), expected) << "origin " << row.origin;
  }
}

TEST_F(FavouriteOriginTest, MissingTagStillSendsTheBaseParametersAsNotFavourite) {
  KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag(nullptr, 6);
  const WireParameters expected =
      params("type=add_to") + tagWire(nullptr) +
      params("origin=deeplink&favouritevalue=0&providername=addtomytags");
  EXPECT_EQ(onlySent().parameters(), expected);
}

// MARK: - Word tables and codes

TEST(AppSurfaceWords, TablesStartAtOne) {
  expectWordTable(&KVRPromptReporter::promptTypeStringForPromptType, 1,
                  "location_permissions notif_permissions photo_write_permissions offline_notify",
                  "calendar_permissions");
  expectWordTable(&KVRPromptReporter::actionStringForAction, 1, "notify_me ok settings", "cancel");
  expectWordTable(&KVRAccountsReporter::accountsProviderStringFromAccountsProvider, 1, "spotify",
                  "applemusic");
  expectWordTable(&KVRSocialReporter::stringForSocialNetworkType, 1, "instagram facebook",
                  "twitter");
  expectWordTable(&KVRIMessageReporter::imessageOriginStringForIMessageOrigin, 1,
                  "imessage_mykorvel imessagetag", "manual");
}

TEST(AppSurfaceWords, PlayerContentIsAlwaysAPlaylist) {
  for (int64_t type : {kInt64Min, int64_t{-1}, int64_t{0}, int64_t{1}, int64_t{2}, kInt64Max}) {
    EXPECT_EQ(KVRPlayerReporter::playerContentTypeStringFromPlayerContentType(type), "playlist");
  }
}

TEST(AppSurfaceWords, AuthenticationReasonCodes) {
  expectMapping(&KVRAuthenticationReporter::reasonCodeFromSuccessType,
                {std::pair<int64_t, int64_t>{kInt64Min, 0},
                 {-1, 0},
                 {0, 0},
                 {1, 1},
                 {2, 2},
                 {3, 3},
                 {4, 0},
                 {kInt64Max, 0}});
  expectMapping(
      &KVRAuthenticationReporter::reasonCodeFromFailureType,
      {std::pair<int64_t, int64_t>{kInt64Min, 1}, {-1, 1}, {0, 0}, {1, 1}, {7, 1}, {kInt64Max, 1}});
}

}  // namespace
}  // namespace korvel::testing
