// The metadata cards under a result (track, artist and highlights cards):
// what was shown and where the user went from them.
#pragma once

#include <korvel/export.h>

namespace korvel {

class KORVEL_EXPORT KVRMetadataPageReporter {
 public:
  KVRMetadataPageReporter() = delete;

  static void reportHighlightsNavigationFromHighlightsCard();
  static void reportArtistBioNavigationFromArtistCard();
  static void reportArtistPageNavigationFromArtistCard();
  static void reportTrackImageNavigationFromTrackCard();
  static void reportArtistImageNavigationFromArtistCard();

  // Impressions name the card under "providername".
  static void reportImpressionForHighlightsCard();
  static void reportImpressionForTrackCard();
  static void reportImpressionForArtistCard();
};

}  // namespace korvel
