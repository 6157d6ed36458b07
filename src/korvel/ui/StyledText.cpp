#include <korvel/ui/StyledText.h>

namespace korvel::ui {

StyledText& StyledText::append(std::string text, FontWeight weight, double pointSize,
                               TextColor color) {
  if (text.empty()) return *this;
  if (!runs_.empty()) {
    TextRun& last = runs_.back();
    if (last.weight == weight && last.pointSize == pointSize && last.color == color) {
      last.text += text;
      return *this;
    }
  }
  runs_.push_back(TextRun{std::move(text), weight, pointSize, color});
  return *this;
}

StyledText& StyledText::append(const StyledText& other) {
  for (const auto& run : other.runs_) append(run.text, run.weight, run.pointSize, run.color);
  return *this;
}

std::string StyledText::plainText() const {
  std::string out;
  for (const auto& run : runs_) out += run.text;
  return out;
}

}  // namespace korvel::ui
