// Whole-file helpers of the journal, all through its file-system seam.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/network/internal/FileSystem.h>

namespace korvel::network::internal::journal {

// Mappings and their syncs work in whole pages.
uint64_t pageBytes();

// Paths as UTF-8 text, the seam's names on every system, and back.
std::string utf8Text(const std::filesystem::path& path);
std::filesystem::path pathOfUTF8(std::string_view text);

// Writes all of data at offset; a short write is continued, EINTR retried.
bool pwriteAll(FileSystem& files, FileHandle fd, std::string_view data, uint64_t offset);

// Writes zeros over [from, to): the file system reserves the blocks, so a
// full disk shows here and not as a SIGBUS inside a mapped write later.
// Page by page (pageSized) or in bulk.
bool reserveWithZeros(FileSystem& files, FileHandle fd, uint64_t from, uint64_t to, bool pageSized);

// The whole content of an open file; false (errno set) when a read fails.
bool readAll(FileSystem& files, FileHandle fd, std::string& out);

// Appends one batch of delivered marks; on a failed (or short) write the
// file is cut back, so no torn batch hides the batches written after it.
// Never past the file size limit (EFBIG instead).
bool appendMarks(FileSystem& files, FileHandle fd, const std::vector<uint64_t>& marks);

// Opens a data folder by its path (made when missing, its parents too) and
// checks that it is this user's and private, making it private when it can;
// kNoFile with the reason in failure when it cannot be used.
FileHandle openCheckedFolder(FileSystem& files, const std::string& path, std::string& failure);

// A small file of a folder, read whole; nothing when it cannot be read
// (errno set).
std::optional<std::string> readSmallFileIn(FileSystem& files, FileHandle folder, const std::string& name);
// Writes a small file whole: a temporary, synced, renamed over it.
bool writeSmallFileIn(FileSystem& files, FileHandle folder, const std::string& name, std::string_view contents);

}  // namespace korvel::network::internal::journal
