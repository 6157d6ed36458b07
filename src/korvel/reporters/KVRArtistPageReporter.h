// The user's moves on the artist page: the about modal, to a track or
// another artist, out to a streaming app, and playback.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/reporters/KVRStreamingServiceReporter.h>

namespace korvel {

// Where on the artist page the user acted (signed); unknown values read as
// the hub.
using KVRArtistPageOrigin = int64_t;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginHub = 0;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginAboutArtist = 1;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginInMyMusic = 2;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginTopSongs = 3;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginFeaturedAlbum = 4;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginMoreAlbums = 5;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginPlaylists = 6;
inline constexpr KVRArtistPageOrigin KVRArtistPageOriginRelatedArtists = 7;

class KORVEL_EXPORT KVRArtistPageReporter {
 public:
  KVRArtistPageReporter() = delete;

  static void reportNavigationToAboutModalFromAboutArtistSectionForArtistID(
      const std::optional<std::string>& artistID) noexcept;
  static void reportNavigationToTrackPageFromOrigin(
      KVRArtistPageOrigin origin, const std::optional<std::string>& artistID) noexcept;
  static void reportNavigationToArtistPageFromOrigin(
      KVRArtistPageOrigin origin, const std::optional<std::string>& artistID) noexcept;
  static std::optional<std::string> reportOpenAppForStreamingServiceProvider(
      KVRStreamingServiceProvider provider, const std::optional<std::string>& artistID,
      KVRArtistPageOrigin origin) noexcept;
  // Forwards to the streaming service reporter's playback beacon.
  static void reportPlaybackForArtistID(
      const std::optional<std::string>& artistID,
      const std::optional<std::string>& streamingServiceIdentifier,
      KVRArtistPageOrigin origin) noexcept;

  static std::string originStringForOrigin(KVRArtistPageOrigin origin);
};

}  // namespace korvel
