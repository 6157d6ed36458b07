#include <korvel/reporters/KVRSearchReporter.h>

#include <array>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 1> kSearchActionWords = {"search_enter"};
constexpr std::string_view kSearchActionFallback = "search_hint";

constexpr std::array<std::string_view, 6> kResultTypeWords = {
    "song", "recent_song", "topresult_song", kKVRArtist, "recent_artist", "topresult_artist",
};
constexpr std::string_view kResultTypeFallback = "song";

constexpr std::string_view kRadioSpinsProvider = "radio_spins";
constexpr std::string_view kRadioSpinsOrigin = "top_200";

std::optional<std::string> absoluteString(const std::optional<KVRURL>& url) {
  if (!url) return std::nullopt;
  return url->absoluteString;
}

}  // namespace

void KVRSearchReporter::reportSearchWithAction(KVRSearchAction action) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRSearch);
  parameters.set(kKVRAction, searchActionStringForSearchAction(action));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSearchReporter::reportSearchWithAction");
}

void KVRSearchReporter::reportOpenSearchResultType(KVRSearchResultType type,
                                                   bool hasLyricsSnippet) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRSearch);
  parameters.set(kKVRAction, "launch");
  parameters.set("searchresulttype", searchResultTypeStringForSearchResultType(type));
  parameters.set("haslyrics", reporters::internal::flag(hasLyricsSnippet));
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSearchReporter::reportOpenSearchResultType");
}

void KVRSearchReporter::reportChartsCardTappedInSearch() noexcept try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, "charts");
  parameters.set(kKVROrigin, "charts_card");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSearchReporter::reportChartsCardTappedInSearch");
}

// The tap and the impression carry the same keys, each in the order its
// dashboard has always had them.
void KVRSearchReporter::reportRadioSpinsCardTappedWithURL(const std::optional<KVRURL>& url) noexcept
    try {
  KVRParameters parameters = reporters::internal::userEvent(kKVRNavType);
  parameters.set(kKVRDestination, absoluteString(url));
  parameters.set(kKVROrigin, kRadioSpinsOrigin);
  parameters.set(kKVRProviderName, kRadioSpinsProvider);
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSearchReporter::reportRadioSpinsCardTappedWithURL");
}

void KVRSearchReporter::reportRadioSpinsCardImpressionWithURL(
    const std::optional<KVRURL>& url) noexcept try {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, kRadioSpinsProvider);
  parameters.set(kKVRDestination, absoluteString(url));
  parameters.set(kKVROrigin, kRadioSpinsOrigin);
  reporters::internal::send(KVRBeaconTypeImpression, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRSearchReporter::reportRadioSpinsCardImpressionWithURL");
}

std::string KVRSearchReporter::searchActionStringForSearchAction(KVRSearchAction action) {
  return reporters::internal::wordFor(kSearchActionWords, action, kSearchActionFallback);
}

std::string KVRSearchReporter::searchResultTypeStringForSearchResultType(
    KVRSearchResultType type) {
  return reporters::internal::wordFor(kResultTypeWords, type, kResultTypeFallback);
}

}  // namespace korvel
