// Reading UTF-8 one character at a time.
#pragma once

#include <cstddef>
#include <string_view>

namespace korvel::foundation::internal {

struct UTF8Character {
  char32_t codePoint;  // U+FFFD where the bytes are not UTF-8
  size_t length;       // bytes taken from the text, at least 1
  bool wellFormed;
};

// The character that starts at text[at] (at < text.size()). Bytes that do not
// start a well-formed sequence (a stray continuation byte, an overlong form,
// an encoded surrogate, a value beyond U+10FFFF, a sequence cut short) read
// as U+FFFD one byte at a time, so every such byte stands for one
// replacement character and the next character is read from the next byte.
UTF8Character utf8CharacterAt(std::string_view text, size_t at);

// Whether every byte of the text belongs to a well-formed UTF-8 character.
bool isWellFormedUTF8(std::string_view text);

}  // namespace korvel::foundation::internal
