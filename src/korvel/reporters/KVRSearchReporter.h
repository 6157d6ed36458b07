// What the user does in search: starting a search, opening a result, and the
// charts and radio-spins cards of the search screen.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

// How a search was started: typed and entered, or picked from the hints.
using KVRSearchAction = int64_t;
inline constexpr KVRSearchAction KVRSearchActionEnter = 0;
inline constexpr KVRSearchAction KVRSearchActionHint = 1;

// Which kind of result was opened.
using KVRSearchResultType = int64_t;
inline constexpr KVRSearchResultType KVRSearchResultTypeSong = 0;
inline constexpr KVRSearchResultType KVRSearchResultTypeRecentSong = 1;
inline constexpr KVRSearchResultType KVRSearchResultTypeTopResultSong = 2;
inline constexpr KVRSearchResultType KVRSearchResultTypeArtist = 3;
inline constexpr KVRSearchResultType KVRSearchResultTypeRecentArtist = 4;
inline constexpr KVRSearchResultType KVRSearchResultTypeTopResultArtist = 5;

class KORVEL_EXPORT KVRSearchReporter {
 public:
  KVRSearchReporter() = delete;

  static void reportSearchWithAction(KVRSearchAction action) noexcept;
  static void reportOpenSearchResultType(KVRSearchResultType type, bool hasLyricsSnippet) noexcept;
  static void reportChartsCardTappedInSearch() noexcept;
  static void reportRadioSpinsCardTappedWithURL(const std::optional<KVRURL>& url) noexcept;
  static void reportRadioSpinsCardImpressionWithURL(const std::optional<KVRURL>& url) noexcept;

  // 0 "search_enter", anything else "search_hint".
  static std::string searchActionStringForSearchAction(KVRSearchAction action);
  // The result type's word; unknown types read as a song.
  static std::string searchResultTypeStringForSearchResultType(KVRSearchResultType type);
};

}  // namespace korvel
