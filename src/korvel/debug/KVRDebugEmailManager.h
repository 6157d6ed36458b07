// Composes an e-mail about one tag attempt: a subject naming the tag, a
// plain-text body of its metadata, a "debug.txt" attachment of collected
// debug lines and, when they exist on disk, the attempt's audio and
// signature files (see KVRDebugDataPersister).
//
// Subject:
//   "Korvel matched tag debug data (<tag id>)"   track id and tag id
//   "Track Key <track id>"                        track id, no tag id
//   "Korvel no match debug data (<tag id>)"       no track id ("(null)" when
//                                                 there is no tag id either)
// Body, in this order (note the blank before the first two colons):
//   "Track Key : <track id>\n" "Album Art URL : <url>\n"   when a track id
//   "App Version: <short version>\n" "Bundle Version: <build>\n"
//   "Tag ID: <tag id>\n" "Tag Time: <date>\n"               when a tag id
// Missing values read "(null)"; dates are described with describeDate().
// Attachments: "debug.txt" (text/plain, every debug string followed by
// "\n"), "<U>.caf" (audio/x-caf) and "<U>.sig" (application/octet-stream).
//
// When no mail can be sent, an "Error" alert ("You need to set up an email
// account", one "OK" button) is presented instead.
//
// Main thread only. Made through make() so the composer can hold the manager
// weakly as its delegate; the presenting screen is held weakly too.
#pragma once

#include <korvel/export.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <korvel/debug/MailComposer.h>
#include <korvel/ui/UI.h>

namespace korvel {

class KVRTagResultInfo;

class KORVEL_EXPORT KVRDebugEmailManager final : public MailComposeDelegate,
                                   public std::enable_shared_from_this<KVRDebugEmailManager> {
 public:
  static std::shared_ptr<KVRDebugEmailManager> make(
      std::shared_ptr<const KVRTagResultInfo> tagResult,
      std::weak_ptr<ui::Presenter> delegate);

  // Lines for the "debug.txt" attachment; empty at creation.
  std::vector<std::string>& debugStrings() { return debugStrings_; }
  const std::shared_ptr<const KVRTagResultInfo>& tagResult() const { return tagResult_; }
  std::shared_ptr<ui::Presenter> delegate() const { return delegate_.lock(); }
  // The composer of the last emailDebugInfo(), if it could make one.
  const std::shared_ptr<MailComposer>& mailController() const { return mailController_; }

  // Makes a new composer, fills it and asks the delegate to present it; or
  // presents the error alert when mail cannot be sent.
  void emailDebugInfo();

  // The steps of composing, each applied to mailController().
  void addMessageTitle();
  void addMessageMetadata();
  void addMessageDebugAttachment();
  void addMessageAudio();
  void addMessageSignature();

  // Dismisses the composer; the result is not looked at.
  void mailComposeControllerDidFinish(MailComposer& composer,
                                      MailComposeResult result,
                                      const std::optional<std::string>& error) override;

  static std::string subjectForTagResult(const KVRTagResultInfo* tagResult);
  static std::string bodyForTagResult(const KVRTagResultInfo* tagResult);

 private:
  KVRDebugEmailManager(std::shared_ptr<const KVRTagResultInfo> tagResult,
                       std::weak_ptr<ui::Presenter> delegate)
      : tagResult_(std::move(tagResult)), delegate_(std::move(delegate)) {}

  void addFileAttachment(std::string_view extension, const char* mimeType);

  std::vector<std::string> debugStrings_;
  std::shared_ptr<const KVRTagResultInfo> tagResult_;
  std::weak_ptr<ui::Presenter> delegate_;
  std::shared_ptr<MailComposer> mailController_;
};

}  // namespace korvel
