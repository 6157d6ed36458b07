#include <korvel/pageviews/PageID.h>

#include <cctype>

#include <korvel/platform/Env.h>

namespace korvel {

PageID PageID::make() {
  // The platform's text is already canonical; reading it back keeps the
  // promise even for an Env that hands out lower-case text.
  std::string text = platform::env().makeUUIDString();
  if (auto id = fromString(text)) return *id;
  return PageID(std::move(text));
}

std::optional<PageID> PageID::fromString(std::string_view text) {
  // 8-4-4-4-12 hexadecimal digits.
  static constexpr size_t kLength = 36;
  if (text.size() != kLength) return std::nullopt;
  std::string canonical(kLength, '-');
  for (size_t i = 0; i < kLength; ++i) {
    const char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return std::nullopt;
      continue;
    }
    if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    canonical[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return PageID(std::move(canonical));
}

}  // namespace korvel
