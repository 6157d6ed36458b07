#include <korvel/ui/RichText.h>

#include <korvel/foundation/internal/UTF8.h>

#include <algorithm>
#include <cstdint>
#include <vector>

using korvel::foundation::internal::utf8CharacterAt;
using korvel::foundation::internal::UTF8Character;

namespace korvel::ui {

namespace {

void appendUnicodeEscape(std::string& out, uint16_t unit) {
  // \uN takes a signed 16-bit decimal.
  out += "\\u" + std::to_string(static_cast<int16_t>(unit)) + "?";
}

void appendEscaped(std::string& out, const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const UTF8Character character = utf8CharacterAt(text, i);
    const char32_t cp = character.codePoint;
    i += character.length;
    switch (cp) {
      case '\\': out += "\\\\"; break;
      case '{': out += "\\{"; break;
      case '}': out += "\\}"; break;
      case '\n': out += "\\line\n"; break;
      case '\r': break;  // part of a CRLF; the LF makes the break
      case '\t': out += "\\tab "; break;
      default:
        if (cp < 0x20) break;  // other controls have no place in a document
        if (cp < 0x80) {
          out += static_cast<char>(cp);
        } else if (cp < 0x10000) {
          appendUnicodeEscape(out, static_cast<uint16_t>(cp));
        } else {
          const char32_t v = cp - 0x10000;
          appendUnicodeEscape(out, static_cast<uint16_t>(0xD800 + (v >> 10)));
          appendUnicodeEscape(out, static_cast<uint16_t>(0xDC00 + (v & 0x3FF)));
        }
    }
  }
}

std::string halfPoints(double pointSize) {
  const double clamped = std::clamp(pointSize, 1.0, 1000.0);
  return std::to_string(static_cast<long>(clamped * 2 + 0.5));
}

}  // namespace

RGB8 rgbOfTextColor(TextColor color) {
  switch (color) {
    case TextColor::Label: return {0, 0, 0};
    case TextColor::SystemBlue: return {0, 122, 255};
  }
  return {0, 0, 0};
}

std::string rtfFromStyledText(const StyledText& text) {
  std::vector<TextColor> colors;
  for (const auto& run : text.runs()) {
    if (std::find(colors.begin(), colors.end(), run.color) == colors.end()) {
      colors.push_back(run.color);
    }
  }
  std::string out = "{\\rtf1\\ansi\\ansicpg1252\\deff0\\uc1\n";
  out += "{\\fonttbl{\\f0\\fswiss\\fcharset0 Helvetica;}}\n";
  // Entry 0 is the reader's default colour; ours start at 1.
  out += "{\\colortbl;";
  for (TextColor color : colors) {
    const RGB8 rgb = rgbOfTextColor(color);
    out += "\\red" + std::to_string(rgb.red) + "\\green" + std::to_string(rgb.green) + "\\blue" +
           std::to_string(rgb.blue) + ";";
  }
  out += "}\n";
  for (const auto& run : text.runs()) {
    const size_t colorIndex =
        static_cast<size_t>(std::find(colors.begin(), colors.end(), run.color) - colors.begin()) +
        1;
    const bool bold = run.weight != FontWeight::Regular;
    out += "{\\f0";
    out += bold ? "\\b" : "\\b0";
    out += "\\fs" + halfPoints(run.pointSize);
    out += "\\cf" + std::to_string(colorIndex) + " ";
    appendEscaped(out, run.text);
    out += "}";
  }
  out += "}";
  return out;
}

}  // namespace korvel::ui
