#include <korvel/pageviews/BeaconReporter.h>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/pageviews/FatalError.h>

namespace korvel {

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
                                   const KVRParameters& serverProvidedParameters) {
  KVRParameters dictionary;
  dictionary.reserve(parameters.size() + serverProvidedParameters.size());
  for (const auto& parameter : parameters) {
    dictionary.set(parameter.key, dictionaryValue(parameter.value));
  }
  dictionary.merge(serverProvidedParameters);

  auto uuid = KVRBeacon::sendBeaconOfType(type, dictionary);
  if (!uuid) {
    fatalError("BeaconReporter: the dispatcher made no beacon for type " +
               std::to_string(static_cast<int>(type)));
  }
  return std::move(*uuid);
}

}  // namespace korvel
