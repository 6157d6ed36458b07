#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <korvel/reporters/KVRArtistPageReporter.h>
#include <korvel/reporters/KVRHighlightsReporter.h>
#include <korvel/reporters/KVRMetadataPageReporter.h>
#include <korvel/reporters/KVRTrackPageReporter.h>
#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

constexpr int64_t kMinSigned = std::numeric_limits<int64_t>::min();
constexpr int64_t kMaxSigned = std::numeric_limits<int64_t>::max();

TEST(KVRPageReportersWordsTest, TrackPageOriginHasNoWordForSixOrOutside) {
  const auto table = words("overflow track_overflow track topsongs featured_album relatedsongs");
  for (int64_t origin = 0; origin < 6; ++origin) {
    EXPECT_EQ(KVRTrackPageReporter::originStringForOrigin(origin), table[origin]) << origin;
  }
  EXPECT_EQ(KVRTrackPageReporter::originStringForOrigin(7), "details");
  for (const int64_t none :
       {int64_t{6}, int64_t{8}, int64_t{42}, int64_t{-1}, kMinSigned, kMaxSigned}) {
    EXPECT_EQ(KVRTrackPageReporter::originStringForOrigin(none), std::nullopt) << none;
  }
}

TEST(KVRPageReportersWordsTest, ArtistPageOriginFallsBackToHub) {
  const auto table = words(
      "hub aboutartist inmymusic topsongs featured_album morealbums playlists relatedartists");
  for (int64_t origin = 0; origin < 8; ++origin) {
    EXPECT_EQ(KVRArtistPageReporter::originStringForOrigin(origin), table[origin]) << origin;
  }
  for (const int64_t unknown : {int64_t{8}, int64_t{100}, int64_t{-1}, kMinSigned, kMaxSigned}) {
    EXPECT_EQ(KVRArtistPageReporter::originStringForOrigin(unknown), "hub") << unknown;
  }
}

class KVRPageReportersTest : public ReporterTest {
 protected:
  const KVRTagDetails tag_ = sampleTag();
};

TEST_F(KVRPageReportersTest, TrackPage) {
  using R = KVRTrackPageReporter;
  expectBeacons({
      {[] { R::reportNavigationToArtistPageFromOrigin(KVRTrackPageOriginTopSongs); },
       "type=nav&origin=topsongs&destination=artist"},
      // 6 and unknown places leave the origin out.
      {[] { R::reportNavigationToArtistPageFromOrigin(6); }, "type=nav&destination=artist"},
      {[] { R::reportNavigationToArtistPageFromOrigin(42); }, "type=nav&destination=artist"},
      {[] { R::reportOpenedTrackWithTrackAdamID("AD", 2); },
       "type=nav&destination=details&track_adam_id=AD&origin=track"},
      {[] { R::reportOpenedTrack(nullptr, 0); }, "type=nav&destination=details&origin=overflow"},
      // The origin is written after the tag's parameters...
      {[&] { R::reportOpenedTrack(&tag_, 7); },
       params("type=nav&destination=details") + tagWire(&tag_) + params("origin=details")},
      {[] { return R::reportOpenAppForStreamingServiceProvider(1, "AD", 5); },
       "type=open&providername=spotify&origin=relatedsongs&track_adam_id=AD"},
      {[] { return R::reportOpenAppForStreamingServiceProvider(0, {}, -1); },
       "type=open&providername=applemusic"},
      // ...and before them for playback.
      {[&] { R::reportPlaybackForTagDetails(&tag_, "sp", 1); },
       params("type=playerplay&providername=sp&origin=track_overflow") + tagWire(&tag_)},
      {[] { R::reportPlaybackForTagDetails(nullptr, "", 6); },
       "type=playerplay&providername=&preview=1"},
      {[] { R::reportPlaybackForTrackID("AD", "am", 4); },
       "type=playerplay&providername=am&track_adam_id=AD&origin=featured_album"},
  });
}

TEST_F(KVRPageReportersTest, ArtistPage) {
  using R = KVRArtistPageReporter;
  expectBeacons({
      {[] { R::reportNavigationToAboutModalFromAboutArtistSectionForArtistID("AR"); },
       "type=nav&artist_adam_id=AR&origin=aboutartist&destination=aboutartist"},
      {[] { R::reportNavigationToAboutModalFromAboutArtistSectionForArtistID({}); },
       "type=nav&origin=aboutartist&destination=aboutartist"},
      {[] { R::reportNavigationToTrackPageFromOrigin(KVRArtistPageOriginTopSongs, "AR"); },
       "type=nav&artist_adam_id=AR&origin=topsongs&destination=details"},
      // 6 has no word on the track page; the artist page uses its own table.
      {[] { R::reportNavigationToTrackPageFromOrigin(6, "AR"); },
       "type=nav&artist_adam_id=AR&origin=playlists&destination=details"},
      {[] { R::reportNavigationToArtistPageFromOrigin(-5, "AR"); },
       "type=nav&artist_adam_id=AR&origin=hub&destination=artist"},
      {[] { return R::reportOpenAppForStreamingServiceProvider(0, "AR", 2); },
       "type=open&providername=applemusic&origin=inmymusic&artist_adam_id=AR"},
      {[] { return R::reportOpenAppForStreamingServiceProvider(3, {}, 8); },
       "type=open&providername=spotify&origin=hub"},
      {[] { R::reportPlaybackForArtistID("AR", "sp", 5); },
       "type=playerplay&providername=sp&artist_adam_id=AR&origin=morealbums"},
  });
}

TEST_F(KVRPageReportersTest, MetadataCardsAndHighlights) {
  using M = KVRMetadataPageReporter;
  using H = KVRHighlightsReporter;
  expectBeacons({
      {[] { M::reportHighlightsNavigationFromHighlightsCard(); },
       "type=nav&origin=metadata_highlights&destination=highlights"},
      {[] { M::reportArtistBioNavigationFromArtistCard(); },
       "type=nav&origin=metadata_artist&destination=artist_bio"},
      {[] { M::reportArtistPageNavigationFromArtistCard(); },
       "type=nav&origin=metadata_artist&destination=artist"},
      {[] { M::reportTrackImageNavigationFromTrackCard(); },
       "type=nav&origin=metadata_track&destination=track_image"},
      {[] { M::reportArtistImageNavigationFromArtistCard(); },
       "type=nav&origin=metadata_artist&destination=artist_image"},
      {[] { M::reportImpressionForHighlightsCard(); }, "providername=metadata_highlights",
       "impression"},
      {[] { M::reportImpressionForTrackCard(); }, "providername=metadata_track", "impression"},
      {[] { M::reportImpressionForArtistCard(); }, "providername=metadata_artist", "impression"},
      {[] { H::reportOpeningHighlightsFromHighlightsRail(); },
       "type=nav&destination=highlights&origin=highlights"},
      {[&] { H::reportOpeningBackgroundHighlightForTrack(&tag_); },
       params("type=nav&destination=highlights&origin=background") + tagWire(&tag_)},
      {[] { H::reportOpeningHighlightsFromOrigin({}, nullptr); },
       "type=nav&destination=highlights"},
      {[] { H::reportSkippedForward(); }, "type=onskiptapped"},
      {[] { H::reportSkippedBack(); }, "type=onbacktapped"},
      {[] { return H::reportOpenAppleMusicTapped(); },
       "type=open&providername=applemusic&origin=highlightspill"},
      {[] { H::reportHighlightsImpression(); }, "providername=highlights", "impression"},
      {[] { H::reportHighlightsLoading(); }, "providername=highlightsloading", "impression"},
  });
}

}  // namespace
}  // namespace korvel::testing
