#include <korvel/reporters/KVRImpressionReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

void reportSection(std::string_view section) {
  reporters::internal::send(KVRBeaconTypeImpression, KVRParameters{{kKVRProviderName, section}});
}

}  // namespace

void KVRImpressionReporter::reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes(
    bool isShowingEditorialNotes) noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, kKVRProviderAppleMusicValue);
  parameters.set(kKVRType, "metadata_open");
  parameters.set("hasnotes", reporters::internal::flag(isShowingEditorialNotes));
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRImpressionReporter::"
      "reportImpressionForTrackPageMetadataActionButtonIsShowingEditorialNotes");
}

void KVRImpressionReporter::reportImpressionForTopSongsSection() noexcept try {
  reportSection(kKVRTopSongs);
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForTopSongsSection");
}

void KVRImpressionReporter::reportImpressionForEventsSection() noexcept try {
  reportSection(kKVREvents);
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForEventsSection");
}

void KVRImpressionReporter::reportImpressionForFeaturedInSection() noexcept try {
  reportSection("featured");
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForFeaturedInSection");
}

void KVRImpressionReporter::reportImpressionForVideoSection() noexcept try {
  reportSection("youtube");
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForVideoSection");
}

void KVRImpressionReporter::reportImpressionForHighlightsSection() noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, kKVRHighlights);
  parameters.set(kKVROrigin, kKVRSection);
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForHighlightsSection");
}

void KVRImpressionReporter::reportImpressionForRelatedSection() noexcept try {
  reportSection(kKVRRelatedSongs);
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForRelatedSection");
}

void KVRImpressionReporter::reportImpressionForMetadataSection() noexcept try {
  reportSection("metadata");
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForMetadataSection");
}

void KVRImpressionReporter::reportImpressionForShareSection() noexcept try {
  reportSection(kKVRShare);
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForShareSection");
}

void KVRImpressionReporter::reportImpressionForContextualMenu() noexcept try {
  reportSection("contextmenu");
} catch (...) {
  KVRLogging::logReportFailure("KVRImpressionReporter::reportImpressionForContextualMenu");
}

}  // namespace korvel
