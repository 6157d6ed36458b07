// The library sync status's encoded form as an nlohmann-json document, for
// the library's own code and its tests (the public header names no
// third-party type).
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <korvel/beacon/KVRLibrarySyncStatus.h>

namespace korvel::beacon::internal {

// The raw value alone, as one JSON integer.
nlohmann::json toJSON(KVRLibrarySyncStatusValue value);
// Accepts one JSON integer that fits a signed 64-bit value; anything else
// throws std::invalid_argument naming what it got.
KVRLibrarySyncStatusValue librarySyncStatusFromJSON(const nlohmann::json& json);

}  // namespace korvel::beacon::internal

namespace korvel {

// For nlohmann::json's own conversions (json j = status; j.get<...>()),
// found by argument-dependent lookup, so beside the type.
void to_json(nlohmann::json& json, const KVRLibrarySyncStatusValue& value);
void from_json(const nlohmann::json& json, KVRLibrarySyncStatusValue& value);

}  // namespace korvel
