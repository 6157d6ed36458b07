// The two decisions the ImGui overlay makes itself: which layer a mouse event
// belongs to, and how styled text becomes fonts, colours and lines. The rest
// of what it draws comes from the overlay's screens, tested on their own.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include <korvel/overlay/ImGuiPresenter.h>
#include <korvel/overlay/MouseRouting.h>
#include <korvel/overlay/StyledTextLayout.h>

namespace korvel::overlay {
namespace {

using ui::FontWeight;
using ui::StyledText;
using ui::TextColor;

// --- Mouse routing ------------------------------------------------------------

struct Step {
  MouseEventKind kind;
  int button;
  bool hit;    // the overlay's hit test finds a view at the pointer
  bool popup;  // the overlay holds a popup open
  MouseLayer expected;
};

constexpr auto App = MouseLayer::Application;
constexpr auto Overlay = MouseLayer::Overlay;
constexpr auto Motion = MouseEventKind::Motion;
constexpr auto Down = MouseEventKind::ButtonDown;
constexpr auto Up = MouseEventKind::ButtonUp;
constexpr auto Wheel = MouseEventKind::Wheel;

TEST(MouseRouterTest, RoutesEachEventToOneLayer) {
  struct Case {
    const char* what;
    std::vector<Step> steps;
  };
  const Case cases[] = {
      {"empty overlay area: the application gets the click",
       {{Motion, -1, false, false, App}, {Down, 0, false, false, App}, {Up, 0, false, false, App}}},
      {"a view of the overlay takes the click",
       {{Motion, -1, true, false, Overlay}, {Down, 0, true, false, Overlay},
        {Up, 0, true, false, Overlay}}},
      {"an open popup takes everything, wherever the pointer is",
       {{Motion, -1, false, true, Overlay}, {Down, 1, false, true, Overlay},
        {Wheel, -1, false, true, Overlay}}},
      {"a drag that began in the application stays there over the overlay",
       {{Down, 0, false, false, App}, {Motion, -1, true, false, App}, {Wheel, -1, true, false, App},
        {Up, 0, true, false, App}, {Motion, -1, true, false, Overlay}}},
      {"a drag that began in the overlay stays there when it leaves",
       {{Down, 0, true, false, Overlay}, {Motion, -1, false, false, Overlay},
        {Up, 0, false, false, Overlay}, {Motion, -1, false, false, App}}},
      {"the capture lasts until the last button is up",
       {{Down, 0, true, false, Overlay}, {Down, 1, false, false, Overlay},
        {Up, 0, false, false, Overlay}, {Motion, -1, false, false, Overlay},
        {Up, 1, false, false, Overlay}, {Motion, -1, false, false, App}}},
      {"a release nobody saw pressed follows the point",
       {{Up, 0, true, false, Overlay}, {Up, 0, false, false, App}, {Motion, -1, false, false, App}}},
      {"buttons without a number capture nothing",
       {{Down, -1, true, false, Overlay}, {Motion, -1, false, false, App},
        {Down, 40, true, false, Overlay}, {Motion, -1, false, false, App}}},
      {"the popup closing while the application holds a press does not steal it",
       {{Down, 0, false, false, App}, {Motion, -1, false, true, App}, {Up, 0, false, true, App},
        {Motion, -1, false, true, Overlay}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    MouseRouter router;
    for (size_t i = 0; i < c.steps.size(); ++i) {
      const Step& s = c.steps[i];
      MouseEventContext context;
      context.overlayHitsPoint = s.hit;
      context.overlayPopupWantsMouse = s.popup;
      EXPECT_EQ(router.route(s.kind, s.button, context), s.expected) << "step " << i;
    }
  }
}

TEST(MouseRouterTest, ResetDropsACapture) {
  MouseRouter router;
  router.route(Down, 0, MouseEventContext{true, false});
  ASSERT_TRUE(router.hasCapture());
  EXPECT_EQ(router.captureLayer(), Overlay);
  router.reset();
  EXPECT_FALSE(router.hasCapture());
  EXPECT_EQ(router.route(Motion, -1, MouseEventContext{false, false}), App);
}

// --- Styled text: runs to fonts and colours -------------------------------------

TEST(StyledTextStyleTest, WeightsTakeTheRegularOrTheBoldFace) {
  const std::pair<FontWeight, FontFace> cases[] = {
      {FontWeight::Regular, FontFace::Regular},
      {FontWeight::Semibold, FontFace::Bold},
      {FontWeight::Bold, FontFace::Bold},
      {FontWeight::Heavy, FontFace::Bold},
  };
  for (const auto& [weight, face] : cases) {
    EXPECT_EQ(styleForRun({"x", weight, 13, TextColor::Label}).face, face)
        << static_cast<int>(weight);
  }
}

TEST(StyledTextStyleTest, SizesSnapToTheNearestFontOfTheAtlas) {
  // kFontPointSizes: 10, 12, 13, 14, 17.
  const double inf = std::numeric_limits<double>::infinity();
  const struct {
    double points;
    float expected;
  } cases[] = {
      {10, 10},     {12, 12},     {13, 13},   {14, 14},   {17, 17},
      {1, 10},      {9.9, 10},    {11, 12},    // a tie goes to the larger size
      {12.4, 12},   {12.5, 13},   {15, 14},   {15.5, 17}, {16, 17},
      {1e9, 17},    {inf, 17},
      {0, 13},      {-1, 13},     {-inf, 13}, {NAN, 13},  // not a size: body text
  };
  for (const auto& c : cases) {
    const size_t index = fontSizeIndexForPointSize(c.points);
    ASSERT_LT(index, kFontSizeCount) << c.points;
    EXPECT_EQ(kFontPointSizes[index], c.expected) << c.points;
  }
}

TEST(StyledTextStyleTest, ColoursFollowTheRun) {
  EXPECT_EQ(styleForRun({"k", FontWeight::Bold, 12, TextColor::SystemBlue}).color,
            kSystemBlueColor);
  EXPECT_EQ(styleForRun({"v", FontWeight::Regular, 12, TextColor::Label}).color, kLabelColor);
  EXPECT_NE(kSystemBlueColor, kLabelColor);
  // ImGui's packing: red in the lowest byte, alpha in the highest.
  EXPECT_EQ(packColor(1, 2, 3, 4), 0x04030201u);
}

// --- Styled text: lines ----------------------------------------------------------

// Ten units per character (not per byte), lines as high as their point size.
TextMetrics fixedMetrics() {
  return TextMetrics{[](const RunStyle&, std::string_view text) {
                       float characters = 0;
                       for (unsigned char c : text) characters += (c & 0xC0) != 0x80 ? 1 : 0;
                       return characters * 10;
                     },
                     [](const RunStyle& style) { return kFontPointSizes[style.sizeIndex]; }};
}

std::vector<std::string> lineTexts(const TextLayout& layout) {
  std::vector<std::string> lines;
  for (const auto& line : layout.lines) {
    std::string text;
    for (const auto& fragment : line.fragments) text += fragment.text;
    lines.push_back(text);
  }
  return lines;
}

TEST(StyledTextLayoutTest, ABeaconEntryKeepsItsLinesAndHeights) {
  StyledText text;
  text.append("userevent\n", FontWeight::Heavy, 14);
  text.append("type", FontWeight::Semibold, 13);
  text.append(" = share\n", FontWeight::Regular, 13);
  text.append("\n", FontWeight::Regular, 13);
  text.append("inid", FontWeight::Semibold, 10);
  text.append(" = X\n", FontWeight::Regular, 10);
  const auto layout = layoutStyledText(text, 0, fixedMetrics());

  EXPECT_EQ(lineTexts(layout),
            (std::vector<std::string>{"userevent", "type = share", "", "inid = X"}));
  ASSERT_EQ(layout.lines.size(), 4u);
  const float heights[] = {14, 13, 13, 10};
  float y = 0;
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(layout.lines[i].height, heights[i]) << "line " << i;
    EXPECT_EQ(layout.lines[i].y, y) << "line " << i;
    y += heights[i];
  }
  EXPECT_EQ(layout.height, y);
  EXPECT_EQ(layout.width, 120);  // "type = share"

  // The key and the rest of its line are two fragments side by side.
  const auto& keyLine = layout.lines[1].fragments;
  ASSERT_EQ(keyLine.size(), 2u);
  EXPECT_EQ(std::tuple(keyLine[0].style.face, keyLine[1].x, keyLine[1].style.face),
            std::tuple(FontFace::Bold, 40.0f, FontFace::Regular));
}

TEST(StyledTextLayoutTest, RunsThatLookAlikeShareAFragment) {
  StyledText text;
  text.append("ab", FontWeight::Semibold, 13);
  text.append("cd", FontWeight::Bold, 13);  // the same face at the same size
  const auto layout = layoutStyledText(text, 0, fixedMetrics());
  ASSERT_EQ(layout.lines.size(), 1u);
  ASSERT_EQ(layout.lines[0].fragments.size(), 1u);
  EXPECT_EQ(layout.lines[0].fragments[0].text, "abcd");
  EXPECT_EQ(layout.lines[0].fragments[0].width, 40);
}

TEST(StyledTextLayoutTest, LinesWrapBetweenWordsAndCutWordsTooLongForALine) {
  struct Case {
    const char* text;
    float wrap;
    std::vector<std::string> lines;
  };
  const Case cases[] = {
      {"aaa bbb ccc", 75, {"aaa bbb ", "ccc"}},
      {"aaa bbb ccc", 110, {"aaa bbb ccc"}},
      {"aaa bbb ccc", 0, {"aaa bbb ccc"}},    // no limit
      {"aaa bbb ccc", -5, {"aaa bbb ccc"}},   // no limit
      {"abcdefghij", 35, {"abc", "def", "ghi", "j"}},
      {"ab abcdefgh", 35, {"ab ", "abc", "def", "gh"}},
      {"\xC3\xA9\xC3\xA9\xC3\xA9", 15, {"\xC3\xA9", "\xC3\xA9", "\xC3\xA9"}},  // never half a character
      {"abc", 1, {"a", "b", "c"}},  // narrower than a character: one per line
      {"a\n\nb", 100, {"a", "", "b"}},
      {"a\n", 100, {"a"}},
      {"", 100, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.text) + " in " + std::to_string(c.wrap));
    const auto layout =
        layoutStyledText(StyledText(c.text, FontWeight::Regular, 13), c.wrap, fixedMetrics());
    EXPECT_EQ(lineTexts(layout), c.lines);
    if (c.lines.empty()) {
      EXPECT_EQ(layout.height, 0);
    }
    if (c.wrap > 10) {
      for (const auto& line : layout.lines) {
        for (const auto& f : line.fragments) {
          // Trailing spaces may hang over the edge; letters may not.
          const std::string letters = f.text.substr(0, f.text.find_last_not_of(' ') + 1);
          EXPECT_LE(f.x + fixedMetrics().width(f.style, letters), c.wrap) << f.text;
        }
      }
    }
  }
}

// --- The compose dialog's To field ----------------------------------------------

TEST(SplitRecipientsTest, SplitsOnCommasSemicolonsAndSpaces) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"", {}},
      {"  , ;", {}},
      {"dev@example.com", {"dev@example.com"}},
      {"a@x.org, b@y.org", {"a@x.org", "b@y.org"}},
      {"a@x.org;b@y.org  c@z.org,", {"a@x.org", "b@y.org", "c@z.org"}},
      {"\ta@x.org\t", {"a@x.org"}},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(splitRecipients(text), expected) << "\"" << text << "\"";
  }
}

}  // namespace
}  // namespace korvel::overlay
