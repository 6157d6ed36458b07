// The debug overlay's pages, in their fixed order, and where the library's
// resources live.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <vector>

#include <korvel/ui/UI.h>

namespace korvel {

class KVRDebugLogsDataProvider;

class KORVEL_EXPORT KVRPagesProvider {
 public:
  // Indexes of the pages in viewControllers().
  enum Page : size_t {
    kBeaconLogPage = 0,
    kAppInfoPage = 1,
    kNavigationOptionsPage = 2,
    kFileSystemPage = 3,
    kUserDefaultsPage = 4,
    kTagInfoPage = 5,
    kPageCount = 6,
  };

  explicit KVRPagesProvider(std::shared_ptr<KVRDebugLogsDataProvider> dataProvider)
      : dataProvider_(std::move(dataProvider)) {}

  // New pages, each call: the beacon log (on the data provider), the
  // application information, the configuration switcher, the debug files,
  // the user defaults and the tag information.
  std::vector<std::shared_ptr<ui::ViewController>> viewControllers() const;

 private:
  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider_;
};

// The binary that contains this library's classes (found from the address
// of KVRReliableNetworkingTask's code): its path as the bundle's identifier.
// The running executable when the library is linked in statically.
KORVEL_EXPORT ui::Bundle kvr_resourcesBundle();

}  // namespace korvel
