// File services the platform layer shares with the layers above it, beside
// the public ones in Files.h.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace korvel::platform::internal {

// The library keeps paths as UTF-8 text. Windows paths are UTF-16: these
// convert both ways (on POSIX systems the bytes are the path as they are).
std::filesystem::path pathFromUTF8(std::string_view text);
std::string utf8FromPath(const std::filesystem::path& path);

// Replaces the file at path with data so that a crash at any instant leaves
// either the old content or the new one: a private temporary file beside it,
// flushed to the disk, then renamed over the old file, the rename itself made
// durable (the folder synced on POSIX, MoveFileEx's write-through on
// Windows). Creates missing parent folders, private. False with error (a
// sentence naming the file) when any step fails; the temporary file is
// removed then.
bool replaceFileDurably(const std::filesystem::path& path, std::string_view data,
                        std::string& error);

// A name beside path for a temporary file no other writer picks at once:
// path + ".tmp-<process>-<counter>".
std::filesystem::path temporarySibling(const std::filesystem::path& path);

}  // namespace korvel::platform::internal
