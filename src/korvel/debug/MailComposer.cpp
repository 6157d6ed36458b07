#include <korvel/debug/MailComposer.h>

#include <fcntl.h>
#include <openssl/evp.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unicode/utf8.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <thread>

#include <korvel/foundation/internal/SharedSlot.h>
#include <korvel/foundation/URLComponents.h>
#include <korvel/foundation/internal/UTF8.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Files.h>

using korvel::platform::createPrivateDirectories;
using korvel::platform::env;
using korvel::foundation::internal::isWellFormedUTF8;
using korvel::platform::writeFileReplacing;

extern char** environ;

namespace korvel {

// ---------------------------------------------------------------------------
// MailComposer

void MailComposer::addAttachmentData(Data data, std::string mimeType, std::string fileName) {
  attachments_.push_back(MailAttachment{std::move(data), std::move(mimeType), std::move(fileName)});
}

void MailComposer::send() {
  if (finished_) return;
  finished_ = true;
  const auto error = deliver();
  finish(error ? MailComposeResult::Failed : MailComposeResult::Sent, error);
}

void MailComposer::cancel() {
  if (finished_) return;
  finished_ = true;
  finish(MailComposeResult::Cancelled, std::nullopt);
}

void MailComposer::finish(MailComposeResult result, const std::optional<std::string>& error) {
  // The delegate usually dismisses this composer, which may destroy it:
  // nothing here touches a member after the call.
  if (auto delegate = mailComposeDelegate()) {
    delegate->mailComposeControllerDidFinish(*this, result, error);
  }
}

// ---------------------------------------------------------------------------
// The process-wide factory

namespace {

foundation::internal::SharedSlot<MailComposerFactory>& factorySlot() {
  static auto* slot = new foundation::internal::SharedSlot<MailComposerFactory>;
  return *slot;
}

}  // namespace

std::shared_ptr<MailComposerFactory> mailComposerFactory() {
  return factorySlot().loadOrMake([] { return std::make_shared<MimeMailComposerFactory>(); });
}

void setMailComposerFactory(std::shared_ptr<MailComposerFactory> factory) {
  factorySlot().store(std::move(factory));
}

// ---------------------------------------------------------------------------
// MIME building blocks

namespace mime {

std::string base64(std::span<const uint8_t> bytes, size_t lineLength) {
  // EVP_EncodeBlock turns every 3 input bytes into 4 characters, so a line
  // of lineLength characters is lineLength / 4 * 3 input bytes.
  const size_t charsPerLine = lineLength == 0 ? 0 : std::max<size_t>(4, lineLength / 4 * 4);
  const size_t bytesPerLine = charsPerLine == 0 ? bytes.size() : charsPerLine / 4 * 3;
  std::string out;
  if (bytes.empty()) return out;
  const size_t lines = bytesPerLine == 0 ? 1 : (bytes.size() + bytesPerLine - 1) / bytesPerLine;
  out.reserve((bytes.size() + 2) / 3 * 4 + lines * 2);
  std::string line;
  for (size_t at = 0; at < bytes.size(); at += bytesPerLine) {
    const size_t n = std::min(bytesPerLine, bytes.size() - at);
    line.resize((n + 2) / 3 * 4 + 1);
    const int written = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(line.data()),
                                        bytes.data() + at, static_cast<int>(n));
    if (at != 0) out += "\r\n";
    out.append(line.data(), static_cast<size_t>(std::max(written, 0)));
  }
  return out;
}

namespace {

bool isPrintableASCII(unsigned char c) { return c >= 0x20 && c <= 0x7E; }

std::string controlsToSpaces(std::string_view text) {
  std::string out(text);
  for (char& ch : out) {
    const auto c = static_cast<unsigned char>(ch);
    if (c < 0x20 || c == 0x7F) ch = ' ';
  }
  return out;
}

// Longest header value written as it is; longer ones are folded as encoded
// words (a header line may not exceed 998 characters).
constexpr size_t kMaxPlainHeaderText = 900;
// Input bytes per encoded word: 45 bytes are 60 base64 characters, and with
// "=?UTF-8?B?" and "?=" the word stays within the 75 characters allowed.
constexpr size_t kEncodedWordBytes = 45;

}  // namespace

std::string encodeHeaderText(std::string_view text) {
  const std::string cleaned = controlsToSpaces(text);
  bool plain = cleaned.size() <= kMaxPlainHeaderText;
  for (const char ch : cleaned) {
    if (!isPrintableASCII(static_cast<unsigned char>(ch))) plain = false;
  }
  if (plain) return cleaned;

  std::string out;
  size_t at = 0;
  while (at < cleaned.size()) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(cleaned.data()) + at;
    size_t end = std::min(at + kEncodedWordBytes, cleaned.size());
    if (end < cleaned.size()) {
      // Never split a character: a word that would end inside one ends
      // before it (and always holds at least one byte).
      auto length = static_cast<int32_t>(end - at);
      U8_TRUNCATE_IF_INCOMPLETE(bytes, 0, length);
      if (length > 0) end = at + static_cast<size_t>(length);
    }
    if (!out.empty()) out += "\r\n ";
    out += "=?UTF-8?B?" + base64(std::span<const uint8_t>(bytes, end - at), 0) + "?=";
    at = end;
  }
  return out;
}

std::string fileNameParameter(std::string_view parameter, std::string_view fileName) {
  bool plain = true;
  for (const char ch : fileName) {
    const auto c = static_cast<unsigned char>(ch);
    if (!isPrintableASCII(c) || c == '"' || c == '\\') plain = false;
  }
  if (plain) return std::string(parameter) + "=\"" + std::string(fileName) + "\"";
  // RFC 2231 / 5987: attr-char stays, everything else is %XX.
  const auto isAttrChar = [](unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           (c != 0 && std::strchr("!#$&+-.^_`|~", c) != nullptr);
  };
  return std::string(parameter) + "*=UTF-8''" + percentEncode(fileName, isAttrChar);
}

std::string rfc5322Date(double secondsSince1970) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto t = static_cast<time_t>(secondsSince1970);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d +0000", kDays[tm.tm_wday % 7],
                tm.tm_mday, kMonths[tm.tm_mon % 12], tm.tm_year + 1900, tm.tm_hour, tm.tm_min,
                tm.tm_sec);
  return buf;
}

}  // namespace mime

// ---------------------------------------------------------------------------
// MimeMailComposer

namespace {

bool isToken(std::string_view s) {
  if (s.empty()) return false;
  for (const char ch : s) {
    const auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c >= 0x7F || std::strchr("()<>@,;:\\\"/[]?=", c) != nullptr) return false;
  }
  return true;
}

// "type/subtype" made of MIME tokens; anything else is sent as bytes.
std::string safeMimeType(std::string_view type) {
  const auto slash = type.find('/');
  if (slash != std::string_view::npos && isToken(type.substr(0, slash)) &&
      isToken(type.substr(slash + 1))) {
    return std::string(type);
  }
  return "application/octet-stream";
}

// A text attachment's Content-Type names its charset: UTF-8 when its bytes
// are, none otherwise (the reader then guesses, as it would anyway).
std::string attachmentContentType(const MailAttachment& attachment) {
  std::string type = safeMimeType(attachment.mimeType);
  const bool isText = type.size() > 5 && strncasecmp(type.c_str(), "text/", 5) == 0;
  if (isText && isWellFormedUTF8(std::string_view(
                    reinterpret_cast<const char*>(attachment.data.data()), attachment.data.size()))) {
    type += "; charset=utf-8";
  }
  return type;
}

// Lines end in CRLF, whatever they ended in before.
std::string withCRLF(std::string_view text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\r') {
      out += "\r\n";
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else if (c == '\n') {
      out += "\r\n";
    } else {
      out += c;
    }
  }
  return out;
}

// How the text part travels: as it is when it fits SMTP's line limit and has
// no NUL, as base64 otherwise.
std::string bodyTransferEncoding(std::string_view text) {
  bool eightBit = false;
  size_t lineLength = 0;
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == 0) return "base64";
    if (c >= 0x80) eightBit = true;
    if (c == '\n' || c == '\r') {
      lineLength = 0;
    } else if (++lineLength > 998) {
      return "base64";
    }
  }
  return eightBit ? "8bit" : "7bit";
}

std::string joinAddresses(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  std::string out;
  for (const auto* list : {&a, &b}) {
    for (const auto& address : *list) {
      if (address.empty()) continue;
      if (!out.empty()) out += ", ";
      out += mime::encodeHeaderText(address);
    }
  }
  return out;
}

std::string messageIDDomain() {
  // The bundle identifier is a dot-atom in practice; anything else is not
  // used as a domain.
  const auto bundle = env().mainBundleIdentifier();
  if (bundle && !bundle->empty() && bundle->front() != '.' && bundle->back() != '.') {
    bool ok = true;
    for (const char c : *bundle) {
      if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-') ok = false;
    }
    if (ok) return *bundle;
  }
  return "localhost";
}

}  // namespace

std::string MimeMailComposer::mimeMessage() const {
  const std::string bodyEncoding = bodyTransferEncoding(messageBody());
  const std::string body = bodyEncoding == "base64"
                               ? mime::base64(dataFromString(messageBody()))
                               : withCRLF(messageBody());
  std::string boundary;
  do {
    boundary = "=_KVR_" + env().makeUUIDString();
  } while (body.find(boundary) != std::string::npos);

  std::string m;
  m += "Date: " + mime::rfc5322Date(env().now()) + "\r\n";
  m += "Message-ID: <" + env().makeUUIDString() + "@" + messageIDDomain() + ">\r\n";
  if (!transport_.from.empty()) m += "From: " + mime::encodeHeaderText(transport_.from) + "\r\n";
  const std::string to = joinAddresses(toRecipients(), transport_.defaultRecipients);
  if (!to.empty()) m += "To: " + to + "\r\n";
  m += "Subject: " + mime::encodeHeaderText(subject()) + "\r\n";
  m += "MIME-Version: 1.0\r\n";
  m += "Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\r\n";
  m += "\r\n";
  m += "This is a multi-part message in MIME format.\r\n";

  m += "\r\n--" + boundary + "\r\n";
  m += std::string("Content-Type: ") + (isHTML() ? "text/html" : "text/plain") +
       "; charset=utf-8\r\n";
  m += "Content-Transfer-Encoding: " + bodyEncoding + "\r\n";
  m += "\r\n";
  m += body;

  for (const auto& attachment : attachments()) {
    m += "\r\n--" + boundary + "\r\n";
    m += "Content-Type: " + attachmentContentType(attachment) + "; " +
         mime::fileNameParameter("name", attachment.fileName) + "\r\n";
    m += "Content-Disposition: attachment; " +
         mime::fileNameParameter("filename", attachment.fileName) + "\r\n";
    m += "Content-Transfer-Encoding: base64\r\n";
    m += "\r\n";
    m += mime::base64(attachment.data);
  }
  m += "\r\n--" + boundary + "--\r\n";
  return m;
}

namespace {

std::string errnoText(const char* what, int error) {
  return std::string(what) + ": " + std::strerror(error);
}

// Runs command with message on its standard input; the reason when it failed.
std::optional<std::string> runCommand(const std::vector<std::string>& command,
                                      const std::string& message, double timeoutSeconds) {
  if (command.empty()) return "no mail command is set";
  // A socket, not a pipe, carries the message: MSG_NOSIGNAL keeps a command
  // that exits without reading from raising SIGPIPE in the host.
  int sockets[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) {
    return errnoText("socketpair", errno);
  }
  const int ours = sockets[0];
  const int theirs = sockets[1];

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs, STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);

  std::vector<char*> argv;
  argv.reserve(command.size() + 1);
  for (const auto& arg : command) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = -1;
  const bool hasSlash = command.front().find('/') != std::string::npos;
  const int spawned = hasSlash
                          ? posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ)
                          : posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(theirs);
  if (spawned != 0) {
    ::close(ours);
    return errnoText(("cannot run " + command.front()).c_str(), spawned);
  }

  using Clock = std::chrono::steady_clock;
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(std::max(0.0, timeoutSeconds)));
  auto millisLeft = [&] {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<int64_t>(0, left.count()));
  };

  std::optional<std::string> failure;
  size_t sent = 0;
  while (sent < message.size() && !failure) {
    pollfd pfd{ours, POLLOUT, 0};
    const int ready = ::poll(&pfd, 1, millisLeft());
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      failure = ready == 0 ? std::string("the mail command timed out") : errnoText("poll", errno);
      break;
    }
    const ssize_t n = ::send(ours, message.data() + sent, message.size() - sent, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      failure = errnoText("the mail command did not take the message", errno);
      break;
    }
    sent += static_cast<size_t>(n);
  }
  ::close(ours);

  int status = 0;
  for (;;) {
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) return errnoText("waitpid", errno);
    if (Clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
      }
      return "the mail command timed out";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (failure) return failure;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return std::nullopt;
  if (WIFEXITED(status)) {
    return "the mail command exited with status " + std::to_string(WEXITSTATUS(status));
  }
  return "the mail command was ended by signal " + std::to_string(WTERMSIG(status));
}

std::optional<std::string> writeToOutbox(const std::filesystem::path& directory,
                                         const std::string& message) {
  std::error_code ec;
  createPrivateDirectories(directory, ec);
  if (ec) return "cannot make the outbox folder: " + ec.message();
  const auto t = static_cast<time_t>(env().now());
  std::tm tm{};
  gmtime_r(&t, &tm);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &tm);
  const std::string name = std::string(stamp) + "-" + env().makeUUIDString() + ".eml";
  const auto temporary = directory / ("." + name + ".tmp");
  if (!writeFileReplacing(temporary, dataFromString(message), ec)) {
    return "cannot write to the outbox: " + ec.message();
  }
  std::filesystem::rename(temporary, directory / name, ec);
  if (ec) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    return "cannot write to the outbox: " + ec.message();
  }
  return std::nullopt;
}

bool isExecutableFile(const std::filesystem::path& path) {
  struct stat st{};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::optional<std::string> MimeMailComposer::deliver() {
  switch (transport_.kind) {
    case MailTransport::Kind::None: return "no mail transport is set up";
    case MailTransport::Kind::Command:
      return runCommand(transport_.command, mimeMessage(), transport_.commandTimeoutSeconds);
    case MailTransport::Kind::Outbox: return writeToOutbox(transport_.outboxDirectory, mimeMessage());
  }
  return "unknown mail transport";
}

MailTransport MailTransport::sendmailCommand(std::vector<std::string> command) {
  MailTransport t;
  t.kind = Kind::Command;
  t.command = std::move(command);
  return t;
}

MailTransport MailTransport::outbox(std::filesystem::path directory) {
  MailTransport t;
  t.kind = Kind::Outbox;
  t.outboxDirectory = std::move(directory);
  return t;
}

bool MailTransport::isUsable() const {
  switch (kind) {
    case Kind::None: return false;
    case Kind::Command: {
      if (command.empty() || command.front().empty()) return false;
      const std::string& program = command.front();
      if (program.find('/') != std::string::npos) return isExecutableFile(program);
      const char* path = std::getenv("PATH");
      std::string_view dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
      while (!dirs.empty()) {
        const auto colon = dirs.find(':');
        const std::string_view dir = dirs.substr(0, colon);
        if (isExecutableFile(std::filesystem::path(dir.empty() ? "." : dir) / program)) return true;
        if (colon == std::string_view::npos) break;
        dirs.remove_prefix(colon + 1);
      }
      return false;
    }
    case Kind::Outbox: {
      if (outboxDirectory.empty()) return false;
      std::error_code ec;
      const auto status = std::filesystem::status(outboxDirectory, ec);
      if (status.type() == std::filesystem::file_type::not_found) return true;
      return std::filesystem::is_directory(status);
    }
  }
  return false;
}

}  // namespace korvel
