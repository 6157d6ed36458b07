// Reading a stored request back when its turn to be sent comes: the
// restorer registered for its kind makes it, as after a restart, but a record
// it decodes is not announced as created again (it was, when it was made or
// first restored in this process).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVNNetwork.h>

namespace korvel {

std::optional<KVNNetworkRequest> KVNReloadRequest(const std::string& kind, std::string_view payload);

// True on a thread while it is inside KVNReloadRequest.
bool KVNRequestReloading();

}  // namespace korvel
