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

  static void reportOpeningHighlightsFromHighlightsRail() noexcept;
  static void reportOpeningBackgroundHighlightForTrack(const KVRTagDetails* tagDetails) noexcept;
  static void reportOpeningHighlightsFromOrigin(const std::optional<std::string>& origin,
                                                const KVRTagDetails* tagDetails) noexcept;
  static void reportSkippedForward() noexcept;
  static void reportSkippedBack() noexcept;
  static std::optional<std::string> reportOpenAppleMusicTapped() noexcept;
  static void reportHighlightsImpression() noexcept;
  static void reportHighlightsLoading() noexcept;
};

}  // namespace korvel
