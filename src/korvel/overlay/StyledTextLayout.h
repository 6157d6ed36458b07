// How the overlay draws styled text (ui::StyledText): which font and
// colour each run gets, and where its pieces go when lines wrap.
//
// Pure layout: widths and line heights come from a TextMetrics, so the same
// code runs against ImGui's fonts when drawing and against a fixed-width
// stand-in in tests.
#pragma once

#include <korvel/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/ui/StyledText.h>

namespace korvel::overlay {

// The overlay ships two faces (regular and bold, see Fonts.h). Semibold,
// bold and heavy runs all take the bold face: the fonts a Linux machine has
// for certain (DejaVu) come in those two weights only.
enum class FontFace { Regular, Bold };

// Point sizes the font atlas holds; a run of another size takes the nearest
// one (ties go to the larger); a size that is not a positive number takes
// the body size.
inline constexpr float kFontPointSizes[] = {10, 12, 13, 14, 17};
inline constexpr size_t kFontSizeCount = std::size(kFontPointSizes);
inline constexpr size_t kBodySizeIndex = 2;   // 13 points
inline constexpr size_t kChromeSizeIndex = 4;  // titles and buttons
// Desktop pixels per point: text sized for a phone held close reads small on
// a monitor.
inline constexpr float kPixelsPerPoint = 1.25f;

// Colours as ImGui packs them (IM_COL32: alpha in the top byte, red in the
// lowest), without needing ImGui here.
constexpr uint32_t packColor(uint32_t r, uint32_t g, uint32_t b, uint32_t a = 255) {
  return (a << 24) | (b << 16) | (g << 8) | r;
}
// The dark appearance's label colour and system blue.
inline constexpr uint32_t kLabelColor = packColor(235, 235, 245);
inline constexpr uint32_t kSystemBlueColor = packColor(10, 132, 255);

struct KORVEL_EXPORT RunStyle {
  FontFace face = FontFace::Regular;
  size_t sizeIndex = kBodySizeIndex;
  uint32_t color = kLabelColor;
  friend bool operator==(const RunStyle&, const RunStyle&) = default;
};

KORVEL_EXPORT RunStyle styleForRun(const ui::TextRun& run);
// The index into kFontPointSizes for a point size, as above.
KORVEL_EXPORT size_t fontSizeIndexForPointSize(double pointSize);

struct KORVEL_EXPORT TextFragment {
  RunStyle style;
  std::string text;
  float x = 0;
  float width = 0;
};

struct KORVEL_EXPORT TextLine {
  float y = 0;
  float height = 0;
  std::vector<TextFragment> fragments;
};

struct KORVEL_EXPORT TextLayout {
  std::vector<TextLine> lines;
  float width = 0;   // of the widest line
  float height = 0;  // of all lines
};

struct KORVEL_EXPORT TextMetrics {
  std::function<float(const RunStyle&, std::string_view)> width;
  std::function<float(const RunStyle&)> lineHeight;
};

// Lays text out in lines no wider than wrapWidth (no limit when it is not
// positive). "\n" ends a line; an empty line keeps the height of the run it
// is in, and a line break at the very end adds no empty line. Lines wrap
// between words; a word wider than a whole line is cut between characters
// (never inside a UTF-8 sequence). Pieces of the same run that end up next
// to each other on a line form one fragment.
KORVEL_EXPORT TextLayout layoutStyledText(const ui::StyledText& text, float wrapWidth,
                            const TextMetrics& metrics);

}  // namespace korvel::overlay
