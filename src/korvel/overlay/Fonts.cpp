#include <korvel/overlay/Fonts.h>

#include <imgui.h>

#include <filesystem>

namespace korvel::overlay {
namespace {

constexpr const char* kRegularFaces[] = {
    "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
    "/usr/share/fonts/dejavu/DejaVuSans.ttf",
};
constexpr const char* kBoldFaces[] = {
    "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf",
    "/usr/share/fonts/dejavu/DejaVuSans-Bold.ttf",
};

// Latin text plus the punctuation, arrows and symbols the debug screens'
// titles use. ImGui keeps a pointer: the table lives for the process.
constexpr ImWchar kGlyphRanges[] = {
    0x0020, 0x00FF,  // Basic Latin, Latin-1
    0x0100, 0x017F,  // Latin Extended-A
    0x2000, 0x206F,  // General Punctuation
    0x2190, 0x21FF,  // Arrows
    0x25A0, 0x25FF,  // Geometric Shapes (play and stop)
    0x2600, 0x26FF,  // Miscellaneous Symbols
    0x2700, 0x27BF,  // Dingbats
    0,
};

const char* firstExisting(const char* const* candidates, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidates[i], ec)) return candidates[i];
  }
  return nullptr;
}

}  // namespace

void FontSet::loadIntoCurrentContext() {
  ImGuiIO& io = ImGui::GetIO();
  const char* regular = firstExisting(kRegularFaces, std::size(kRegularFaces));
  const char* bold = firstExisting(kBoldFaces, std::size(kBoldFaces));
  ImFont* fallback = nullptr;
  for (size_t face = 0; face < 2; ++face) {
    const char* path = face == 0 ? regular : bold;
    for (size_t size = 0; size < kFontSizeCount; ++size) {
      ImFont* font = nullptr;
      if (path != nullptr) {
        font = io.Fonts->AddFontFromFileTTF(path, kFontPointSizes[size] * kPixelsPerPoint,
                                            nullptr, kGlyphRanges);
      }
      if (font == nullptr) {
        if (fallback == nullptr) fallback = io.Fonts->AddFontDefault();
        font = fallback;
      }
      fonts_[face][size] = font;
    }
  }
  hasBoldFace_ = bold != nullptr && fonts_[1][0] != fallback;
  io.FontDefault = fonts_[0][kBodySizeIndex];
  io.UserData = this;
}

const FontSet& FontSet::current() { return *static_cast<const FontSet*>(ImGui::GetIO().UserData); }

ImFont* FontSet::font(FontFace face, size_t sizeIndex) const {
  return fonts_[face == FontFace::Bold ? 1 : 0][std::min(sizeIndex, kFontSizeCount - 1)];
}

TextMetrics FontSet::metrics() const {
  return TextMetrics{
      [this](const RunStyle& style, std::string_view text) {
        ImFont* f = font(style.face, style.sizeIndex);
        return f->CalcTextSizeA(f->FontSize, FLT_MAX, 0, text.data(), text.data() + text.size()).x;
      },
      [this](const RunStyle& style) { return font(style.face, style.sizeIndex)->FontSize; }};
}

void drawTextLayout(const TextLayout& layout) {
  const FontSet& fonts = FontSet::current();
  const ImVec2 origin = ImGui::GetCursorScreenPos();
  ImDrawList* drawList = ImGui::GetWindowDrawList();
  for (const auto& line : layout.lines) {
    for (const auto& fragment : line.fragments) {
      ImFont* font = fonts.font(fragment.style.face, fragment.style.sizeIndex);
      uint32_t color = fragment.style.color;
      if (!fonts.hasBoldFace() && fragment.style.face == FontFace::Bold && color == kLabelColor) {
        color = kBoldFallbackColor;
      }
      const ImVec2 at(origin.x + fragment.x, origin.y + line.y + line.height - font->FontSize);
      drawList->AddText(font, font->FontSize, at, ImGui::GetColorU32(color),
                        fragment.text.data(), fragment.text.data() + fragment.text.size());
    }
  }
  ImGui::Dummy(ImVec2(std::max(layout.width, 1.0f), std::max(layout.height, 1.0f)));
}

void drawStyledText(const ui::StyledText& text, float wrapWidth) {
  drawTextLayout(layoutStyledText(text, wrapWidth, FontSet::current().metrics()));
}

}  // namespace korvel::overlay
