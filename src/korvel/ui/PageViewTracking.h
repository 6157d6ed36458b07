// Screens that feed the page view manager by themselves.
//
// Imperative screens derive from one of the three tracking controllers; a
// screen class takes part only if it also adopts PageViewDataProviding (the
// controllers do not adopt it themselves, so tracking is opt-in per screen
// class). The simplest way to opt in with the stored name and parameters:
//
//   class HomeScreen
//       : public PageViewDataProvidingController<PageViewTrackingViewController> {
//    public:
//     using PageViewDataProvidingController::PageViewDataProvidingController;
//   };
//
// Declarative screens apply PageViewModifier, usually through pageView():
//
//   auto screen = pageView(View(drawHome), PageName("home"), {}, manager);
//
// Each controller instance and each hosted view identity is its own page on
// the stack (its own PageID). Main thread only.
#pragma once

#include <korvel/export.h>

#include <concepts>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include <korvel/pageviews/FatalError.h>
#include <korvel/pageviews/PageID.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/pageviews/ReportingValue.h>
#include <korvel/ui/UI.h>

namespace korvel {

// What a tracked screen reports about its page.
class KORVEL_EXPORT PageViewDataProviding {
 public:
  virtual ~PageViewDataProviding() = default;
  virtual PageName pageName() const = 0;
  virtual ReportingParameters pageViewReportingParameters() const = 0;
};

namespace detail {

// The page-view tracking shared by the three controller classes, on top of
// the platform controller class they extend.
template <class PlatformController>
class PageViewTracking : public PlatformController {
 public:
  const PageName& pageName() const { return pageName_; }
  // Reported to the manager every time, visible or not, on the stack or not
  // (before the first appearance the manager logs a miss; that is expected).
  void setPageName(PageName name) {
    pageName_ = std::move(name);
    pageViewManager_->trackPageNameChanged(pageName_, pageID_);
  }

  const ReportingParameters& pageViewReportingParameters() const {
    return pageViewReportingParameters_;
  }
  void setPageViewReportingParameters(ReportingParameters parameters) {
    pageViewReportingParameters_ = std::move(parameters);
    pageViewManager_->trackPageViewReportingParametersChanged(pageViewReportingParameters_,
                                                              pageID_);
  }
  // Changes the parameters in place and reports the result once:
  //   screen.modifyPageViewReportingParameters([](auto& p) { p.insert(...); });
  template <class Change>
  void modifyPageViewReportingParameters(Change&& change) {
    ReportingParameters parameters = pageViewReportingParameters_;
    std::forward<Change>(change)(parameters);
    setPageViewReportingParameters(std::move(parameters));
  }

  const std::shared_ptr<PageViewManager>& pageViewManager() const { return pageViewManager_; }

  void viewWillAppear(bool animated) override {
    PlatformController::viewWillAppear(animated);
    // The name comes from the adopting class (it may compute it); the
    // parameters are always the stored ones.
    if (const auto* provider = dynamic_cast<const PageViewDataProviding*>(this)) {
      pageViewManager_->trackPageAppeared(pageID_, provider->pageName(),
                                          pageViewReportingParameters_);
    }
  }

  void viewDidDisappear(bool animated) override {
    PlatformController::viewDidDisappear(animated);
    if (dynamic_cast<const PageViewDataProviding*>(this) != nullptr) {
      pageViewManager_->trackPageClosed(pageID_);
    }
  }

 // The tracked forms, which every controller class inherits: the platform
  // controller's own arguments (none; an interface file and bundle; an
  // archive; a layout or style), then the manager, name and parameters.
  // Throw std::invalid_argument for a null manager; the archive form throws
  // ui::CoderError for an unreadable archive (ui::makeFromCoder
  // gives a null result instead).
  PageViewTracking(std::shared_ptr<PageViewManager> manager, PageName name,
                   ReportingParameters parameters)
      : PageViewTracking(Tracked{}, std::move(manager), std::move(name), std::move(parameters)) {}
  PageViewTracking(std::optional<std::string> nibName, std::optional<ui::Bundle> bundle,
                   std::shared_ptr<PageViewManager> manager, PageName name,
                   ReportingParameters parameters)
      : PageViewTracking(Tracked{}, std::move(manager), std::move(name), std::move(parameters),
                         std::move(nibName), std::move(bundle)) {}
  template <class PlatformArgument>
    requires std::constructible_from<PlatformController, PlatformArgument>
  PageViewTracking(PlatformArgument&& platformArgument, std::shared_ptr<PageViewManager> manager,
                   PageName name, ReportingParameters parameters)
      : PageViewTracking(Tracked{}, std::move(manager), std::move(name), std::move(parameters),
                         std::forward<PlatformArgument>(platformArgument)) {}

 protected:
  // For the platform initialisers these classes refuse: stops the program.
  struct Refused {};
  PageViewTracking(Refused, std::string_view fatalMessage) : pageName_(std::string()) {
    fatalError(fatalMessage);
  }

 private:
  struct Tracked {};
  // Stores the manager, name and parameters with a fresh page id, then
  // builds the platform controller from platformArguments.
  template <class... PlatformArguments>
  PageViewTracking(Tracked, std::shared_ptr<PageViewManager> manager, PageName name,
                   ReportingParameters parameters, PlatformArguments&&... platformArguments)
      : PlatformController(std::forward<PlatformArguments>(platformArguments)...),
        pageID_(PageID::make()),
        pageName_(std::move(name)),
        pageViewReportingParameters_(std::move(parameters)),
        pageViewManager_(std::move(manager)) {
    if (!pageViewManager_) {
      throw std::invalid_argument("a page-view tracking controller needs a PageViewManager");
    }
  }

  PageID pageID_ = PageID::make();
  PageName pageName_;
  ReportingParameters pageViewReportingParameters_;
  std::shared_ptr<PageViewManager> pageViewManager_;
};

KORVEL_EXPORT std::string unimplementedInitializer(std::string_view initializer, std::string_view className);

}  // namespace detail

// The three controller classes take the tracked forms above. The platform's
// own forms, which a toolkit may call generically, each stop the program: a
// tracked screen cannot exist without its manager.
class KORVEL_EXPORT PageViewTrackingViewController
    : public detail::PageViewTracking<ui::ViewController> {
 public:
  using PageViewTracking::PageViewTracking;
  explicit PageViewTrackingViewController(const ui::Coder& coder);
  PageViewTrackingViewController(std::optional<std::string> nibName,
                                 std::optional<ui::Bundle> bundle);
};

class KORVEL_EXPORT PageViewTrackingCollectionViewController
    : public detail::PageViewTracking<ui::CollectionViewController> {
 public:
  using PageViewTracking::PageViewTracking;
  explicit PageViewTrackingCollectionViewController(const ui::Coder& coder);
  PageViewTrackingCollectionViewController(std::optional<std::string> nibName,
                                           std::optional<ui::Bundle> bundle);
  explicit PageViewTrackingCollectionViewController(
      ui::CollectionViewLayout collectionViewLayout);
};

class KORVEL_EXPORT PageViewTrackingTableViewController
    : public detail::PageViewTracking<ui::TableViewController> {
 public:
  using PageViewTracking::PageViewTracking;
  explicit PageViewTrackingTableViewController(const ui::Coder& coder);
  PageViewTrackingTableViewController(std::optional<std::string> nibName,
                                      std::optional<ui::Bundle> bundle);
  explicit PageViewTrackingTableViewController(ui::TableViewStyle style);
};

// Adopts PageViewDataProviding with the controller's stored name and
// parameters; a screen may still override pageName() to compute its name.
template <class TrackingController>
class PageViewDataProvidingController : public TrackingController, public PageViewDataProviding {
 public:
  using TrackingController::TrackingController;
  PageName pageName() const override { return TrackingController::pageName(); }
  ReportingParameters pageViewReportingParameters() const override {
    return TrackingController::pageViewReportingParameters();
  }
};

// Tracks a declarative view as one page: appear pushes it, disappear closes
// it, a new name or new parameters in a later description are reported.
class KORVEL_EXPORT PageViewModifier {
 public:
  // Throws std::invalid_argument for a null manager.
  PageViewModifier(PageName name, ReportingParameters reportingParameters,
                   std::shared_ptr<PageViewManager> manager);

  const PageName& name() const { return name_; }
  const ReportingParameters& reportingParameters() const { return reportingParameters_; }
  const std::shared_ptr<PageViewManager>& manager() const { return manager_; }
  // The page id of the identity that last hosted this value (the fresh one
  // made with the modifier until then).
  const PageID& pageID() const { return pageID_.value(); }

  ui::View body(const ui::View& content) const;

 private:
  PageName name_;
  ReportingParameters reportingParameters_;
  std::shared_ptr<PageViewManager> manager_;
  ui::State<PageID> pageID_;
};

// content tracked as a page: content.modifier(PageViewModifier(...)).
KORVEL_EXPORT ui::View pageView(const ui::View& content, PageName name,
                        ReportingParameters reportingParameters,
                        std::shared_ptr<PageViewManager> manager);

}  // namespace korvel
