// A query read as a beacon server reads it (application/x-www-form-urlencoded):
// items split at "&", name and value at the first "=", "+" is a space and
// %XX a byte. Written apart from the library's own percent-decoding, so the
// collector and the tests read the wire as an independent server would.
// Header-only: the test support uses it without linking the collector.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvel::tools {

// Decodes %XX escapes (a malformed escape stays as it is, and its text is
// added to *malformed when given) and, in a query, "+" as a space; a path
// component keeps its "+".
inline std::string formDecode(std::string_view text, bool plusIsSpace = true,
                              std::vector<std::string>* malformed = nullptr) {
  const auto hexValue = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size() && hexValue(text[i + 1]) >= 0 &&
        hexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
      i += 2;
    } else {
      if (c == '%' && malformed) malformed->emplace_back(text.substr(i, 3));
      out += (plusIsSpace && c == '+') ? ' ' : c;
    }
  }
  return out;
}

// The query's items, decoded and in order ("name" alone has an empty value;
// empty items are skipped).
inline std::vector<std::pair<std::string, std::string>> formDecodeQuery(
    std::string_view query, std::vector<std::string>* malformed = nullptr) {
  std::vector<std::pair<std::string, std::string>> items;
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    if (!item.empty()) {
      const size_t eq = item.find('=');
      items.emplace_back(formDecode(item.substr(0, eq), true, malformed),
                         eq == std::string_view::npos
                             ? std::string()
                             : formDecode(item.substr(eq + 1), true, malformed));
    }
    if (amp == std::string_view::npos) break;
    query.remove_prefix(amp + 1);
  }
  return items;
}

}  // namespace korvel::tools
