// Small file helpers shared by the debug tools.
#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <system_error>

#include <korvel/foundation/Data.h>

namespace korvel::platform {

// Writes the pieces, in order, as the whole content of path: creates the file
// (mode 0644 before the umask) or truncates an existing one. A symbolic link
// in the last component is not followed (the write fails instead), so a link
// planted where a file is expected cannot redirect the write elsewhere.
// Returns false and sets error when the file cannot be opened or written.
bool writeFileReplacing(const std::filesystem::path& path,
                        std::span<const std::span<const uint8_t>> pieces, std::error_code& error);
bool writeFileReplacing(const std::filesystem::path& path, std::span<const uint8_t> content,
                        std::error_code& error);

// The whole content of a regular file; nothing when it cannot be read.
std::optional<Data> readFileContents(const std::filesystem::path& path);

}  // namespace korvel::platform
