#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <korvel/reporters/KVREventsReporter.h>
#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

using R = KVREventsReporter;
constexpr uint64_t kMaxUnsigned = std::numeric_limits<uint64_t>::max();

// Index i holds the word for section i.
const std::vector<std::string> kSectionWords = words(
    "featured_album topsongs artwork_amfa artwork_editorial set_list_amfa set_list_editorial "
    "photorail photogallery tourdownloads upcomingconcerts featured_playlist playlist "
    "watch_video am_events_latest_release_upsell am_events_latest_release_upsell_spatial");

TEST(KVREventsReporterWordsTest, OriginTableFallsBackToPhotoRail) {
  for (uint64_t section = 0; section < kSectionWords.size(); ++section) {
    EXPECT_EQ(R::originStringForOrigin(section), kSectionWords[section]) << section;
  }
  for (const uint64_t unknown : {uint64_t{15}, uint64_t{16}, uint64_t{1} << 63, kMaxUnsigned}) {
    EXPECT_EQ(R::originStringForOrigin(unknown), "photorail") << unknown;
  }
}

class KVREventsReporterTest : public ReporterTest {};

TEST_F(KVREventsReporterTest, SectionImpressionTypesOnlyThePlaylistSections) {
  for (uint64_t section = 0; section < kSectionWords.size(); ++section) {
    const std::string& word = kSectionWords[section];
    const auto beacon = sendOne([&] { R::reportImpressionForSection(section, "EV", "AR"); });
    const std::string own = (section == 10 || section == 11)
                                ? "type=" + word + "&providername=applemusic_live"
                                : "providername=" + word;
    EXPECT_EQ(beacon.event, "impression");
    EXPECT_EQ(beacon.parameters(), params(own + "&korvel_eventid=EV&artist_adam_id=AR")) << section;
  }
  // Far larger values whose low bits read 10 or 11 are unknown sections.
  for (const uint64_t unknown : {uint64_t{10} | (uint64_t{1} << 63),
                                 uint64_t{11} | (uint64_t{1} << 32), uint64_t{26}, kMaxUnsigned}) {
    const auto beacon = sendOne([&] { R::reportImpressionForSection(unknown, {}, {}); });
    EXPECT_EQ(beacon.parameters(), params("providername=photorail")) << unknown;
  }
}

TEST_F(KVREventsReporterTest, EveryOperation) {
  const std::string live = "providername=applemusic_live&korvel_eventid=EV&artist_adam_id=AR";
  expectBeacons({
      {[] { R::reportWatchNowButtonImpressionForEventID("EV", "AR"); }, "type=watch_now&" + live,
       "impression"},
      {[] { R::reportDownloadedContentForEventID("EV"); }, "type=addcontent&korvel_eventid=EV"},
      {[] { R::reportAddToCalendarTappedForEventID("EV"); },
       "type=addtocalendar&korvel_eventid=EV"},
      {[] { R::reportTicketsModalDismissedForEventID("EV"); }, "type=close&korvel_eventid=EV"},
      // A missing event id leaves its key out and still sends.
      {[] { R::reportTicketsModalDismissedForEventID({}); }, "type=close"},
      {[] { R::reportLatestReleaseUpsellClosedForEventID("EV", "AR"); },
       "type=close&providername=am_events_latest_release_upsell&korvel_eventid=EV&artist_adam_id="
       "AR"},
      {[] { R::reportLatestReleaseSpatialUpsellClosedForEventID({}, "AR"); },
       "type=close&providername=am_events_latest_release_upsell_spatial&artist_adam_id=AR"},
      {[] { R::reportTicketButtonTappedForEventID("EV"); }, "type=gettickets&korvel_eventid=EV"},
      {[] { R::reportNavigationToArtistPage(); }, "type=nav&origin=event&destination=artist"},
      {[] { R::reportNavigationToTrackPageFromOrigin(1, "EV", "AR"); },
       "type=nav&korvel_eventid=EV&artist_adam_id=AR&origin=topsongs&destination=details"},
      {[] { R::reportAnotherEventTappedFromEventWithID("EV"); },
       "type=nav&korvel_eventid=EV&destination=event"},
      {[] { R::reportOpenedEventID("EV", "AR"); },
       "type=nav&korvel_eventid=EV&artist_adam_id=AR&origin=events&destination=event"},
      {[] { R::reportEventListOpenedForArtistID("AR"); },
       "type=nav&artist_adam_id=AR&origin=events&destination=events_list"},
      {[] { R::reportOpenedPhotoForEventID("EV", 99); },
       "type=nav&korvel_eventid=EV&origin=photorail&destination=photo"},
      {[] { R::reportOpenedVideoForVideoID("VID", "EV", "AR"); },
       "type=watch_video&korvel_eventid=EV&artist_adam_id=AR&providername=applemusic_live"
       "&campaign=VID"},
      // The loading time goes as passed, not scaled.
      {[] { R::reportLoadedVideoForVideoID("VID", "EV", "AR", 1.25); },
       "type=watch_video_load&korvel_eventid=EV&artist_adam_id=AR&providername=applemusic_live"
       "&campaign=VID&latency=1.25&origin=watch_video"},
      {[] { return R::reportWatchNowButtonTappedForEventID("EV", "AR"); },
       "type=watch_now&" + live},
      {[] { return R::reportPlaylistFooterButtonTappedForEventID("EV", "AR", true); },
       "type=playlist&" + live + "&origin=featured_playlist"},
      {[] { return R::reportPlaylistFooterButtonTappedForEventID("EV", "AR", false); },
       "type=playlist&" + live},
      {[] { R::reportOpenMapTappedForEventID("EV"); },
       "type=open&korvel_eventid=EV&providername=map"},
      {[] { return R::reportOpenAppForStreamingServiceProvider(0, "EV", 12); },
       "type=open&providername=applemusic&origin=watch_video&korvel_eventid=EV"},
      {[] { return R::reportOpenAppForStreamingServiceProvider(-1, {}, 15); },
       "type=open&providername=spotify&origin=photorail"},
      {[] { R::reportOpenTicketProviderWithName("tix", "EV"); },
       "type=open&korvel_eventid=EV&providername=tix"},
      {[] { R::reportPlaybackForEventID("EV", "AR", "sp", 4); },
       "type=playerplay&providername=sp&korvel_eventid=EV&artist_adam_id=AR&origin=set_list_amfa"},
      {[] { R::reportPlaybackForEventID({}, {}, {}, kMaxUnsigned); },
       "type=playerplay&preview=1&origin=photorail"},
  });
}

}  // namespace
}  // namespace korvel::testing
