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
  reporting::send(KVRBeaconTypeUserEvent, reporting::userEvent(type));
}

// An overlay names itself as origin and as screen: with "screenname" set
// here, the common parameters do not put the covered page's name in its
// place.
void reportOverlayNavigation(std::string_view destination, std::string_view overlay,
                             const KVRTagDetails* tagDetails) {
  auto parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, destination);
  parameters.set(kKVROrigin, overlay);
  parameters.set(kKVRScreenName, overlay);
  reporting::mergeTagParameters(parameters, tagDetails);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace

std::optional<std::string> KVRUserEventReporter::reportShareActionWithAdditionalBeaconData(
    const std::optional<KVRParameters>& additionalBeaconData) {
  auto parameters = reporting::userEvent(kKVRShare);
  parameters.set(kKVRProviderName, kKVRShare);
  parameters.merge(additionalBeaconData);
  return reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportShareSheetSelectedForProvider(
    const std::optional<std::string>& provider, bool shareCompleted,
    const std::optional<KVRParameters>& additionalBeaconData) {
  auto parameters = reporting::userEvent(kKVRShare);
  parameters.set(kKVRProviderName, provider);
  // Without a chosen provider the sheet was closed, whatever the completion
  // flag says.
  const bool providerChosen = provider && !provider->empty();
  parameters.set(kKVRAction, !providerChosen
                                 ? std::string_view("dismiss")
                                 : (shareCompleted ? kKVRSuccess : std::string_view("cancel")));
  parameters.merge(additionalBeaconData);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportShortcutUsed(const std::optional<std::string>& shortcut) {
  auto parameters = reporting::userEvent("shortcutlaunch");
  parameters.set("shortcut", shortcut);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportSupportRequestedOfType(KVRSupportRequestType type) {
  sendUserEvent(stringForSupportRequestTypeType(type));
}

void KVRUserEventReporter::reportAboutIconEasterEggSuccess(bool success) {
  auto parameters = reporting::userEvent("aboutpageicon");
  parameters.set(kKVROutcome, reporting::flag(success));
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

std::optional<std::string> KVRUserEventReporter::reportHubButtonTappedForTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<KVRParameters>& additionalBeaconData) {
  KVRParameters parameters;
  reporting::mergeTagParameters(parameters, tagDetails);
  parameters.merge(additionalBeaconData);
  return reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportOverflowArtistTappedWithTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<KVRParameters>& additionalBeaconData) {
  auto parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, kKVRArtist);
  reporting::mergeTagParameters(parameters, tagDetails);
  parameters.merge(additionalBeaconData);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportUserScrolled() { sendUserEvent("userscrolled"); }

void KVRUserEventReporter::reportWelcomeGotItTapped() { sendUserEvent(kKVRGotItTapped); }

void KVRUserEventReporter::reportPrivacyLearnMoreTapped() {
  auto parameters = reporting::userEvent(kKVRNavType);
  parameters.set(kKVRAction, "privacylearnmore");
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportAutoKorvelSwitchEnabled(bool enabled) {
  sendUserEvent(enabled ? kKVRAutoSwitchType : kKVRAutoEndType);
}

void KVRUserEventReporter::reportNewConfigReceived() { sendUserEvent("newconfig"); }

void KVRUserEventReporter::reportUpdateAppButtonTapped() { sendUserEvent("app_store"); }

void KVRUserEventReporter::reportOpenActionWithProviderName(
    const std::optional<std::string>& providerName, const std::optional<std::string>& origin) {
  reporting::send(KVRBeaconTypeUserEvent, reporting::openEvent(providerName, origin));
}

void KVRUserEventReporter::reportOpenYouTube() {
  reportOpenActionWithProviderName("youtube", std::nullopt);
}

std::optional<std::string> KVRUserEventReporter::reportOpenAppleMusicWithTrackID(
    const std::optional<std::string>& trackID) {
  return reporting::sendOpenItem(kKVRProviderAppleMusicValue, std::nullopt, kKVRTrackID, trackID);
}

void KVRUserEventReporter::reportTrackPageMetadataActionButtonTapped() {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "metadata");
}

void KVRUserEventReporter::reportPlayerMetadataOpen() {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "playermetadata");
}

void KVRUserEventReporter::reportPlayerFooterOpen() {
  reportOpenActionWithProviderName(std::string(kKVRProviderAppleMusicValue), "playerfooter");
}

std::optional<std::string>
KVRUserEventReporter::reportFeaturedInItemActionButtonTappedWithTagDetails(
    const KVRTagDetails* tagDetails, const std::optional<std::string>& providerName,
    const std::optional<std::string>& albumId) {
  auto parameters = reporting::userEvent(kKVROpenType);
  parameters.set(kKVRProviderName, providerName);
  parameters.set(kKVROrigin, kKVRFeaturedAlbum);
  parameters.set(kKVRAlbumId, albumId);
  reporting::mergeFeaturedTagParameters(parameters, tagDetails);
  return reporting::send(KVRBeaconTypeUserEvent, parameters);
}

void KVRUserEventReporter::reportUserLeftRerunOverlay() {
  reportOverlayNavigation(kMyKorvel, kKVRRerunOverlay, nullptr);
}

void KVRUserEventReporter::reportUserLeftOfflineOverlay() {
  reportOverlayNavigation(kMyKorvel, kKVROfflineOverlay, nullptr);
}

void KVRUserEventReporter::reportOpenedTrackFromRerunOverlay(const KVRTagDetails* tagDetails) {
  reportOverlayNavigation(kKVRDetails, kKVRRerunOverlay, tagDetails);
}

void KVRUserEventReporter::reportOpenedTrackFromOfflineOverlay(const KVRTagDetails* tagDetails) {
  reportOverlayNavigation(kKVRDetails, kKVROfflineOverlay, tagDetails);
}

void KVRUserEventReporter::reportWrongTrackSubmittedWithTrackId(
    const std::optional<std::string>& trackId, const std::optional<std::string>& tagID) {
  auto parameters = reporting::userEvent("feedback");
  parameters.set("wrongsong", reporting::flag(true));
  // The track goes under both keys that readers of feedback look it up by.
  parameters.set(kKVRTrackIdKey, trackId);
  parameters.set(kKVRTrackID, trackId);
  parameters.set(kKVRTagID, tagID);
  reporting::send(KVRBeaconTypeUserEvent, parameters);
}

std::string KVRUserEventReporter::stringForSupportRequestTypeType(KVRSupportRequestType type) {
  // Values beyond int64_t's range turn negative here and fall back as well.
  return reporting::wordFor(kSupportRequestTypes, static_cast<int64_t>(type),
                            kSupportRequestFallback);
}

}  // namespace korvel
