#include <korvel/ui/SharedApplication.h>

#include <utility>

namespace korvel::platform {

Application& Application::shared() {
  static Application* application = new Application;
  return *application;
}

bool Application::defaultOpenURL(const std::string&) { return false; }

bool Application::openURL(const std::string& url) {
  std::shared_ptr<const OpenURLImplementation> implementation;
  {
    MutexLock lock(mutex_);
    implementation = own_;
  }
  // Called unlocked: the implementation may open further URLs or swap
  // itself out.
  return implementation ? (*implementation)(url) : defaultOpenURL(url);
}

bool Application::definesOpenURL() const {
  MutexLock lock(mutex_);
  return own_ != nullptr;
}

Application::OpenURLImplementation Application::openURLImplementation() const {
  MutexLock lock(mutex_);
  if (own_) return *own_;
  return &Application::defaultOpenURL;
}

void Application::setOpenURLImplementation(OpenURLImplementation implementation) {
  if (!implementation) return;
  auto made = std::make_shared<const OpenURLImplementation>(std::move(implementation));
  MutexLock lock(mutex_);
  own_ = std::move(made);
}

void Application::removeOpenURLImplementation() {
  MutexLock lock(mutex_);
  own_.reset();
}

Application::OpenURLImplementation Application::exchangeOpenURLImplementation(
    OpenURLImplementation implementation) {
  std::shared_ptr<const OpenURLImplementation> made;
  if (implementation) {
    made = std::make_shared<const OpenURLImplementation>(std::move(implementation));
  }
  std::shared_ptr<const OpenURLImplementation> former;
  {
    MutexLock lock(mutex_);
    former = std::exchange(own_, std::move(made));
  }
  if (former) return *former;
  return &Application::defaultOpenURL;
}

}  // namespace korvel::platform
