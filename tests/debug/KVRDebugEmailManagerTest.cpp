#include <korvel/debug/KVRDebugEmailManager.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "debug/DebugTestSupport.h"
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/platform/BundleInfo.h>
#include <korvel/foundation/KVNConfiguration.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

using korvel::MailAttachment;
using ui::ModalPresentationStyle;

class KVRDebugEmailManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KVNConfiguration::setAppShortVersion("9.9");
    platform::setMainBundleVersion("321");
    setMailComposerFactory(factory_);
  }
  void TearDown() override {
    setMailComposerFactory(nullptr);
    platform::setMainBundleVersion(std::nullopt);
  }

  static std::shared_ptr<testing::StubTagResult> result(std::optional<std::string> tag,
                                                        std::optional<std::string> track) {
    auto r = std::make_shared<testing::StubTagResult>();
    r->tag = std::move(tag);
    r->track = std::move(track);
    r->when = KVRDate{1700000000};
    r->albumArt = KVNEndpoint("https://art.example/1.jpg");
    return r;
  }

  std::shared_ptr<MailComposer> send(std::shared_ptr<KVRDebugEmailManager> manager) {
    manager->emailDebugInfo();
    return manager->mailController();
  }

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
  std::shared_ptr<testing::RecordingComposerFactory> factory_ =
      std::make_shared<testing::RecordingComposerFactory>();
  std::shared_ptr<testing::RecordingPresenter> presenter_ =
      std::make_shared<testing::RecordingPresenter>();
};

TEST_F(KVRDebugEmailManagerTest, MatchedTagSubjectAndBody) {
  auto mail = send(KVRDebugEmailManager::make(result("T1", "K1"), presenter_));
  ASSERT_TRUE(mail);
  EXPECT_EQ(mail->subject(), "Korvel matched tag debug data (T1)");
  EXPECT_EQ(mail->messageBody(),
            "Track Key : K1\n"
            "Album Art URL : https://art.example/1.jpg\n"
            "App Version: 9.9\n"
            "Bundle Version: 321\n"
            "Tag ID: T1\n"
            "Tag Time: 2023-11-14 22:13:20 +0000\n");
  EXPECT_FALSE(mail->isHTML());
}

TEST_F(KVRDebugEmailManagerTest, TrackWithoutTagAndNoMatchForms) {
  auto trackOnly = send(KVRDebugEmailManager::make(result(std::nullopt, "K1"), presenter_));
  EXPECT_EQ(trackOnly->subject(), "Track Key K1");
  EXPECT_EQ(trackOnly->messageBody().find("Tag ID"), std::string::npos);

  auto noTrack = send(KVRDebugEmailManager::make(result("T9", std::nullopt), presenter_));
  EXPECT_EQ(noTrack->subject(), "Korvel no match debug data (T9)");
  EXPECT_EQ(noTrack->messageBody(),
            "App Version: 9.9\nBundle Version: 321\nTag ID: T9\nTag Time: 2023-11-14 22:13:20 +0000\n");

  platform::setMainBundleVersion(std::nullopt);
  auto nothing = send(KVRDebugEmailManager::make(result(std::nullopt, std::nullopt), presenter_));
  EXPECT_EQ(nothing->subject(), "Korvel no match debug data ((null))");
  EXPECT_EQ(nothing->messageBody(), "App Version: 9.9\nBundle Version: (null)\n");
}

TEST_F(KVRDebugEmailManagerTest, DebugLinesAreAttachedEachFollowedByALineBreak) {
  auto empty = send(KVRDebugEmailManager::make(result("T1", "K1"), presenter_));
  ASSERT_EQ(empty->attachments().size(), 1u);  // no files on disk: no audio, no error
  EXPECT_EQ(empty->attachments()[0], (MailAttachment{{}, "text/plain", "debug.txt"}));
  EXPECT_TRUE(presenter_->alerts.empty());

  auto manager = KVRDebugEmailManager::make(result("T1", "K1"), presenter_);
  manager->debugStrings() = {"a", "b"};
  auto two = send(manager);
  EXPECT_EQ(two->attachments()[0].data, dataFromString("a\nb\n"));
}

TEST_F(KVRDebugEmailManagerTest, FilesOnDiskAreAttachedUnderDottedNames) {
  const KVRDebugDataPersister persister;
  KVNPCMBuffer pcm;
  pcm.format = {8000, 1, 16, false};
  pcm.frameLength = 1;
  pcm.frames = {1, 2};
  ASSERT_TRUE(persister.persistAudioFile(pcm, "T1"));
  ASSERT_TRUE(persister.persistSignatureData({5, 6, 7}, "T1", "sig"));

  auto mail = send(KVRDebugEmailManager::make(result("T1", "K1"), presenter_));
  ASSERT_EQ(mail->attachments().size(), 3u);
  const auto& audio = mail->attachments()[1];
  EXPECT_EQ(audio.mimeType, "audio/x-caf");
  EXPECT_EQ(audio.fileName, "T1.caf");
  EXPECT_EQ(audio.data, testing::readBytes(*KVRDebugDataPersister::debugFilePathForUniqueId("T1", "caf")));
  EXPECT_EQ(mail->attachments()[2],
            (MailAttachment{{5, 6, 7}, "application/octet-stream", "T1.sig"}));

  // Only the signature: only its attachment.
  std::filesystem::remove(*KVRDebugDataPersister::debugFilePathForUniqueId("T1", "caf"));
  auto signatureOnly = send(KVRDebugEmailManager::make(result("T1", "K1"), presenter_));
  ASSERT_EQ(signatureOnly->attachments().size(), 2u);
  EXPECT_EQ(signatureOnly->attachments()[1].fileName, "T1.sig");
}

TEST_F(KVRDebugEmailManagerTest, PresentsTheComposerAndDismissesItWhenDone) {
  auto manager = KVRDebugEmailManager::make(result("T1", "K1"), presenter_);
  auto mail = send(manager);
  ASSERT_EQ(presenter_->presented.size(), 1u);
  const auto& shown = presenter_->presented[0];
  EXPECT_EQ(std::tuple(shown.screen, shown.style, shown.animated),
            std::tuple(mail, ModalPresentationStyle::OverFullScreen, true));

  mail->send();
  EXPECT_EQ(presenter_->dismissals, 1);
  EXPECT_TRUE(presenter_->dismissedAnimated);

  presenter_->idiom = ui::UserInterfaceIdiom::Pad;
  auto onTablet = send(manager);
  EXPECT_NE(onTablet, mail);  // a new composer for every e-mail
  EXPECT_EQ(presenter_->presented.back().style, ModalPresentationStyle::Automatic);

  // A composer outliving its manager finishes without calling it.
  manager.reset();
  onTablet->cancel();
  EXPECT_EQ(presenter_->dismissals, 1);
}

TEST_F(KVRDebugEmailManagerTest, WithoutMailAnErrorAlertIsShownInstead) {
  factory_->canSend = false;
  auto manager = KVRDebugEmailManager::make(result("T1", "K1"), presenter_);
  manager->emailDebugInfo();
  EXPECT_EQ(manager->mailController(), nullptr);
  EXPECT_TRUE(factory_->made.empty());
  EXPECT_TRUE(presenter_->presented.empty());
  ASSERT_EQ(presenter_->alerts.size(), 1u);
  EXPECT_EQ(testing::alertText(presenter_->alerts[0]),
            "alert: Error: You need to set up an email account [OK:cancel]");
  EXPECT_TRUE(presenter_->alertsAnimated);
}

TEST_F(KVRDebugEmailManagerTest, RealComposerDeliversToTheOutbox) {
  const auto outbox = std::filesystem::path(env_.documentsDirectory()) / "outbox";
  setMailComposerFactory(std::make_shared<MimeMailComposerFactory>(
      MailTransport::outbox(outbox)));
  ASSERT_TRUE(KVRDebugDataPersister().persistSignatureData({1, 2, 3}, "T1", "sig"));
  auto manager = KVRDebugEmailManager::make(result("T1", "K1"), presenter_);
  manager->debugStrings() = {"caf\xC3\xA9"};
  auto mail = send(manager);
  ASSERT_TRUE(mail);
  mail->send();
  EXPECT_EQ(presenter_->dismissals, 1);
  ASSERT_EQ(std::distance(std::filesystem::directory_iterator(outbox), {}), 1);
  const auto text = testing::readText(std::filesystem::directory_iterator(outbox)->path());
  // The collected lines are UTF-8 text, and their attachment says so.
  for (const char* line : {"Subject: Korvel matched tag debug data (T1)\r\n",
                           "Content-Disposition: attachment; filename=\"T1.sig\"\r\n",
                           "Content-Type: application/octet-stream; name=\"T1.sig\"\r\n",
                           "Content-Type: text/plain; charset=utf-8; name=\"debug.txt\"\r\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

}  // namespace
}  // namespace korvel
