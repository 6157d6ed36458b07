#include <gtest/gtest.h>
#include <korvel/reporters/KVRImpressionReporter.h>
#include <korvel/reporters/KVRSearchReporter.h>

#include <string>

#include "reporters/ReporterTestSupport.h"

namespace korvel::testing {
namespace {

class SearchImpressionBeaconTest : public ReportCaseTest {};

TEST_P(SearchImpressionBeaconTest, SendsExactlyItsBeacon) { expectBeacon(GetParam()); }

INSTANTIATE_TEST_SUITE_P(
    Search, SearchImpressionBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"SearchEntered", [] { KVRSearchReporter::reportSearchWithAction(0); }, "userevent",
         "type=search&action=search_enter"},
        {"SearchFromHint", [] { KVRSearchReporter::reportSearchWithAction(7); }, "userevent",
         "type=search&action=search_hint"},
        {"OpenedArtistWithLyrics", [] { KVRSearchReporter::reportOpenSearchResultType(3, true); },
         "userevent", "type=search&action=launch&searchresulttype=artist&haslyrics=1"},
        {"OpenedUnknownTypeFallsBackToSong",
         [] { KVRSearchReporter::reportOpenSearchResultType(9, true); }, "userevent",
         "type=search&action=launch&searchresulttype=song&haslyrics=1"},
        {"OpenedWithoutLyrics", [] { KVRSearchReporter::reportOpenSearchResultType(5, false); },
         "userevent", "type=search&action=launch&searchresulttype=topresult_artist&haslyrics=0"},
        {"ChartsCard", [] { KVRSearchReporter::reportChartsCardTappedInSearch(); }, "userevent",
         "type=nav&destination=charts&origin=charts_card"},
        {"RadioSpinsTapped",
         [] {
           KVRSearchReporter::reportRadioSpinsCardTappedWithURL(
               KVRURL{"https://radio.test/spins?week=12&top=200"});
         },
         "userevent",
         {{"type", "nav"},
          {"destination", "https://radio.test/spins?week=12&top=200"},
          {"origin", "top_200"},
          {"providername", "radio_spins"}}},
        {"RadioSpinsTappedWithoutURL",
         [] { KVRSearchReporter::reportRadioSpinsCardTappedWithURL(std::nullopt); }, "userevent",
         "type=nav&origin=top_200&providername=radio_spins"},
        // Same keys as the tap, provider first and no "type".
        {"RadioSpinsImpression",
         [] {
           KVRSearchReporter::reportRadioSpinsCardImpressionWithURL(
               KVRURL{"https://radio.test/spins"});
         },
         "impression",
         "providername=radio_spins&destination=https://radio.test/spins&origin=top_200"},
        {"RadioSpinsImpressionWithoutURL",
         [] { KVRSearchReporter::reportRadioSpinsCardImpressionWithURL(std::nullopt); },
         "impression", "providername=radio_spins&origin=top_200"},
    }),
    reportCaseName);

INSTANTIATE_TEST_SUITE_P(
    Impression, SearchImpressionBeaconTest,
    ::testing::ValuesIn(std::vector<ReportCase>{
        {"EditorialNotesShown",
         [] {
           KVRImpressionReporter::
               reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(true);
         },
         "impression", "providername=applemusic&type=metadata_open&hasnotes=1"},
        {"EditorialNotesHidden",
         [] {
           KVRImpressionReporter::
               reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(false);
         },
         "impression", "providername=applemusic&type=metadata_open&hasnotes=0"},
        {"TopSongs", [] { KVRImpressionReporter::reportImpressionForTopSongsSection(); },
         "impression", "providername=topsongs"},
        {"Events", [] { KVRImpressionReporter::reportImpressionForEventsSection(); }, "impression",
         "providername=events"},
        {"FeaturedIn", [] { KVRImpressionReporter::reportImpressionForFeaturedInSection(); },
         "impression", "providername=featured"},
        {"Video", [] { KVRImpressionReporter::reportImpressionForVideoSection(); }, "impression",
         "providername=youtube"},
        {"Highlights", [] { KVRImpressionReporter::reportImpressionForHighlightsSection(); },
         "impression", "providername=highlights&origin=section"},
        {"Related", [] { KVRImpressionReporter::reportImpressionForRelatedSection(); },
         "impression", "providername=relatedsongs"},
        {"Metadata", [] { KVRImpressionReporter::reportImpressionForMetadataSection(); },
         "impression", "providername=metadata"},
        {"Share", [] { KVRImpressionReporter::reportImpressionForShareSection(); }, "impression",
         "providername=share"},
        {"ContextualMenu", [] { KVRImpressionReporter::reportImpressionForContextualMenu(); },
         "impression", "providername=contextmenu"},
    }),
    reportCaseName);

TEST(SearchReporterWords, TablesAndTheirFallbacks) {
  expectWordTable(&KVRSearchReporter::searchActionStringForSearchAction, 0, "search_enter",
                  "search_hint");
  expectWordTable(&KVRSearchReporter::searchResultTypeStringForSearchResultType, 1,
                  "recent_song topresult_song artist recent_artist topresult_artist", "song");
}

}  // namespace
}  // namespace korvel::testing
