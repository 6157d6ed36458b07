// Favourites: the user adding a tag to, or removing it from, My Tags.
#pragma once

#include <korvel/export.h>

#include <cstdint>

namespace korvel {

struct KVRTagDetails;

// Where the favourite was changed. Places without a word of their own are
// reported by the name of the screen showing.
using KVRFavouriteOrigin = int64_t;
inline constexpr KVRFavouriteOrigin KVRFavouriteOriginCurrentScreen = 0;
inline constexpr KVRFavouriteOrigin KVRFavouriteOriginPlayer = 1;
inline constexpr KVRFavouriteOrigin KVRFavouriteOriginAudio = 2;
inline constexpr KVRFavouriteOrigin KVRFavouriteOriginTrackOverflow = 5;
inline constexpr KVRFavouriteOrigin KVRFavouriteOriginDeeplink = 6;

class KORVEL_EXPORT KVRUserPreferenceReporter {
 public:
  KVRUserPreferenceReporter() = delete;

  // The tag's current favourite flag is the new status.
  static void reportUpdatedFavouriteStatusForTag(const KVRTagDetails* tag,
                                                 KVRFavouriteOrigin fromOrigin) noexcept;
};

}  // namespace korvel
