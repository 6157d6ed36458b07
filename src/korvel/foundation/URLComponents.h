// Absolute URLs taken apart and put back together, with RFC 3986
// percent-encoding.
//
// Query items are encoded so that every item survives as one item: in names
// and values everything but the unreserved characters (A-Z a-z 0-9 - . _ ~) is
// percent-encoded as UTF-8 bytes, so "&", "=", "+", "#", "%", spaces, line
// breaks and non-ASCII text all come back unchanged from a standard
// application/x-www-form-urlencoded parser.
#pragma once

#include <korvel/export.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

struct KORVEL_EXPORT URLQueryItem {
  std::string name;
  std::optional<std::string> value;  // "name" alone (no "=") when missing
  friend bool operator==(const URLQueryItem&, const URLQueryItem&) = default;
};

class KORVEL_EXPORT URLComponents {
 public:
  // Parses an absolute URL ("scheme://authority/path?query#fragment").
  // Characters that may not appear raw in the path or query (spaces,
  // non-ASCII bytes, ...) are percent-encoded; existing %XX escapes are kept.
  // Nothing when the text has no scheme or no authority.
  static std::optional<URLComponents> parse(std::string_view urlString);

  const std::string& scheme() const { return scheme_; }
  const std::string& host() const { return host_; }
  std::optional<int> port() const { return port_; }
  const std::string& percentEncodedPath() const { return path_; }
  std::optional<std::string> percentEncodedQuery() const { return query_; }

  // The query split at "&" and "=", each part percent-decoded.
  std::vector<URLQueryItem> queryItems() const;
  // Replaces the query; an empty list leaves no query at all.
  void setQueryItems(const std::vector<URLQueryItem>& items);

  // Appends one path component, percent-encoded so it stays one component
  // ("/" inside it becomes %2F); no doubled "/" when the path ends in one.
  void appendPathComponent(std::string_view component);

  // The absolute URL text.
  std::string string() const;

 private:
  std::string scheme_;
  std::string userInfo_;  // with its trailing "@" when present
  std::string host_;
  std::optional<int> port_;
  std::string path_;
  std::optional<std::string> query_;
  std::optional<std::string> fragment_;
};

// Percent-encodes (%XX, upper-case hex) every byte that keep() does not keep.
std::string percentEncode(std::string_view text, bool (*keep)(unsigned char));
// Percent-encodes every byte outside the unreserved set (RFC 3986 2.3).
KORVEL_EXPORT std::string percentEncodeQueryComponent(std::string_view text);
// Decodes %XX escapes (malformed escapes are kept as they are). "+" is left
// alone: it is not a space in a URL's query.
KORVEL_EXPORT std::string percentDecode(std::string_view text);

}  // namespace korvel
