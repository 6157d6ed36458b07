// Unicode normalisation form D (canonical decomposition) of UTF-8 text, by
// the system's Unicode library: ICU where it is used, the National Language
// Support API on Windows.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvel::pageviews::internal {

// The NFD form of text, which must be well-formed UTF-8; nothing when the
// library cannot normalise it (too long for it, out of memory), in which
// case callers keep the text as it is.
std::optional<std::string> nfdOfWellFormedUTF8(std::string_view text);

}  // namespace korvel::pageviews::internal
