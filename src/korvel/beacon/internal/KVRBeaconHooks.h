// What the dispatcher tells the layer above it about beacons it does not
// hand to an executor.
#pragma once

namespace korvel::beacon::internal {

// Called on the reporting thread for each beacon made while no beacon
// endpoint is configured (built, its uuid returned, not sent). It must not
// throw, block or report. Null (the default) calls nothing.
using UnsentBeaconHook = void (*)() noexcept;
void setUnsentBeaconHook(UnsentBeaconHook hook);

}  // namespace korvel::beacon::internal
