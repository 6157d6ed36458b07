#include <korvel/debug/KVRDebugMessageCenter.h>

#include <any>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/beacon/KVRLogging.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/debug/KVRWaitingForConfigDetector.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNTaggingDebugResult.h>
#include <korvel/platform/Logging.h>
#include <korvel/ui/MainQueue.h>
#include <korvel/reporters/KVRTaggingReporter.h>
#include <korvel/ui/UIEnv.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;
using korvel::foundation::internal::RecursiveMutex;
using korvel::foundation::internal::RecursiveMutexLock;

namespace korvel {

namespace {

constexpr double kDefaultWaitingTitleTopOffset = 20;
constexpr int kOverlayWindowLevelAboveNormal = 2;

struct SharedCenter {
  // Recursive, so a delegate that asks for the center from inside
  // isDebugCenterAllowed() does not deadlock.
  RecursiveMutex mutex;
  std::shared_ptr<KVRDebugMessageCenterDelegate> delegate KORVEL_GUARDED_BY(mutex);
  std::shared_ptr<KVRDebugMessageCenter> center KORVEL_GUARDED_BY(mutex);
};

SharedCenter& shared() {
  static SharedCenter* s = new SharedCenter;
  return *s;
}

// A notification object holding a shared pointer to T, const or not.
template <class T>
std::shared_ptr<const T> sharedObject(const std::any& object) {
  if (auto p = std::any_cast<std::shared_ptr<const T>>(&object)) return *p;
  if (auto p = std::any_cast<std::shared_ptr<T>>(&object)) return *p;
  return nullptr;
}

std::shared_ptr<const KVRTagResultInfo> tagResultObject(const std::any& object) {
  if (auto result = sharedObject<KVRTagResultInfo>(object)) return result;
  return sharedObject<KVRNoMatchTagInfo>(object);
}

}  // namespace

// MARK: - The shared center

std::shared_ptr<KVRDebugMessageCenter> KVRDebugMessageCenter::defaultCenter() {
  auto& s = shared();
  RecursiveMutexLock lock(s.mutex);
  if (!s.center && isDebugCenterAllowed()) {
    s.center = std::shared_ptr<KVRDebugMessageCenter>(new KVRDebugMessageCenter());
  }
  return s.center;
}

void KVRDebugMessageCenter::stopDebugging() {
  std::shared_ptr<KVRDebugMessageCenter> dropped;
  {
    auto& s = shared();
    RecursiveMutexLock lock(s.mutex);
    dropped = std::move(s.center);
  }
  // Released outside the lock: the teardown waits for handlers running on
  // other threads, which must not wait for the lock in turn.
}

void KVRDebugMessageCenter::setDebugMessageCenterDelegate(
    std::shared_ptr<KVRDebugMessageCenterDelegate> d) {
  auto& s = shared();
  RecursiveMutexLock lock(s.mutex);
  s.delegate = std::move(d);
}

std::shared_ptr<KVRDebugMessageCenterDelegate> KVRDebugMessageCenter::delegate() {
  auto& s = shared();
  RecursiveMutexLock lock(s.mutex);
  return s.delegate;
}

bool KVRDebugMessageCenter::isDebugCenterAllowed() {
  auto d = delegate();
  return d && d->isDebugCenterAllowed();
}

// MARK: - Life cycle

struct KVRDebugMessageCenter::Impl {
  mutable Mutex mutex_;
  bool isDebugging_ KORVEL_GUARDED_BY(mutex_) = false;
  bool isShowingTagResult_ KORVEL_GUARDED_BY(mutex_) = false;
  std::shared_ptr<const KVRTagResultInfo> tagResult_ KORVEL_GUARDED_BY(mutex_);
  std::shared_ptr<KVRDebugLogsDataProvider> dataProvider_ KORVEL_GUARDED_BY(mutex_);
  std::vector<platform::ObserverRegistration> observers_ KORVEL_GUARDED_BY(mutex_);
};

KVRDebugMessageCenter::KVRDebugMessageCenter()
    : impl_(std::make_unique<Impl>()), detector_(std::make_unique<KVRWaitingForConfigDetector>()) {}

KVRDebugMessageCenter::~KVRDebugMessageCenter() {
  // First: once the observers are gone no handler runs on any thread, so
  // nothing below races with one.
  std::vector<platform::ObserverRegistration> observers;
  {
    MutexLock lock(impl_->mutex_);
    observers = std::move(impl_->observers_);
  }
  observers.clear();
  detector_->unregisterForConfigUpdates();
  hideDebugMenu();
  removeWaitingView();
}

void KVRDebugMessageCenter::startDebugging() {
  Impl& d = *impl_;
  {
    MutexLock lock(d.mutex_);
    if (d.isDebugging_) return;
    d.isDebugging_ = true;
  }
  auto& center = platform::env().notificationCenter();
  observe(center, KVRDebugMessageDisplayingTagResultNotification,
          &KVRDebugMessageCenter::displayingTagResult);
  observe(center, KVRDebugMessageClosedMatchResultNotification,
          &KVRDebugMessageCenter::closedMatchResult);
  observe(center, KVRDebugMessageDisplayingNoMatchNotification,
          &KVRDebugMessageCenter::displayingNoMatch);
  observe(center, KVNTaggingDebugResultContextNotification,
          &KVRDebugMessageCenter::taggingDebugContext);
  observe(center, KVRReliableNetworkingTaskSubmittedNotification,
          &KVRDebugMessageCenter::taskSubmitted);
  observe(center, KVRDebugMessageLogOpenedURLNotification, &KVRDebugMessageCenter::openedURL);
  observe(center, KVRDebugMessageLogInAppUpsellOptionsNotification,
          &KVRDebugMessageCenter::inAppUpsellOptions);

  detector_->registerForConfigUpdates([weak = weak_from_this()](bool stillWaiting) {
    ui::uiEnv().mainQueue().async([weak, stillWaiting] {
      if (auto self = weak.lock()) self->configurationWaitingChanged(stillWaiting);
    });
  });
}

void KVRDebugMessageCenter::observe(
    platform::NotificationCenter& center, std::string_view name,
    void (KVRDebugMessageCenter::*handler)(const platform::Notification&)) {
  Impl& d = *impl_;
  // The handler may use this center: the destructor removes the observer
  // (waiting for calls in flight) before anything else goes.
  platform::ObserverRegistration registration(
      center, center.addObserver(std::string(name), [this, handler](const platform::Notification& n) {
        (this->*handler)(n);
      }));
  MutexLock lock(d.mutex_);
  d.observers_.push_back(std::move(registration));
}

bool KVRDebugMessageCenter::isDebugging() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.isDebugging_;
}

// MARK: - Log and tag result

std::shared_ptr<KVRDebugLogsDataProvider> KVRDebugMessageCenter::dataProvider() {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  if (!d.dataProvider_) d.dataProvider_ = KVRDebugLogsDataProvider::make();
  return d.dataProvider_;
}

std::shared_ptr<const KVRTagResultInfo> KVRDebugMessageCenter::tagResult() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.tagResult_;
}

bool KVRDebugMessageCenter::isShowingTagResult() const {
  const Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  return d.isShowingTagResult_;
}

void KVRDebugMessageCenter::displayingTagResult(const platform::Notification& n) {
  Impl& d = *impl_;
  auto result = tagResultObject(n.object);
  MutexLock lock(d.mutex_);
  d.tagResult_ = std::move(result);
  d.isShowingTagResult_ = true;
}

void KVRDebugMessageCenter::closedMatchResult(const platform::Notification&) {
  Impl& d = *impl_;
  MutexLock lock(d.mutex_);
  d.tagResult_.reset();
  d.isShowingTagResult_ = false;
}

void KVRDebugMessageCenter::displayingNoMatch(const platform::Notification& n) {
  Impl& d = *impl_;
  const KVRDate* date = std::any_cast<KVRDate>(&n.object);
  auto result = date ? std::make_shared<const KVRNoMatchTagInfo>(*date)
                     : std::make_shared<const KVRNoMatchTagInfo>();
  MutexLock lock(d.mutex_);
  d.tagResult_ = std::move(result);
  d.isShowingTagResult_ = true;
}

void KVRDebugMessageCenter::taggingDebugContext(const platform::Notification& n) {
  if (auto context = sharedObject<KVNTaggingDebugResultContext>(n.object)) {
    persistTaggingDebugContext(*context);
  }
}

void KVRDebugMessageCenter::taskSubmitted(const platform::Notification& n) {
  if (auto task = sharedObject<KVRReliableNetworkingTask>(n.object)) {
    dataProvider()->addLogEntry(std::make_shared<KVRDebugLogBeaconEntry>(std::move(task)));
  }
}

void KVRDebugMessageCenter::openedURL(const platform::Notification& n) {
  if (auto url = std::any_cast<KVRURL>(&n.object)) {
    dataProvider()->addLogEntry(std::make_shared<KVRDebugLogURLEntry>(*url));
  }
}

void KVRDebugMessageCenter::inAppUpsellOptions(const platform::Notification& n) {
  if (auto options = std::any_cast<KVRParameters>(&n.object)) {
    dataProvider()->addLogEntry(std::make_shared<KVRDebugLogInAppUpsellOptionsEntry>(*options));
  }
}

void KVRDebugMessageCenter::persistTaggingDebugContext(
    const KVNTaggingDebugResultContext& context) {
  std::string uniqueId;
  if (!context.tags.empty()) {
    uniqueId = context.tags.front().tagID;
  } else {
    uniqueId = KVRNoMatchTagInfo::noMatchFileNameWithDate(context.sessionStartDate);
    platform::Logger(KVRLogging::subsystem(), "Debug")
        .log("No Match unique ID during context notification: " + uniqueId);
  }
  const KVRDebugDataPersister persister;
  if (context.audioBuffer) persister.persistAudioFile(*context.audioBuffer, uniqueId);
  if (!context.recognitionAttempts.empty()) {
    if (const auto& signature = context.recognitionAttempts.front().pickedSignature) {
      persister.persistSignatureData(signature->data, uniqueId,
                                     KVRDebugDataPersister::kSignatureExtension);
    }
  }
}

// MARK: - Menu and waiting banner

void KVRDebugMessageCenter::presentDebugMenu() {
  if (showingDebugMenu_) return;
  if (!debugWindow_ || debugWindow_->isHidden()) {
    debugWindow_ = KVRDebugOverlayWindow::buildDebugOverlayWindow();
    debugWindow_->setHidden(false);
    debugWindow_->setWindowLevel(KVRDebugWindow::kWindowLevelNormal +
                                 kOverlayWindowLevelAboveNormal);
  }
  debugWindow_->presentDebugMenu();
  showingDebugMenu_ = true;
  if (!waitingView_) return;
  if (debugWindow_->containsSubview(waitingView_)) {
    debugWindow_->bringSubviewToFront(waitingView_);
  } else if (isShowingWaitingForConfigView()) {
    placeWaitingView();  // moves it from the main window into the overlay
  }
}

void KVRDebugMessageCenter::hideDebugMenu() {
  if (!showingDebugMenu_) return;
  showingDebugMenu_ = false;
  const bool waitingViewWasShown = isShowingWaitingForConfigView();
  if (debugWindow_) debugWindow_->hideDebugMenu();
  removeWaitingView();
  if (debugWindow_) {
    debugWindow_->setHidden(true);
    debugWindow_.reset();
  }
  if (waitingViewWasShown) placeWaitingView();  // back on the main window
}

void KVRDebugMessageCenter::toggleDebugViewVisibility() {
  if (showingDebugMenu_) {
    hideDebugMenu();
  } else {
    presentDebugMenu();
  }
}

bool KVRDebugMessageCenter::isShowingWaitingForConfigView() const {
  auto host = waitingViewHost_.lock();
  return waitingView_ && host && host->containsSubview(waitingView_);
}

void KVRDebugMessageCenter::configurationWaitingChanged(bool stillWaiting) {
  if (stillWaiting) {
    if (isShowingWaitingForConfigView()) return;
    if (!waitingView_) waitingView_ = KVRWaitingForConfigView::loadFromInterfaceFile();
    placeWaitingView();
  } else {
    removeWaitingView();
    waitingView_.reset();  // loaded again when needed
  }
}

void KVRDebugMessageCenter::placeWaitingView() {
  if (!waitingView_) return;
  std::shared_ptr<KVRDebugWindow> target = debugWindow_;
  if (!target) target = KVRDebugWindow::applicationMainWindow();
  if (!target) return;
  if (auto previous = waitingViewHost_.lock(); previous && previous != target) {
    previous->removeSubview(waitingView_);
  }
  target->addSubviewPinnedToTop(waitingView_);
  const double inset = target->safeAreaTopInset();
  waitingView_->titleTopConstraint = inset == 0 ? kDefaultWaitingTitleTopOffset : inset;
  target->bringSubviewToFront(waitingView_);
  waitingViewHost_ = target;
}

void KVRDebugMessageCenter::removeWaitingView() {
  if (auto host = waitingViewHost_.lock(); host && waitingView_) host->removeSubview(waitingView_);
  waitingViewHost_.reset();
}

}  // namespace korvel
