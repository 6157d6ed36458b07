#include <korvel/debug/KVRDebugAppInfoViewController.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <korvel/debug/KVRStayInAppSwizzler.h>
#include "debug/ScreenTestSupport.h"
#include <korvel/ui/SharedApplication.h>

namespace korvel {
namespace {

using ui::Application;
using ui::IndexPath;

// An application whose own opener records what it opened.
struct OpeningApplication {
  Application application;
  std::vector<std::string> opened;
  OpeningApplication() {
    application.setOpenURLImplementation([this](const std::string& url) {
      opened.push_back(url);
      return true;
    });
  }
};

TEST(StayInAppSwizzlerTest, BlocksURLOpeningUntilToggledBack) {
  OpeningApplication app;
  KVRStayInAppSwizzler swizzler(app.application);
  EXPECT_FALSE(swizzler.swizzleEnabled());

  swizzler.toggleStayInApp();
  EXPECT_TRUE(swizzler.swizzleEnabled());
  EXPECT_FALSE(app.application.openURL("https://a.example"));
  EXPECT_TRUE(app.opened.empty()) << "the application stays where it is";

  swizzler.toggleStayInApp();
  EXPECT_FALSE(swizzler.swizzleEnabled());
  EXPECT_TRUE(app.application.openURL("https://b.example"));
  EXPECT_EQ(app.opened, std::vector<std::string>{"https://b.example"});

  // Any number of rounds keeps the host's own opener.
  for (int i = 0; i < 4; ++i) swizzler.toggleStayInApp();
  EXPECT_TRUE(app.application.openURL("https://c.example"));
  EXPECT_EQ(app.opened.size(), 2u);
}

TEST(StayInAppSwizzlerTest, AnApplicationWithoutItsOwnOpenerGetsOneAndLosesItAgain) {
  Application application;
  ASSERT_FALSE(application.definesOpenURL());
  KVRStayInAppSwizzler swizzler(application);

  swizzler.toggleStayInApp();
  EXPECT_TRUE(application.definesOpenURL()) << "the blocking opener was added";
  EXPECT_FALSE(application.openURL("https://a.example"));

  swizzler.toggleStayInApp();
  EXPECT_FALSE(application.definesOpenURL()) << "inheriting the default again";
  // An opener the host installs afterwards is used as is.
  std::vector<std::string> opened;
  application.setOpenURLImplementation([&](const std::string& url) {
    opened.push_back(url);
    return true;
  });
  EXPECT_TRUE(application.openURL("https://b.example"));
  EXPECT_EQ(opened.size(), 1u);
}

TEST(StayInAppSwizzlerTest, ADestroyedSwizzlerGivesURLOpeningBack) {
  OpeningApplication app;
  {
    KVRStayInAppSwizzler swizzler(app.application);
    swizzler.toggleStayInApp();
  }
  EXPECT_TRUE(app.application.openURL("https://a.example"));
  EXPECT_EQ(app.opened.size(), 1u);
}

class AppInfoTest : public testing::ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    swizzler_ = std::make_shared<KVRStayInAppSwizzler>(app_.application);
    screen_ = std::make_unique<KVRDebugAppInfoViewController>(swizzler_);
    screen_->viewWillAppear(false);
  }
  void TearDown() override {
    screen_.reset();
    ScreenTest::TearDown();
  }

  static constexpr IndexPath kINIDRow{0, 0};
  static constexpr IndexPath kStayInAppRow{1, 0};

  OpeningApplication app_;
  std::shared_ptr<KVRStayInAppSwizzler> swizzler_;
  std::unique_ptr<KVRDebugAppInfoViewController> screen_;
};

TEST_F(AppInfoTest, ShowsTheInidAndTheStayInAppOption) {
  auto& table = screen_->tableView();
  ASSERT_EQ(table.numberOfSections(), 2u);
  EXPECT_EQ(std::tuple(table.titleForHeaderInSection(0), table.titleForHeaderInSection(1),
                       table.titleForHeaderInSection(2)),
            std::tuple("INID", "Options", std::nullopt));
  EXPECT_EQ(std::pair(table.numberOfRowsInSection(0), table.numberOfRowsInSection(1)),
            std::pair(size_t{1}, size_t{1}));
  const auto inid = table.cellForRow(kINIDRow);
  const auto option = table.cellForRow(kStayInAppRow);
  EXPECT_EQ(std::tuple(inid.text, inid.accessorySwitch, option.text, option.accessorySwitch),
            std::tuple("TEST-INID", nullptr, "Stay in app", &screen_->stayInAppSwitch()));
  EXPECT_EQ(screen_->title(), "App Info");
}

TEST_F(AppInfoTest, TheSwitchTogglesStayInAppAndShowsTheSwizzlersState) {
  auto& toggle = screen_->stayInAppSwitch();
  EXPECT_FALSE(toggle.isOn());
  for (const bool on : {true, false}) {
    toggle.userToggle();
    EXPECT_EQ(std::tuple(swizzler_->swizzleEnabled(), toggle.isOn(),
                         app_.application.openURL("https://a.example")),
              std::tuple(on, on, !on));
  }

  // The switch follows the swizzler, not its own former position.
  swizzler_->toggleStayInApp();
  screen_->viewWillAppear(false);
  EXPECT_TRUE(toggle.isOn());
}

TEST_F(AppInfoTest, SelectingTheRowFlipsOnlyTheSwitchNotTheSwizzler) {
  screen_->tableView().userTapRow(kStayInAppRow);
  EXPECT_TRUE(screen_->stayInAppSwitch().isOn());
  EXPECT_FALSE(swizzler_->swizzleEnabled()) << "deliberately left to the switch's own action";
  EXPECT_FALSE(screen_->tableView().isRowSelected(kStayInAppRow));
  EXPECT_TRUE(screen_->tableView().lastDeselectionAnimated());
  EXPECT_TRUE(app_.application.openURL("https://a.example"));
}

TEST_F(AppInfoTest, CopyPutsTheRowsTextOnThePasteboard) {
  auto& pasteboard = ui::Pasteboard::general();
  auto copyFrom = [&](IndexPath row) {
    auto actions = screen_->tableView().userLongPressRow(row);
    ASSERT_EQ(actions.size(), 1u);
    EXPECT_EQ(actions[0].title, "Copy");
    EXPECT_EQ(actions[0].systemImageName, "doc.on.doc");
    actions[0].handler();
  };
  copyFrom(kStayInAppRow);
  EXPECT_EQ(pasteboard.string(), "Stay in app");
  copyFrom(kINIDRow);
  EXPECT_EQ(pasteboard.string(), "TEST-INID");

  KVNConfiguration::Snapshot noInid;
  KVNConfiguration::sharedInstance().replace(noInid);
  copyFrom(kINIDRow);
  EXPECT_EQ(pasteboard.string(), "") << "no inid copies an empty text";
  EXPECT_TRUE(screen_->tableView().userLongPressRow({2, 0}).empty()) << "no such row";
}

}  // namespace
}  // namespace korvel
