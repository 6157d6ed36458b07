#include <korvel/debug/KVRStayInAppSwizzler.h>

namespace korvel {

KVRStayInAppSwizzler::KVRStayInAppSwizzler(platform::Application& application)
    : application_(application), ownImplementation_(&KVRStayInAppSwizzler::blockedOpenURL) {}

KVRStayInAppSwizzler::~KVRStayInAppSwizzler() {
  MutexLock lock(mutex_);
  if (swizzleEnabled_) exchangeImplementations();
}

std::shared_ptr<KVRStayInAppSwizzler> KVRStayInAppSwizzler::sharedSwizzler() {
  static auto* swizzler = new std::shared_ptr<KVRStayInAppSwizzler>(
      std::make_shared<KVRStayInAppSwizzler>(platform::Application::shared()));
  return *swizzler;
}

bool KVRStayInAppSwizzler::blockedOpenURL(const std::string&) { return false; }

bool KVRStayInAppSwizzler::swizzleEnabled() const {
  MutexLock lock(mutex_);
  return swizzleEnabled_;
}

void KVRStayInAppSwizzler::toggleStayInApp() {
  MutexLock lock(mutex_);
  exchangeImplementations();
  swizzleEnabled_ = !swizzleEnabled_;
}

void KVRStayInAppSwizzler::exchangeImplementations() {
  if (!swizzleEnabled_) {
    // Going in. An application without its own openURL gets one (the
    // blocking implementation) and our slot keeps the inherited default;
    // otherwise the two implementations simply trade places.
    applicationDefinedOpenURL_ = application_.definesOpenURL();
    ownImplementation_ = application_.exchangeOpenURLImplementation(std::move(ownImplementation_));
    return;
  }
  // Coming back: the application has our implementation as its own now.
  auto former = std::move(ownImplementation_);
  if (applicationDefinedOpenURL_) {
    ownImplementation_ = application_.exchangeOpenURLImplementation(std::move(former));
  } else {
    // It inherited the default before: leave it inheriting again rather
    // than defining a copy of the default.
    ownImplementation_ = application_.exchangeOpenURLImplementation(nullptr);
  }
}

}  // namespace korvel
