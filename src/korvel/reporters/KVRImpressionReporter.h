// Sections of the track page coming into view. Each impression names its
// section under "providername".
#pragma once

#include <korvel/export.h>

namespace korvel {

class KORVEL_EXPORT KVRImpressionReporter {
 public:
  KVRImpressionReporter() = delete;

  static void reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(
      bool isShowingEditorialNotes);
  static void reportImpressionForTopSongsSection();
  static void reportImpressionForEventsSection();
  static void reportImpressionForFeaturedInSection();
  // Reported as "youtube" whatever the source of the video.
  static void reportImpressionForVideoSection();
  static void reportImpressionForHighlightsSection();
  static void reportImpressionForRelatedSection();
  static void reportImpressionForMetadataSection();
  static void reportImpressionForShareSection();
  static void reportImpressionForContextualMenu();
};

}  // namespace korvel
