#include <korvel/overlay/StyledTextLayout.h>

#include <algorithm>
#include <cmath>

#include <korvel/foundation/internal/UTF8.h>

namespace korvel::overlay {

size_t fontSizeIndexForPointSize(double pointSize) {
  if (!(pointSize > 0)) return kBodySizeIndex;  // also NaN
  size_t best = 0;
  for (size_t i = 1; i < kFontSizeCount; ++i) {
    if (std::abs(kFontPointSizes[i] - pointSize) <= std::abs(kFontPointSizes[best] - pointSize)) {
      best = i;
    }
  }
  return best;
}

RunStyle styleForRun(const ui::TextRun& run) {
  RunStyle style;
  style.face = run.weight == ui::FontWeight::Regular ? FontFace::Regular : FontFace::Bold;
  style.sizeIndex = fontSizeIndexForPointSize(run.pointSize);
  style.color = run.color == ui::TextColor::SystemBlue ? kSystemBlueColor : kLabelColor;
  return style;
}

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t'; }

class LineBuilder {
 public:
  LineBuilder(float wrapWidth, const TextMetrics& metrics)
      : wrap_(wrapWidth > 0 ? wrapWidth : INFINITY), metrics_(metrics) {}

  void place(const RunStyle& style, std::string_view piece) {
    size_t i = 0;
    while (i < piece.size()) {
      // A token is a word with the spaces after it (or leading spaces alone).
      size_t end = i;
      while (end < piece.size() && !isSpace(piece[end])) ++end;
      const size_t wordEnd = end;
      while (end < piece.size() && isSpace(piece[end])) ++end;
      placeToken(style, piece.substr(i, end - i), wordEnd - i);
      i = end;
    }
  }

  void breakLine(const RunStyle& style) {
    current_.height = std::max(current_.height, metrics_.lineHeight(style));
    finishLine();
  }

  TextLayout finish() {
    if (!current_.fragments.empty()) finishLine();
    return std::move(layout_);
  }

 private:
  void placeToken(const RunStyle& style, std::string_view token, size_t wordLength) {
    const float wordWidth = metrics_.width(style, token.substr(0, wordLength));
    if (x_ > 0 && x_ + wordWidth > wrap_) finishLine();
    if (x_ == 0 && wordWidth > wrap_) {
      placeCut(style, token);
      return;
    }
    append(style, token, metrics_.width(style, token));
  }

  // A word wider than a line: as many characters per line as fit, at least
  // one, so the layout always ends.
  void placeCut(const RunStyle& style, std::string_view token) {
    size_t i = 0;
    while (i < token.size()) {
      size_t end = i;
      float width = 0;
      while (end < token.size()) {
        const size_t next = end + foundation::internal::utf8CharacterAt(token, end).length;
        const float w = metrics_.width(style, token.substr(i, next - i));
        if (end > i && x_ + w > wrap_ && !isSpace(token[end])) break;
        width = w;
        end = next;
      }
      append(style, token.substr(i, end - i), width);
      i = end;
      if (i < token.size()) finishLine();
    }
  }

  void append(const RunStyle& style, std::string_view text, float width) {
    auto& fragments = current_.fragments;
    if (!fragments.empty() && fragments.back().style == style &&
        fragments.back().x + fragments.back().width == x_) {
      fragments.back().text.append(text);
      fragments.back().width += width;
    } else {
      fragments.push_back(TextFragment{style, std::string(text), x_, width});
    }
    x_ += width;
    current_.height = std::max(current_.height, metrics_.lineHeight(style));
  }

  void finishLine() {
    current_.y = layout_.height;
    layout_.height += current_.height;
    layout_.width = std::max(layout_.width, x_);
    layout_.lines.push_back(std::move(current_));
    current_ = TextLine{};
    x_ = 0;
  }

  const float wrap_;
  const TextMetrics& metrics_;
  TextLayout layout_;
  TextLine current_;
  float x_ = 0;
};

}  // namespace

TextLayout layoutStyledText(const ui::StyledText& text, float wrapWidth,
                            const TextMetrics& metrics) {
  LineBuilder builder(wrapWidth, metrics);
  for (const auto& run : text.runs()) {
    const RunStyle style = styleForRun(run);
    std::string_view rest = run.text;
    for (;;) {
      const size_t newline = rest.find('\n');
      builder.place(style, rest.substr(0, newline));
      if (newline == std::string_view::npos) break;
      builder.breakLine(style);
      rest.remove_prefix(newline + 1);
    }
  }
  return builder.finish();
}

}  // namespace korvel::overlay
