// The highlights screen: opening it, skipping,
// leaving for Apple Music, and what was shown.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>

namespace korvel {

struct KVRTagDetails;

class KORVEL_EXPORT KVRHighlightsReporter {
 public:
  KVRHighlightsReporter() = delete;

  static void reportOpeningHighlightsFromHighlightsRail();
  static void reportOpeningBackgroundHighlightForTrack(const KVRTagDetails* tagDetails);
  static void reportOpeningHighlightsFromOrigin(const std::optional<std::string>& origin,
                                                const KVRTagDetails* tagDetails);
  static void reportSkippedForward();
  static void reportSkippedBack();
  static std::optional<std::string> reportOpenAppleMusicTapped();
  static void reportHighlightsImpression();
  static void reportHighlightsLoading();
};

}  // namespace korvel
