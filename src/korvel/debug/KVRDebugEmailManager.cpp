#include <korvel/debug/KVRDebugEmailManager.h>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/debug/KVRDebugDataPersister.h>
#include <korvel/platform/BundleInfo.h>
#include <korvel/platform/Files.h>
#include <korvel/reporters/KVRTaggingReporter.h>

namespace korvel {

namespace {

constexpr const char* kMissingText = "(null)";
constexpr const char* kAudioMimeType = "audio/x-caf";
constexpr const char* kSignatureMimeType = "application/octet-stream";

std::string orMissing(const std::optional<std::string>& text) {
  return text.value_or(kMissingText);
}

}  // namespace

std::shared_ptr<KVRDebugEmailManager> KVRDebugEmailManager::make(
    std::shared_ptr<const KVRTagResultInfo> tagResult, std::weak_ptr<ui::Presenter> delegate) {
  return std::shared_ptr<KVRDebugEmailManager>(
      new KVRDebugEmailManager(std::move(tagResult), std::move(delegate)));
}

std::string KVRDebugEmailManager::subjectForTagResult(const KVRTagResultInfo* tagResult) {
  const auto trackID = tagResult ? tagResult->trackIDOrUnknown() : std::nullopt;
  const auto tagID = tagResult ? tagResult->tagID() : std::nullopt;
  if (trackID && tagID) return "Korvel matched tag debug data (" + *tagID + ")";
  if (trackID) return "Track Key " + *trackID;
  return "Korvel no match debug data (" + orMissing(tagID) + ")";
}

std::string KVRDebugEmailManager::bodyForTagResult(const KVRTagResultInfo* tagResult) {
  std::string body;
  const auto trackID = tagResult ? tagResult->trackIDOrUnknown() : std::nullopt;
  if (trackID) {
    const auto albumArt = tagResult->albumArtEndpoint();
    body += "Track Key : " + *trackID + "\n";
    body += "Album Art URL : " + (albumArt ? albumArt->urlString() : kMissingText) + "\n";
  }
  body += "App Version: " + platform::mainBundleShortVersionString() + "\n";
  body += "Bundle Version: " + orMissing(platform::mainBundleVersion()) + "\n";
  const auto tagID = tagResult ? tagResult->tagID() : std::nullopt;
  if (tagID) {
    const auto date = tagResult->date();
    body += "Tag ID: " + *tagID + "\n";
    body += "Tag Time: " + (date ? describeDate(*date) : kMissingText) + "\n";
  }
  return body;
}

void KVRDebugEmailManager::emailDebugInfo() {
  auto presenter = delegate();
  auto factory = mailComposerFactory();
  mailController_ = factory->canSendMail() ? factory->makeComposer() : nullptr;
  if (!mailController_) {
    ui::Alert alert;
    alert.title = "Error";
    alert.message = "You need to set up an email account";
    alert.preferredStyle = ui::AlertStyle::Alert;
    alert.actions.push_back({"OK", ui::AlertActionStyle::Cancel, nullptr});
    if (presenter) presenter->presentAlert(std::move(alert), true, nullptr);
    return;
  }
  addMessageTitle();
  addMessageMetadata();
  addMessageDebugAttachment();
  if (tagResult_ && KVRDebugDataPersister::audioFileExistsForTagResultInfo(*tagResult_)) {
    addMessageAudio();
  }
  if (tagResult_ && KVRDebugDataPersister::signatureFileExistsForTagResultInfo(*tagResult_)) {
    addMessageSignature();
  }
  if (!presenter || presenter->userInterfaceIdiom() != ui::UserInterfaceIdiom::Pad) {
    mailController_->setModalPresentationStyle(ui::ModalPresentationStyle::OverFullScreen);
  }
  if (presenter) {
    presenter->presentViewController(mailController_, mailController_->modalPresentationStyle(),
                                     true, nullptr);
  }
}

void KVRDebugEmailManager::addMessageTitle() {
  if (mailController_) mailController_->setSubject(subjectForTagResult(tagResult_.get()));
}

void KVRDebugEmailManager::addMessageMetadata() {
  if (mailController_) mailController_->setMessageBody(bodyForTagResult(tagResult_.get()), false);
}

void KVRDebugEmailManager::addMessageDebugAttachment() {
  if (!mailController_) return;
  std::string text;
  for (const auto& line : debugStrings_) {
    text += line;
    text += '\n';
  }
  mailController_->addAttachmentData(dataFromString(text), "text/plain", "debug.txt");
  mailController_->setMailComposeDelegate(weak_from_this());
}

void KVRDebugEmailManager::addFileAttachment(std::string_view extension, const char* mimeType) {
  if (!mailController_ || !tagResult_) return;
  const auto tagID = tagResult_->tagID();
  if (!tagID) return;
  const auto path = KVRDebugDataPersister::debugFilePathForUniqueId(*tagID, extension);
  if (!path) return;
  // "<U>-caf" is attached as "<U>.caf".
  std::string name = path->filename().string();
  name.resize(name.size() >= 4 ? name.size() - 4 : 0);
  name += '.';
  name += extension;
  auto data = platform::readFileContents(*path);
  if (!data) return;
  mailController_->addAttachmentData(std::move(*data), mimeType, std::move(name));
}

void KVRDebugEmailManager::addMessageAudio() {
  addFileAttachment(KVRDebugDataPersister::kAudioExtension, kAudioMimeType);
}

void KVRDebugEmailManager::addMessageSignature() {
  addFileAttachment(KVRDebugDataPersister::kSignatureExtension, kSignatureMimeType);
}

void KVRDebugEmailManager::mailComposeControllerDidFinish(MailComposer&,
                                                          MailComposeResult,
                                                          const std::optional<std::string>&) {
  if (auto presenter = delegate()) presenter->dismissViewController(true, nullptr);
}

}  // namespace korvel
