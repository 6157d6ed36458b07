// The overlay's fonts and its styled-text drawing.
//
// Each ImGui context gets its own FontSet: the regular and bold faces of
// DejaVu Sans (always on a Debian desktop) at every size of
// kFontPointSizes. Where DejaVu is missing, every slot holds ImGui's
// built-in font, which has a single weight and size; bold runs are then told
// apart by a brighter colour instead of a heavier face.
#pragma once

#include <korvel/export.h>

#include <array>

#include <korvel/overlay/StyledTextLayout.h>
#include <korvel/ui/StyledText.h>

struct ImFont;

namespace korvel::overlay {

class KORVEL_EXPORT FontSet {
 public:
  // Adds the fonts to the current ImGui context's atlas (before its texture
  // is built) and makes this set the context's (io.UserData). The set must
  // outlive the context.
  void loadIntoCurrentContext();

  // The set of the current context.
  static const FontSet& current();

  ImFont* font(FontFace face, size_t sizeIndex) const;
  // Titles and buttons.
  ImFont* chromeFont() const { return font(FontFace::Bold, kChromeSizeIndex); }
  bool hasBoldFace() const { return hasBoldFace_; }
  // Widths and line heights as the fonts draw them.
  TextMetrics metrics() const;

 private:
  std::array<std::array<ImFont*, kFontSizeCount>, 2> fonts_{};
  bool hasBoldFace_ = false;
};

// What a bold run in the label colour is drawn in when there is no bold face.
inline constexpr uint32_t kBoldFallbackColor = packColor(255, 214, 120);

// Lays text out at the cursor, wrapped to wrapWidth, draws it and moves the
// cursor below it. Honours the style's alpha (a dimmed overlay dims its text).
KORVEL_EXPORT void drawStyledText(const ui::StyledText& text, float wrapWidth);
// The same for a layout made earlier with FontSet::current().metrics().
KORVEL_EXPORT void drawTextLayout(const TextLayout& layout);

}  // namespace korvel::overlay
