#include <korvel/reporters/KVRWebReporter.h>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRWebReporter::reportWebBeaconWithParameters(const KVRParameters& parameters,
                                                   const std::optional<std::string>& event) noexcept
    try {
  KVRParameters beaconParameters = reporters::internal::userEvent("webbeacon");
  beaconParameters.merge(parameters);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, beaconParameters, event);
} catch (...) {
  KVRLogging::logReportFailure("KVRWebReporter::reportWebBeaconWithParameters");
}

}  // namespace korvel
