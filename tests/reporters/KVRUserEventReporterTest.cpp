#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <korvel/reporters/KVRUserEventReporter.h>
#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

using R = KVRUserEventReporter;

TEST(KVRUserEventReporterWordsTest, SupportRequestIsHelpOnlyForZero) {
  EXPECT_EQ(R::stringForSupportRequestTypeType(0), "gethelp");
  for (const uint64_t other : {uint64_t{1}, uint64_t{2}, uint64_t{7}, uint64_t{1} << 63,
                               std::numeric_limits<uint64_t>::max()}) {
    EXPECT_EQ(R::stringForSupportRequestTypeType(other), "diagnosticreport") << other;
  }
}

class KVRUserEventReporterTest : public ReporterTest {
 protected:
  const KVRTagDetails tag_ = sampleTag();
};

TEST_F(KVRUserEventReporterTest, ShareSheetActionTable) {
  struct Case {
    std::optional<std::string> provider;
    bool completed;
    std::string expected;
  };
  const KVRParameters extra{{"extra", "e"}};
  for (const Case& c : std::vector<Case>{
           {"messages", true, "type=share&providername=messages&action=success&extra=e"},
           {"messages", false, "type=share&providername=messages&action=cancel&extra=e"},
           // No provider chosen: dismissed, whatever the completion flag says.
           {"", true, "type=share&providername=&action=dismiss&extra=e"},
           {"", false, "type=share&providername=&action=dismiss&extra=e"},
           {std::nullopt, true, "type=share&action=dismiss&extra=e"},
           {std::nullopt, false, "type=share&action=dismiss&extra=e"}}) {
    const auto beacon =
        sendOne([&] { R::reportShareSheetSelectedForProvider(c.provider, c.completed, extra); });
    EXPECT_EQ(beacon.event, "userevent");
    EXPECT_EQ(beacon.parameters(), params(c.expected)) << c.expected;
  }
}

TEST_F(KVRUserEventReporterTest, SharingHubAndSimpleEvents) {
  const KVRParameters shareData{{"type", "shareartist"}, {"artist_adam_id", "A1"}};
  const KVRParameters hubData{{"type", "hub"}, {"tagid", "HOST-TAG"}};
  // The host's data is merged after the tag's and wins, in place.
  WireParameters hubWithTag = tagWire(&tag_);
  for (auto& [key, value] : hubWithTag) {
    if (key == "tagid") value = "HOST-TAG";
  }
  expectBeacons({
      {[] { return R::reportShareActionWithAdditionalBeaconData({}); },
       "type=share&providername=share"},
      {[&] { return R::reportShareActionWithAdditionalBeaconData(shareData); },
       "type=shareartist&providername=share&artist_adam_id=A1"},
      // The hub beacon has no type of its own.
      {[] { return R::reportHubButtonTappedForTagDetails(nullptr, {}); }, ""},
      {[&] { return R::reportHubButtonTappedForTagDetails(&tag_, hubData); },
       hubWithTag + params("type=hub")},
      {[] { R::reportOverflowArtistTappedWithTagDetails(nullptr, {}); },
       "type=nav&destination=artist"},
      {[&] {
         R::reportOverflowArtistTappedWithTagDetails(&tag_, KVRParameters{{"x", "1"}});
       },
       params("type=nav&destination=artist") + tagWire(&tag_) + params("x=1")},
      {[] { R::reportShortcutUsed("tag"); }, "type=shortcutlaunch&shortcut=tag"},
      {[] { R::reportShortcutUsed({}); }, "type=shortcutlaunch"},
      {[] { R::reportSupportRequestedOfType(0); }, "type=gethelp"},
      {[] { R::reportSupportRequestedOfType(7); }, "type=diagnosticreport"},
      {[] { R::reportAboutIconEasterEggSuccess(true); }, "type=aboutpageicon&outcome=1"},
      {[] { R::reportAboutIconEasterEggSuccess(false); }, "type=aboutpageicon&outcome=0"},
      {[] { R::reportUserScrolled(); }, "type=userscrolled"},
      {[] { R::reportWelcomeGotItTapped(); }, "type=gotitclick"},
      {[] { R::reportPrivacyLearnMoreTapped(); }, "type=nav&action=privacylearnmore"},
      {[] { R::reportAutoKorvelSwitchEnabled(true); }, "type=autoswitch"},
      {[] { R::reportAutoKorvelSwitchEnabled(false); }, "type=autoend"},
      {[] { R::reportNewConfigReceived(); }, "type=newconfig"},
      {[] { R::reportUpdateAppButtonTapped(); }, "type=app_store"},
  });
}

TEST_F(KVRUserEventReporterTest, OpeningOtherApps) {
  KVRTagDetails noTrack = sampleTag();
  noTrack.trackID.reset();
  const auto featured = params("type=open&providername=am&origin=featured_album&albumid=AL");
  expectBeacons({
      {[] { R::reportOpenActionWithProviderName("sp", "hub"); },
       "type=open&providername=sp&origin=hub"},
      {[] { R::reportOpenActionWithProviderName({}, {}); }, "type=open"},
      {[] { R::reportOpenYouTube(); }, "type=open&providername=youtube"},
      {[] { return R::reportOpenAppleMusicWithTrackID("TK"); },
       "type=open&providername=applemusic&trackkey=TK"},
      {[] { R::reportTrackPageMetadataActionButtonTapped(); },
       "type=open&providername=applemusic&origin=metadata"},
      {[] { R::reportPlayerMetadataOpen(); },
       "type=open&providername=applemusic&origin=playermetadata"},
      {[] { R::reportPlayerFooterOpen(); },
       "type=open&providername=applemusic&origin=playerfooter"},
      // The tag's track key is repeated as "trackid".
      {[&] { return R::reportFeaturedInItemActionButtonTappedWithTagDetails(&tag_, "am", "AL"); },
       featured + tagWire(&tag_) + params("trackid=TRACKKEY-1")},
      {[&] {
         return R::reportFeaturedInItemActionButtonTappedWithTagDetails(&noTrack, "am", "AL");
       },
       featured + tagWire(&noTrack)},
      // Merged even without a tag: the device's orientation still goes.
      {[] { return R::reportFeaturedInItemActionButtonTappedWithTagDetails(nullptr, "am", "AL"); },
       featured + tagWire(nullptr)},
  });
}

TEST_F(KVRUserEventReporterTest, OverlaysAndFeedback) {
  expectBeacons({
      {[] { R::reportUserLeftRerunOverlay(); },
       "type=nav&destination=mykorvel&origin=rerunoverlay&screenname=rerunoverlay"},
      {[] { R::reportUserLeftOfflineOverlay(); },
       "type=nav&destination=mykorvel&origin=offlineoverlay&screenname=offlineoverlay"},
      {[&] { R::reportOpenedTrackFromRerunOverlay(&tag_); },
       params("type=nav&destination=details&origin=rerunoverlay&screenname=rerunoverlay") +
           tagWire(&tag_)},
      {[] { R::reportOpenedTrackFromOfflineOverlay(nullptr); },
       "type=nav&destination=details&origin=offlineoverlay&screenname=offlineoverlay"},
      // The track goes under both keys.
      {[] { R::reportWrongTrackSubmittedWithTrackId("TK", "TAG"); },
       "type=feedback&wrongsong=1&trackid=TK&trackkey=TK&tagid=TAG"},
      {[] { R::reportWrongTrackSubmittedWithTrackId({}, {}); }, "type=feedback&wrongsong=1"},
  });
}

}  // namespace
}  // namespace korvel::testing
