#include <korvel/foundation/internal/UTF8.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace korvel::foundation::internal {
namespace {

struct Case {
  const char* what;
  std::string text;
  bool wellFormed;
  char32_t first;      // the first character read
  size_t firstLength;  // bytes it takes
};

TEST(UTF8Test, ReadsCharactersAndRejectsEveryIllFormedSequence) {
  const std::vector<Case> cases = {
      {"ASCII", "a", true, U'a', 1},
      {"two bytes", "\xC3\xA9", true, U'\u00E9', 2},
      {"three bytes", "\xE2\x82\xAC", true, U'\u20AC', 3},
      {"four bytes", "\xF0\x9F\x8E\xB5", true, U'\U0001F3B5', 4},
      {"stray continuation", "\x80", false, U'\uFFFD', 1},
      {"overlong slash", "\xC0\xAF", false, U'\uFFFD', 1},
      {"encoded surrogate", "\xED\xA0\x80", false, U'\uFFFD', 1},
      {"beyond U+10FFFF", "\xF4\x90\x80\x80", false, U'\uFFFD', 1},
      {"cut short", "\xE2\x82", false, U'\uFFFD', 1},
      {"four bytes cut short", "\xF0\x9F\x8E", false, U'\uFFFD', 1},
      {"third byte not a continuation", "\xE2\x82\x41", false, U'\uFFFD', 1},
      {"fourth byte not a continuation", "\xF0\x9F\x8E\xC3", false, U'\uFFFD', 1},
      {"overlong three bytes", "\xE0\x80\xAF", false, U'\uFFFD', 1},
      {"overlong four bytes", "\xF0\x8F\xBF\xBF", false, U'\uFFFD', 1},
      {"lead byte beyond F4", "\xF5\x80\x80\x80", false, U'\uFFFD', 1},
      {"last two-byte character", "\xDF\xBF", true, U'\u07FF', 2},
      {"last before the surrogates", "\xED\x9F\xBF", true, U'\uD7FF', 3},
      {"noncharacter U+FFFF", "\xEF\xBF\xBF", true, U'\uFFFF', 3},
      {"last code point", "\xF4\x8F\xBF\xBF", true, U'\U0010FFFF', 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(isWellFormedUTF8(c.text), c.wellFormed);
    const UTF8Character read = utf8CharacterAt(c.text, 0);
    EXPECT_EQ(std::tuple(read.codePoint, read.length, read.wellFormed),
              std::tuple(c.first, c.firstLength, c.wellFormed));
    // A bad byte late in otherwise good text spoils the whole.
    EXPECT_EQ(isWellFormedUTF8("ok \xC3\xA9 " + c.text), c.wellFormed);
  }
  EXPECT_TRUE(isWellFormedUTF8(""));
}

}  // namespace
}  // namespace korvel::foundation::internal
