#include <korvel/reporters/KVRTagSyncReporter.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

namespace {

constexpr std::array<std::string_view, 1> kContainerWords = {"original"};
constexpr std::string_view kContainerFallback = "e2ee";

// The enumeration counts from zero, the analytics side from one.
constexpr std::array<std::string_view, 3> kSyncStepWords = {"1", "2", "other"};

}  // namespace

void KVRTagSyncReporter::reportSyncResult(const std::optional<KVRValue>& result,
                                          KVRTagSyncContainer withContainer, KVRTagSyncStep step,
                                          const std::optional<KVRValue>& uploaded,
                                          const std::optional<KVRValue>& added,
                                          const std::optional<KVRValue>& removed,
                                          const std::optional<KVRValue>& updated,
                                          const KVNError* error) noexcept try {
  // No "type": tag sync beacons are told apart by their event alone.
  KVRParameters parameters;
  parameters.set("result", result);
  parameters.set("container", stringForContainer(withContainer));
  parameters.set("syncstep", stringForSyncStep(step));
  parameters.set("uploaded", uploaded);
  parameters.set("added", added);
  // Dashboards read "updated" before "deleted", and know removals as
  // deletions.
  parameters.set("updated", updated);
  parameters.set("deleted", removed);
  parameters.set(kKVRErrorKey, errorCodesStringForError(error));
  reporters::internal::send(KVRBeaconTypeTagSync, parameters);
} catch (...) {
  KVRLogging::logReportFailure("KVRTagSyncReporter::reportSyncResult");
}

std::optional<std::string> KVRTagSyncReporter::errorCodesStringForError(const KVNError* error) {
  if (error == nullptr) return std::nullopt;
  std::string codes;
  // Errors are immutable, but one can still be built to hold itself (or an
  // ancestor) as its underlying error; such a chain stops at the first error
  // seen twice instead of running forever.
  std::vector<const KVNError*> seen;
  for (const KVNError* current = error; current != nullptr; current = current->underlyingError()) {
    if (std::find(seen.begin(), seen.end(), current) != seen.end()) break;
    seen.push_back(current);
    if (!codes.empty()) codes += ':';
    codes += std::to_string(current->code());
  }
  return codes;
}

std::string KVRTagSyncReporter::stringForContainer(KVRTagSyncContainer container) {
  return reporters::internal::wordFor(kContainerWords, container, kContainerFallback);
}

std::optional<std::string> KVRTagSyncReporter::stringForSyncStep(KVRTagSyncStep step) {
  return reporters::internal::wordFor(kSyncStepWords, step);
}

}  // namespace korvel
