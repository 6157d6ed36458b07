// Whole-file helpers of the journal, all through its file-system seam.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <korvel/network/internal/FileSystem.h>

namespace korvel::platform::journal {

// Mappings and msync work in whole pages.
uint64_t pageBytes();

// Writes all of data at offset; a short write is continued, EINTR retried.
bool pwriteAll(FileSystem& files, int fd, std::string_view data, uint64_t offset);

// Writes zeros over [from, to): the file system reserves the blocks, so a
// full disk shows here and not as a SIGBUS inside a mapped write later.
// Page by page (pageSized) or in bulk.
bool reserveWithZeros(FileSystem& files, int fd, uint64_t from, uint64_t to, bool pageSized);

// The whole content of an open file; false (errno set) when a read fails.
bool readAll(FileSystem& files, int fd, std::string& out);

}  // namespace korvel::platform::journal
