// The user's moves on the track page: to the artist, into the track's
// details, out to a streaming app, and playback.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/reporters/KVRStreamingServiceReporter.h>

namespace korvel {

struct KVRTagDetails;

// Where on the track page the user acted (signed). 6 and unknown values are
// reported without an origin.
using KVRTrackPageOrigin = int64_t;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginOverflow = 0;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginTrackOverflow = 1;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginTrack = 2;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginTopSongs = 3;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginFeaturedAlbum = 4;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginRelatedSongs = 5;
inline constexpr KVRTrackPageOrigin KVRTrackPageOriginDetails = 7;

class KORVEL_EXPORT KVRTrackPageReporter {
 public:
  KVRTrackPageReporter() = delete;

  static void reportNavigationToArtistPageFromOrigin(KVRTrackPageOrigin origin) noexcept;
  static void reportOpenedTrackWithTrackAdamID(const std::optional<std::string>& trackAdamID,
                                               KVRTrackPageOrigin origin) noexcept;
  // The page's origin wins over any origin in the tag's parameters.
  static void reportOpenedTrack(const KVRTagDetails* tagDetails,
                                KVRTrackPageOrigin origin) noexcept;
  static std::optional<std::string> reportOpenAppForStreamingServiceProvider(
      KVRStreamingServiceProvider provider, const std::optional<std::string>& trackAdamID,
      KVRTrackPageOrigin origin) noexcept;

  // Both forward to the streaming service reporter's playback beacon. Here
  // an origin in the tag's parameters wins over the page's.
  static void reportPlaybackForTagDetails(
      const KVRTagDetails* tagDetails, const std::optional<std::string>& streamingServiceIdentifier,
      KVRTrackPageOrigin origin) noexcept;
  static void reportPlaybackForTrackID(const std::optional<std::string>& trackID,
                                       const std::optional<std::string>& streamingServiceIdentifier,
                                       KVRTrackPageOrigin origin) noexcept;

  static std::optional<std::string> originStringForOrigin(KVRTrackPageOrigin origin);
};

}  // namespace korvel
