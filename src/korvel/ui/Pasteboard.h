// The general pasteboard: what the user copied, in one or more
// representations keyed by type identifier ("public.utf8-plain-text",
// "public.rtf").
//
// The library only writes to it; a host mirrors it to the system clipboard
// (an ImGui renderer, for instance, hands string() to its clipboard when
// changeCount() moved). Any thread.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/Data.h>

namespace korvel::ui {

inline constexpr std::string_view kPasteboardTypePlainText = "public.utf8-plain-text";
inline constexpr std::string_view kPasteboardTypeRTF = "public.rtf";

class KORVEL_EXPORT Pasteboard {
 public:
  // One copied item: its representations by type.
  using Item = std::map<std::string, Data, std::less<>>;

  // The process-wide pasteboard.
  static Pasteboard& general();

  Pasteboard();
  ~Pasteboard();
  Pasteboard(const Pasteboard&) = delete;
  Pasteboard& operator=(const Pasteboard&) = delete;

  // Replaces the content with text (as plain text).
  void setString(std::string_view text);
  // Replaces the content with one representation.
  void setData(Data data, std::string_view type);
  // Replaces the content with one item of several representations.
  void setItem(Item item);
  void clear();

  // The plain text, when the content has one.
  std::optional<std::string> string() const;
  std::optional<Data> dataForType(std::string_view type) const;
  Item item() const;
  // Bumped by every change.
  uint64_t changeCount() const;

 private:
  // The content, its change count and their lock.
  struct Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::ui
