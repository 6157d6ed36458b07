#include <korvel/foundation/internal/UTF8.h>

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>

namespace korvel::foundation::internal {

UTF8Character utf8CharacterAt(std::string_view text, size_t at) {
  // A character is at most four bytes, so a window keeps the offsets in
  // ICU's int32_t whatever the text's length.
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data()) + at;
  const auto length = static_cast<int32_t>(std::min<size_t>(text.size() - at, 4));
  int32_t i = 0;
  UChar32 c = 0;
  U8_NEXT(bytes, i, length, c);
  if (c < 0) return {U'\uFFFD', 1, false};
  return {static_cast<char32_t>(c), static_cast<size_t>(i), true};
}

bool isWellFormedUTF8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    if (static_cast<unsigned char>(text[at]) < 0x80) {
      ++at;
      continue;
    }
    const UTF8Character c = utf8CharacterAt(text, at);
    if (!c.wellFormed) return false;
    at += c.length;
  }
  return true;
}

}  // namespace korvel::foundation::internal
