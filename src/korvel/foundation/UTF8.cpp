#include <korvel/foundation/internal/UTF8.h>

#include <cstdint>

namespace korvel::foundation::internal {

namespace {

// The bounds the second byte of a sequence must keep, given its first: they
// rule out overlong forms (E0 80..9F, F0 80..8F), encoded surrogates
// (ED A0..BF) and values beyond U+10FFFF (F4 90..BF).
struct Lead {
  size_t length;      // 0: not a lead byte
  uint8_t secondLow;  // inclusive bounds of the second byte
  uint8_t secondHigh;
};

Lead leadOf(uint8_t b) {
  if (b >= 0xC2 && b <= 0xDF) return {2, 0x80, 0xBF};
  if (b == 0xE0) return {3, 0xA0, 0xBF};
  if (b == 0xED) return {3, 0x80, 0x9F};
  if (b >= 0xE1 && b <= 0xEF) return {3, 0x80, 0xBF};
  if (b == 0xF0) return {4, 0x90, 0xBF};
  if (b == 0xF4) return {4, 0x80, 0x8F};
  if (b >= 0xF1 && b <= 0xF3) return {4, 0x80, 0xBF};
  return {0, 0, 0};
}

}  // namespace

UTF8Character utf8CharacterAt(std::string_view text, size_t at) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data()) + at;
  const size_t available = text.size() - at;
  if (bytes[0] < 0x80) return {static_cast<char32_t>(bytes[0]), 1, true};
  const Lead lead = leadOf(bytes[0]);
  if (lead.length == 0 || available < lead.length) return {U'\uFFFD', 1, false};
  if (bytes[1] < lead.secondLow || bytes[1] > lead.secondHigh) return {U'\uFFFD', 1, false};
  char32_t c = bytes[0] & (0xFF >> (lead.length + 1));
  for (size_t i = 1; i < lead.length; ++i) {
    if ((bytes[i] & 0xC0) != 0x80) return {U'\uFFFD', 1, false};
    c = (c << 6) | (bytes[i] & 0x3F);
  }
  return {c, lead.length, true};
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
