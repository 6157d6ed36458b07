#include <korvel/debug/KVRStayInAppSwizzler.h>

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

struct KVRStayInAppSwizzler::Impl {
  explicit Impl(ui::Application& app) : application(app) {}

  void exchangeImplementations() KORVEL_REQUIRES(mutex) {
    if (!swizzleEnabled) {
      // Going in. An application without its own openURL gets one (the
      // blocking implementation) and our slot keeps the inherited default;
      // otherwise the two implementations simply trade places.
      applicationDefinedOpenURL = application.definesOpenURL();
      ownImplementation = application.exchangeOpenURLImplementation(std::move(ownImplementation));
      return;
    }
    // Coming back: the application has our implementation as its own now.
    auto former = std::move(ownImplementation);
    if (applicationDefinedOpenURL) {
      ownImplementation = application.exchangeOpenURLImplementation(std::move(former));
    } else {
      // It inherited the default before: leave it inheriting again rather
      // than defining a copy of the default.
      ownImplementation = application.exchangeOpenURLImplementation(nullptr);
    }
  }

  ui::Application& application;
  mutable Mutex mutex;
  // What the swizzler's own blockedOpenURL slot holds: the blocking
  // implementation, or, while enabled, the application's former one.
  ui::Application::OpenURLImplementation ownImplementation KORVEL_GUARDED_BY(mutex) =
      &KVRStayInAppSwizzler::blockedOpenURL;
  // Whether the application defined openURL itself before the first
  // exchange (so restoring can leave it undefined again).
  bool applicationDefinedOpenURL KORVEL_GUARDED_BY(mutex) = true;
  bool swizzleEnabled KORVEL_GUARDED_BY(mutex) = false;
};

KVRStayInAppSwizzler::KVRStayInAppSwizzler(ui::Application& application)
    : impl_(std::make_unique<Impl>(application)) {}

KVRStayInAppSwizzler::~KVRStayInAppSwizzler() {
  MutexLock lock(impl_->mutex);
  if (impl_->swizzleEnabled) impl_->exchangeImplementations();
}

std::shared_ptr<KVRStayInAppSwizzler> KVRStayInAppSwizzler::sharedSwizzler() {
  static auto* swizzler = new std::shared_ptr<KVRStayInAppSwizzler>(
      std::make_shared<KVRStayInAppSwizzler>(ui::Application::shared()));
  return *swizzler;
}

bool KVRStayInAppSwizzler::blockedOpenURL(const std::string&) { return false; }

bool KVRStayInAppSwizzler::swizzleEnabled() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex);
  return d.swizzleEnabled;
}

void KVRStayInAppSwizzler::toggleStayInApp() {
  Impl& d = *impl_;
  MutexLock lock(d.mutex);
  d.exchangeImplementations();
  d.swizzleEnabled = !d.swizzleEnabled;
}

}  // namespace korvel
