#include <korvel/foundation/URLComponents.h>

#include <cstddef>

namespace korvel {

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool isAlpha(unsigned char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(unsigned char c) {
  return isDigit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}
int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c - 'a' + 10;
}

bool isUnreserved(unsigned char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isSubDelim(unsigned char c) {
  switch (c) {
    case '!': case '$': case '&': case '\'': case '(': case ')':
    case '*': case '+': case ',': case ';': case '=':
      return true;
    default:
      return false;
  }
}

// Bytes that may never appear raw in a path, query, fragment or user info.
bool isForbiddenRaw(unsigned char c) {
  if (c <= 0x20 || c >= 0x7F) return true;  // controls, space, DEL, non-ASCII
  switch (c) {
    case '"': case '<': case '>': case '\\': case '^': case '`':
    case '{': case '|': case '}':
      return true;
    default:
      return false;
  }
}

void appendEscaped(std::string& out, unsigned char c) {
  out += '%';
  out += kHexDigits[c >> 4];
  out += kHexDigits[c & 0x0F];
}

bool isEscapeAt(std::string_view text, size_t i) {
  return i + 2 < text.size() && text[i] == '%' &&
         isHexDigit(static_cast<unsigned char>(text[i + 1])) &&
         isHexDigit(static_cast<unsigned char>(text[i + 2]));
}

// Percent-encodes the bytes that are not allowed raw, keeping valid %XX
// escapes; a stray "%" becomes %25. `alsoEncode` names one more byte to
// encode (the fragment may not hold a raw "#"), or 0.
std::string encodeForbidden(std::string_view text, char alsoEncode = 0) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (isEscapeAt(text, i)) {
        out.append(text.substr(i, 3));
        i += 2;
      } else {
        out += "%25";
      }
    } else if (isForbiddenRaw(c) || (alsoEncode != 0 && text[i] == alsoEncode)) {
      appendEscaped(out, c);
    } else {
      out += text[i];
    }
  }
  return out;
}

bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !isAlpha(static_cast<unsigned char>(scheme[0]))) return false;
  for (char ch : scheme) {
    const auto c = static_cast<unsigned char>(ch);
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
  }
  return true;
}

// A registered name or IPv4 address (unreserved, sub-delims, %XX escapes),
// or a bracketed IP literal that may also hold ":".
bool isValidHost(std::string_view host) {
  std::string_view body = host;
  bool literal = false;
  if (!host.empty() && host.front() == '[') {
    if (host.size() < 2 || host.back() != ']') return false;
    body = host.substr(1, host.size() - 2);
    literal = true;
  }
  for (size_t i = 0; i < body.size(); ++i) {
    const auto c = static_cast<unsigned char>(body[i]);
    if (c == '%') {
      if (!isEscapeAt(body, i)) return false;
      i += 2;
    } else if (!isUnreserved(c) && !isSubDelim(c) && !(literal && c == ':')) {
      return false;
    }
  }
  return true;
}

std::optional<int> parsePort(std::string_view text, bool& ok) {
  ok = true;
  if (text.empty()) return std::nullopt;  // "host:" means no port
  if (text.size() > 5) {
    ok = false;
    return std::nullopt;
  }
  int port = 0;
  for (char ch : text) {
    if (!isDigit(static_cast<unsigned char>(ch))) {
      ok = false;
      return std::nullopt;
    }
    port = port * 10 + (ch - '0');
  }
  if (port > 65535) {
    ok = false;
    return std::nullopt;
  }
  return port;
}

}  // namespace

std::optional<URLComponents> URLComponents::parse(std::string_view urlString) {
  const size_t colon = urlString.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view scheme = urlString.substr(0, colon);
  if (!isValidScheme(scheme)) return std::nullopt;
  std::string_view rest = urlString.substr(colon + 1);
  if (rest.substr(0, 2) != "//") return std::nullopt;
  rest.remove_prefix(2);

  URLComponents url;
  url.scheme_ = std::string(scheme);

  // Fragment first: everything after the first "#" belongs to it.
  if (const size_t hash = rest.find('#'); hash != std::string_view::npos) {
    url.fragment_ = encodeForbidden(rest.substr(hash + 1), '#');
    rest = rest.substr(0, hash);
  }
  if (const size_t question = rest.find('?'); question != std::string_view::npos) {
    url.query_ = encodeForbidden(rest.substr(question + 1));
    rest = rest.substr(0, question);
  }
  const size_t slash = rest.find('/');
  std::string_view authority = rest.substr(0, slash);
  if (slash != std::string_view::npos) url.path_ = encodeForbidden(rest.substr(slash));

  if (const size_t at = authority.rfind('@'); at != std::string_view::npos) {
    url.userInfo_ = encodeForbidden(authority.substr(0, at)) + "@";
    authority.remove_prefix(at + 1);
  }

  std::string_view host = authority;
  std::string_view portText;
  bool hasPort = false;
  if (!authority.empty() && authority.front() == '[') {
    const size_t close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(0, close + 1);
    const std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':') return std::nullopt;
      portText = after.substr(1);
      hasPort = true;
    }
  } else if (const size_t portColon = authority.rfind(':');
             portColon != std::string_view::npos) {
    host = authority.substr(0, portColon);
    portText = authority.substr(portColon + 1);
    hasPort = true;
  }
  if (!isValidHost(host)) return std::nullopt;
  url.host_ = std::string(host);
  if (hasPort) {
    bool ok = false;
    url.port_ = parsePort(portText, ok);
    if (!ok) return std::nullopt;
  }
  return url;
}

std::vector<URLQueryItem> URLComponents::queryItems() const {
  std::vector<URLQueryItem> items;
  if (!query_ || query_->empty()) return items;
  std::string_view rest = *query_;
  while (true) {
    const size_t amp = rest.find('&');
    const std::string_view piece = rest.substr(0, amp);
    URLQueryItem item;
    if (const size_t eq = piece.find('='); eq != std::string_view::npos) {
      item.name = percentDecode(piece.substr(0, eq));
      item.value = percentDecode(piece.substr(eq + 1));
    } else {
      item.name = percentDecode(piece);
    }
    items.push_back(std::move(item));
    if (amp == std::string_view::npos) break;
    rest.remove_prefix(amp + 1);
  }
  return items;
}

void URLComponents::setQueryItems(const std::vector<URLQueryItem>& items) {
  if (items.empty()) {
    query_.reset();
    return;
  }
  std::string query;
  bool first = true;
  for (const auto& item : items) {
    if (!first) query += '&';
    first = false;
    query += percentEncodeQueryComponent(item.name);
    if (item.value) {
      query += '=';
      query += percentEncodeQueryComponent(*item.value);
    }
  }
  query_ = std::move(query);
}

void URLComponents::appendPathComponent(std::string_view component) {
  if (path_.empty() || path_.back() != '/') path_ += '/';
  for (char ch : component) {
    const auto c = static_cast<unsigned char>(ch);
    if (isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@') {
      path_ += ch;
    } else {
      appendEscaped(path_, c);
    }
  }
}

std::string URLComponents::string() const {
  std::string out;
  out.reserve(scheme_.size() + userInfo_.size() + host_.size() + path_.size() +
              (query_ ? query_->size() : 0) + (fragment_ ? fragment_->size() : 0) + 16);
  out += scheme_;
  out += "://";
  out += userInfo_;
  out += host_;
  if (port_) {
    out += ':';
    out += std::to_string(*port_);
  }
  out += path_;
  if (query_) {
    out += '?';
    out += *query_;
  }
  if (fragment_) {
    out += '#';
    out += *fragment_;
  }
  return out;
}

std::string percentEncode(std::string_view text, bool (*keep)(unsigned char)) {
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (keep(c)) {
      out += ch;
    } else {
      appendEscaped(out, c);
    }
  }
  return out;
}

std::string percentEncodeQueryComponent(std::string_view text) {
  return percentEncode(text, isUnreserved);
}

std::string percentDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (isEscapeAt(text, i)) {
      out += static_cast<char>(hexValue(static_cast<unsigned char>(text[i + 1])) * 16 +
                               hexValue(static_cast<unsigned char>(text[i + 2])));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace korvel
