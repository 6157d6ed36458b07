// The concert ("event") pages: impressions of their sections, navigation
// between an event, its artist, its tracks and other events, tickets, the
// calendar, the map, photos, videos, playlists and the upsell cards shown on
// an event page.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/reporters/KVRStreamingServiceReporter.h>

namespace korvel {

// A section of the event page (unsigned); unknown values read as the photo
// rail.
using KVREventPageOrigin = uint64_t;

class KORVEL_EXPORT KVREventsReporter {
 public:
  KVREventsReporter() = delete;

  // Impressions.
  static void reportWatchNowButtonImpressionForEventID(
      const std::optional<std::string>& eventID,
      const std::optional<std::string>& artistID) noexcept;
  static void reportImpressionForSection(KVREventPageOrigin section,
                                         const std::optional<std::string>& eventID,
                                         const std::optional<std::string>& artistID) noexcept;

  // Event page actions.
  static void reportDownloadedContentForEventID(const std::optional<std::string>& eventID) noexcept;
  static void reportAddToCalendarTappedForEventID(
      const std::optional<std::string>& eventID) noexcept;
  static void reportTicketsModalDismissedForEventID(
      const std::optional<std::string>& eventID) noexcept;
  static void reportLatestReleaseUpsellClosedForEventID(
      const std::optional<std::string>& eventID,
      const std::optional<std::string>& artistID) noexcept;
  static void reportLatestReleaseSpatialUpsellClosedForEventID(
      const std::optional<std::string>& eventID,
      const std::optional<std::string>& artistID) noexcept;
  static void reportTicketButtonTappedForEventID(
      const std::optional<std::string>& eventID) noexcept;

  // Navigation.
  static void reportNavigationToArtistPage() noexcept;
  static void reportNavigationToTrackPageFromOrigin(
      KVREventPageOrigin origin, const std::optional<std::string>& eventID,
      const std::optional<std::string>& artistID) noexcept;
  static void reportAnotherEventTappedFromEventWithID(
      const std::optional<std::string>& eventID) noexcept;
  static void reportOpenedEventID(const std::optional<std::string>& eventID,
                                  const std::optional<std::string>& artistID) noexcept;
  static void reportEventListOpenedForArtistID(const std::optional<std::string>& artistID) noexcept;
  static void reportOpenedPhotoForEventID(const std::optional<std::string>& eventID,
                                          KVREventPageOrigin origin) noexcept;

  // Videos; the video id travels as "campaign", the loading time in the
  // caller's unit.
  static void reportOpenedVideoForVideoID(const std::optional<std::string>& videoID,
                                          const std::optional<std::string>& eventID,
                                          const std::optional<std::string>& artistID) noexcept;
  static void reportLoadedVideoForVideoID(const std::optional<std::string>& videoID,
                                          const std::optional<std::string>& eventID,
                                          const std::optional<std::string>& artistID,
                                          double loadingTime) noexcept;

  // Leaving for another app or service.
  static std::optional<std::string> reportWatchNowButtonTappedForEventID(
      const std::optional<std::string>& eventID,
      const std::optional<std::string>& artistID) noexcept;
  static std::optional<std::string> reportPlaylistFooterButtonTappedForEventID(
      const std::optional<std::string>& eventID, const std::optional<std::string>& artistID,
      bool isFeaturedPlaylist) noexcept;
  static void reportOpenMapTappedForEventID(const std::optional<std::string>& eventID) noexcept;
  static std::optional<std::string> reportOpenAppForStreamingServiceProvider(
      KVRStreamingServiceProvider provider, const std::optional<std::string>& eventID,
      KVREventPageOrigin origin) noexcept;
  static void reportOpenTicketProviderWithName(const std::optional<std::string>& name,
                                               const std::optional<std::string>& eventID) noexcept;

  // Forwards to the streaming service reporter's playback beacon.
  static void reportPlaybackForEventID(const std::optional<std::string>& eventID,
                                       const std::optional<std::string>& artistID,
                                       const std::optional<std::string>& streamingServiceIdentifier,
                                       KVREventPageOrigin origin) noexcept;

  static std::string originStringForOrigin(KVREventPageOrigin origin);
};

}  // namespace korvel
