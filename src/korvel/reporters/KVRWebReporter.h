// Beacons that web content inside the app asks for.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVRWebReporter {
 public:
  KVRWebReporter() = delete;

  // The page's parameters go out as given (a "type" among them wins over
  // "webbeacon"); the event becomes the last component of the beacon's path.
  static void reportWebBeaconWithParameters(const KVRParameters& parameters,
                                            const std::optional<std::string>& event) noexcept;
};

}  // namespace korvel
