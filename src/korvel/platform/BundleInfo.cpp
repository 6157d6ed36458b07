#include <korvel/platform/BundleInfo.h>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::platform {

namespace {

struct BundleVersion {
  Mutex mutex;
  std::optional<std::string> value KORVEL_GUARDED_BY(mutex);
};

BundleVersion& bundleVersion() {
  static BundleVersion* version = new BundleVersion;
  return *version;
}

}  // namespace

std::string mainBundleShortVersionString() { return KVNConfiguration::appShortVersion(); }

std::optional<std::string> mainBundleVersion() {
  auto& v = bundleVersion();
  MutexLock lock(v.mutex);
  return v.value;
}

void setMainBundleVersion(std::optional<std::string> version) {
  auto& v = bundleVersion();
  MutexLock lock(v.mutex);
  v.value = std::move(version);
}

}  // namespace korvel::platform
