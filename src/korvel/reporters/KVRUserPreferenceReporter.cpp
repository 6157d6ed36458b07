#include <korvel/reporters/KVRUserPreferenceReporter.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>
#include <korvel/reporters/KVRTaggingReporter.h>

namespace korvel {

namespace {

// A favourite origin goes out under one of two keys: "favouritesource" for
// places in the app (upper case, as the dashboards have always had it),
// "origin" for ways into the app. A row with neither (3 and 4 included) is a
// place named by the current screen.
struct FavouriteOriginWords {
  std::string_view source;
  std::string_view origin;
};
constexpr std::array<FavouriteOriginWords, 6> kFavouriteOrigins = {{
    {"PLAYER", {}},
    {"AUDIO", {}},
    {},
    {},
    {{}, "track_overflow"},
    {{}, "deeplink"},
}};
constexpr KVRFavouriteOrigin kFirstFavouriteOrigin = KVRFavouriteOriginPlayer;

std::optional<std::string> word(std::string_view w) {
  if (w.data() == nullptr) return std::nullopt;
  return std::string(w);
}

}  // namespace

void KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag(
    const KVRTagDetails* tag, KVRFavouriteOrigin fromOrigin) noexcept try {
  KVRParameters parameters = reporters::internal::userEvent("add_to");
  parameters.merge(KVRTaggingReporter::reportingParametersForTagDetails(tag));

  FavouriteOriginWords row;
  if (fromOrigin >= kFirstFavouriteOrigin) {
    const uint64_t index =
        static_cast<uint64_t>(fromOrigin) - static_cast<uint64_t>(kFirstFavouriteOrigin);
    if (index < kFavouriteOrigins.size()) row = kFavouriteOrigins[index];
  }
  std::optional<std::string> source = word(row.source);
  const std::optional<std::string> origin = word(row.origin);
  if (!source && !origin) source = KVRUserSession().currentScreenName();

  parameters.set(kKVROrigin, origin);
  parameters.set("favouritesource", source);
  parameters.set("favouritevalue", reporters::internal::flag(tag != nullptr && tag->isFavourite()));
  parameters.set(kKVRProviderName, "addtomytags");
  reporters::internal::send(KVRBeaconTypeUserEvent, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRUserPreferenceReporter::reportUpdatedFavouriteStatusForTag");
}

}  // namespace korvel
