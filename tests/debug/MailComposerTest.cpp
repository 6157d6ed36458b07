#include <korvel/debug/MailComposer.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <tuple>

#include "debug/DebugTestSupport.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

using korvel::MailComposeResult;
using korvel::MailTransport;
using korvel::MimeMailComposer;

// --- An independent reader of the messages -------------------------------

std::string decodeBase64(std::string_view text) {
  static const std::string alphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    if (c == '\r' || c == '\n' || c == '=') continue;
    const auto at = alphabet.find(c);
    if (at == std::string::npos) ADD_FAILURE() << "not base64: " << int(c);
    bits = bits << 6 | static_cast<uint32_t>(at);
    if (++count == 4) {
      out += static_cast<char>(bits >> 16);
      out += static_cast<char>(bits >> 8 & 0xFF);
      out += static_cast<char>(bits & 0xFF);
      bits = 0;
      count = 0;
    }
  }
  if (count == 3) {
    out += static_cast<char>(bits >> 10);
    out += static_cast<char>(bits >> 2 & 0xFF);
  } else if (count == 2) {
    out += static_cast<char>(bits >> 4);
  }
  return out;
}

struct Part {
  std::map<std::string, std::string> headers;  // lower-case names, unfolded
  std::string body;
};

Part splitPart(std::string_view text) {
  Part part;
  const auto end = text.find("\r\n\r\n");
  std::string_view head = text.substr(0, end);
  part.body = end == std::string_view::npos ? "" : std::string(text.substr(end + 4));
  std::string last;
  while (!head.empty()) {
    const auto eol = head.find("\r\n");
    std::string line(head.substr(0, eol));
    head.remove_prefix(eol == std::string_view::npos ? head.size() : eol + 2);
    if (!line.empty() && line[0] == ' ') {  // folded
      part.headers[last] += line;
      continue;
    }
    const auto colon = line.find(':');
    last = line.substr(0, colon);
    for (auto& c : last) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    part.headers[last] = line.substr(colon + 2);
  }
  return part;
}

struct Message {
  Part top;
  std::string boundary;
  std::vector<Part> parts;
};

Message parseMessage(const std::string& text) {
  Message m;
  m.top = splitPart(text);
  const auto& type = m.top.headers["content-type"];
  const auto b = type.find("boundary=\"");
  EXPECT_EQ(type.rfind("multipart/mixed;", 0), 0u) << type;
  if (b == std::string::npos) return m;
  m.boundary = type.substr(b + 10, type.find('"', b + 10) - b - 10);
  const std::string delimiter = "\r\n--" + m.boundary;
  std::string_view body(m.top.body);
  auto at = body.find(delimiter);
  while (at != std::string_view::npos) {
    const auto start = at + delimiter.size();
    if (body.substr(start, 2) == "--") break;  // closing delimiter
    const auto next = body.find(delimiter, start);
    m.parts.push_back(splitPart(body.substr(start + 2, next - start - 2)));
    at = next;
  }
  return m;
}

// Every line break is CRLF.
bool onlyCRLF(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) return false;
    if (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n')) return false;
  }
  return true;
}

class MailComposerTest : public ::testing::Test {
 protected:
  std::filesystem::path dir() { return env_.documentsDirectory(); }

  std::shared_ptr<MimeMailComposer> composer(MailTransport transport = MailTransport::none()) {
    auto c = std::make_shared<MimeMailComposer>(std::move(transport));
    c->setSubject("Korvel matched tag debug data (T1)");
    c->setMessageBody("Track Key : K1\nApp Version: 9.9\n", false);
    c->addAttachmentData(dataFromString("a\nb\n"), "text/plain", "debug.txt");
    c->setMailComposeDelegate(finish_);
    return c;
  }

  struct Finish : MailComposeDelegate {
    void mailComposeControllerDidFinish(MailComposer&, MailComposeResult r,
                                        const std::optional<std::string>& e) override {
      results.push_back(r);
      error = e;
    }
    std::vector<MailComposeResult> results;
    std::optional<std::string> error;
  };

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
  std::shared_ptr<Finish> finish_ = std::make_shared<Finish>();
};

TEST_F(MailComposerTest, BuildsAMultipartMessageWhosePartsDecodeBack) {
  auto c = composer();
  Data audio(200'003);
  for (size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<uint8_t>(i * 31);
  c->addAttachmentData(audio, "audio/x-caf", "T1.caf");
  c->setToRecipients({"qa@example.com"});

  const std::string text = c->mimeMessage();
  EXPECT_TRUE(onlyCRLF(text));
  const auto m = parseMessage(text);
  const auto& top = m.top.headers;
  EXPECT_EQ(std::tuple(top.at("subject"), top.at("to"), top.at("mime-version"), top.at("date")),
            std::tuple("Korvel matched tag debug data (T1)", "qa@example.com", "1.0",
                       "Tue, 14 Nov 2023 22:13:20 +0000"));
  EXPECT_FALSE(m.boundary.empty());
  ASSERT_EQ(m.parts.size(), 3u);

  EXPECT_EQ(m.parts[0].headers.at("content-type"), "text/plain; charset=utf-8");
  EXPECT_EQ(m.parts[0].body, "Track Key : K1\r\nApp Version: 9.9\r\n");

  EXPECT_EQ(m.parts[1].headers.at("content-type"),
            "text/plain; charset=utf-8; name=\"debug.txt\"");
  EXPECT_EQ(m.parts[1].headers.at("content-disposition"), "attachment; filename=\"debug.txt\"");
  EXPECT_EQ(decodeBase64(m.parts[1].body), "a\nb\n");

  EXPECT_EQ(m.parts[2].headers.at("content-type"), "audio/x-caf; name=\"T1.caf\"");
  EXPECT_EQ(m.parts[2].headers.at("content-transfer-encoding"), "base64");
  const std::string decoded = decodeBase64(m.parts[2].body);
  EXPECT_EQ(Data(decoded.begin(), decoded.end()), audio);
  // 76-character lines, only the last one shorter.
  std::istringstream lines(m.parts[2].body);
  std::vector<std::string> all;
  for (std::string line; std::getline(lines, line);) all.push_back(line);
  ASSERT_GT(all.size(), 2u);
  for (size_t i = 0; i + 1 < all.size(); ++i) EXPECT_EQ(all[i].size(), 77u) << i;  // with the CR
  EXPECT_LE(all.back().size(), 76u);
}

// Text attachments are UTF-8 and say so; bytes that are not UTF-8 are not
// labelled as such, and other types carry no charset.
TEST_F(MailComposerTest, TextAttachmentsDeclareTheirCharset) {
  struct Row {
    std::string data;
    const char* mimeType;
    const char* contentType;
  };
  const std::vector<Row> rows = {
      {"caf\xC3\xA9 \xE2\x98\x95\n", "text/plain", "text/plain; charset=utf-8; name=\"f\""},
      {"", "text/plain", "text/plain; charset=utf-8; name=\"f\""},
      {"<b>x</b>", "text/html", "text/html; charset=utf-8; name=\"f\""},
      {"x", "Text/Plain", "Text/Plain; charset=utf-8; name=\"f\""},
      {"caf\xE9", "text/plain", "text/plain; name=\"f\""},  // Latin-1, not UTF-8
      {"caf\xC3\xA9", "application/octet-stream", "application/octet-stream; name=\"f\""},
      {"caf\xC3\xA9", "audio/x-caf", "audio/x-caf; name=\"f\""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.contentType);
    auto c = std::make_shared<MimeMailComposer>(MailTransport::none());
    c->addAttachmentData(dataFromString(row.data), row.mimeType, "f");
    const auto m = parseMessage(c->mimeMessage());
    ASSERT_EQ(m.parts.size(), 2u);
    EXPECT_EQ(m.parts[1].headers.at("content-type"), row.contentType);
    EXPECT_EQ(decodeBase64(m.parts[1].body), row.data);
  }
}

TEST_F(MailComposerTest, HeadersCannotBeInjectedAndNonASCIITextIsEncoded) {
  auto c = composer();
  c->setSubject("Tag T1\r\nBcc: everyone@example.com");
  c->addAttachmentData({1, 2}, "bad type\r\nX: y", "é \"x\".sig");
  const auto text = c->mimeMessage();
  const auto m = parseMessage(text);
  EXPECT_EQ(m.top.headers.count("bcc"), 0u);
  EXPECT_EQ(m.top.headers.at("subject"), "Tag T1  Bcc: everyone@example.com");
  ASSERT_EQ(m.parts.size(), 3u);
  EXPECT_EQ(m.parts[2].headers.at("content-type"),
            "application/octet-stream; name*=UTF-8''%C3%A9%20%22x%22.sig");
  EXPECT_EQ(m.parts[2].headers.count("x"), 0u);

  c->setSubject("Café ☕ " + std::string(60, 'x'));
  const auto subject = parseMessage(c->mimeMessage()).top.headers.at("subject");
  std::string decoded;
  for (size_t at = subject.find("=?UTF-8?B?"); at != std::string::npos;
       at = subject.find("=?UTF-8?B?", at + 1)) {
    const auto end = subject.find("?=", at + 10);
    decoded += decodeBase64(subject.substr(at + 10, end - at - 10));
  }
  EXPECT_EQ(decoded, "Café ☕ " + std::string(60, 'x'));
}

TEST_F(MailComposerTest, CommandTransportGetsTheMessageOnItsInput) {
  const auto out = dir() / "sent.eml";
  auto c = composer(MailTransport::sendmailCommand({"/bin/sh", "-c", "cat > \"$1\"", "sh", out}));
  EXPECT_TRUE(c->transport().isUsable());
  c->send();
  ASSERT_EQ(finish_->results, std::vector<MailComposeResult>{MailComposeResult::Sent});
  const auto m = parseMessage(testing::readText(out));
  ASSERT_EQ(m.parts.size(), 2u);
  EXPECT_EQ(decodeBase64(m.parts[1].body), "a\nb\n");

  c->send();  // a finished composer stays finished
  EXPECT_EQ(finish_->results.size(), 1u);
}

TEST_F(MailComposerTest, CommandFailuresAreReportedAndNeverKillTheHost) {
  auto failing = composer(MailTransport::sendmailCommand({"/bin/sh", "-c", "cat >/dev/null; exit 3"}));
  failing->send();
  EXPECT_EQ(finish_->results.back(), MailComposeResult::Failed);
  EXPECT_EQ(finish_->error, "the mail command exited with status 3");

  // Exits without reading a large message: the write fails, no SIGPIPE.
  auto deaf = composer(MailTransport::sendmailCommand({"/bin/sh", "-c", "exit 0"}));
  deaf->addAttachmentData(Data(4 << 20, 7), "application/octet-stream", "big.sig");
  deaf->send();
  EXPECT_EQ(finish_->results.back(), MailComposeResult::Failed);

  auto missing = composer(MailTransport::sendmailCommand({"/nonexistent/sendmail", "-t"}));
  EXPECT_FALSE(missing->transport().isUsable());
  missing->send();
  EXPECT_EQ(finish_->results.back(), MailComposeResult::Failed);

  auto transport = MailTransport::sendmailCommand({"/bin/sh", "-c", "exec sleep 10"});
  transport.commandTimeoutSeconds = 0.2;
  auto slow = composer(transport);
  slow->send();
  EXPECT_EQ(finish_->results.back(), MailComposeResult::Failed);
  EXPECT_EQ(finish_->error, "the mail command timed out");
}

TEST_F(MailComposerTest, OutboxReceivesOneCompleteFilePerMessage) {
  const auto outbox = dir() / "outbox" / "new";
  auto c = composer(MailTransport::outbox(outbox));
  EXPECT_TRUE(c->transport().isUsable());
  c->send();
  ASSERT_EQ(finish_->results, std::vector<MailComposeResult>{MailComposeResult::Sent});
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(outbox)) files.push_back(entry.path());
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].extension(), ".eml");
  EXPECT_EQ(files[0].filename().string().rfind("20231114T221320Z-", 0), 0u);
  // The folder it made is private to the user.
  EXPECT_EQ(std::filesystem::status(outbox).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_all);
  EXPECT_EQ(parseMessage(testing::readText(files[0])).parts.size(), 2u);
}

TEST_F(MailComposerTest, CanSendMailOnlyWithAUsableTransport) {
  EXPECT_FALSE(MimeMailComposerFactory().canSendMail());
  EXPECT_FALSE(mailComposerFactory()->canSendMail());
  EXPECT_TRUE(MimeMailComposerFactory(MailTransport::sendmailCommand({"sh"})).canSendMail());
  EXPECT_FALSE(MimeMailComposerFactory(MailTransport::sendmailCommand({})).canSendMail());
  { std::ofstream(dir() / "file") << "x"; }
  EXPECT_FALSE(MailTransport::outbox(dir() / "file").isUsable());
  EXPECT_FALSE(MailTransport::outbox("").isUsable());

  auto none = composer();
  none->send();
  EXPECT_EQ(finish_->results.back(), MailComposeResult::Failed);

  auto replacement = std::make_shared<testing::RecordingComposerFactory>();
  setMailComposerFactory(replacement);
  EXPECT_EQ(mailComposerFactory(), replacement);
  setMailComposerFactory(nullptr);
  EXPECT_NE(mailComposerFactory(), replacement);
}

TEST_F(MailComposerTest, CancelTellsTheDelegateOnce) {
  auto c = composer();
  c->cancel();
  c->send();
  EXPECT_EQ(finish_->results, std::vector<MailComposeResult>{MailComposeResult::Cancelled});
  EXPECT_TRUE(c->isFinished());
}

}  // namespace
}  // namespace korvel
