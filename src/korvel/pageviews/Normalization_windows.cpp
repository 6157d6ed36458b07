// NFD through Windows' NormalizeString, on UTF-16: the UTF-8 text is
// converted with MB_ERR_INVALID_CHARS (so a malformed byte is refused, never
// replaced), normalised, and converted back.
#include <korvel/pageviews/internal/Normalization.h>

#include <windows.h>

#include <limits>

namespace korvel::pageviews::internal {

namespace {

std::optional<std::wstring> utf16Of(std::string_view text) {
  const int size = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                       static_cast<int>(text.size()), nullptr, 0);
  if (size <= 0) return std::nullopt;
  std::wstring out(static_cast<size_t>(size), L'\0');
  if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                          out.data(), size) != size) {
    return std::nullopt;
  }
  return out;
}

std::optional<std::string> utf8Of(const wchar_t* text, int length) {
  if (length == 0) return std::string();
  const int size = WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, length, nullptr, 0,
                                       nullptr, nullptr);
  if (size <= 0) return std::nullopt;
  std::string out(static_cast<size_t>(size), '\0');
  if (WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, text, length, out.data(), size, nullptr,
                          nullptr) != size) {
    return std::nullopt;
  }
  return out;
}

}  // namespace

std::optional<std::string> nfdOfWellFormedUTF8(std::string_view text) {
  if (text.empty()) return std::string();
  if (text.size() > static_cast<size_t>(std::numeric_limits<int>::max())) return std::nullopt;
  const std::optional<std::wstring> source = utf16Of(text);
  if (!source) return std::nullopt;
  const int length = static_cast<int>(source->size());
  if (IsNormalizedString(NormalizationD, source->data(), length)) return std::string(text);

  // The first call estimates; the estimate can fall short, in which case the
  // call says so and tells a better one.
  int capacity = NormalizeString(NormalizationD, source->data(), length, nullptr, 0);
  for (int attempt = 0; attempt < 8 && capacity > 0; ++attempt) {
    std::wstring out(static_cast<size_t>(capacity), L'\0');
    const int written = NormalizeString(NormalizationD, source->data(), length, out.data(), capacity);
    if (written > 0) return utf8Of(out.data(), written);
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return std::nullopt;
    capacity = -written;
  }
  return std::nullopt;
}

}  // namespace korvel::pageviews::internal
