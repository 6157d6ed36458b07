#include <korvel/debug/KVRDebugMessageCenter.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRConstants.h>
#include "debug/ScreenTestSupport.h"
#include <korvel/debug/KVRDebugLogEntry.h>
#include <korvel/debug/KVRDebugLogsDataProvider.h>
#include <korvel/debug/KVRDebugOverlayWindow.h>
#include <korvel/debug/KVRWaitingForConfigDetector.h>
#include <korvel/foundation/KVNTaggingDebugResult.h>

namespace korvel {
namespace {

namespace fs = std::filesystem;

// Records, when told, how long the log was then.
struct LogListener : KVRDebugLogsDataProviderDelegate {
  explicit LogListener(std::shared_ptr<KVRDebugLogsDataProvider> p) : provider(std::move(p)) {}
  void entryAddedToLog() override { sizesWhenTold.push_back(provider->logEntries().size()); }
  std::shared_ptr<KVRDebugLogsDataProvider> provider;
  std::vector<size_t> sizesWhenTold;
};

class KVRDebugMessageCenterTest : public testing::ScreenTest {
 protected:
  std::vector<std::shared_ptr<const KVRDebugLogEntry>> log(KVRDebugMessageCenter& center) {
    pump();
    return center.dataProvider()->logEntries();
  }

  static void sendUserEvent(const char* type) {
    KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", type}});
  }

  void post(std::string_view name, std::any object = {}) {
    env_.notificationCenter().post(name, std::move(object));
  }
};

// MARK: - Gate

TEST_F(KVRDebugMessageCenterTest, NoCenterWithoutADelegateThatAllowsIt) {
  EXPECT_EQ(KVRDebugMessageCenter::defaultCenter(), nullptr);
  EXPECT_FALSE(KVRDebugMessageCenter::isDebugCenterAllowed());
  struct Refuse : KVRDebugMessageCenterDelegate {
    bool isDebugCenterAllowed() override { return false; }
  };
  KVRDebugMessageCenter::setDebugMessageCenterDelegate(std::make_shared<Refuse>());
  EXPECT_EQ(KVRDebugMessageCenter::defaultCenter(), nullptr);
  sendUserEvent("share");
  EXPECT_FALSE(env_.notificationCenter().hasObservers(KVRDebugMessageLogOpenedURLNotification));

  auto center = startCenter();
  ASSERT_NE(center, nullptr);
  EXPECT_EQ(KVRDebugMessageCenter::defaultCenter(), center);
  EXPECT_TRUE(log(*center).empty()) << "nothing from before the center existed";
}

// MARK: - Beacon log

TEST_F(KVRDebugMessageCenterTest, SubmittedBeaconsAreAppendedOnTheMainQueueThenTheDelegateIsTold) {
  auto center = startCenter();
  auto listener = std::make_shared<LogListener>(center->dataProvider());
  center->dataProvider()->setDelegate(listener);

  sendUserEvent("share");
  sendUserEvent("play");
  EXPECT_TRUE(center->dataProvider()->logEntries().empty()) << "appends wait for the main queue";
  EXPECT_TRUE(listener->sizesWhenTold.empty());

  const auto entries = log(*center);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(listener->sizesWhenTold, (std::vector<size_t>{1, 2}));
  const auto records = submitted();
  ASSERT_EQ(records.size(), 2u);
  for (size_t i = 0; i < 2; ++i) {
    auto beacon = std::dynamic_pointer_cast<const KVRDebugLogBeaconEntry>(entries[i]);
    ASSERT_NE(beacon, nullptr);
    EXPECT_EQ(beacon->type(), KVRDebugLogEntryTypeBeacon);
    EXPECT_EQ(beacon->task(), records[i]) << "the very record that was submitted";
  }
  EXPECT_TRUE(entries[0]->attributedString().plainText().starts_with("userevent\ntype = share\n"));

  // Cleared at once, silently.
  center->dataProvider()->clearLogEntries();
  EXPECT_TRUE(center->dataProvider()->logEntries().empty());
  EXPECT_EQ(listener->sizesWhenTold.size(), 2u);

  // A delegate that went away is not called.
  listener.reset();
  sendUserEvent("share");
  EXPECT_EQ(log(*center).size(), 1u);
}

TEST_F(KVRDebugMessageCenterTest, OnlySubmittedBeaconsAndObjectsOfTheRightKindAreLogged) {
  auto center = startCenter();
  center->startDebugging();  // twice: still one observer each

  KVNConfiguration::sharedInstance().setBeaconEndpoint("");  // beacons off: nothing submitted
  sendUserEvent("share");
  post(KVRReliableNetworkingTaskCreatedNotification,
       KVRParameters{{"type", "userevent"}});  // creation is not submission
  post(KVRReliableNetworkingTaskSubmittedNotification, KVRParameters{{"type", "userevent"}});
  post(KVRReliableNetworkingTaskSubmittedNotification, std::shared_ptr<const KVRReliableNetworkingTask>());
  post(KVRReliableNetworkingTaskSubmittedNotification);
  post(KVRDebugMessageLogOpenedURLNotification, std::string("https://korvel.example"));
  post(KVRDebugMessageLogOpenedURLNotification);
  post(KVRDebugMessageLogInAppUpsellOptionsNotification, KVRValue("sku"));
  post(KVRDebugMessageLogInAppUpsellOptionsNotification, KVRURL{"https://korvel.example"});
  EXPECT_TRUE(log(*center).empty());

  KVNConfiguration::sharedInstance().setBeaconEndpoint(kEndpoint);
  sendUserEvent("share");
  post(KVRDebugMessageLogOpenedURLNotification, KVRURL{"https://korvel.example/x"});
  post(KVRDebugMessageLogInAppUpsellOptionsNotification, KVRParameters{{"sku", "gold"}});
  const auto entries = log(*center);
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0]->type(), 0);
  EXPECT_EQ(entries[1]->type(), 1);
  EXPECT_EQ(entries[1]->emailString(), "Opened URL:\nhttps://korvel.example/x\n\n\n");
  EXPECT_EQ(entries[2]->type(), 2);
  EXPECT_EQ(entries[2]->attributedString().plainText(), "In App Upsell Options\nsku = gold");
}

TEST_F(KVRDebugMessageCenterTest, StoppingRemovesTheObservers) {
  auto center = startCenter();
  auto provider = center->dataProvider();
  sendUserEvent("share");  // appended once the main queue runs
  center.reset();
  KVRDebugMessageCenter::stopDebugging();
  EXPECT_FALSE(env_.notificationCenter().hasObservers(KVRDebugMessageLogOpenedURLNotification));
  EXPECT_FALSE(env_.notificationCenter().hasObservers(KVNTaggingDebugResultContextNotification));
  sendUserEvent("play");  // no longer observed
  pump();
  EXPECT_EQ(provider->logEntries().size(), 1u);

  // A log dropped before the main queue runs its append: nothing happens.
  auto again = startCenter();
  EXPECT_NE(again->dataProvider(), provider);
  sendUserEvent("share");
  again.reset();
  KVRDebugMessageCenter::stopDebugging();
  pump();
}

TEST_F(KVRDebugMessageCenterTest, LoggedBeaconShowsTheCapturedInidOnceItExpired) {
  auto center = startCenter();
  sendUserEvent("share");
  KVNConfiguration::sharedInstance().setInid("NEW-INID");
  const auto entries = log(*center);
  ASSERT_EQ(entries.size(), 1u);
  const auto text = entries[0]->attributedString().plainText();
  EXPECT_TRUE(text.ends_with("inid = TEST-INID\nexpiredinid = 1")) << text;
  EXPECT_NE(entries[0]->emailString().find("inid = NEW-INID;"), std::string::npos);
}

TEST_F(KVRDebugMessageCenterTest, BeaconsFromManyThreadsAreAllLogged) {
  auto center = startCenter();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 50; ++i) sendUserEvent("share");
    });
  }
  // The main thread keeps pumping while the others post.
  while (!threads.empty()) {
    pump();
    threads.back().join();
    threads.pop_back();
  }
  EXPECT_EQ(log(*center).size(), 200u);
}

TEST_F(KVRDebugMessageCenterTest, StoppingWhileAnotherThreadPostsIsSafe) {
  startCenter();
  std::atomic<bool> done{false};
  std::thread poster([&] {
    while (!done) post(KVRDebugMessageLogOpenedURLNotification, KVRURL{"https://korvel.example"});
  });
  for (int i = 0; i < 20; ++i) {
    KVRDebugMessageCenter::defaultCenter()->startDebugging();
    pump();
    KVRDebugMessageCenter::stopDebugging();
  }
  done = true;
  poster.join();
  pump();
}

// MARK: - Tag results

TEST_F(KVRDebugMessageCenterTest, TracksTheTagResultOnScreen) {
  auto center = startCenter();
  EXPECT_FALSE(center->isShowingTagResult());

  auto shown = std::make_shared<testing::StubTagResult>();
  shown->tag = "T1";
  post(KVRDebugMessageDisplayingTagResultNotification,
       std::shared_ptr<const KVRTagResultInfo>(shown));
  EXPECT_EQ(center->tagResult(), shown);
  EXPECT_TRUE(center->isShowingTagResult());

  post(KVRDebugMessageClosedMatchResultNotification);
  EXPECT_EQ(center->tagResult(), nullptr);
  EXPECT_FALSE(center->isShowingTagResult());

  post(KVRDebugMessageDisplayingNoMatchNotification, KVRDate{1700000000});
  ASSERT_NE(center->tagResult(), nullptr);
  EXPECT_EQ(center->tagResult()->tagID(), "NO_MATCH-2023-11-14-221320");
  EXPECT_EQ(center->tagResult()->trackIDOrUnknown(), "NO_MATCH");
  EXPECT_TRUE(center->isShowingTagResult());

  env_.setNow(1700000100);
  post(KVRDebugMessageDisplayingNoMatchNotification, std::string("not a date"));
  EXPECT_EQ(center->tagResult()->date(), (KVRDate{1700000100}));
}

// MARK: - Tagging debug context

std::shared_ptr<KVNTaggingDebugResultContext> context(std::vector<std::string> tags,
                                                      bool withSignature) {
  auto c = std::make_shared<KVNTaggingDebugResultContext>();
  for (auto& t : tags) c->tags.push_back({std::move(t)});
  c->sessionStartDate = KVRDate{1700000000};
  auto pcm = std::make_shared<KVNPCMBuffer>();
  pcm->format = {44100, 2, 16, false};
  pcm->frameLength = 2;
  pcm->frames = {1, 2, 3, 4, 5, 6, 7, 8};
  c->audioBuffer = pcm;
  c->recognitionAttempts.resize(2);
  if (withSignature) c->recognitionAttempts[0].pickedSignature = KVNSignature{{0xAB, 0xCD}};
  c->recognitionAttempts[1].pickedSignature = KVNSignature{{0xEE}};  // only the first counts
  return c;
}

TEST_F(KVRDebugMessageCenterTest, TaggingContextSavesAudioAndSignatureUnderTheFirstTag) {
  startCenter();
  post(KVNTaggingDebugResultContextNotification,
       std::shared_ptr<const KVNTaggingDebugResultContext>(context({"T1", "T2"}, true)));
  const fs::path folder = debugRoot() / "T1";
  const auto wave = testing::parseWave(testing::readBytes(folder / "T1-caf"));
  ASSERT_TRUE(wave.valid);
  EXPECT_EQ(wave.channels, 2);
  EXPECT_EQ(wave.frameCount(), 2u);
  EXPECT_EQ(testing::readBytes(folder / "T1-sig"), (std::vector<uint8_t>{0xAB, 0xCD}));
  EXPECT_FALSE(fs::exists(debugRoot() / "T2"));

  // Without a signature in the first attempt only the audio is kept.
  post(KVNTaggingDebugResultContextNotification, context({"T3"}, false));
  EXPECT_TRUE(fs::exists(debugRoot() / "T3" / "T3-caf"));
  EXPECT_FALSE(fs::exists(debugRoot() / "T3" / "T3-sig"));

  // Something else than a context is ignored.
  post(KVNTaggingDebugResultContextNotification, std::string("T9"));
  EXPECT_FALSE(fs::exists(debugRoot() / "T9"));
}

TEST_F(KVRDebugMessageCenterTest, NoMatchContextIsNamedAfterTheSessionStartAndLogged) {
  startCenter();
  env_.logs().clear();
  post(KVNTaggingDebugResultContextNotification, context({}, true));
  const std::string id = "NO_MATCH-2023-11-14-221320";
  const fs::path folder = debugRoot() / id;
  EXPECT_TRUE(fs::exists(folder / (id + "-caf")));
  EXPECT_TRUE(fs::exists(folder / (id + "-sig")));
  EXPECT_EQ(env_.logs().messages(),
            std::vector<std::string>{"No Match unique ID during context notification: " + id});
}

// MARK: - Menu and waiting banner

TEST_F(KVRDebugMessageCenterTest, MenuShowsInAFreshOverlayAboveTheApplication) {
  auto center = startCenter();
  center->presentDebugMenu();
  auto window = center->debugWindow();
  ASSERT_NE(window, nullptr);
  EXPECT_FALSE(window->isHidden());
  EXPECT_EQ(window->windowLevel(), KVRDebugWindow::kWindowLevelNormal + 2);
  EXPECT_TRUE(window->debugMenuActive());
  EXPECT_TRUE(center->showingDebugMenu());

  center->toggleDebugViewVisibility();
  EXPECT_FALSE(center->showingDebugMenu());
  EXPECT_FALSE(window->debugMenuActive());
  EXPECT_TRUE(window->isHidden());
  EXPECT_EQ(center->debugWindow(), nullptr);

  center->toggleDebugViewVisibility();
  EXPECT_NE(center->debugWindow(), window) << "a hidden overlay is built anew";
}

TEST_F(KVRDebugMessageCenterTest, WaitingBannerFollowsTheConfigurationAndTheOverlay) {
  auto mainWindow = std::make_shared<KVRDebugWindow>();
  mainWindow->setHidden(false);
  KVRDebugWindow::setApplicationMainWindowProvider([mainWindow] { return mainWindow; });
  auto overlay = std::make_shared<KVRDebugOverlayWindow>();
  overlay->setSafeAreaTopInset(44);
  KVRDebugOverlayWindow::setFactory([overlay] { return overlay; });
  KVNConfiguration::sharedInstance().setConfigured(false);

  auto center = startCenter();
  pump();
  auto banner = center->waitingForConfigView();
  ASSERT_NE(banner, nullptr);
  EXPECT_TRUE(mainWindow->containsSubview(banner));
  EXPECT_EQ(banner->titleTopConstraint, 20) << "no inset: 20 points";

  center->presentDebugMenu();
  EXPECT_FALSE(mainWindow->containsSubview(banner));
  EXPECT_TRUE(overlay->containsSubview(banner));
  EXPECT_EQ(banner->titleTopConstraint, 44);

  env_.advanceMonotonic(1'000'000'000);
  pump();  // still waiting: the same banner stays where it is
  EXPECT_TRUE(overlay->containsSubview(banner));
  EXPECT_EQ(center->waitingForConfigView(), banner);

  center->hideDebugMenu();
  EXPECT_TRUE(mainWindow->containsSubview(banner)) << "back on the main window";
  EXPECT_FALSE(overlay->containsSubview(banner));

  KVNConfiguration::sharedInstance().setConfigured(true);
  env_.advanceMonotonic(1'000'000'000);
  pump();
  EXPECT_FALSE(mainWindow->containsSubview(banner));
  EXPECT_EQ(center->waitingForConfigView(), nullptr) << "dropped until needed again";

  // Stopping with the banner on screen takes it away.
  KVNConfiguration::sharedInstance().setConfigured(false);
  env_.advanceMonotonic(1'000'000'000);
  pump();
  ASSERT_NE(center->waitingForConfigView(), nullptr);
  center.reset();
  KVRDebugMessageCenter::stopDebugging();
  EXPECT_TRUE(mainWindow->subviews().empty());
}

}  // namespace
}  // namespace korvel
