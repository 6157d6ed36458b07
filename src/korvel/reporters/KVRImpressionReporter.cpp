#include <korvel/reporters/KVRImpressionReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

void reportSection(std::string_view section) {
  reporting::send(KVRBeaconTypeImpression, KVRParameters{{kKVRProviderName, section}});
}

}  // namespace

void KVRImpressionReporter::reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(
    bool isShowingEditorialNotes) {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, kKVRProviderAppleMusicValue);
  parameters.set(kKVRType, "metadata_open");
  parameters.set("hasnotes", reporting::flag(isShowingEditorialNotes));
  reporting::send(KVRBeaconTypeImpression, parameters);
}

void KVRImpressionReporter::reportImpressionForTopSongsSection() { reportSection(kKVRTopSongs); }

void KVRImpressionReporter::reportImpressionForEventsSection() { reportSection(kKVREvents); }

void KVRImpressionReporter::reportImpressionForFeaturedInSection() { reportSection("featured"); }

void KVRImpressionReporter::reportImpressionForVideoSection() { reportSection("youtube"); }

void KVRImpressionReporter::reportImpressionForHighlightsSection() {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, kKVRHighlights);
  parameters.set(kKVROrigin, kKVRSection);
  reporting::send(KVRBeaconTypeImpression, parameters);
}

void KVRImpressionReporter::reportImpressionForRelatedSection() {
  reportSection(kKVRRelatedSongs);
}

void KVRImpressionReporter::reportImpressionForMetadataSection() { reportSection("metadata"); }

void KVRImpressionReporter::reportImpressionForShareSection() { reportSection(kKVRShare); }

void KVRImpressionReporter::reportImpressionForContextualMenu() { reportSection("contextmenu"); }

}  // namespace korvel
