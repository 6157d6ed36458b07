// The player: its track list, the way to the artist page, saving its
// playlist.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

namespace korvel {

struct KVRTagDetails;

// What the player is playing; every kind is reported as a playlist today.
using KVRPlayerContentType = int64_t;

class KORVEL_EXPORT KVRPlayerReporter {
 public:
  KVRPlayerReporter() = delete;

  static void reportNavigationToArtistPage() noexcept;
  static void reportUserTappedOnTrackInPlayerTracklistWithTagDetails(
      const KVRTagDetails* tagDetails,
      const std::optional<std::string>& streamingServiceProviderName) noexcept;
  static void reportUserTappedSavePlaylistWithStreamingServiceProviderName(
      const std::optional<std::string>& providerName) noexcept;
  // Reported as the app-wide scroll event.
  static void reportUserScrolledToBottomOfTracklist() noexcept;

  // Always "playlist".
  static std::string playerContentTypeStringFromPlayerContentType(KVRPlayerContentType type);
};

}  // namespace korvel
