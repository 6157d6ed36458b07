#include <korvel/debug/KVRPagesProvider.h>

#include <dlfcn.h>

#include <filesystem>

#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/debug/KVRDebugAppInfoViewController.h>
#include <korvel/debug/KVRDebugLogViewController.h>
#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>
#include <korvel/debug/KVRDebugTagInfoTableViewController.h>
#include <korvel/debug/KVRFileSystemDirectoryContentsViewController.h>
#include <korvel/debug/KVRUserDefaultsDebugViewController.h>

namespace korvel {

std::vector<std::shared_ptr<ui::ViewController>> KVRPagesProvider::viewControllers() const {
  return {
      std::make_shared<KVRDebugLogViewController>(dataProvider_),
      std::make_shared<KVRDebugAppInfoViewController>(),
      std::make_shared<KVRDebugNavigationOptionsViewController>(),
      std::make_shared<KVRFileSystemDirectoryContentsViewController>(),
      std::make_shared<KVRUserDefaultsDebugViewController>(),
      std::make_shared<KVRDebugTagInfoTableViewController>(),
  };
}

ui::Bundle kvr_resourcesBundle() {
  // Any code of the record class will do: it is linked wherever the library
  // is, whether as a shared object or inside the executable.
  KVRTaskPtr (*code)(std::string_view) = &KVRReliableNetworkingTask::unarchive;
  const auto address = reinterpret_cast<const void*>(code);
  Dl_info info{};
  if (dladdr(address, &info) != 0 && info.dli_fname != nullptr && info.dli_fname[0] != '\0') {
    std::error_code error;
    auto path = std::filesystem::weakly_canonical(info.dli_fname, error);
    return ui::Bundle{error ? std::string(info.dli_fname) : path.string()};
  }
  std::error_code error;
  auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  return ui::Bundle{error ? std::string() : self.string()};
}

}  // namespace korvel
