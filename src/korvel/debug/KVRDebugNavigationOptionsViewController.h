// The "Config Settings" debug screen: switches the configuration endpoint
// between production and beta, asks for experiment buckets, forces a fresh
// configuration download and clears the URL response cache.
//
// Outlets are widget states (platform/Widgets.h) that a host's renderer
// draws and forwards the user's taps to; the buttons' actions and the text
// field's delegate are wired when the view loads. Main thread only; the
// reconfiguration's completion, which arrives on the fetching thread, is
// moved to the main queue before it touches the screen.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>

#include <korvel/ui/UI.h>
#include <korvel/ui/Widgets.h>

namespace korvel {

class KORVEL_EXPORT KVRDebugNavigationOptionsViewController : public ui::ViewController,
                                                public ui::TextFieldDelegate {
 public:
  static constexpr const char* kTitle = "Config Settings";
  static constexpr const char* kRefreshTitle = "Refresh Config";
  static constexpr const char* kRefreshSucceededTitle = "SUCCESS! 👍";
  static constexpr const char* kRefreshFailedTitle = "FAILED ☹️";
  static constexpr const char* kClearCacheTitle = "Clear Cache";
  static constexpr const char* kCacheClearedTitle = "Cache Cleared 🗑";
  // How long the refresh animation runs, and how long a result title stays.
  static constexpr double kAnimationDuration = 0.5;
  static constexpr double kResultDisplaySeconds = 3.0;

  KVRDebugNavigationOptionsViewController();
  ~KVRDebugNavigationOptionsViewController() override;

  // Title, tap-to-dismiss-keyboard, and the beta switch from the stored
  // configuration URL.
  void viewDidLoad() override;

  // Outlets (and the screen's root view, for taps outside the widgets).
  ui::Switch& betaSwitch() { return outlets_->betaSwitch; }
  ui::TextField& bucketsTextField() { return outlets_->bucketsTextField; }
  ui::Button& refreshButton() { return outlets_->refreshButton; }
  ui::ActivityIndicator& activityIndicator() { return outlets_->activityIndicator; }
  ui::Button& clearCacheButton() { return outlets_->clearCacheButton; }
  ui::TapTarget& view() { return outlets_->view; }

  // Actions.
  void refreshButtonTapped();
  void clearCacheButtonTapped();
  void dismissKeyboard();
  // Return in the buckets field gives up the keyboard and is not processed;
  // in any other field it is.
  bool textFieldShouldReturn(ui::TextField& textField) override;

  // The URL a refresh would store now: the beta endpoint when the switch is
  // on, else production, plus "?buckets=" and the field's text as typed
  // when there is any.
  std::string configurationURLForRefresh() const;

  // Whether url's host is the beta endpoint's host (port, path and query
  // do not matter; host names compare case-insensitively).
  static bool isBetaConfigurationURL(const std::string& url);

 protected:
  // Connects the outlets as the interface file does.
  void loadView() override;

 private:
  // Kept alive by the delayed restores queued on the main queue, which may
  // run after the screen is gone.
  struct Outlets {
    ui::Switch betaSwitch;
    ui::TextField bucketsTextField;
    ui::Button refreshButton{kRefreshTitle};
    ui::ActivityIndicator activityIndicator;
    ui::Button clearCacheButton{kClearCacheTitle};
    ui::TapTarget view;
  };

  std::shared_ptr<Outlets> outlets_;
};

}  // namespace korvel
