// The identity of one page instance (a screen controller or a declarative
// view) on the page view manager's stack.
#pragma once

#include <korvel/export.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korvel {

// A UUID kept as its canonical upper-case text, so that two ids are equal
// exactly when they name the same UUID.
class KORVEL_EXPORT PageID {
 public:
  // A fresh random identifier from the platform.
  static PageID make();
  // An identifier the host kept itself (for instance with a restored
  // screen); nothing when the text is not a UUID. Any letter case is read.
  static std::optional<PageID> fromString(std::string_view uuidString);

  const std::string& uuidString() const { return uuid_; }

  friend bool operator==(const PageID&, const PageID&) = default;
  size_t hash() const { return std::hash<std::string>{}(uuid_); }

 private:
  explicit PageID(std::string canonical) : uuid_(std::move(canonical)) {}
  std::string uuid_;
};

}  // namespace korvel

namespace std {
template <>
struct hash<korvel::PageID> {
  size_t operator()(const korvel::PageID& id) const { return id.hash(); }
};
}  // namespace std
