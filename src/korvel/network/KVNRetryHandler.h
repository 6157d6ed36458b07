// Retry handlers looked up by name at run time.
//
// A component that backs off after failures registers a factory for its
// retry handler under a name; anyone can later make a handler by that name
// and ask it until when the component is cooling down, with no link-time
// dependency on the component. The configuration manager's handler is
// registered under "KVNConfigRetryHandler" (see KVNConfigurationManager.h).
#pragma once

#include <korvel/export.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>

namespace korvel {

class KORVEL_EXPORT KVNRetryHandler {
 public:
  virtual ~KVNRetryHandler() = default;
  // Until when the owner will not retry after its last failure; nothing
  // when it is not cooling down (or never failed).
  virtual std::optional<KVRDate> coolDownExpiryTime() const = 0;
};

class KORVEL_EXPORT KVNRetryHandlerRegistry {
 public:
  using Factory = std::function<std::unique_ptr<KVNRetryHandler>()>;

  KVNRetryHandlerRegistry() = delete;

  // Registers factory under name, replacing (and returning) the factory
  // registered before, if any. An empty factory unregisters the name.
  static Factory registerFactory(const std::string& name, Factory factory);
  // Removes name; returns the factory it had, if any.
  static Factory unregisterFactory(const std::string& name);
  // A new handler made by the factory registered under name; null when the
  // name is unknown or the factory made none (or threw).
  static std::unique_ptr<KVNRetryHandler> make(std::string_view name);
  static bool isRegistered(std::string_view name);
};

}  // namespace korvel
