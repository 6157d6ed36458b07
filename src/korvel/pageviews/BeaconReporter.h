// Turns typed reporting parameters into one beacon: the bridge a host's
// PageViewReporter normally uses to send page views, usable by any other
// typed report as well.
#pragma once

#include <korvel/export.h>

#include <string>

#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/pageviews/ReportingValue.h>

namespace korvel {

class KORVEL_EXPORT BeaconReporter {
 public:
  BeaconReporter() = delete;

  // Sends one beacon of the caller's type and returns its uuid; the beacon is
  // made (and its uuid returned) also when the configured endpoint is empty
  // and nothing is submitted. While reporting is off (the user opted out, or
  // after Reporting::shutdown) no beacon is made and the answer is empty, and
  // so it is when the beacon could not be built or queued (logged). Never
  // throws.
  //
  // Values go into the dictionary as their native kind: bool as a boolean
  // (on the wire "1"/"0"), double as a double, int as a signed integer,
  // string as the text.
  //
  // On a key present more than once the right-hand side wins: the
  // server-provided parameters override typed parameters, and of two typed
  // parameters with the same key (different values are distinct set
  // elements) the one met later in the set's unspecified order wins.
  //
  // A type outside the dispatcher's range (1...20) yields no beacon in any
  // state, which is a programming error: the program stops.
  static std::string report(KVRBeaconType type, const ReportingParameters& parameters,
                            const KVRParameters& serverProvidedParameters) noexcept;

  // The dictionary value of a typed value, as report() stores it.
  static KVRValue dictionaryValue(const ReportingValue& value);
};

}  // namespace korvel
