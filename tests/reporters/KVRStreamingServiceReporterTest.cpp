#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/KVRStreamingServiceReporter.h>
#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

using R = KVRStreamingServiceReporter;
constexpr uint64_t kMaxUnsigned = std::numeric_limits<uint64_t>::max();
constexpr int64_t kMinSigned = std::numeric_limits<int64_t>::min();
constexpr int64_t kMaxSigned = std::numeric_limits<int64_t>::max();

std::string repeated(std::string_view piece, size_t times) {
  std::string out;
  for (size_t i = 0; i < times; ++i) out += piece;
  return out;
}

// MARK: - Word tables

TEST(KVRStreamingServiceReporterWordsTest, LoginOriginEveryValueAndFallbacks) {
  // Index i holds the word for value i.
  const std::vector<std::string> table = words(
      "settings deeplink playallupsell mykorvel tagresult hubpreview addtoplaylist hubopen "
      "subscriptionchangedalert lyrics mykorveloverflow huboverflowopen featuredhubopen "
      "featuredhubpreview featuredhuboverflow historyopen historypreview historyoverflow "
      "listviewhubopen listviewopen listviewplayallupsell listviewoverflow trackoverflow "
      "overflowconnect playlistmetadata playlistpill listviewpreview highlightspill morecontent "
      "mykorvelupsell mykorvelmodalupsell metadata topsongs relatedsongs rerunoverlay "
      "offlineoverlay hub_msg chartsrail featured_album redeemdeeplink ammodalupsell hub "
      "inmymusic topsongs featured_album morealbums playlists playlists artwork_amfa "
      "artwork_editorial set_list_amfa set_list_editorial am_events_latest_release_upsell "
      "am_events_latest_release_upsell_spatial featured_playlist live_activity");
  ASSERT_EQ(table.size(), 56u);
  for (uint64_t value = 0; value < table.size(); ++value) {
    EXPECT_EQ(R::streamingOriginStringFromOrigin(value), table[value]) << value;
  }
  for (const uint64_t unknown : {uint64_t{56}, uint64_t{1000}, uint64_t{1} << 63, kMaxUnsigned}) {
    EXPECT_EQ(R::streamingOriginStringFromOrigin(unknown), "deeplink") << unknown;
  }
}

TEST(KVRStreamingServiceReporterWordsTest, ActionTablesAndFallbacks) {
  const std::vector<std::pair<uint64_t, std::string>> login = {
      {0, "start"},           {1, "subscribe_in"},
      {2, "subscribe_out"},   {3, "success"},
      {4, "error"},           {5, "subscribe_out_campaign"},
      {6, "accepts_privacy"}, {7, "medialibrary_permissiondenied_subscriber"},
      {8, "success"},         {kMaxUnsigned, "success"}};
  for (const auto& [value, word] : login) {
    EXPECT_EQ(R::streamingLoginActionStringForAction(value), word) << value;
  }
  const std::vector<std::pair<uint64_t, std::string>> logout = {
      {0, "success"}, {1, "error"},   {2, "logout"},
      {3, "cancel"},  {4, "success"}, {kMaxUnsigned, "success"}};
  for (const auto& [value, word] : logout) {
    EXPECT_EQ(R::streamingLogoutActionStringForAction(value), word) << value;
  }
  const std::vector<std::pair<uint64_t, std::string>> sheet = {
      {0, "signin"}, {1, "privacy"}, {2, "subscribe"}, {3, "cancel"}, {kMaxUnsigned, "cancel"}};
  for (const auto& [value, word] : sheet) {
    EXPECT_EQ(R::streamingNativeSheetActionStringForAction(value), word) << value;
  }
}

TEST(KVRStreamingServiceReporterWordsTest, ProviderNameIsAppleMusicOnlyForZero) {
  EXPECT_EQ(R::providerNameForProvider(0), "applemusic");
  for (const int64_t other : {int64_t{1}, int64_t{2}, int64_t{-1}, kMinSigned, kMaxSigned}) {
    EXPECT_EQ(R::providerNameForProvider(other), "spotify") << other;
  }
}

// MARK: - Reportable error description

std::optional<std::string> reportable(std::optional<std::string> localized) {
  const KVNError error("Domain", 1, std::move(localized));
  return R::reportableStreamingErrorLocalisedDescription(&error);
}

TEST(KVRStreamingServiceReporterDescriptionTest, CutsToFiftyUTF16Units) {
  // Two- and three-byte characters are one unit each.
  for (const auto& [unit, count, kept] : std::vector<std::tuple<const char*, int, int>>{
           {"a", 80, 50}, {"a", 50, 50}, {"a", 49, 49}, {"a", 0, 0}, {"\xC3\xA9", 60, 50},
           {"\xE2\x82\xAC", 51, 50}}) {
    EXPECT_EQ(reportable(repeated(unit, count)), repeated(unit, kept)) << unit << count;
  }
  EXPECT_EQ(reportable(std::nullopt), std::nullopt);
  EXPECT_EQ(R::reportableStreamingErrorLocalisedDescription(nullptr), std::nullopt);
}

TEST(KVRStreamingServiceReporterDescriptionTest, EmojiCountTwoAndAreNeverSplit) {
  const std::string grin = "\xF0\x9F\x98\x80";  // U+1F600, a surrogate pair
  EXPECT_EQ(reportable(repeated(grin, 26)), repeated(grin, 25));
  // The limit falls between the halves of a pair: the whole pair goes.
  EXPECT_EQ(reportable(repeated("a", 49) + grin + "b"), repeated("a", 49));
  EXPECT_EQ(reportable(repeated("a", 48) + grin + "b"), repeated("a", 48) + grin);
}

TEST(KVRStreamingServiceReporterDescriptionTest, InvalidUTF8BecomesReplacementCharacters) {
  const std::string bad = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\xFF\xFE ok", bad + bad + " ok"},            // never valid
      {"a\x80z", "a" + bad + "z"},                   // lone continuation
      {"\xC0\xAF", bad + bad},                       // overlong
      {"\xED\xA0\x80", bad + bad + bad},             // encoded surrogate
      {"\xF4\x90\x80\x80", bad + bad + bad + bad},   // beyond U+10FFFF
      {"abc\xF0\x9F\x98", "abc" + bad + bad + bad},  // cut short
      {"\xE2(x", bad + "(x"},                        // lead byte, then ASCII
      {repeated("\x80", 100), repeated(bad, 50)},    // one unit each
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(reportable(input), expected);
}

// MARK: - Beacons

class KVRStreamingServiceReporterTest : public ReporterTest {
 protected:
  const std::shared_ptr<const KVNError> offline_ =
      std::make_shared<const KVNError>("NSURLErrorDomain", -1009, "Offline.");
  const KVNError loginError_ = KVNError::withUnderlying("Login", 7, repeated("x", 80), offline_);
  const KVNError notAnErrorUnderneath_{
      "Login", 8, "Denied", {{std::string(KVNUnderlyingErrorKey), KVRValue("text")}}};
  const KVNError noDescription_{"Login", 9};
  const KVNError saveError_{"Playlist", 42, "Could not save"};
  const KVRTagDetails tag_ = sampleTag();
};

TEST_F(KVRStreamingServiceReporterTest, SignInAndConsent) {
  const KVRParameters extra{{"extra", "e"}, {"action", "override"}};
  const std::string head = "type=streamingmusicflow&action=error&loginorigin=settings";
  expectBeacons({
      {[] { return R::reportStreamingLoginWithAction(3, "am", 4, nullptr, nullptr, {}); },
       "type=streamingmusicflow&action=success&loginorigin=tagresult&providername=am"},
      {[] { return R::reportStreamingLoginWithAction(0, {}, 1000, nullptr, nullptr, {}); },
       "type=streamingmusicflow&action=start&loginorigin=deeplink"},
      // The extra data comes last and replaces "action" in place.
      {[&] { return R::reportStreamingLoginWithAction(4, "sp", 55, &tag_, &loginError_, extra); },
       params("type=streamingmusicflow&action=override&loginorigin=live_activity&providername=sp") +
           tagWire(&tag_) +
           params("errorcode=7&errormessage=" + repeated("x", 50) +
                  "&underlyingerrorcode=-1009&underlyingerrormessage=Offline.&extra=e")},
      {[&] {
         return R::reportStreamingLoginWithAction(4, {}, 0, nullptr, &notAnErrorUnderneath_, {});
       },
       head + "&errorcode=8&errormessage=Denied"},
      {[&] { return R::reportStreamingLoginWithAction(4, {}, 0, nullptr, &noDescription_, {}); },
       head + "&errorcode=9"},
      {[] { R::reportStreamingLogoutWithAction(2, "sp"); },
       "type=streamingmusiclogout&providername=sp&action=logout"},
      {[] { R::reportAppleMusicGDPRFlowPreviewUpsellImpressionShowingPrivacy(true, 0); },
       "providername=am_previewupsell_privacy&loginorigin=settings", "impression"},
      {[] { R::reportAppleMusicGDPRFlowPreviewUpsellImpressionShowingPrivacy(false, 1); },
       "providername=am_previewupsell&loginorigin=deeplink", "impression"},
      {[] { R::reportAppleMusicGDPRFlowPrivacyCardUpsellImpression(); }, "providername=am_privacy",
       "impression"},
      // No delegate, so no current screen to go back to.
      {[] { R::reportAppleMusicGDPRFlowPrivacyRejectedFromLoginOrigin(5); },
       "type=nav&origin=am_privacy&loginorigin=hubpreview"},
  });
}

TEST_F(KVRStreamingServiceReporterTest, UpsellActionTables) {
  struct Case {
    int64_t action;
    bool privacy;
    std::string actionItem;  // "&action=..." or nothing
  };
  for (const Case& c : std::vector<Case>{{0, true, "&action=continue_privacy"},
                                         {0, false, "&action=continue"},
                                         {1, true, "&action=cancel_privacy"},
                                         {1, false, "&action=cancel"},
                                         {2, true, ""},
                                         {-1, false, ""},
                                         {kMaxSigned, false, ""}}) {
    const auto beacon = sendOne(
        [&] { R::reportAppleMusicGDPRFlowPreviewUpsellUserEventAction(c.action, c.privacy, 3); });
    EXPECT_EQ(beacon.parameters(),
              params("type=applemusicupsell" + c.actionItem + "&loginorigin=mykorvel"))
        << c.action;
  }
  for (const auto& [action, word] : std::vector<std::pair<int64_t, std::string>>{
           {0, "&action=cancel"}, {1, "&action=spotify"}, {2, ""}, {-1, ""}, {kMinSigned, ""}}) {
    const auto beacon = sendOne([&] { R::reportStreamingLoginUpsellUserEventAction(action); });
    EXPECT_EQ(beacon.parameters(), params("type=streamingloginupsell" + word)) << action;
  }
  for (const auto& [provider, name] :
       std::vector<std::pair<int64_t, std::string>>{{0, "providername=streamsync_applemusic"},
                                                    {1, "providername=streamsync_spotify"},
                                                    {2, ""},
                                                    {5, ""},
                                                    {-1, ""},
                                                    {kMaxSigned, ""}}) {
    const auto beacon =
        sendOne([&] { R::reportStreamingServiceSyncCardImpressionWithProvider(provider); });
    EXPECT_EQ(beacon.event, "impression");
    EXPECT_EQ(beacon.parameters(), params(name)) << provider;
  }
}

class CurrentScreenDelegate : public KVRUserSessionDelegate {
 public:
  std::shared_ptr<const KVRGlobalReportingData> globalReportingData() override {
    auto data = std::make_shared<KVRGlobalReportingData>();
    data->setCurrentScreenName("settingsscreen");
    return data;
  }
  std::shared_ptr<const KVRUserSessionData> userSessionData() override { return nullptr; }
  bool shouldSendUserSessionBeacon() override { return false; }
};

TEST_F(KVRStreamingServiceReporterTest, PrivacyRejectedGoesBackToTheCurrentScreen) {
  KVRUserSession::setUserSessionDelegate(std::make_shared<CurrentScreenDelegate>());
  const auto beacon = sendOne([] { R::reportAppleMusicGDPRFlowPrivacyRejectedFromLoginOrigin(0); });
  EXPECT_EQ(beacon.value("destination"), "settingsscreen");
}

TEST_F(KVRStreamingServiceReporterTest, Playback) {
  const KVRParameters data{{"artist_adam_id", "A1"}, {"origin", "hub"}};
  const KVRParameters wins{{"preview", "0"}, {"type", "custom"}};
  KVRTagDetails noTrack = sampleTag();
  noTrack.trackID.reset();
  const auto album =
      params("type=playerplay&origin=featured_album&albumid=AL&providername=applemusic");
  expectBeacons({
      {[&] { R::reportPlaybackPlayWithStreamingServiceIdentifier("sp", data); },
       "type=playerplay&providername=sp&artist_adam_id=A1&origin=hub"},
      // A missing or empty identifier plays a preview; the data still wins.
      {[] { R::reportPlaybackPlayWithStreamingServiceIdentifier("", {}); },
       "type=playerplay&providername=&preview=1"},
      {[] { R::reportPlaybackPlayWithStreamingServiceIdentifier({}, {}); },
       "type=playerplay&preview=1"},
      {[&] { R::reportPlaybackPlayWithStreamingServiceIdentifier({}, wins); },
       "type=custom&preview=0"},
      {[] {
         R::reportPlaybackSessionEndedWithStreamingServiceIdentifier(
             "sp", KVRValue(1500), KVRValue(12), "PL", 0, KVRParameters{{"extra", "e"}});
       },
       "type=playersessionend&providername=sp&playqueue=PL&playbackduration=1500&trackcount=12"
       "&background=1&extra=e"},
      // Only a missing identifier is a preview here.
      {[] {
         R::reportPlaybackSessionEndedWithStreamingServiceIdentifier({}, KVRValue(2.5), {}, {}, 2,
                                                                     {});
       },
       "type=playersessionend&playbackduration=2.5&background=0&preview=1"},
      {[] {
         R::reportPlaybackSessionEndedWithStreamingServiceIdentifier("", {}, {}, {}, kMaxUnsigned,
                                                                     {});
       },
       "type=playersessionend&providername=&background=0"},
      {[] { R::reportPlayAllUserEventWithStreamingServiceIdentifier("sp", "PL", "mykorvel"); },
       "type=playerplay&providername=sp&playqueue=PL&origin=mykorvel"},
      {[] { R::reportPlayAllUserEventWithStreamingServiceIdentifier("", "PL", {}); },
       "type=playerplay&providername=&playqueue=PL"},
      {[] { R::reportPlayAllUserEventWithStreamingServiceIdentifier({}, "PL", "x"); },
       "type=playerplay&preview=1&playqueue=PL&origin=x"},
      {[&] { R::reportTrackPageFeaturedAlbumWithTagDetails(&tag_, "AL"); },
       album + tagWire(&tag_) + params("trackid=TRACKKEY-1")},
      {[&] { R::reportTrackPageFeaturedAlbumWithTagDetails(&noTrack, "AL"); },
       album + tagWire(&noTrack)},
      // Merged even without a tag: the device's orientation still goes.
      {[] { R::reportTrackPageFeaturedAlbumWithTagDetails(nullptr, "AL"); },
       album + tagWire(nullptr)},
  });
  EXPECT_FALSE(tagWire(nullptr).empty());
}

TEST_F(KVRStreamingServiceReporterTest, PlaylistsLibraryAndSync) {
  const auto saveDescription = WireParameters{{"errordescription", saveError_.description()}};
  expectBeacons({
      {[] { R::reportPlaylistUpdatedWithStreamingServiceIdentifier("sp"); },
       "type=playlistupdated&providername=sp"},
      {[] { R::reportPlaylistSelectionWithStreamingServiceIdentifier("sp"); },
       "type=streamingmusicplaylistaction&providername=sp&playlistwasselected=1"},
      {[&] { R::reportPlaylistUpdateError(&saveError_, "sp"); },
       params("type=playlistupdateerror&providername=sp&errorcode=42") + saveDescription, "error"},
      // The update error has a code even without an error; the save failure does not.
      {[] { R::reportPlaylistUpdateError(nullptr, "sp"); },
       "type=playlistupdateerror&providername=sp&errorcode=0", "error"},
      {[&] { R::reportPlaylistSaveFailedWithError(&saveError_, "sp"); },
       params("type=playlistsavefailed&providername=sp&errorcode=42") + saveDescription, "error"},
      {[] { R::reportPlaylistSaveFailedWithError(nullptr, "sp"); },
       "type=playlistsavefailed&providername=sp", "error"},
      {[] { R::reportMyKorvelPlaylistCreatedWithStreamingServiceIdentifier("am", KVRValue(17)); },
       "type=mykorvelsplaylistcreated&providername=am&mykorvelscount=17"},
      {[] { R::reportPlaylistSavedWithStreamingServiceIdentifier("sp"); },
       "type=playlistsaved&providername=sp"},
      {[] { R::reportAppleMusicMediaLibraryPermissionGranted(true); },
       "type=applemusicpermission&am=1"},
      {[] { R::reportAppleMusicMediaLibraryPermissionGranted(false); },
       "type=applemusicpermission&am=0"},
      {[] { R::reportStreamingServiceSyncCardAcceptTappedWithProvider(0); },
       "type=streamsync&providername=applemusic"},
      {[] { R::reportStreamingServiceAutoSyncEnabled(true, 0); },
       "type=pk_autoadd_korvels&providername=applemusic&value=on"},
      {[] { R::reportStreamingServiceAutoSyncEnabled(false, 1); },
       "type=pk_autoadd_korvels&providername=spotify&value=off"},
  });
}

TEST_F(KVRStreamingServiceReporterTest, AccountChecksAndClassicalCard) {
  expectBeacons({
      // An error handed in with a success is not reported.
      {[&] { R::reportAppleMusicMemberStatusFetchingFinishedWithSuccess(true, &saveError_, 2.5); },
       "type=ammember_check&action=success&duration=2.5"},
      {[&] {
         R::reportAppleMusicMemberStatusFetchingFinishedWithSuccess(false, &loginError_, .75);
       },
       "type=ammember_check&action=error&duration=0.75&errorcode=7&errordomain=Login&"
       "errormessage=" +
           repeated("x", 50)},
      {[] { R::reportAppleMusicMemberStatusFetchingFinishedWithSuccess(false, nullptr, 1); },
       "type=ammember_check&action=error&duration=1"},
      {[&] {
         R::reportAppleMusicSubscriptionOfferFetchingFinishedWithSuccess(false, &noDescription_, 3);
       },
       "type=amoffer_check&action=error&duration=3&errorcode=9&errordomain=Login"},
      {[] { R::reportAppleMusicClassicalDismissedForProviderName("upsell"); },
       "type=close&providername=upsell"},
      {[] { R::reportAppleMusicClassicalDownloadCardImpression(); },
       "providername=classical_half_sheet", "impression"},
      {[] { R::reportAppleMusicClassicalDownloadCardOpen(); },
       "type=open&providername=apple_music_classical&origin=classical_half_sheet"},
      {[] { R::reportAppleMusicClassicalDownloadCardDismissed(); },
       "type=close&providername=classical_half_sheet"},
  });
}

}  // namespace
}  // namespace korvel::testing
