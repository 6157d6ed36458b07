#include <korvel/debug/KVRDebugLogViewController.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include "debug/ScreenTestSupport.h"
#include <korvel/ui/RichText.h>

namespace korvel {
namespace {

using ui::IndexPath;
using Update = ui::TableView::Update;

class BeaconLogTest : public testing::ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    provider_ = KVRDebugLogsDataProvider::make();
    screen_ = std::make_unique<KVRDebugLogViewController>(provider_);
    screen_->setPresenter(presenter_);
    screen_->loadViewIfNeeded();
    mail_ = std::make_shared<testing::RecordingComposerFactory>();
    setMailComposerFactory(mail_);
  }
  void TearDown() override {
    screen_.reset();
    ScreenTest::TearDown();
  }

  void log(const std::string& url) {
    provider_->addLogEntry(std::make_shared<KVRDebugLogURLEntry>(KVRURL{url}));
  }
  std::string rowText(size_t row) { return screen_->tableView().cellForRow({0, row}).text; }

  std::shared_ptr<KVRDebugLogsDataProvider> provider_;
  std::unique_ptr<KVRDebugLogViewController> screen_;
  std::shared_ptr<testing::RecordingComposerFactory> mail_;
};

TEST_F(BeaconLogTest, IsTheLogsDelegateAndShowsTheNewestEntryFirst) {
  EXPECT_EQ(screen_->title(), "Beacon Log");
  EXPECT_NE(provider_->delegate(), nullptr);
  screen_->setOverlayIsVisible(true);
  log("https://first.example");
  log("https://second.example");
  pump();
  ASSERT_EQ(screen_->tableView().numberOfRowsInSection(0), 2u);
  EXPECT_EQ(rowText(0), "Opened URL:\nhttps://second.example");
  EXPECT_EQ(rowText(1), "Opened URL:\nhttps://first.example");
  const auto cell = screen_->tableView().cellForRow({0, 0});
  ASSERT_TRUE(cell.attributedText.has_value());
  EXPECT_EQ(*cell.attributedText, provider_->logEntries().back()->attributedString());
  EXPECT_EQ(cell.numberOfLines, 0);
  EXPECT_EQ(screen_->entryAtRow(2), nullptr);
}

TEST_F(BeaconLogTest, InsertsAtTheTopWhileVisibleAndReloadsWhenShownAgain) {
  screen_->setOverlayIsVisible(true);
  auto& table = screen_->tableView();
  const size_t reloads = table.reloadCount();
  log("https://a.example");
  pump();
  const auto& update = table.lastUpdate();
  EXPECT_EQ(std::tuple(update.kind, update.indexPaths, update.animation),
            std::tuple(Update::Kind::Insert, std::vector<IndexPath>{IndexPath{0, 0}},
                       ui::TableRowAnimation::Automatic));
  EXPECT_EQ(table.reloadCount(), reloads) << "an insertion, not a reload";
  EXPECT_EQ(table.numberOfRowsInSection(0), 1u);

  screen_->setOverlayIsVisible(false);
  const auto version = table.version();
  log("https://b.example");
  log("https://c.example");
  pump();
  EXPECT_EQ(table.version(), version) << "nothing is done while hidden";
  EXPECT_EQ(table.numberOfRowsInSection(0), 1u);

  screen_->setOverlayIsVisible(true);
  EXPECT_EQ(table.lastUpdate().kind, Update::Kind::Reload);
  EXPECT_EQ(table.numberOfRowsInSection(0), 3u);
  EXPECT_EQ(rowText(0), "Opened URL:\nhttps://c.example");
}

TEST_F(BeaconLogTest, SubmittedBeaconsReachTheScreenThroughTheCenter) {
  auto center = startCenter();
  KVRDebugLogViewController screen(center->dataProvider());
  screen.loadViewIfNeeded();
  screen.setOverlayIsVisible(true);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "share"}});
  pump();
  ASSERT_EQ(screen.tableView().numberOfRowsInSection(0), 1u);
  EXPECT_NE(screen.tableView().cellForRow({0, 0}).text.find("type = share"), std::string::npos);
}

TEST_F(BeaconLogTest, CopyPutsTheRowsStyledTextOnThePasteboardAsRichText) {
  log("https://a.example");
  log("https://b.example");
  pump();
  screen_->setOverlayIsVisible(true);
  auto actions = screen_->tableView().userLongPressRow({0, 1});
  ASSERT_EQ(actions.size(), 1u);
  EXPECT_EQ(actions[0].title, "Copy");
  actions[0].handler();

  const auto& entry = *provider_->logEntries().front();  // row 1 is the older entry
  const auto rtf = ui::Pasteboard::general().dataForType("public.rtf");
  ASSERT_TRUE(rtf.has_value());
  EXPECT_EQ(std::string(rtf->begin(), rtf->end()),
            ui::rtfFromStyledText(entry.attributedString()));
  EXPECT_EQ(ui::Pasteboard::general().string(), "Opened URL:\nhttps://a.example");
}

TEST_F(BeaconLogTest, EmailsTheWholeLogOldestFirst) {
  log("https://a.example");
  log("https://b.example");
  pump();
  screen_->emailButton().userTap();
  ASSERT_EQ(mail_->made.size(), 1u);
  const auto& composer = *mail_->made[0];
  EXPECT_EQ(std::tuple(composer.subject(), composer.messageBody(), composer.isHTML()),
            std::tuple("Beacons Log",
                       "Opened URL:\nhttps://a.example\n\n\nOpened URL:\nhttps://b.example\n\n\n",
                       false));
  ASSERT_EQ(presenter_->presented.size(), 1u);
  const auto& shown = presenter_->presented[0];
  EXPECT_EQ(std::tuple(shown.screen, shown.animated), std::tuple(mail_->made[0], true));
  EXPECT_NE(shown.style, ui::ModalPresentationStyle::FormSheet)
      << "a phone shows the composer its own way";

  mail_->made[0]->send();
  EXPECT_EQ(presenter_->dismissals, 1) << "the finished composer is dismissed";
}

TEST_F(BeaconLogTest, EmailIsAFormSheetOnLargeScreensAndNothingWithoutMail) {
  presenter_->idiom = ui::UserInterfaceIdiom::Pad;
  screen_->emailButton().userTap();
  ASSERT_EQ(presenter_->presented.size(), 1u);
  EXPECT_EQ(presenter_->presented[0].style, ui::ModalPresentationStyle::FormSheet);
  EXPECT_EQ(mail_->made[0]->messageBody(), "") << "an empty log sends an empty body";

  mail_->canSend = false;
  screen_->emailButton().userTap();
  EXPECT_EQ(mail_->made.size(), 1u);
  EXPECT_EQ(presenter_->presented.size(), 1u);
  EXPECT_TRUE(presenter_->alerts.empty());
}

TEST_F(BeaconLogTest, ClearEmptiesTheLogAndTheTable) {
  screen_->setOverlayIsVisible(true);
  log("https://a.example");
  pump();
  screen_->clearButton().userTap();
  EXPECT_TRUE(provider_->logEntries().empty());
  EXPECT_EQ(screen_->tableView().numberOfRowsInSection(0), 0u);
  EXPECT_EQ(screen_->tableView().lastUpdate().kind, Update::Kind::Reload);

  // Entries after the screen is gone are still logged.
  screen_.reset();
  log("https://a.example");
  pump();
  EXPECT_EQ(provider_->logEntries().size(), 1u);
}

}  // namespace
}  // namespace korvel
