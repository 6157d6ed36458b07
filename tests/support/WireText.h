// Beacon parameters and word tables written as text in tests:
// params("type=nav&origin=hub"), words("a b c").
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvel::testing {

using WireParameters = std::vector<std::pair<std::string, std::string>>;

// "type=nav&origin=hub" as parameters. Items split at their first "=", so a
// value may hold "=" but not "&"; "key=" is an empty value.
inline WireParameters params(std::string_view query) {
  WireParameters items;
  while (!query.empty()) {
    const std::string_view item = query.substr(0, query.find('&'));
    const size_t equals = std::min(item.find('='), item.size());
    items.emplace_back(item.substr(0, equals), item.substr(std::min(equals + 1, item.size())));
    query.remove_prefix(std::min(item.size() + 1, query.size()));
  }
  return items;
}

// "a b c" as {"a", "b", "c"}: the words of a table, in order.
inline std::vector<std::string> words(std::string_view text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find(' ', start), text.size());
    if (end > start) out.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

inline WireParameters operator+(WireParameters head, const WireParameters& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}

}  // namespace korvel::testing
