// Sections of the track page coming into view. Each impression names its
// section under "providername".
#pragma once

#include <korvel/export.h>

namespace korvel {

class KORVEL_EXPORT KVRImpressionReporter {
 public:
  KVRImpressionReporter() = delete;

  static void reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(
      bool isShowingEditorialNotes) noexcept;
  static void reportImpressionForTopSongsSection() noexcept;
  static void reportImpressionForEventsSection() noexcept;
  static void reportImpressionForFeaturedInSection() noexcept;
  // Reported as "youtube" whatever the source of the video.
  static void reportImpressionForVideoSection() noexcept;
  static void reportImpressionForHighlightsSection() noexcept;
  static void reportImpressionForRelatedSection() noexcept;
  static void reportImpressionForMetadataSection() noexcept;
  static void reportImpressionForShareSection() noexcept;
  static void reportImpressionForContextualMenu() noexcept;
};

}  // namespace korvel
