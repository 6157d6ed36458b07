// Composing and sending e-mail.
//
// MailComposer is the screen a user reviews a message in before sending it:
// the caller fills in subject, body and attachments, sets a delegate, and
// presents it through a Presenter (platform/UI.h); the user then sends or
// cancels (send() / cancel(), called by the host's adaptor of the screen),
// and the delegate hears the result.
//
// Which composer is made, and whether mail can be sent at all, is decided by
// the process-wide MailComposerFactory; hosts and tests replace it.
//
// The Linux implementation, MimeMailComposer, turns the message into an
// RFC 5322 / MIME multipart/mixed message (a text part, then one base64 part
// per attachment, CRLF line endings, base64 lines of 76 characters) and hands
// it to its MailTransport: a sendmail-compatible command that reads the
// message on its standard input, or an outbox folder that receives one .eml
// file per message. Without a transport no mail can be sent.
//
// Main thread only, like the rest of the user interface.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/Data.h>
#include <korvel/ui/UI.h>

namespace korvel {

enum class MailComposeResult { Cancelled, Saved, Sent, Failed };

class MailComposer;

class KORVEL_EXPORT MailComposeDelegate {
 public:
  virtual ~MailComposeDelegate() = default;
  // The user is done with the composer; error says why delivery failed.
  virtual void mailComposeControllerDidFinish(MailComposer& composer, MailComposeResult result,
                                              const std::optional<std::string>& error) = 0;
};

struct KORVEL_EXPORT MailAttachment {
  Data data;
  std::string mimeType;
  std::string fileName;
  friend bool operator==(const MailAttachment&, const MailAttachment&) = default;
};

class KORVEL_EXPORT MailComposer : public ui::ViewController {
 public:
  const std::string& subject() const { return subject_; }
  void setSubject(std::string subject) { subject_ = std::move(subject); }

  const std::vector<std::string>& toRecipients() const { return toRecipients_; }
  void setToRecipients(std::vector<std::string> recipients) {
    toRecipients_ = std::move(recipients);
  }

  const std::string& messageBody() const { return body_; }
  bool isHTML() const { return isHTML_; }
  void setMessageBody(std::string body, bool isHTML) {
    body_ = std::move(body);
    isHTML_ = isHTML;
  }

  // Attachments are kept in the order they were added.
  void addAttachmentData(Data data, std::string mimeType, std::string fileName);
  const std::vector<MailAttachment>& attachments() const { return attachments_; }

  // Held weakly.
  std::shared_ptr<MailComposeDelegate> mailComposeDelegate() const { return delegate_.lock(); }
  void setMailComposeDelegate(std::weak_ptr<MailComposeDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  ui::ModalPresentationStyle modalPresentationStyle() const { return presentationStyle_; }
  void setModalPresentationStyle(ui::ModalPresentationStyle style) { presentationStyle_ = style; }

  // The user's actions on the presented composer. send() delivers the
  // message and tells the delegate Sent, or Failed with the reason;
  // cancel() tells it Cancelled. Either may be used once: later calls do
  // nothing.
  void send();
  void cancel();
  bool isFinished() const { return finished_; }

 protected:
  // Hands the message over for delivery; the reason when that failed.
  virtual std::optional<std::string> deliver() = 0;

 private:
  void finish(MailComposeResult result, const std::optional<std::string>& error);

  std::string subject_;
  std::vector<std::string> toRecipients_;
  std::string body_;
  bool isHTML_ = false;
  std::vector<MailAttachment> attachments_;
  std::weak_ptr<MailComposeDelegate> delegate_;
  ui::ModalPresentationStyle presentationStyle_ = ui::ModalPresentationStyle::Automatic;
  bool finished_ = false;
};

class KORVEL_EXPORT MailComposerFactory {
 public:
  virtual ~MailComposerFactory() = default;
  // Whether a composer made now could send mail.
  virtual bool canSendMail() = 0;
  virtual std::shared_ptr<MailComposer> makeComposer() = 0;
};

// The factory in force: the one last set, else a MimeMailComposerFactory
// without transport (so canSendMail() is false until the host sets one).
KORVEL_EXPORT std::shared_ptr<MailComposerFactory> mailComposerFactory();
// Installs a factory; null restores the default.
KORVEL_EXPORT void setMailComposerFactory(std::shared_ptr<MailComposerFactory> factory);

// ---------------------------------------------------------------------------
// Linux: MIME messages handed to a transport

struct KORVEL_EXPORT MailTransport {
  enum class Kind { None, Command, Outbox };

  Kind kind = Kind::None;
  // Kind::Command: the program and its arguments (no shell), for instance
  // {"/usr/sbin/sendmail", "-t", "-i"}; it reads the message on its standard
  // input and must exit with status 0.
  std::vector<std::string> command;
  // Kind::Command: how long the command may take before it is killed and
  // the delivery counts as failed.
  double commandTimeoutSeconds = 30;
  // Kind::Outbox: the folder (made when missing) that receives one
  // "<time>-<uuid>.eml" file per message, written under a temporary name
  // first so a reader never sees half a message.
  std::filesystem::path outboxDirectory;
  // The From header; left out when empty (sendmail adds the user's own).
  std::string from;
  // Added to every message's To header after the composer's recipients.
  std::vector<std::string> defaultRecipients;

  static MailTransport none() { return {}; }
  static MailTransport sendmailCommand(std::vector<std::string> command);
  static MailTransport outbox(std::filesystem::path directory);

  // Whether the transport is set up: a command whose program exists and is
  // executable (looked up in PATH when it has no "/"), or an outbox folder
  // that exists or can be made (its path is not taken by a file).
  bool isUsable() const;
};

class KORVEL_EXPORT MimeMailComposer : public MailComposer {
 public:
  explicit MimeMailComposer(MailTransport transport) : transport_(std::move(transport)) {}

  // The message as deliver() would hand it over now: headers (Date,
  // Message-ID, From and To when known, Subject, MIME-Version, Content-Type
  // multipart/mixed) and the parts.
  std::string mimeMessage() const;
  const MailTransport& transport() const { return transport_; }

 protected:
  std::optional<std::string> deliver() override;

 private:
  MailTransport transport_;
};

class KORVEL_EXPORT MimeMailComposerFactory : public MailComposerFactory {
 public:
  explicit MimeMailComposerFactory(MailTransport transport = MailTransport::none())
      : transport_(std::move(transport)) {}
  bool canSendMail() override { return transport_.isUsable(); }
  std::shared_ptr<MailComposer> makeComposer() override {
    return std::make_shared<MimeMailComposer>(transport_);
  }

 private:
  MailTransport transport_;
};

// Building blocks of the message, exposed for the transports and tests.
namespace mime {

// Base64 of bytes, in lines of at most lineLength characters joined by CRLF
// (no line break after the last line); lineLength 0 gives one line.
KORVEL_EXPORT std::string base64(std::span<const uint8_t> bytes, size_t lineLength = 76);
// A header value safe to write after "Name: ": printable ASCII as it is
// (line breaks and other control characters become spaces), anything else
// as RFC 2047 UTF-8 encoded words folded onto continuation lines.
KORVEL_EXPORT std::string encodeHeaderText(std::string_view text);
// The Content-Disposition / Content-Type parameter for a file name:
// name="text" for plain ASCII, name*=UTF-8''percent-encoded (RFC 2231)
// otherwise.
KORVEL_EXPORT std::string fileNameParameter(std::string_view parameter, std::string_view fileName);
// An RFC 5322 date ("Tue, 14 Nov 2023 22:13:20 +0000") of an instant, UTC.
KORVEL_EXPORT std::string rfc5322Date(double secondsSince1970);

}  // namespace mime

}  // namespace korvel
