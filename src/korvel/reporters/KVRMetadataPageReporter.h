// The metadata cards under a result (track, artist and highlights cards):
// what was shown and where the user went from them.
#pragma once

#include <korvel/export.h>

namespace korvel {

class KORVEL_EXPORT KVRMetadataPageReporter {
 public:
  KVRMetadataPageReporter() = delete;

  static void reportHighlightsNavigationFromHighlightsCard() noexcept;
  static void reportArtistBioNavigationFromArtistCard() noexcept;
  static void reportArtistPageNavigationFromArtistCard() noexcept;
  static void reportTrackImageNavigationFromTrackCard() noexcept;
  static void reportArtistImageNavigationFromArtistCard() noexcept;

  // Impressions name the card under "providername".
  static void reportImpressionForHighlightsCard() noexcept;
  static void reportImpressionForTrackCard() noexcept;
  static void reportImpressionForArtistCard() noexcept;
};

}  // namespace korvel
