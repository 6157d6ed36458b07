// A run of raw bytes (file contents, signatures, e-mail attachments).
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace korvel {

using Data = std::vector<std::uint8_t>;

// The bytes of a text, as they are.
inline Data dataFromString(std::string_view text) { return Data(text.begin(), text.end()); }

}  // namespace korvel
