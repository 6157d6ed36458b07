// Small file helpers. Everything the library writes is private to the user:
// the files it creates are 0600 and the folders 0700, whatever the umask.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <system_error>

#include <korvel/foundation/Data.h>

namespace korvel::platform {

// Writes the pieces, in order, as the whole content of path: creates the file
// (mode 0600) or truncates an existing one and makes it 0600. A symbolic link
// in the last component is not followed (the write fails instead), so a link
// planted where a file is expected cannot redirect the write elsewhere.
// Returns false and sets error when the file cannot be opened or written.
KORVEL_EXPORT bool writeFileReplacing(const std::filesystem::path& path,
                        std::span<const std::span<const uint8_t>> pieces, std::error_code& error);
KORVEL_EXPORT bool writeFileReplacing(const std::filesystem::path& path, std::span<const uint8_t> content,
                        std::error_code& error);

// Creates path and any missing parent folders, each new one with mode 0700
// (folders that already exist are left as they are). True when path is a
// folder afterwards; otherwise false with error set.
KORVEL_EXPORT bool createPrivateDirectories(const std::filesystem::path& path, std::error_code& error);

// Why the folder at path is not the user's own private folder (owned by
// another user; writable by group or others, and that cannot be taken
// away), or nothing when it is. A folder that others may write to but that
// the user owns is made 0700 first.
KORVEL_EXPORT std::optional<std::string> unsafePrivateDirectory(const std::filesystem::path& path);

// The whole content of a regular file; nothing when it cannot be read.
KORVEL_EXPORT std::optional<Data> readFileContents(const std::filesystem::path& path);

}  // namespace korvel::platform
