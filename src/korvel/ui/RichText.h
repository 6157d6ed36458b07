// Rich Text Format (RTF 1.x) of styled text, for the "public.rtf"
// pasteboard type.
//
// Runs keep their size (\fsN, half-points) and colour (\cfN, from a colour
// table of every colour the text uses, in the order first used); weights
// from semibold up are bold. Text outside ASCII is written as \uN escapes
// (UTF-16, surrogate pairs beyond the basic plane) with "?" as the
// fallback; line breaks become \line, tabs \tab; invalid UTF-8 becomes
// U+FFFD.
#pragma once

#include <korvel/export.h>

#include <string>

#include <korvel/ui/StyledText.h>

namespace korvel::ui {

KORVEL_EXPORT std::string rtfFromStyledText(const StyledText& text);

// Red, green and blue (0-255) of the named text colours as RTF writes them.
struct KORVEL_EXPORT RGB8 {
  int red = 0;
  int green = 0;
  int blue = 0;
  friend bool operator==(const RGB8&, const RGB8&) = default;
};
KORVEL_EXPORT RGB8 rgbOfTextColor(TextColor color);

}  // namespace korvel::ui
