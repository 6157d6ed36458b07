// "Stay in app": while enabled, the application cannot leave itself by
// opening a URL, so links tapped during testing stay inside it.
//
// toggleStayInApp() exchanges the application's openURL implementation with
// the swizzler's own blocking one (blockedOpenURL, which does nothing), then
// inverts swizzleEnabled(); calling it again exchanges them back, restoring
// exactly what opened URLs before (the host's own implementation, or the
// inherited default when the application had none).
//
// One swizzler per application object: sharedSwizzler() is the process's,
// kept for the process so the switch on a rebuilt overlay still shows the
// real state. A swizzler destroyed while enabled gives the application its
// URL opening back. Any thread.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <string>

#include <korvel/ui/SharedApplication.h>

namespace korvel {

class KORVEL_EXPORT KVRStayInAppSwizzler {
 public:
  explicit KVRStayInAppSwizzler(ui::Application& application = ui::Application::shared());
  ~KVRStayInAppSwizzler();
  KVRStayInAppSwizzler(const KVRStayInAppSwizzler&) = delete;
  KVRStayInAppSwizzler& operator=(const KVRStayInAppSwizzler&) = delete;

  // The swizzler of ui::Application::shared().
  static std::shared_ptr<KVRStayInAppSwizzler> sharedSwizzler();

  // False after construction.
  bool swizzleEnabled() const;
  void toggleStayInApp();

  // Opens nothing; answers false.
  static bool blockedOpenURL(const std::string& url);

 private:
  // The implementations being exchanged, the switch and their lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel
