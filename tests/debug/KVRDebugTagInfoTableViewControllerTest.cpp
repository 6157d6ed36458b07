#include <korvel/debug/KVRDebugTagInfoTableViewController.h>

#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/debug/KVRDebugEmailManager.h>
#include "debug/ScreenTestSupport.h"

namespace korvel {
namespace {

using Screen = KVRDebugTagInfoTableViewController;
using Row = Screen::Row;
using Section = Screen::Section;

constexpr KVRDate kTagDate{1'700'000'000};  // 2023-11-14 22:13:20 UTC

struct SyncedTagResult : testing::StubTagResult {
  std::optional<std::string> providerID;
  std::optional<std::string> providerName;
  std::optional<std::string> syncProviderID() const override { return providerID; }
  std::optional<std::string> syncProviderName() const override { return providerName; }
};

std::shared_ptr<SyncedTagResult> result(std::optional<std::string> tag,
                                        std::optional<std::string> track) {
  auto r = std::make_shared<SyncedTagResult>();
  r->tag = std::move(tag);
  r->track = std::move(track);
  return r;
}

class TagInfoTest : public testing::ScreenTest {
 protected:
  void SetUp() override {
    ScreenTest::SetUp();
    setCurrentLocaleIdentifier("de_DE");
    setCurrentTimeZoneIdentifier("UTC");
  }
  void TearDown() override {
    screen_.reset();
    ScreenTest::TearDown();
  }

  Screen& open() {
    screen_ = std::make_unique<Screen>();
    screen_->setPresenter(presenter_);
    screen_->viewWillAppear(false);
    return *screen_;
  }

  std::unique_ptr<Screen> screen_;
};

TEST_F(TagInfoTest, SectionsFollowTheResult) {
  struct Case {
    const char* what;
    std::shared_ptr<const KVRTagResultInfo> result;
    std::vector<Section> expected;
  };
  auto full = result("T1", "K1");
  full->albumArt = KVNEndpoint("https://art.example/1.jpg");
  full->when = kTagDate;
  auto bare = result(std::nullopt, "K2");
  auto noTrack = result("T3", std::nullopt);
  auto noMatch = result("T4", "NO_MATCH");
  noMatch->when = kTagDate;
  auto synced = result("T5", "K5");
  synced->providerID = "p1";
  synced->providerName = "Provider One";
  auto syncedWithoutName = result("T6", "K6");
  syncedWithoutName->providerID = "p2";
  auto nameWithoutID = result("T7", "K7");
  nameWithoutID->providerName = "orphan";

  const Case cases[] = {
      {"no result", nullptr, {}},
      {"everything",
       full,
       {{"Tag Metadata",
         {{"Tag ID", "T1"},
          {"Track ID", "K1"},
          {"Album Art URL", "https://art.example/1.jpg"},
          {"Tag Date", "14. November 2023 um 22:13:20 UTC"}}}}},
      {"no tag id, art or date",
       bare,
       {{"Tag Metadata", {{"Track ID", "K2"}, {"Album Art URL", std::nullopt}}}}},
      {"no track id",
       noTrack,
       {{"Tag Metadata",
         {{"Tag ID", "T3"}, {"Track ID", std::nullopt}, {"Album Art URL", std::nullopt}}}}},
      {"no match", noMatch, {{"Tag Metadata", {{"No Match", std::nullopt}}}}},
      {"the library's own no-match", std::make_shared<KVRNoMatchTagInfo>(kTagDate),
       {{"Tag Metadata", {{"No Match", std::nullopt}}}}},
      {"synced",
       synced,
       {{"Tag Metadata", {{"Tag ID", "T5"}, {"Track ID", "K5"}, {"Album Art URL", std::nullopt}}},
        {"Sync Metadata", {{"Provider ID", "p1"}, {"Provider Name", "Provider One"}}}}},
      {"synced without a provider name",
       syncedWithoutName,
       {{"Tag Metadata", {{"Tag ID", "T6"}, {"Track ID", "K6"}, {"Album Art URL", std::nullopt}}},
        {"Sync Metadata", {{"Provider ID", "p2"}, {"Provider Name", std::nullopt}}}}},
      {"a provider name alone is no sync",
       nameWithoutID,
       {{"Tag Metadata", {{"Tag ID", "T7"}, {"Track ID", "K7"}, {"Album Art URL", std::nullopt}}}}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Screen::sectionsForTagResult(c.result.get()), c.expected) << c.what;
  }
}

TEST_F(TagInfoTest, TheTagDateIsInTheUsersLocaleAndTimeZone) {
  auto r = result("T1", "K1");
  r->when = kTagDate;
  setCurrentTimeZoneIdentifier("Europe/Berlin");
  auto sections = Screen::sectionsForTagResult(r.get());
  EXPECT_EQ(sections[0].rows.back().value, "14. November 2023 um 23:13:20 MEZ");
  setCurrentLocaleIdentifier("en_US");
  setCurrentTimeZoneIdentifier("UTC");
  sections = Screen::sectionsForTagResult(r.get());
  const std::string english = sections[0].rows.back().value.value_or("");
  EXPECT_EQ(english.rfind("November 14, 2023", 0), 0u) << english;
  EXPECT_NE(english.find("10:13:20"), std::string::npos) << english;
}

TEST_F(TagInfoTest, TheTableShowsTitlesAndValuesAndIsRebuiltForEachResult) {
  auto& screen = open();
  EXPECT_EQ(screen.title(), "Tag Result");
  EXPECT_EQ(screen.tableView().numberOfSections(), 0u);
  EXPECT_FALSE(screen.emailButton().isEnabled()) << "nothing to e-mail yet";

  auto r = result("T1", "K1");
  r->providerID = "p1";
  screen.updateTagResult(r);
  auto& table = screen.tableView();
  ASSERT_EQ(table.numberOfSections(), 2u);
  EXPECT_EQ(std::tuple(table.titleForHeaderInSection(0), table.titleForHeaderInSection(1),
                       table.numberOfRowsInSection(0)),
            std::tuple("Tag Metadata", "Sync Metadata", 3u));
  EXPECT_EQ(std::tuple(table.cellForRow({0, 0}).text, table.cellForRow({0, 0}).detailText,
                       table.cellForRow({0, 2}).detailText),
            std::tuple("Tag ID", "T1", std::nullopt));
  EXPECT_TRUE(screen.emailButton().isEnabled());

  screen.updateTagResult(std::make_shared<KVRNoMatchTagInfo>(kTagDate));
  EXPECT_EQ(table.numberOfSections(), 1u);
  EXPECT_EQ(table.cellForRow({0, 0}).text, "No Match");
}

TEST_F(TagInfoTest, CopyPutsTheRowsValueOrItsTitleOnThePasteboard) {
  auto& screen = open();
  screen.updateTagResult(result("T1", "K1"));
  screen.tableView().userLongPressRow({0, 0}).at(0).handler();
  EXPECT_EQ(ui::Pasteboard::general().string(), "T1");
  screen.updateTagResult(result("T2", "NO_MATCH"));
  auto actions = screen.tableView().userLongPressRow({0, 0});
  ASSERT_EQ(actions.size(), 1u);
  EXPECT_EQ(actions[0].title, "Copy");
  actions[0].handler();
  EXPECT_EQ(ui::Pasteboard::general().string(), "No Match");
}

TEST_F(TagInfoTest, PlaysTheRecordingFromTheStartAndStops) {
  writeDebugFile("T1/T1-caf");
  auto& screen = open();
  EXPECT_TRUE(screen.playButton().isHidden()) << "no result, nothing to play";
  screen.updateTagResult(result("T1", "K1"));
  auto& play = screen.playButton();
  EXPECT_FALSE(play.isHidden());
  EXPECT_TRUE(play.isEnabled());
  ASSERT_EQ(audio_->paths.size(), 1u);
  EXPECT_EQ(audio_->paths[0], (debugRoot() / "T1" / "T1-caf").string());

  play.userTap();
  EXPECT_EQ(audio_->calls, (std::vector<std::string>{"seek 0", "play"}));
  EXPECT_EQ(std::tuple(screen.isPlaying(), play.title(), play.imageSystemName()),
            std::tuple(true, "Stop", "stop.fill"));

  play.userTap();
  EXPECT_EQ(audio_->calls.back(), "stop");
  EXPECT_EQ(std::tuple(screen.isPlaying(), play.title(), play.imageSystemName()),
            std::tuple(false, "Play", "play.fill"));

  play.userTap();
  EXPECT_EQ(audio_->calls, (std::vector<std::string>{"seek 0", "play", "stop", "seek 0", "play"}))
      << "always from the beginning";
  ASSERT_NE(audio_->current, nullptr);
  audio_->current->finish();
  EXPECT_EQ(play.title(), "Play") << "the end of the recording turns the button back";
  EXPECT_FALSE(screen.isPlaying());
}

TEST_F(TagInfoTest, APlayerThatCannotPlayLeavesThePlayButton) {
  writeDebugFile("T1/T1-caf");
  audio_->failPlay = true;
  auto& screen = open();
  screen.updateTagResult(result("T1", "K1"));
  screen.playButton().userTap();
  EXPECT_EQ(screen.playButton().title(), "Play");
  EXPECT_FALSE(screen.isPlaying());
  EXPECT_FALSE(env_.logs().messages().empty());
}

TEST_F(TagInfoTest, ASignatureAloneShowsTheButtonButNothingCanPlay) {
  writeDebugFile("T1/T1-sig");
  auto& screen = open();
  screen.updateTagResult(result("T1", "K1"));
  EXPECT_FALSE(screen.playButton().isHidden() || screen.playButton().isEnabled());
  EXPECT_EQ(screen.audioPlayer(), nullptr);

  screen.updateTagResult(result("T9", "K9"));
  EXPECT_TRUE(screen.playButton().isHidden()) << "no files for this one";
}

TEST_F(TagInfoTest, AnotherResultStopsThePlayingRecording) {
  writeDebugFile("T1/T1-caf");
  auto& screen = open();
  screen.updateTagResult(result("T1", "K1"));
  screen.playButton().userTap();
  screen.updateTagResult(result("T2", "K2"));
  EXPECT_EQ(audio_->calls.back(), "stop");
  EXPECT_EQ(audio_->current, nullptr) << "the old player is gone";
  EXPECT_EQ(screen.playButton().title(), "Play");
}

TEST_F(TagInfoTest, TheEmailButtonHandsTheResultToTheEmailManager) {
  auto mail = std::make_shared<testing::RecordingComposerFactory>();
  setMailComposerFactory(mail);
  auto& screen = open();
  auto r = result("T1", "K1");
  screen.updateTagResult(r);
  screen.emailButton().userTap();
  ASSERT_NE(screen.emailManager(), nullptr);
  EXPECT_EQ(screen.emailManager()->tagResult(), r);
  ASSERT_EQ(mail->made.size(), 1u);
  EXPECT_EQ(mail->made[0]->subject(), "Korvel matched tag debug data (T1)");
  ASSERT_EQ(presenter_->presented.size(), 1u);

  mail->canSend = false;
  screen.emailButton().userTap();
  ASSERT_EQ(presenter_->alerts.size(), 1u);
  EXPECT_EQ(presenter_->alerts[0].message, "You need to set up an email account");
}

TEST_F(TagInfoTest, FollowsTheDebugNotificationsPostedOnAnyThread) {
  auto& screen = open();
  auto r = result("T1", "K1");
  std::thread([&] {
    env_.notificationCenter().post(KVRDebugMessageDisplayingTagResultNotification,
                                   std::shared_ptr<const KVRTagResultInfo>(r));
  }).join();
  EXPECT_EQ(screen.tagResult(), nullptr) << "not before the main queue runs";
  pump();
  EXPECT_EQ(screen.tagResult(), r);

  env_.notificationCenter().post(KVRDebugMessageDisplayingNoMatchNotification, KVRDate{kTagDate});
  pump();
  ASSERT_NE(screen.tagResult(), nullptr);
  EXPECT_EQ(screen.tagResult()->date(), kTagDate);
  EXPECT_EQ(screen.tableView().cellForRow({0, 0}).text, "No Match");

  env_.notificationCenter().post(KVRDebugMessageDisplayingNoMatchNotification, std::string("x"));
  pump();
  ASSERT_NE(screen.tagResult(), nullptr);
  EXPECT_EQ(screen.tagResult()->date(), KVRDate{env_.now()}) << "anything but a date means now";

  env_.notificationCenter().post(KVRDebugMessageClosedMatchResultNotification);
  pump();
  EXPECT_EQ(screen.tagResult(), nullptr);
  EXPECT_EQ(screen.tableView().numberOfSections(), 0u);

  // A screen that is gone ignores what was still queued for it.
  env_.notificationCenter().post(KVRDebugMessageDisplayingTagResultNotification,
                                 std::shared_ptr<const KVRTagResultInfo>(r));
  screen_.reset();
  pump();
}

TEST_F(TagInfoTest, StartsWithTheResultTheCenterShows) {
  startCenter();
  auto r = result("T1", "K1");
  env_.notificationCenter().post(KVRDebugMessageDisplayingTagResultNotification,
                                 std::shared_ptr<const KVRTagResultInfo>(r));
  auto& screen = open();
  EXPECT_EQ(screen.tagResult(), r);
  EXPECT_EQ(screen.tableView().numberOfRowsInSection(0), 3u);
}

}  // namespace
}  // namespace korvel
