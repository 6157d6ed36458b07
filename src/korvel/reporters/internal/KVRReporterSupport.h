// The shapes every report operation shares: start a dictionary, set keys,
// merge the tag's parameters, merge the caller's extra data, send; and the
// lookup of an enumeration value in a word table.
//
// Every report operation is noexcept: its body is a function-try-block
// whose handler logs the failure (KVRLogging::logReportFailure) and returns
// no uuid, so nothing thrown below it (out of memory, a host callback)
// reaches the host. The tagging session calls alone let their misuse
// assertion (KVRAssertionException) through.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/beacon/KVRReportingUtilities.h>

namespace korvel {
struct KVRTagDetails;
}

namespace korvel::reporters::internal {

// {"type": type}: the start of a user-event beacon.
inline KVRParameters userEvent(std::string_view type) {
  return KVRReportingUtilities::defaultUserEventBeaconParametersOfType(type);
}

// Adds every entry of the tag's parameters when there is a tag.
void mergeTagParameters(KVRParameters& parameters, const KVRTagDetails* tagDetails);

// Sends through the dispatcher; the beacon's uuid.
inline std::optional<std::string> send(KVRBeaconType type, const KVRParameters& parameters) {
  return KVRBeacon::sendBeaconOfType(type, parameters);
}

// A boolean as the number 1 or 0.
inline KVRValue flag(bool value) { return KVRValue(static_cast<int64_t>(value ? 1 : 0)); }

// The word for value in a table whose first entry stands for `first`;
// nothing outside the table or where the entry is a gap (a default
// std::string_view, as opposed to "").
inline std::optional<std::string> wordFor(std::span<const std::string_view> words, int64_t value,
                                          int64_t first = 0) {
  if (value < first) return std::nullopt;
  const uint64_t index = static_cast<uint64_t>(value) - static_cast<uint64_t>(first);
  if (index >= words.size() || words[index].data() == nullptr) return std::nullopt;
  return std::string(words[index]);
}

// The same with the table's fallback word for anything it does not name.
inline std::string wordFor(std::span<const std::string_view> words, int64_t value,
                           std::string_view fallback, int64_t first = 0) {
  return wordFor(words, value, first).value_or(std::string(fallback));
}

// An impression whose only own parameter names what was shown, under
// "providername" (cards and rails use the provider key for their name).
inline std::optional<std::string> sendProviderImpression(std::string_view shown) {
  KVRParameters parameters;
  parameters.set(kKVRProviderName, shown);
  return send(KVRBeaconTypeImpression, parameters);
}

// The tag part of a featured-album beacon: the tag's parameters, merged
// even without a tag (then only the device's orientation), and the
// "trackkey" value repeated under "trackid" when there is one, as readers
// of these beacons look the track up under either key.
void mergeFeaturedTagParameters(KVRParameters& parameters, const KVRTagDetails* tagDetails);

// The start of an "open" user event: the app or service the user left for,
// and where from; a missing value leaves its key out.
inline KVRParameters openEvent(const std::optional<KVRValue>& providerName,
                               const std::optional<KVRValue>& origin) {
  auto parameters = userEvent(kKVROpenType);
  parameters.set(kKVRProviderName, providerName);
  parameters.set(kKVROrigin, origin);
  return parameters;
}

// An "open" user event for one item in another app, the item's identifier
// under itemKey (left out when there is none).
inline std::optional<std::string> sendOpenItem(const std::optional<KVRValue>& providerName,
                                               const std::optional<KVRValue>& origin,
                                               std::string_view itemKey,
                                               const std::optional<std::string>& item) {
  auto parameters = openEvent(providerName, origin);
  parameters.set(itemKey, item);
  return send(KVRBeaconTypeUserEvent, parameters);
}

}  // namespace korvel::reporters::internal
