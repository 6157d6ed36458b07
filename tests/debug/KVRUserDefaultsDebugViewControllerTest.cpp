#include <korvel/debug/KVRUserDefaultsDebugViewController.h>

#include <gtest/gtest.h>

#include "debug/ScreenTestSupport.h"

namespace korvel {
namespace {

using ui::FontWeight;
using ui::TextColor;
using ui::TextRun;
using Screen = KVRUserDefaultsDebugViewController;

class UserDefaultsPageTest : public testing::ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    setCurrentLocaleIdentifier("en_US");
  }
};

TEST_F(UserDefaultsPageTest, ListsEveryEntryInTheUsersOrderIgnoringCase) {
  // setObject(value, key)
  defaults_->setObject("b", "zeta");
  defaults_->setObject(KVRURL{"https://config.example"}, "Alpha");
  defaults_->setObject(true, "beta");
  defaults_->setObject(static_cast<int64_t>(-3), "\xC3\x84rger");  // Ärger
  defaults_->setObject(KVRDate{0}, "alpha");
  Screen screen;
  screen.viewWillAppear(false);
  EXPECT_EQ(screen.title(), "User Defaults");
  EXPECT_EQ(screen.sortedKeys(),
            (std::vector<std::string>{"Alpha", "alpha", "\xC3\x84rger", "beta", "zeta"}))
      << "case ignored, accents kept, keys equal but for case in byte order";

  auto& table = screen.tableView();
  ASSERT_EQ(table.numberOfRowsInSection(0), 5u);
  const std::string texts[] = {"Alpha = https://config.example",
                               "alpha = 1970-01-01 00:00:00 +0000", "\xC3\x84rger = -3",
                               "beta = 1", "zeta = b"};
  for (size_t row = 0; row < 5; ++row) {
    const auto cell = table.cellForRow({0, row});
    EXPECT_EQ(cell.text, texts[row]);
    EXPECT_EQ(cell.numberOfLines, 0);
  }
}

TEST_F(UserDefaultsPageTest, RowsHaveABlueBoldKeyAndARegularValue) {
  const auto text = Screen::rowText("configurationURL", KVRValue("https://c.example/x"));
  EXPECT_EQ(text.runs(),
            (std::vector<TextRun>{
                {"configurationURL", FontWeight::Bold, 12, TextColor::SystemBlue},
                {" = https://c.example/x", FontWeight::Regular, 12, TextColor::Label}}));
  KVRParameters nested{{"k", 1}};
  EXPECT_EQ(Screen::rowText("d", KVRValue(nested)).plainText(), "d = " + describe(nested));
}

TEST_F(UserDefaultsPageTest, RowsAreNotSelectableButCanBeCopied) {
  defaults_->setObject("v", "k");
  Screen screen;
  screen.viewWillAppear(false);
  screen.tableView().userTapRow({0, 0});
  EXPECT_TRUE(screen.tableView().indexPathsForSelectedRows().empty());
  auto actions = screen.tableView().userLongPressRow({0, 0});
  ASSERT_EQ(actions.size(), 1u);
  EXPECT_EQ(actions[0].systemImageName, "doc.on.doc");
  actions[0].handler();
  EXPECT_EQ(ui::Pasteboard::general().string(), "k = v");
}

TEST_F(UserDefaultsPageTest, ReadsTheDefaultsAgainWhenItAppears) {
  Screen screen;
  screen.viewWillAppear(false);
  EXPECT_EQ(screen.tableView().numberOfRowsInSection(0), 0u);
  screen.viewDidDisappear(false);
  defaults_->setObject("v", "k");
  screen.viewWillAppear(false);
  EXPECT_EQ(screen.tableView().numberOfRowsInSection(0), 1u);

  // A store of its own instead of the shared one.
  auto own = std::make_shared<KVNUserDefaults>(env_.documentsDirectory() + "/own.json");
  own->setObject(1, "x");
  own->setObject(2, "y");
  Screen mine(own);
  mine.viewWillAppear(false);
  EXPECT_EQ(mine.sortedKeys(), (std::vector<std::string>{"x", "y"}));
}

}  // namespace
}  // namespace korvel
