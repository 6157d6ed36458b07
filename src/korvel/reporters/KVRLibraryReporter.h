// The user's library screen: its cards, the see-all links of card rows, the
// upsell card, and the search and record buttons.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

struct KVRTagDetails;

// The kind of a library card or card row.
using KVRLibraryCardType = int64_t;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeHistory = 0;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeAMUpsell = 1;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeAMModalUpsell = 2;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeSearch = 3;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeTrending = 4;
inline constexpr KVRLibraryCardType KVRLibraryCardTypePlaylistsForYou = 5;
inline constexpr KVRLibraryCardType KVRLibraryCardTypeICloudHalfsheet = 6;

class KORVEL_EXPORT KVRLibraryReporter {
 public:
  KVRLibraryReporter() = delete;

  static void reportLibraryImpressionOfType(KVRLibraryCardType type,
                                            const KVRTagDetails* tagDetails) noexcept;
  static void reportOpenedTrack(const KVRTagDetails* tagDetails,
                                const std::optional<KVRValue>& cardPosition,
                                KVRLibraryCardType cardType) noexcept;
  // Goes out as the common playback beacon of the streaming service.
  static void reportPlayTrack(const KVRTagDetails* tagDetails,
                              const std::optional<std::string>& withStreamingServiceIdentifier,
                              const std::optional<KVRValue>& cardPosition) noexcept;
  static void reportTappedSeeAllForType(KVRLibraryCardType type,
                                        const std::optional<std::string>& origin) noexcept;
  static void reportOpenedUpsellCard() noexcept;
  static void reportSearchTapped() noexcept;
  static void reportKorvelButtonTapped() noexcept;

  // The card type's word; unknown types read as the history card.
  static std::string reportingStringForType(KVRLibraryCardType type);
};

}  // namespace korvel
