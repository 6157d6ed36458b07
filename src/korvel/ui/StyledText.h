// Styled text: runs of text, each with a font weight, a point size and a
// colour. Toolkit-neutral; a renderer maps the runs to its own fonts.
#pragma once

#include <korvel/export.h>

#include <string>
#include <vector>

namespace korvel::ui {

enum class FontWeight { Regular, Semibold, Bold, Heavy };
enum class TextColor { Label, SystemBlue };

struct KORVEL_EXPORT TextRun {
  std::string text;
  FontWeight weight = FontWeight::Regular;
  double pointSize = 13;
  TextColor color = TextColor::Label;
  friend bool operator==(const TextRun&, const TextRun&) = default;
};

class KORVEL_EXPORT StyledText {
 public:
  StyledText() = default;
  StyledText(std::string text, FontWeight weight, double pointSize,
             TextColor color = TextColor::Label) {
    append(std::move(text), weight, pointSize, color);
  }

  // Adjacent runs with the same style are merged.
  StyledText& append(std::string text, FontWeight weight, double pointSize,
                     TextColor color = TextColor::Label);
  StyledText& append(const StyledText& other);

  const std::vector<TextRun>& runs() const { return runs_; }
  std::string plainText() const;
  bool empty() const { return runs_.empty(); }
  friend bool operator==(const StyledText&, const StyledText&) = default;

 private:
  std::vector<TextRun> runs_;
};

}  // namespace korvel::ui
