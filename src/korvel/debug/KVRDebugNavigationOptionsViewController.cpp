#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>

#include <algorithm>
#include <cctype>

#include <korvel/debug/KVRDebugConfiguration.h>
#include <korvel/platform/Env.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/network/URLCache.h>
#include <korvel/foundation/URLComponents.h>
#include <korvel/ui/UIEnv.h>

namespace korvel {

namespace {

std::string lowercaseHost(const std::string& url) {
  auto components = URLComponents::parse(url);
  if (!components) return {};
  std::string host = components->host();
  std::transform(host.begin(), host.end(), host.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return host;
}

}  // namespace

KVRDebugNavigationOptionsViewController::KVRDebugNavigationOptionsViewController()
    : ViewController("KVRDebugNavigationOptionsViewController", std::nullopt),
      outlets_(std::make_shared<Outlets>()) {}

KVRDebugNavigationOptionsViewController::~KVRDebugNavigationOptionsViewController() {
  // The outlets may outlive the screen (see Outlets): leave nothing in them
  // that points back here.
  outlets_->bucketsTextField.setDelegate(nullptr);
  outlets_->refreshButton.action = nullptr;
  outlets_->clearCacheButton.action = nullptr;
  outlets_->view = ui::TapTarget();
}

void KVRDebugNavigationOptionsViewController::loadView() {
  // The interface file's connections.
  outlets_->refreshButton.action = [this] { refreshButtonTapped(); };
  outlets_->clearCacheButton.action = [this] { clearCacheButtonTapped(); };
  outlets_->bucketsTextField.setDelegate(this);
}

void KVRDebugNavigationOptionsViewController::viewDidLoad() {
  ViewController::viewDidLoad();
  setTitle(kTitle);
  outlets_->view.addTapHandler([this] { dismissKeyboard(); });
  outlets_->betaSwitch.setOn(
      isBetaConfigurationURL(KVRDebugConfiguration::sharedInstance().configUrlString()));
}

bool KVRDebugNavigationOptionsViewController::isBetaConfigurationURL(const std::string& url) {
  const std::string betaHost = lowercaseHost(KVRDebugConfiguration::betaConfigurationEndpoint());
  return !betaHost.empty() && lowercaseHost(url) == betaHost;
}

std::string KVRDebugNavigationOptionsViewController::configurationURLForRefresh() const {
  std::string url = outlets_->betaSwitch.isOn()
                        ? KVRDebugConfiguration::betaConfigurationEndpoint()
                        : KVRDebugConfiguration::productionConfigurationEndpoint();
  // As typed: the buckets list is the tester's to get right.
  const std::string& buckets = outlets_->bucketsTextField.text();
  if (!buckets.empty()) url += "?buckets=" + buckets;
  return url;
}

void KVRDebugNavigationOptionsViewController::refreshButtonTapped() {
  loadViewIfNeeded();
  const std::string url = configurationURLForRefresh();
  outlets_->refreshButton.setHidden(true);
  outlets_->activityIndicator.startAnimating();

  KVRDebugConfiguration::sharedInstance().setConfigUrlString(
      url, [outlets = outlets_](bool success) {
        // Called on the fetching thread.
        ui::uiEnv().mainQueue().async([outlets, success] {
          outlets->refreshButton.setEnabled(false);
          outlets->refreshButton.setTitle(success ? kRefreshSucceededTitle : kRefreshFailedTitle);
          ui::animate(
              kAnimationDuration,
              [&outlets] {
                outlets->activityIndicator.stopAnimating();
                outlets->refreshButton.setHidden(false);
              },
              [outlets] {
                ui::uiEnv().mainQueue().asyncAfter(kResultDisplaySeconds, [outlets] {
                  outlets->refreshButton.setEnabled(true);
                  outlets->refreshButton.setTitle(kRefreshTitle);
                });
              });
        });
      });
}

void KVRDebugNavigationOptionsViewController::clearCacheButtonTapped() {
  URLCache::sharedURLCache().removeAllCachedResponses();
  outlets_->clearCacheButton.setEnabled(false);
  outlets_->clearCacheButton.setTitle(kCacheClearedTitle);
  ui::uiEnv().mainQueue().asyncAfter(kResultDisplaySeconds, [outlets = outlets_] {
    outlets->clearCacheButton.setEnabled(true);
    outlets->clearCacheButton.setTitle(kClearCacheTitle);
  });
}

void KVRDebugNavigationOptionsViewController::dismissKeyboard() {
  outlets_->bucketsTextField.resignFirstResponder();
}

bool KVRDebugNavigationOptionsViewController::textFieldShouldReturn(
    ui::TextField& textField) {
  if (&textField == &outlets_->bucketsTextField) {
    textField.resignFirstResponder();
    return false;
  }
  return true;
}

}  // namespace korvel
