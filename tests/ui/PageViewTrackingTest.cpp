#include <korvel/ui/PageViewTracking.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <korvel/foundation/KeyedArchive.h>
#include <korvel/ui/UI.h>
#include "support/TestEnv.h"
#include "support/DeathTests.h"
#include "pageviews/PageViewTestSupport.h"

namespace korvel {
namespace {

using testing::kParametersMiss;
using testing::kRenameMiss;
using testing::view;

using ui::View;
using ui::ViewHost;

constexpr uint64_t kSecond = 1'000'000'000;

// Screen classes as a host writes them.
using TrackedScreen = PageViewDataProvidingController<PageViewTrackingViewController>;
using TrackedCollection = PageViewDataProvidingController<PageViewTrackingCollectionViewController>;
using TrackedTable = PageViewDataProvidingController<PageViewTrackingTableViewController>;

class UntrackedScreen : public PageViewTrackingViewController {
 public:
  using PageViewTrackingViewController::PageViewTrackingViewController;
};

// Computes its name; its own parameter answer is never what gets reported.
class ComputedNameScreen : public PageViewTrackingViewController, public PageViewDataProviding {
 public:
  using PageViewTrackingViewController::PageViewTrackingViewController;
  PageName pageName() const override {
    return PageName("computed/" + PageViewTrackingViewController::pageName().stringValue);
  }
  ReportingParameters pageViewReportingParameters() const override {
    return {ReportingParameter::tagID("from the protocol")};
  }
};

std::optional<KeyedUnarchiver> archive(
    const std::function<void(KeyedArchiver&)>& fill) {
  KeyedArchiver archiver;
  fill(archiver);
  return KeyedUnarchiver::open(archiver.encodedData());
}

class PageViewTrackingTest : public ::testing::Test {
 protected:
  void advance(uint64_t nanos) { env_.advanceMonotonic(nanos); }
  std::vector<PageView> reported() { return reporter_->take(); }
  std::optional<std::string> current() const {
    auto name = manager_->currentPageName();
    return name ? std::optional(name->stringValue) : std::nullopt;
  }
  std::vector<std::string> logs() { return env_.logs().messages(); }

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
  std::shared_ptr<testing::RecordingReporter> reporter_ =
      std::make_shared<testing::RecordingReporter>();
  std::shared_ptr<PageViewManager> manager_ = std::make_shared<PageViewManager>(reporter_, true);
};

// --- Controllers ---------------------------------------------------------------

TEST_F(PageViewTrackingTest, AnAdoptingScreenPushesOnAppearAndClosesOnDisappear) {
  const ReportingParameters parameters = {ReportingParameter::trackID("t1")};
  TrackedScreen screen(manager_, PageName("track"), parameters);
  EXPECT_EQ(current(), std::nullopt);  // construction alone does nothing

  screen.viewWillAppear(true);
  EXPECT_EQ(current(), "track");
  advance(2 * kSecond);
  screen.viewDidDisappear(true);
  EXPECT_EQ(reported(), std::vector{view("track", 2.0, parameters)});
  EXPECT_EQ(current(), std::nullopt);
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, ANonAdoptingScreenNeverPushesButItsSettersStillReport) {
  UntrackedScreen screen(manager_, PageName("plain"), {});
  screen.viewWillAppear(false);
  EXPECT_EQ(current(), std::nullopt);
  screen.viewDidDisappear(false);
  EXPECT_TRUE(reported().empty());
  EXPECT_TRUE(logs().empty());  // no close was attempted

  screen.setPageName(PageName("renamed"));
  screen.setPageViewReportingParameters({ReportingParameter::tagID("x")});
  EXPECT_EQ(logs(), (std::vector<std::string>{kRenameMiss, kParametersMiss}));
  EXPECT_EQ(screen.pageName(), PageName("renamed"));
  EXPECT_EQ(screen.pageViewReportingParameters(),
            ReportingParameters{ReportingParameter::tagID("x")});
}

TEST_F(PageViewTrackingTest, TwoInstancesAreTwoPages) {
  TrackedScreen first(manager_, PageName("detail"), {});
  TrackedScreen second(manager_, PageName("detail"), {});
  first.viewWillAppear(true);
  advance(1 * kSecond);
  second.viewWillAppear(true);
  EXPECT_EQ(reported(), std::vector{view("detail", 1.0)});

  advance(2 * kSecond);
  second.viewDidDisappear(true);
  advance(3 * kSecond);
  first.viewDidDisappear(true);
  EXPECT_EQ(reported(), (std::vector{view("detail", 2.0), view("detail", 3.0)}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, AppearingTwiceWithoutDisappearingPushesOnce) {
  TrackedScreen screen(manager_, PageName("home"), {});
  screen.viewWillAppear(true);
  advance(1 * kSecond);
  screen.viewWillAppear(true);
  EXPECT_TRUE(reported().empty());
  advance(1 * kSecond);
  screen.viewDidDisappear(true);
  EXPECT_EQ(reported(), std::vector{view("home", 2.0)});
  EXPECT_EQ(current(), std::nullopt);
}

TEST_F(PageViewTrackingTest, SettersBeforeTheFirstAppearanceAreLoggedMisses) {
  TrackedScreen screen(manager_, PageName("draft"), {});
  screen.setPageName(PageName("final"));
  screen.setPageViewReportingParameters({ReportingParameter::matchType("match")});
  EXPECT_EQ(logs(), (std::vector<std::string>{kRenameMiss, kParametersMiss}));

  // The stored values are what the first appearance uses.
  screen.viewWillAppear(false);
  advance(1 * kSecond);
  screen.viewDidDisappear(false);
  EXPECT_EQ(reported(),
            std::vector{view("final", 1.0, {ReportingParameter::matchType("match")})});
}

TEST_F(PageViewTrackingTest, SettersWhileVisibleRenameAndReparameterise) {
  TrackedScreen screen(manager_, PageName("old"), {});
  screen.viewWillAppear(true);
  advance(1 * kSecond);
  screen.setPageName(PageName("new"));
  EXPECT_EQ(reported(), std::vector{view("old", 1.0)});

  advance(1 * kSecond);
  screen.modifyPageViewReportingParameters(
      [](ReportingParameters& p) { p.insert(ReportingParameter::tagID("t")); });
  screen.modifyPageViewReportingParameters(
      [](ReportingParameters& p) { p.insert(ReportingParameter::sampleRate(48000)); });
  EXPECT_TRUE(reported().empty());

  advance(1 * kSecond);
  screen.viewDidDisappear(true);
  EXPECT_EQ(reported(),
            std::vector{view("new", 2.0,
                             {ReportingParameter::tagID("t"), ReportingParameter::sampleRate(48000)})});
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, SettingTheNameOfACoveredScreenIsSilent) {
  TrackedScreen below(manager_, PageName("below"), {});
  UntrackedScreen other(manager_, PageName("other"), {});
  below.viewWillAppear(true);
  other.setPageName(PageName("x"));  // not on a non-empty stack: nothing at all
  EXPECT_TRUE(logs().empty());
  other.setPageViewReportingParameters({});
  EXPECT_EQ(logs(), std::vector<std::string>{kParametersMiss});
}

TEST_F(PageViewTrackingTest, TheAdoptingClassNamesThePageAndTheStoredParametersGoWithIt) {
  const ReportingParameters stored = {ReportingParameter::tagID("stored")};
  ComputedNameScreen screen(manager_, PageName("lyrics"), stored);
  screen.viewWillAppear(true);
  EXPECT_EQ(current(), "computed/lyrics");
  advance(1 * kSecond);
  screen.viewDidDisappear(true);
  EXPECT_EQ(reported(), std::vector{view("computed/lyrics", 1.0, stored)});
}

TEST_F(PageViewTrackingTest, TheHooksRunThePlatformImplementationFirst) {
  TrackedScreen first(manager_, PageName("first"), {});
  TrackedScreen second(manager_, PageName("second"), {});
  std::vector<bool> secondVisibleWhileReporting;
  reporter_->onReport = [&](const PageView&) {
    secondVisibleWhileReporting.push_back(second.isVisible());
  };
  first.viewWillAppear(true);
  second.viewWillAppear(true);   // reports "first": second already visible
  second.viewDidDisappear(true);  // reports "second": second already gone
  EXPECT_EQ(secondVisibleWhileReporting, (std::vector<bool>{true, false}));
}

TEST_F(PageViewTrackingTest, EveryConstructionFormOfEveryClassTracks) {
  auto coder = archive([](KeyedArchiver& a) {
    a.encodeObject("nibName", std::string("Main"));
    a.encodeObject("nibBundle", std::string("com.korvel.app"));
  });
  ASSERT_TRUE(coder);
  const ui::CollectionViewLayout layout{
      ui::CollectionViewLayout::ScrollDirection::Horizontal, 4, 8};
  const ui::Bundle bundle{"com.korvel.app"};
  const ReportingParameters none;

  struct Row {
    const char* form;
    std::function<std::unique_ptr<ui::ViewController>(PageName)> make;
  };
  const std::vector<Row> rows = {
      {"view plain", [&](PageName n) { return std::make_unique<TrackedScreen>(manager_, n, none); }},
      {"view nib",
       [&](PageName n) { return std::make_unique<TrackedScreen>("Main", bundle, manager_, n, none); }},
      {"view coder",
       [&](PageName n) { return ui::makeFromCoder<TrackedScreen>(*coder, manager_, n, none); }},
      {"collection layout",
       [&](PageName n) { return std::make_unique<TrackedCollection>(layout, manager_, n, none); }},
      {"collection plain",
       [&](PageName n) { return std::make_unique<TrackedCollection>(manager_, n, none); }},
      {"collection nib",
       [&](PageName n) {
         return std::make_unique<TrackedCollection>("Main", bundle, manager_, n, none);
       }},
      {"collection coder",
       [&](PageName n) {
         return ui::makeFromCoder<TrackedCollection>(*coder, manager_, n, none);
       }},
      {"table style",
       [&](PageName n) {
         return std::make_unique<TrackedTable>(ui::TableViewStyle::Grouped, manager_, n, none);
       }},
      {"table plain", [&](PageName n) { return std::make_unique<TrackedTable>(manager_, n, none); }},
      {"table nib",
       [&](PageName n) { return std::make_unique<TrackedTable>("Main", bundle, manager_, n, none); }},
      {"table coder",
       [&](PageName n) { return ui::makeFromCoder<TrackedTable>(*coder, manager_, n, none); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.form);
    auto screen = row.make(PageName(row.form));
    ASSERT_NE(screen, nullptr);
    screen->viewWillAppear(false);
    EXPECT_EQ(current(), row.form);
    advance(1 * kSecond);
    screen->viewDidDisappear(false);
    EXPECT_EQ(reported(), std::vector{view(row.form, 1.0)});
  }
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, ThePlatformControllerGetsItsOwnArguments) {
  const ui::CollectionViewLayout layout{
      ui::CollectionViewLayout::ScrollDirection::Horizontal, 4, 8};
  EXPECT_EQ(TrackedCollection(layout, manager_, PageName("c"), {}).collectionViewLayout(), layout);
  EXPECT_EQ(TrackedCollection(manager_, PageName("c"), {}).collectionViewLayout(),
            ui::CollectionViewLayout{});
  EXPECT_EQ(TrackedTable(ui::TableViewStyle::InsetGrouped, manager_, PageName("t"), {}).style(),
            ui::TableViewStyle::InsetGrouped);
  EXPECT_EQ(TrackedTable(manager_, PageName("t"), {}).style(), ui::TableViewStyle::Plain);

  const TrackedScreen plain(manager_, PageName("v"), {});
  EXPECT_EQ(std::tuple(plain.nibName(), plain.nibBundle()), std::tuple(std::nullopt, std::nullopt));
  const TrackedTable nib("Settings", ui::Bundle{"b"}, manager_, PageName("t"), {});
  EXPECT_EQ(std::tuple(nib.nibName(), nib.nibBundle(), nib.pageViewManager()),
            std::tuple("Settings", ui::Bundle{"b"}, manager_));
}

TEST_F(PageViewTrackingTest, AnUnreadableArchiveMakesNoScreen) {
  auto coder = archive([](KeyedArchiver& a) { a.encodeInt("nibName", 7); });
  ASSERT_TRUE(coder);
  EXPECT_EQ(ui::makeFromCoder<TrackedScreen>(*coder, manager_, PageName("x"),
                                                   ReportingParameters{}),
            nullptr);
  EXPECT_EQ(ui::makeFromCoder<TrackedTable>(*coder, manager_, PageName("x"),
                                                  ReportingParameters{}),
            nullptr);
  EXPECT_THROW(TrackedCollection(*coder, manager_, PageName("x"), {}), ui::CoderError);
  EXPECT_EQ(current(), std::nullopt);
}

TEST_F(PageViewTrackingTest, AScreenWithoutAManagerIsRefused) {
  EXPECT_THROW(TrackedScreen(nullptr, PageName("x"), {}), std::invalid_argument);
  EXPECT_THROW(TrackedTable(nullptr, PageName("x"), {}), std::invalid_argument);
  EXPECT_THROW(PageViewModifier(PageName("x"), {}, nullptr), std::invalid_argument);
}

TEST_F(PageViewTrackingTest, TheScreenKeepsItsManagerAlive) {
  auto screen = std::make_unique<TrackedScreen>(manager_, PageName("s"), ReportingParameters{});
  std::weak_ptr<PageViewManager> weak = manager_;
  manager_.reset();
  screen->viewWillAppear(true);
  ASSERT_FALSE(weak.expired());
  EXPECT_EQ(weak.lock()->currentPageName(), PageName("s"));
  screen.reset();
  EXPECT_TRUE(weak.expired());
}

// --- Refused initialisers ---------------------------------------------------------

// A death-test pattern matching text literally.
std::string literally(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

using PageViewTrackingDeathTest = PageViewTrackingTest;

TEST_F(PageViewTrackingDeathTest, RefusedInitialisersStopWithTheirMessage) {
  testing::useThreadsafeDeathTests();
  const auto coder = archive([](KeyedArchiver&) {});
  ASSERT_TRUE(coder);
  const std::string viewCoder = "init(coder:pageViewManager:) must be used";
  const std::string otherCoder =
      "init(coder:pageViewManager:pageName:pageViewReportingParameters) must be used";

  EXPECT_DEATH(PageViewTrackingViewController{*coder}, literally(viewCoder));
  EXPECT_DEATH(PageViewTrackingCollectionViewController{*coder}, literally(otherCoder));
  EXPECT_DEATH(PageViewTrackingTableViewController{*coder}, literally(otherCoder));
  // The generic toolkit path reaches the same refusal.
  EXPECT_DEATH(ui::makeFromCoder<PageViewTrackingViewController>(*coder),
               literally(viewCoder));
  EXPECT_DEATH(ui::makeFromCoder<TrackedTable>(*coder), literally(otherCoder));

  EXPECT_DEATH(PageViewTrackingViewController("Main", ui::Bundle{"b"}),
               literally("unimplemented initializer 'init(nibName:bundle:)' for class "
                         "'PageViewTrackingViewController'"));
  EXPECT_DEATH(PageViewTrackingCollectionViewController(std::nullopt, std::nullopt),
               literally("unimplemented initializer 'init(nibName:bundle:)' for class "
                         "'PageViewTrackingCollectionViewController'"));
  EXPECT_DEATH(PageViewTrackingCollectionViewController{ui::CollectionViewLayout{}},
               literally("unimplemented initializer 'init(collectionViewLayout:)' for class "
                         "'PageViewTrackingCollectionViewController'"));
  EXPECT_DEATH(PageViewTrackingTableViewController(std::nullopt, std::nullopt),
               literally("unimplemented initializer 'init(nibName:bundle:)' for class "
                         "'PageViewTrackingTableViewController'"));
  EXPECT_DEATH(PageViewTrackingTableViewController{ui::TableViewStyle::Plain},
               literally("unimplemented initializer 'init(style:)' for class "
                         "'PageViewTrackingTableViewController'"));
}

// --- View modifier -------------------------------------------------------------------

TEST_F(PageViewTrackingTest, AHostedViewIsOnePageForItsWholeIdentity) {
  const ReportingParameters parameters = {ReportingParameter::trackID("t")};
  int drawn = 0;
  ViewHost host;
  host.appear(pageView(View([&] { ++drawn; }), PageName("home"), parameters, manager_));
  EXPECT_EQ(current(), "home");
  host.render();
  EXPECT_EQ(drawn, 1);  // the modified view still draws its content

  // Every evaluation of the body makes a new modifier with a fresh id; the
  // hosted identity keeps the first one, so this is not a new page.
  advance(1 * kSecond);
  host.update(pageView(View(), PageName("home"), parameters, manager_));
  EXPECT_TRUE(reported().empty());

  advance(1 * kSecond);
  host.disappear();
  EXPECT_EQ(reported(), std::vector{view("home", 2.0, parameters)});
  EXPECT_EQ(current(), std::nullopt);
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, ChangesInLaterDescriptionsReachTheManager) {
  ViewHost host;
  host.appear(pageView(View(), PageName("search"), {}, manager_));
  advance(1 * kSecond);
  host.update(pageView(View(), PageName("search results"), {}, manager_));
  EXPECT_EQ(reported(), std::vector{view("search", 1.0)});

  const ReportingParameters parameters = {ReportingParameter::tagType("typed")};
  advance(1 * kSecond);
  host.update(pageView(View(), PageName("search results"), parameters, manager_));
  EXPECT_TRUE(reported().empty());

  advance(1 * kSecond);
  host.disappear();
  EXPECT_EQ(reported(), std::vector{view("search results", 2.0, parameters)});
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, ReappearingViewIsTheSamePageAgain) {
  ViewHost host;
  const auto screen = pageView(View(), PageName("tab"), {}, manager_);
  host.appear(screen);
  advance(1 * kSecond);
  host.disappear();
  host.disappear();  // already hidden: nothing
  advance(1 * kSecond);
  host.appear(screen);
  advance(3 * kSecond);
  host.disappear();
  // Alone on the stack again, it counts from the close of its last showing.
  EXPECT_EQ(reported(), (std::vector{view("tab", 1.0), view("tab", 4.0)}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, TwoIdentitiesOfOneDescriptionAreTwoPages) {
  const auto screen = pageView(View(), PageName("card"), {}, manager_);
  ViewHost left;
  ViewHost right;
  left.appear(screen);
  advance(1 * kSecond);
  right.appear(screen);
  EXPECT_EQ(reported(), std::vector{view("card", 1.0)});
  advance(1 * kSecond);
  right.disappear();
  left.disappear();
  EXPECT_EQ(reported(), (std::vector{view("card", 1.0), view("card", 0.0)}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(PageViewTrackingTest, ChangesBeforeAppearanceAreMisses) {
  ViewHost host;
  host.update(pageView(View(), PageName("a"), {}, manager_));
  host.update(pageView(View(), PageName("b"), {ReportingParameter::tagID("x")}, manager_));
  EXPECT_EQ(logs(), (std::vector<std::string>{kRenameMiss, kParametersMiss}));
  host.disappear();  // never shown: no close, no miss
  EXPECT_EQ(logs().size(), 2u);
}

}  // namespace
}  // namespace korvel
