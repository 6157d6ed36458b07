#include <korvel/ui/PageViewTracking.h>

namespace korvel {

namespace detail {

std::string unimplementedInitializer(std::string_view initializer, std::string_view className) {
  return "Use of unimplemented initializer '" + std::string(initializer) + "' for class '" +
         std::string(className) + "'";
}

}  // namespace detail

namespace {

constexpr std::string_view kViewControllerCoderMessage =
    "init(coder:pageViewManager:) must be used";
// The missing colon after the last label is part of the message as hosts
// have always seen it.
constexpr std::string_view kCollectionAndTableCoderMessage =
    "init(coder:pageViewManager:pageName:pageViewReportingParameters) must be used";

}  // namespace

// --- PageViewTrackingViewController ------------------------------------------

PageViewTrackingViewController::PageViewTrackingViewController(const ui::Coder&)
    : PageViewTracking(Refused{}, kViewControllerCoderMessage) {}

PageViewTrackingViewController::PageViewTrackingViewController(std::optional<std::string>,
                                                               std::optional<ui::Bundle>)
    : PageViewTracking(Refused{}, detail::unimplementedInitializer(
                                      "init(nibName:bundle:)", "PageViewTrackingViewController")) {}

// --- PageViewTrackingCollectionViewController --------------------------------

PageViewTrackingCollectionViewController::PageViewTrackingCollectionViewController(
    const ui::Coder&)
    : PageViewTracking(Refused{}, kCollectionAndTableCoderMessage) {}

PageViewTrackingCollectionViewController::PageViewTrackingCollectionViewController(
    std::optional<std::string>, std::optional<ui::Bundle>)
    : PageViewTracking(Refused{},
                       detail::unimplementedInitializer(
                           "init(nibName:bundle:)", "PageViewTrackingCollectionViewController")) {}

PageViewTrackingCollectionViewController::PageViewTrackingCollectionViewController(
    ui::CollectionViewLayout)
    : PageViewTracking(Refused{}, detail::unimplementedInitializer(
                                      "init(collectionViewLayout:)",
                                      "PageViewTrackingCollectionViewController")) {}

// --- PageViewTrackingTableViewController -------------------------------------

PageViewTrackingTableViewController::PageViewTrackingTableViewController(const ui::Coder&)
    : PageViewTracking(Refused{}, kCollectionAndTableCoderMessage) {}

PageViewTrackingTableViewController::PageViewTrackingTableViewController(
    std::optional<std::string>, std::optional<ui::Bundle>)
    : PageViewTracking(Refused{},
                       detail::unimplementedInitializer("init(nibName:bundle:)",
                                                        "PageViewTrackingTableViewController")) {}

PageViewTrackingTableViewController::PageViewTrackingTableViewController(ui::TableViewStyle)
    : PageViewTracking(Refused{}, detail::unimplementedInitializer(
                                      "init(style:)", "PageViewTrackingTableViewController")) {}

// --- PageViewModifier -----------------------------------------------------------

PageViewModifier::PageViewModifier(PageName name, ReportingParameters reportingParameters,
                                   std::shared_ptr<PageViewManager> manager)
    : name_(std::move(name)),
      reportingParameters_(std::move(reportingParameters)),
      manager_(std::move(manager)),
      pageID_(ui::State<PageID>::perIdentity(&PageID::make)) {
  if (!manager_) throw std::invalid_argument("PageViewModifier needs a PageViewManager");
}

ui::View PageViewModifier::body(const ui::View& content) const {
  // The handlers read the page id through the state slot at call time, so
  // they see the id kept for the view's identity, not this value's fresh one.
  const auto manager = manager_;
  const auto pageID = pageID_;
  return content.state(pageID_)
      .onAppear([manager, pageID, name = name_, parameters = reportingParameters_] {
        manager->trackPageAppeared(pageID.value(), name, parameters);
      })
      .onDisappear([manager, pageID] { manager->trackPageClosed(pageID.value()); })
      .onChange<PageName>(name_,
                          [manager, pageID](const PageName& name) {
                            manager->trackPageNameChanged(name, pageID.value());
                          })
      .onChange<ReportingParameters>(
          reportingParameters_, [manager, pageID](const ReportingParameters& parameters) {
            manager->trackPageViewReportingParametersChanged(parameters, pageID.value());
          });
}

ui::View pageView(const ui::View& content, PageName name,
                        ReportingParameters reportingParameters,
                        std::shared_ptr<PageViewManager> manager) {
  return content.modifier(
      PageViewModifier(std::move(name), std::move(reportingParameters), std::move(manager)));
}

}  // namespace korvel
