#include <korvel/platform/BundleInfo.h>

#include <mutex>

#include <korvel/foundation/KVNConfiguration.h>

namespace korvel::platform {

namespace {

struct BundleVersion {
  std::mutex mutex;
  std::optional<std::string> value;
};

BundleVersion& bundleVersion() {
  static BundleVersion* version = new BundleVersion;
  return *version;
}

}  // namespace

std::string mainBundleShortVersionString() { return KVNConfiguration::appShortVersion(); }

std::optional<std::string> mainBundleVersion() {
  auto& v = bundleVersion();
  std::lock_guard lock(v.mutex);
  return v.value;
}

void setMainBundleVersion(std::optional<std::string> version) {
  auto& v = bundleVersion();
  std::lock_guard lock(v.mutex);
  v.value = std::move(version);
}

}  // namespace korvel::platform
