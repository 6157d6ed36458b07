#include <korvel/ui/SharedApplication.h>

#include <utility>

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::ui {

struct Application::Impl {
  mutable Mutex mutex_;
  std::shared_ptr<const OpenURLImplementation> own_ KORVEL_GUARDED_BY(mutex_);
};

Application::Application() : impl_(std::make_unique<Impl>()) {}

Application::~Application() = default;

Application& Application::shared() {
  static Application* application = new Application;
  return *application;
}

bool Application::defaultOpenURL(const std::string&) { return false; }

bool Application::openURL(const std::string& url) {
  Impl& d = *impl_;
  std::shared_ptr<const OpenURLImplementation> implementation;
  {
    MutexLock lock(d.mutex_);
    implementation = d.own_;
  }
  // Called unlocked: the implementation may open further URLs or swap
  // itself out.
  return implementation ? (*implementation)(url) : defaultOpenURL(url);
}

bool Application::definesOpenURL() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.own_ != nullptr;
}

Application::OpenURLImplementation Application::openURLImplementation() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  if (d.own_) return *d.own_;
  return &Application::defaultOpenURL;
}

void Application::setOpenURLImplementation(OpenURLImplementation implementation) {
  Impl& d = *impl_;
  if (!implementation) return;
  auto made = std::make_shared<const OpenURLImplementation>(std::move(implementation));
  MutexLock lock(d.mutex_);
  d.own_ = std::move(made);
}

void Application::removeOpenURLImplementation() {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.own_.reset();
}

Application::OpenURLImplementation Application::exchangeOpenURLImplementation(
    OpenURLImplementation implementation) {
  Impl& d = *impl_;
  std::shared_ptr<const OpenURLImplementation> made;
  if (implementation) {
    made = std::make_shared<const OpenURLImplementation>(std::move(implementation));
  }
  std::shared_ptr<const OpenURLImplementation> former;
  {
    MutexLock lock(d.mutex_);
    former = std::exchange(d.own_, std::move(made));
  }
  if (former) return *former;
  return &Application::defaultOpenURL;
}

}  // namespace korvel::ui
