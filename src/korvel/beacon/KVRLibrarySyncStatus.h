// The library sync status a host reports (settings' sync state) and its word
// on the wire. It lives with the session, whose beacon describes the library
// sync state with the same words; KVRLibrarySyncReporter reports it.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <string>

namespace korvel {

// The state of library sync as settings shows it. Wraps any raw value: the
// app may hand over states this library does not know yet, and those read as
// sync being on.
class KORVEL_EXPORT KVRLibrarySyncStatusValue {
 public:
  constexpr KVRLibrarySyncStatusValue() = default;
  constexpr explicit KVRLibrarySyncStatusValue(int64_t rawValue) : rawValue_(rawValue) {}

  constexpr int64_t rawValue() const { return rawValue_; }

  friend constexpr bool operator==(KVRLibrarySyncStatusValue, KVRLibrarySyncStatusValue) = default;

 private:
  int64_t rawValue_ = 0;
};

// The statuses with a word of their own; everything else is "icloudon".
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusICloudOn{0};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusOptOut{1};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusNotDetermined{2};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusNoICloudAccess{3};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusRestricted{4};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusICloudFull{5};
inline constexpr KVRLibrarySyncStatusValue KVRLibrarySyncStatusTemporarilyUnavailable{6};

// The word a status goes out as ("optout", ..., "icloudon" for anything
// without a word of its own).
KORVEL_EXPORT std::string KVRLibrarySyncStatusWord(KVRLibrarySyncStatusValue status);

}  // namespace korvel
