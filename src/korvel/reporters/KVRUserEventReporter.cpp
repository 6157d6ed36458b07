#include <korvel/reporters/KVRUserEventReporter.h>

#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {
namespace {

constexpr std::string_view kMyKorvel = "mykorvel";
constexpr std::string_view kSupportRequestTypes[] = {"gethelp"};
constexpr std::string_view kSupportRequestFallback = "diagnosticreport";

void sendUserEvent(std::string_view type) {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::userEvent(type));
}

// An overlay names itself as origin and as screen: with "screenname" set
// here, the common parameters do not put the covered page's name in its
// place.
void reportOverlayNavigation(std::string_view destination, std::string_view overlay,
                             const KVRTagDetails* tagDetails) {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, destination);
  parameters.set(kKVROrigin, overlay);
  parameters.set(kKVRScreenName, overlay);
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

std::optional<std::string> KVRUserEventReporter::reportShareActionWithAdditionalBeaconData(
    const std::optional<KVRParameters>& additionalBeaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRShare);
  parameters.set(kKVRProviderName, kKVRShare);
  parameters.merge(additionalBeaconData);
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportShareActionWithAdditionalBeaconData");
  return std::nullopt;
}

void KVRUserEventReporter::reportShareSheetSelectedForProvider(
    const std::optional<std::string>& provider, bool shareCompleted,
    const std::optional<KVRParameters>& additionalBeaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRShare);
  parameters.set(kKVRProviderName, provider);
  // Without a chosen provider the sheet was closed, whatever the completion
  // flag says.
  const bool providerChosen = provider && !provider->empty();
  parameters.set(kKVRAction, !providerChosen
                                 ? std::string_view("dismiss")
                                 : (shareCompleted ? kKVRSuccess : std::string_view("cancel")));
  parameters.merge(additionalBeaconData);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportShareSheetSelectedForProvider");
}

void KVRUserEventReporter::reportShortcutUsed(const std::optional<std::string>& shortcut) noexcept
    try {
  auto parameters = reporters::internal::userEvent("shortcutlaunch");
  parameters.set("shortcut", shortcut);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportShortcutUsed");
}

void KVRUserEventReporter::reportSupportRequestedOfType(KVRSupportRequestType type) noexcept try {
  sendUserEvent(stringForSupportRequestTypeType(type));
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportSupportRequestedOfType");
}

void KVRUserEventReporter::reportAboutIconEasterEggSuccess(bool success) noexcept try {
  auto parameters = reporters::internal::userEvent("aboutpageicon");
  parameters.set(kKVROutcome, reporters::internal::flag(success));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportAboutIconEasterEggSuccess");
}

std::optional<std::string> KVRUserEventReporter::reportHubButtonTappedForTagDetails(
    const KVRTagDetails* tagDetails,
    const std::optional<KVRParameters>& additionalBeaconData) noexcept try {
  KVRParameters parameters;
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  parameters.merge(additionalBeaconData);
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportHubButtonTappedForTagDetails");
  return std::nullopt;
}

void KVRUserEventReporter::reportOverflowArtistTappedWithTagDetails(
    const KVRTagDetails* tagDetails,
    const std::optional<KVRParameters>& additionalBeaconData) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRArtist);
  reporters::internal::mergeTagParameters(parameters, tagDetails);
  parameters.merge(additionalBeaconData);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOverflowArtistTappedWithTagDetails");
}

void KVRUserEventReporter::reportUserScrolled() noexcept try {
  sendUserEvent("userscrolled");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportUserScrolled");
}

void KVRUserEventReporter::reportWelcomeGotItTapped() noexcept try {
  sendUserEvent(kKVRGotItTapped);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportWelcomeGotItTapped");
}

void KVRUserEventReporter::reportPrivacyLearnMoreTapped() noexcept try {
  auto parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRAction, "privacylearnmore");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportPrivacyLearnMoreTapped");
}

void KVRUserEventReporter::reportAutoKorvelSwitchEnabled(bool enabled) noexcept try {
  sendUserEvent(enabled ? kKVRAutoSwitchType : kKVRAutoEndType);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportAutoKorvelSwitchEnabled");
}

void KVRUserEventReporter::reportNewConfigReceived() noexcept try {
  sendUserEvent("newconfig");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportNewConfigReceived");
}

void KVRUserEventReporter::reportUpdateAppButtonTapped() noexcept try {
  sendUserEvent("app_store");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportUpdateAppButtonTapped");
}

void KVRUserEventReporter::reportOpenActionWithProviderName(
    const std::optional<std::string>& providerName,
    const std::optional<std::string>& origin) noexcept try {
  reporters::internal::send(KVRBeaconTypeUserEvent, reporters::internal::openEvent(providerName, origin));
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOpenActionWithProviderName");
}

void KVRUserEventReporter::reportOpenYouTube() noexcept try {
  reportOpenActionWithProviderName("youtube", std::nullopt);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOpenYouTube");
}

std::optional<std::string> KVRUserEventReporter::reportOpenAppleMusicWithTrackID(
    const std::optional<std::string>& trackID) noexcept try {
  return reporters::internal::sendOpenItem(kKVRProviderAppleMusicValue, std::nullopt, kKVRTrackID, trackID);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOpenAppleMusicWithTrackID");
  return std::nullopt;
}

void KVRUserEventReporter::reportTrackPageMetadataActionButtonTapped() noexcept try {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "metadata");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportTrackPageMetadataActionButtonTapped");
}

void KVRUserEventReporter::reportPlayerMetadataOpen() noexcept try {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "playermetadata");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportPlayerMetadataOpen");
}

void KVRUserEventReporter::reportPlayerFooterOpen() noexcept try {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "playerfooter");
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportPlayerFooterOpen");
}

std::optional<std::string>
KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<std::string>& providerName,
    const std::optional<std::string>& albumId) noexcept try {
  auto parameters = reporters::internal::userEvent(kKVROpenType);
  parameters.set(kKVRProviderName, providerName);
  parameters.set(kKVROrigin, kKVRFeaturedAlbum);
  parameters.set(kKVRAlbumId, albumId);
  reporters::internal::mergeFeaturedTagParameters(parameters, tagDetails);
  return reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure(
      "KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails");
  return std::nullopt;
}

void KVRUserEventReporter::reportUserLeftRerunOverlay() noexcept try {
  reportOverlayNavigation(kMyKorvel, kKVRRerunOverlay, nullptr);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportUserLeftRerunOverlay");
}

void KVRUserEventReporter::reportUserLeftOfflineOverlay() noexcept try {
  reportOverlayNavigation(kMyKorvel, kKVROfflineOverlay, nullptr);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportUserLeftOfflineOverlay");
}

void KVRUserEventReporter::reportOpenedTrackFromRerunOverlay(
    const KVRTagDetails* tagDetails) noexcept try {
  reportOverlayNavigation(kKVRDetails, kKVRRerunOverlay, tagDetails);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOpenedTrackFromRerunOverlay");
}

void KVRUserEventReporter::reportOpenedTrackFromOfflineOverlay(
    const KVRTagDetails* tagDetails) noexcept try {
  reportOverlayNavigation(kKVRDetails, kKVROfflineOverlay, tagDetails);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportOpenedTrackFromOfflineOverlay");
}

void KVRUserEventReporter::reportWrongTrackSubmittedWithTrackId(
    const std::optional<std::string>& trackId, const std::optional<std::string>& tagID) noexcept
    try {
  auto parameters = reporters::internal::userEvent("feedback");
  parameters.set("wrongsong", reporters::internal::flag(true));
  // The track goes under both keys that readers of feedback look it up by.
  parameters.set(kKVRTrackIdKey, trackId);
  parameters.set(kKVRTrackID, trackId);
  parameters.set(kKVRTagID, tagID);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserEventReporter::reportWrongTrackSubmittedWithTrackId");
}

std::string KVRUserEventReporter::stringForSupportRequestTypeType(KVRSupportRequestType type) {
  // Values beyond int64_t's range turn negative here and fall back as well.
  return reporters::internal::wordFor(kSupportRequestTypes, static_cast<int64_t>(type),
                            kSupportRequestFallback);
}

}  // namespace korvel
