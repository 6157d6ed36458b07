#include <korvel/network/KVNRetryHandler.h>

#include <map>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/KVNConfigurationManager.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

struct Registry {
  Mutex mutex;
  std::map<std::string, KVNRetryHandlerRegistry::Factory, std::less<>> factories
      KORVEL_GUARDED_BY(mutex);
};

Registry& registry() {
  static Registry* instance = [] {
    auto* r = new Registry;
    MutexLock lock(r->mutex);
    // The foundation library's own handlers are there from the start.
    r->factories.emplace(KVNConfigRetryHandler::kRegisteredName,
                         [] { return std::make_unique<KVNConfigRetryHandler>(); });
    return r;
  }();
  return *instance;
}

}  // namespace

KVNRetryHandlerRegistry::Factory KVNRetryHandlerRegistry::registerFactory(const std::string& name,
                                                                          Factory factory) {
  if (!factory) return unregisterFactory(name);
  auto& r = registry();
  MutexLock lock(r.mutex);
  Factory previous;
  auto [it, inserted] = r.factories.try_emplace(name);
  if (!inserted) previous = std::move(it->second);
  it->second = std::move(factory);
  return previous;
}

KVNRetryHandlerRegistry::Factory KVNRetryHandlerRegistry::unregisterFactory(
    const std::string& name) {
  auto& r = registry();
  MutexLock lock(r.mutex);
  auto it = r.factories.find(name);
  if (it == r.factories.end()) return {};
  Factory previous = std::move(it->second);
  r.factories.erase(it);
  return previous;
}

std::unique_ptr<KVNRetryHandler> KVNRetryHandlerRegistry::make(std::string_view name) {
  Factory factory;
  {
    auto& r = registry();
    MutexLock lock(r.mutex);
    auto it = r.factories.find(name);
    if (it == r.factories.end()) return nullptr;
    factory = it->second;
  }
  // The factory runs unlocked: it may itself use the registry.
  try {
    return factory();
  } catch (...) {
    return nullptr;
  }
}

bool KVNRetryHandlerRegistry::isRegistered(std::string_view name) {
  auto& r = registry();
  MutexLock lock(r.mutex);
  return r.factories.find(name) != r.factories.end();
}

}  // namespace korvel
