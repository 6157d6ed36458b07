#include <korvel/pageviews/BeaconReporter.h>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/pageviews/FatalError.h>

namespace korvel {

namespace {

// The types the factory makes a record of.
bool isBeaconType(KVRBeaconType type) {
  return type >= KVRBeaconTypeStartup && type <= KVRBeaconTypePerformance;
}

}  // namespace

KVRValue BeaconReporter::dictionaryValue(const ReportingValue& value) {
  switch (value.valueCase()) {
    case ReportingValue::Case::Bool: return KVRValue(*value.boolValue());
    case ReportingValue::Case::Double: return KVRValue(*value.doubleValue());
    case ReportingValue::Case::Int: return KVRValue(*value.intValue());
    case ReportingValue::Case::String: return KVRValue(*value.stringValue());
  }
  return {};
}

std::string BeaconReporter::report(KVRBeaconType type, const ReportingParameters& parameters,
                                   const KVRParameters& serverProvidedParameters) noexcept try {
  // A type no record class stands for is the caller's programming error,
  // whatever state reporting is in.
  if (!isBeaconType(type)) {
    fatalError("BeaconReporter: the dispatcher made no beacon for type " +
               std::to_string(static_cast<int>(type)));
  }
  KVRParameters dictionary;
  dictionary.reserve(parameters.size() + serverProvidedParameters.size());
  for (const auto& parameter : parameters) {
    dictionary.set(parameter.key, dictionaryValue(parameter.value));
  }
  dictionary.merge(serverProvidedParameters);

  // No uuid for a known type means reporting is off (the user opted out,
  // the library was shut down) or the dispatcher could not build or queue
  // the beacon and logged why: states of the host, not errors of its code.
  auto uuid = KVRBeacon::sendBeaconOfType(type, dictionary);
  return uuid ? std::move(*uuid) : std::string();
} catch (...) {
  KVRLogging::logReportFailure("BeaconReporter::report");
  return std::string();
}

}  // namespace korvel
