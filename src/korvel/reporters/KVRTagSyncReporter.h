// The outcome of one run of the tag sync, which keeps the user's tags in step
// between devices.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KVNError;

// Which store the run synced: the original one or the end-to-end encrypted one.
using KVRTagSyncContainer = int64_t;
inline constexpr KVRTagSyncContainer KVRTagSyncContainerOriginal = 0;
inline constexpr KVRTagSyncContainer KVRTagSyncContainerE2EE = 1;

// How far the run got, counted from zero (the wire counts from one).
using KVRTagSyncStep = int64_t;
inline constexpr KVRTagSyncStep KVRTagSyncStepOne = 0;
inline constexpr KVRTagSyncStep KVRTagSyncStepTwo = 1;
inline constexpr KVRTagSyncStep KVRTagSyncStepOther = 2;

class KORVEL_EXPORT KVRTagSyncReporter {
 public:
  KVRTagSyncReporter() = delete;

  // The counts go out as given; "removed" travels as "deleted".
  static void reportSyncResult(const std::optional<KVRValue>& result,
                               KVRTagSyncContainer withContainer, KVRTagSyncStep step,
                               const std::optional<KVRValue>& uploaded,
                               const std::optional<KVRValue>& added,
                               const std::optional<KVRValue>& removed,
                               const std::optional<KVRValue>& updated,
                               const KVNError* error) noexcept;

  // The codes of the error and of every error under it, outermost first,
  // joined by ":" (4:-1009); nothing without an error.
  static std::optional<std::string> errorCodesStringForError(const KVNError* error);
  // 0 "original", anything else "e2ee".
  static std::string stringForContainer(KVRTagSyncContainer container);
  // 0 "1", 1 "2", 2 "other"; nothing for other steps.
  static std::optional<std::string> stringForSyncStep(KVRTagSyncStep step);
};

}  // namespace korvel
