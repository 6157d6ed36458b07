#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <tuple>
#include <typeindex>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/debug/KVRDebugAppInfoViewController.h>
#include <korvel/debug/KVRDebugLogViewController.h>
#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/KVRDebugNavigationOptionsViewController.h>
#include <korvel/debug/KVRDebugOverlayViewController.h>
#include <korvel/debug/KVRDebugTagInfoTableViewController.h>
#include <korvel/debug/KVRFileSystemDirectoryContentsViewController.h>
#include <korvel/debug/KVRPagesProvider.h>
#include <korvel/debug/KVRUserDefaultsDebugViewController.h>
#include "debug/ScreenTestSupport.h"

namespace korvel {
namespace {

using ui::Point;
using ui::Rect;
using ui::ViewNode;

// MARK: - Hit testing of the view tree

struct Tree {
  std::shared_ptr<ViewNode> root = std::make_shared<ViewNode>("root");
  std::shared_ptr<ViewNode> a = std::make_shared<ViewNode>("a");
  std::shared_ptr<ViewNode> b = std::make_shared<ViewNode>("b");
  std::shared_ptr<ViewNode> c = std::make_shared<ViewNode>("c");
  Tree() {
    root->setFrame(Rect::make(0, 0, 100, 100));
    a->setFrame(Rect::make(10, 10, 50, 50));
    b->setFrame(Rect::make(5, 5, 10, 10));  // in a's coordinates: 15..25 on screen
    c->setFrame(Rect::make(40, 40, 30, 30));
    root->addSubview(a);
    a->addSubview(b);
    root->addSubview(c);  // in front of a
  }
};

std::string nameOf(const std::shared_ptr<ViewNode>& view) { return view ? view->name() : "none"; }

TEST(ViewNodeTest, HitTestFindsTheDeepestFrontMostViewThatTakesTouches) {
  struct Case {
    const char* what;
    std::function<void(Tree&)> change;
    Point point;
    const char* expected;
  };
  const Case cases[] = {
      {"deepest view", nullptr, {16, 16}, "b"},
      {"front-most of two overlapping", nullptr, {45, 45}, "c"},
      {"parent around its child", nullptr, {30, 50}, "a"},
      {"nothing but the root", nullptr, {90, 5}, "root"},
      {"left/top edge is inside", nullptr, {0, 0}, "root"},
      {"right edge is outside", nullptr, {100, 50}, "none"},
      {"negative coordinates", nullptr, {-1, 5}, "none"},
      {"far away", nullptr, {1e9, 1e9}, "none"},
      {"hidden front view", [](Tree& t) { t.c->setHidden(true); }, {45, 45}, "a"},
      {"nearly transparent front view", [](Tree& t) { t.c->setAlpha(0.009); }, {45, 45}, "a"},
      {"just visible enough", [](Tree& t) { t.c->setAlpha(0.01); }, {45, 45}, "c"},
      {"front view without interaction",
       [](Tree& t) { t.c->setUserInteractionEnabled(false); }, {45, 45}, "a"},
      {"hidden parent hides its child", [](Tree& t) { t.a->setHidden(true); }, {16, 16}, "root"},
      {"hidden root", [](Tree& t) { t.root->setHidden(true); }, {16, 16}, "none"},
      {"child sticking out of its parent is not reached",
       [](Tree& t) { t.b->setFrame(Rect::make(45, 45, 20, 20)); }, {62, 62}, "c"},
  };
  for (const auto& c : cases) {
    Tree tree;
    if (c.change) c.change(tree);
    EXPECT_EQ(nameOf(tree.root->hitTest(c.point)), c.expected) << c.what;
  }
}

TEST(ViewNodeTest, PinnedViewsFollowTheirSuperviewAndTheTreeStaysATree) {
  Tree tree;
  auto pinned = std::make_shared<ViewNode>("pinned");
  pinned->setPinnedToSuperviewEdges(true);
  tree.a->addSubview(pinned);
  EXPECT_EQ(pinned->frame(), Rect::make(0, 0, 50, 50));
  tree.a->setFrame(Rect::make(0, 0, 70, 20));
  EXPECT_EQ(pinned->frame(), Rect::make(0, 0, 70, 20));

  tree.b->addSubview(tree.root);  // would make a cycle
  EXPECT_TRUE(tree.b->subviews().empty());
  tree.c->addSubview(tree.b);  // moves b from a to c
  EXPECT_EQ(tree.b->superview(), tree.c);
  EXPECT_EQ(tree.a->subviews().size(), 1u) << "only the pinned view is left in a";
  EXPECT_EQ(tree.root->convertPointToDescendant({50, 50}, *tree.b), (Point{5, 5}));
}

// MARK: - The overlay window

class OverlayTest : public testing::ScreenTest {
 protected:
  std::shared_ptr<KVRDebugOverlayWindow> build() {
    auto window = KVRDebugOverlayWindow::buildDebugOverlayWindow();
    window->setHidden(false);
    auto& overlay = *window->debugOverlayViewController();
    overlay.pageView()->setFrame(Rect::make(100, 100, 600, 500));
    overlay.passiveButtonView()->setFrame(Rect::make(10, 10, 80, 30));
    return window;
  }

  static KVRDebugLogViewController& logPage(KVRDebugOverlayViewController& overlay) {
    return dynamic_cast<KVRDebugLogViewController&>(
        *overlay.debugViewControllers()[KVRPagesProvider::kBeaconLogPage]);
  }

  // What the panel shows: background hidden and its colour, page alpha,
  // passive button hidden and its title.
  static auto panel(KVRDebugOverlayViewController& o) {
    return std::tuple(o.backgroundView()->isHidden(), o.backgroundView()->backgroundColor(),
                      o.pageView()->alpha(), o.passiveButton().isHidden(),
                      o.passiveButton().title());
  }
  static inline const ui::Color kDimmed = ui::Color::black().withAlphaComponent(0.3);
};

TEST_F(OverlayTest, BuildsTheSixPagesOverTheCentersLogWithTheRootViewPinned) {
  auto center = startCenter();
  auto window = build();
  auto overlay = window->debugOverlayViewController();
  ASSERT_NE(overlay, nullptr);
  EXPECT_EQ(window->frame(), Rect::make(0, 0, 1000, 800)) << "the main screen's bounds";
  EXPECT_EQ(overlay->dataProvider(), center->dataProvider());

  std::vector<std::type_index> kinds;
  for (const auto& page : overlay->debugViewControllers()) kinds.emplace_back(typeid(*page));
  EXPECT_EQ(kinds, (std::vector<std::type_index>{
                       typeid(KVRDebugLogViewController), typeid(KVRDebugAppInfoViewController),
                       typeid(KVRDebugNavigationOptionsViewController),
                       typeid(KVRFileSystemDirectoryContentsViewController),
                       typeid(KVRUserDefaultsDebugViewController),
                       typeid(KVRDebugTagInfoTableViewController)}));
  EXPECT_EQ(logPage(*overlay).dataProvider(), center->dataProvider());

  EXPECT_EQ(overlay->view()->frame(), window->windowView()->bounds());
  window->setFrame(Rect::make(0, 0, 640, 480));
  EXPECT_EQ(overlay->view()->frame(), Rect::make(0, 0, 640, 480)) << "pinned to all four edges";
}

TEST_F(OverlayTest, WithoutADebugCenterTheMenuStillWorksOverAnEmptyLog) {
  auto window = build();
  ASSERT_NE(window->debugOverlayViewController(), nullptr);
  EXPECT_TRUE(window->debugOverlayViewController()->dataProvider()->logEntries().empty());
  window->presentDebugMenu();
  EXPECT_TRUE(window->debugMenuActive());
}

TEST_F(OverlayTest, TouchesOnEmptyOverlayAreasFallThroughToTheApplication) {
  startCenter();
  struct Case {
    const char* state;
    std::function<void(KVRDebugOverlayWindow&)> enter;
    const char* onPanel;
    const char* onButton;
    const char* elsewhere;
  };
  const Case cases[] = {
      {"built, menu not shown", [](KVRDebugOverlayWindow&) {}, "none", "none", "none"},
      {"menu shown", [](KVRDebugOverlayWindow& w) { w.presentDebugMenu(); }, "pages",
       "passiveButton", "none"},
      {"passive",
       [](KVRDebugOverlayWindow& w) {
         w.presentDebugMenu();
         w.debugOverlayViewController()->passiveButton().userTap();
       },
       "none", "passiveButton", "none"},
      {"passive and back",
       [](KVRDebugOverlayWindow& w) {
         w.presentDebugMenu();
         w.debugOverlayViewController()->passiveButton().userTap();
         w.debugOverlayViewController()->passiveButton().userTap();
       },
       "pages", "passiveButton", "none"},
      {"menu hidden again",
       [](KVRDebugOverlayWindow& w) {
         w.presentDebugMenu();
         w.hideDebugMenu();
       },
       "none", "none", "none"},
      {"window hidden",
       [](KVRDebugOverlayWindow& w) {
         w.presentDebugMenu();
         w.setHidden(true);
       },
       "none", "none", "none"},
  };
  for (const auto& c : cases) {
    auto window = build();
    c.enter(*window);
    EXPECT_EQ(nameOf(window->hitTest({300, 300})), c.onPanel) << c.state;
    EXPECT_EQ(nameOf(window->hitTest({20, 20})), c.onButton) << c.state;
    EXPECT_EQ(nameOf(window->hitTest({900, 50})), c.elsewhere) << c.state;
    EXPECT_EQ(window->takesTouchAt({900, 50}), false) << c.state;
  }
}

TEST_F(OverlayTest, ShowingAndHidingSetTheBackgroundPanelButtonAndPages) {
  startCenter();
  auto window = build();
  auto& overlay = *window->debugOverlayViewController();
  auto& log = logPage(overlay);

  window->presentDebugMenu();
  EXPECT_EQ(panel(overlay), std::tuple(false, kDimmed, 1.0, false, "Passive"));
  EXPECT_TRUE(overlay.view()->isTouchable(overlay.pageView()));
  EXPECT_TRUE(overlay.view()->isTouchable(overlay.passiveButtonView()));
  EXPECT_TRUE(log.overlayIsVisible());
  EXPECT_TRUE(log.isVisible()) << "the current page appeared";

  window->hideDebugMenu();
  EXPECT_EQ(panel(overlay), std::tuple(true, ui::Color::clear(), 0.0, true, "Passive"));
  EXPECT_TRUE(overlay.view()->touchableViews().empty());
  EXPECT_FALSE(log.overlayIsVisible());
  EXPECT_FALSE(log.isVisible());
}

TEST_F(OverlayTest, PassiveModeLetsTheApplicationBeUsedUnderADimmedPanel) {
  startCenter();
  auto window = build();
  auto& overlay = *window->debugOverlayViewController();
  window->presentDebugMenu();

  overlay.passiveButton().userTap();
  EXPECT_TRUE(overlay.passiveMode());
  EXPECT_EQ(panel(overlay), std::tuple(false, ui::Color::clear(), 0.7, false, "Active"));
  EXPECT_FALSE(overlay.view()->isTouchable(overlay.pageView()));
  EXPECT_TRUE(overlay.view()->isTouchable(overlay.passiveButtonView()));

  overlay.backgroundView()->setAlpha(0.5);  // whatever it was, active restores it
  overlay.passiveButton().userTap();
  EXPECT_FALSE(overlay.passiveMode());
  EXPECT_EQ(panel(overlay), std::tuple(false, kDimmed, 1.0, false, "Passive"));
  EXPECT_EQ(overlay.backgroundView()->alpha(), 1.0);
  EXPECT_TRUE(overlay.view()->isTouchable(overlay.pageView()));
  EXPECT_EQ(overlay.view()->touchableViews().size(), 2u) << "the page view once, not twice";
}

// Showing the overlay again shows the panel but leaves the mode the user
// chose: a passive overlay hidden and shown is still passive, and its button
// still offers to go active.
TEST_F(OverlayTest, ShowingAgainKeepsPassiveModeAndItsButtonTitle) {
  startCenter();
  auto window = build();
  auto& overlay = *window->debugOverlayViewController();
  window->presentDebugMenu();
  overlay.passiveButton().userTap();
  window->hideDebugMenu();
  window->presentDebugMenu();
  EXPECT_TRUE(overlay.passiveMode());
  EXPECT_EQ(overlay.passiveButton().title(), "Active");

  overlay.passiveButton().userTap();  // the button still goes active from there
  EXPECT_FALSE(overlay.passiveMode());
  EXPECT_EQ(overlay.passiveButton().title(), "Passive");
  EXPECT_EQ(overlay.view()->touchableViews().size(), 2u);
}

TEST_F(OverlayTest, PresentAndHideEachActOnlyOnceInARow) {
  startCenter();
  auto window = build();
  auto& overlay = *window->debugOverlayViewController();
  window->presentDebugMenu();
  overlay.setCurrentPage(2, false);
  window->presentDebugMenu();
  EXPECT_EQ(overlay.presentationIndex(), 2u) << "a second present does not choose the page again";

  window->hideDebugMenu();
  overlay.pageView()->setAlpha(0.42);
  window->hideDebugMenu();
  EXPECT_EQ(overlay.pageView()->alpha(), 0.42) << "a second hide does nothing";
  EXPECT_FALSE(window->debugMenuActive());
}

TEST_F(OverlayTest, OpensOnTheTagPageWhileATagResultIsShownElseOnTheLog) {
  auto center = startCenter();
  struct Case {
    const char* what;
    std::string_view notification;
    size_t page;
  };
  const Case cases[] = {
      {"nothing shown yet", {}, KVRPagesProvider::kBeaconLogPage},
      {"a tag result", KVRDebugMessageDisplayingTagResultNotification,
       KVRPagesProvider::kTagInfoPage},
      {"the result was closed", KVRDebugMessageClosedMatchResultNotification,
       KVRPagesProvider::kBeaconLogPage},
      {"a no-match", KVRDebugMessageDisplayingNoMatchNotification, KVRPagesProvider::kTagInfoPage},
  };
  for (const auto& c : cases) {
    if (!c.notification.empty()) {
      auto result = std::make_shared<const testing::StubTagResult>();
      env_.notificationCenter().post(c.notification,
                                     std::shared_ptr<const KVRTagResultInfo>(result));
    }
    center->presentDebugMenu();
    auto& overlay = *center->debugWindow()->debugOverlayViewController();
    EXPECT_EQ(overlay.presentationIndex(), c.page) << c.what;
    EXPECT_EQ(overlay.titleLabel().text(), overlay.currentViewController()->title()) << c.what;
    center->hideDebugMenu();
  }
}

TEST_F(OverlayTest, PagesNavigateWithoutWrappingAndTheTitleFollows) {
  startCenter();
  auto window = build();
  auto& overlay = *window->debugOverlayViewController();
  const auto& pages = overlay.debugViewControllers();
  EXPECT_EQ(overlay.presentationCount(), 6u);
  EXPECT_EQ(std::tuple(overlay.viewControllerBefore(*pages.front()),
                       overlay.viewControllerAfter(*pages.back()),
                       overlay.viewControllerAfter(*pages[0]),
                       overlay.viewControllerBefore(*pages[5])),
            std::tuple(nullptr, nullptr, pages[1], pages[4]));

  window->presentDebugMenu();
  EXPECT_FALSE(overlay.showPreviousPage());
  EXPECT_TRUE(overlay.showNextPage());
  EXPECT_EQ(overlay.titleLabel().text(), "App Info");
  EXPECT_TRUE(pages[1]->isVisible());
  EXPECT_FALSE(pages[0]->isVisible()) << "the former page disappeared";
  overlay.setCurrentPage(5, true);
  EXPECT_EQ(overlay.titleLabel().text(), "Tag Result");
  EXPECT_FALSE(overlay.showNextPage());
  overlay.setCurrentPage(6, false);
  EXPECT_EQ(overlay.presentationIndex(), 5u) << "one past the end is ignored";
  overlay.setCurrentPage(2, false);
  EXPECT_EQ(overlay.titleLabel().text(), "Config Settings");
}

TEST_F(OverlayTest, CloseAsksTheCenterToHideTheMenu) {
  auto center = startCenter();
  center->presentDebugMenu();
  auto window = center->debugWindow();
  ASSERT_NE(window, nullptr);
  window->debugOverlayViewController()->closeButton().userTap();
  EXPECT_TRUE(center->showingDebugMenu()) << "not from inside the tap: the tap's screen goes";
  pump();
  EXPECT_FALSE(center->showingDebugMenu());
  EXPECT_EQ(center->debugWindow(), nullptr);
  EXPECT_TRUE(window->isHidden());
}

TEST_F(OverlayTest, AHostsOwnWindowGetsTheMenuAndThePresenterReachesThePages) {
  struct HostWindow : KVRDebugOverlayWindow {};
  auto host = std::make_shared<HostWindow>();
  KVRDebugOverlayWindow::setFactory([host] { return host; });
  KVRDebugOverlayWindow::setDefaultPresenter(presenter_);
  auto window = KVRDebugOverlayWindow::buildDebugOverlayWindow();
  EXPECT_EQ(window, host);
  ASSERT_NE(window->debugOverlayViewController(), nullptr);
  auto& tag = dynamic_cast<KVRDebugTableViewController&>(
      *window->debugOverlayViewController()->debugViewControllers()[KVRPagesProvider::kTagInfoPage]);
  EXPECT_EQ(tag.presenter(), presenter_);

  auto other = std::make_shared<testing::RecordingPresenter>();
  window->setPresenter(other);
  EXPECT_EQ(tag.presenter(), other);
}

TEST(ResourcesBundleTest, IsTheBinaryThatHoldsTheLibrary) {
  // The tests link the library statically: it is this executable.
  const auto bundle = kvr_resourcesBundle();
  ASSERT_FALSE(bundle.identifier.empty());
  EXPECT_EQ(std::filesystem::canonical(bundle.identifier),
            std::filesystem::canonical("/proc/self/exe"));
}

}  // namespace
}  // namespace korvel
