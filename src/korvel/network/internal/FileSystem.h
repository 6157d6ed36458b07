// The file-system seam under the journal: every call the journal makes on
// its folder goes through a FileSystem, so the tests can fail any of them
// at will (FaultInjectingFileSystem in tests/support) and production runs
// the plain POSIX calls (PosixFileSystem.cpp).
//
// Names are always relative to a descriptor of a folder the caller opened;
// openAt adds O_NOFOLLOW and O_CLOEXEC to every open, so no link inside the
// data folder is ever followed. Each call answers like the system call it
// stands for: -1 (or MAP_FAILED, or false) with errno set.
//
// Not on the report call's path: an append is a copy into a mapping, and a
// segment that is not mapped is written through the descriptor directly.
// The seam is for opening, syncing, reading, renaming and removing.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace korvel::network::internal {

// The kinds of call, for counting and for failing them.
enum class FileCall : uint8_t {
  Open,      // openAt, openFolder
  Read,      // pread
  Write,     // pwrite, pwritev, write
  Truncate,  // ftruncate
  Rename,    // renameAt
  Unlink,    // unlinkAt
  MakeDir,   // mkdirAt
  Sync,      // fsync, fdatasync, msync
  Map,       // mmap
  Stat,      // fstat, fstatAt, statPath
  List,      // listFolder
  Lock,      // flock
  Chmod,     // fchmod
  Count
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // A folder by its path, for the data folder itself (O_DIRECTORY). The
  // path is the host's and may pass through links; what it names is then
  // checked (owner, mode) through the descriptor.
  virtual int openFolder(const char* path) = 0;
  virtual int openAt(int folder, const char* name, int flags, mode_t mode) = 0;
  virtual int close(int fd) = 0;

  virtual ssize_t pread(int fd, void* buffer, size_t size, off_t offset) = 0;
  virtual ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) = 0;
  virtual ssize_t pwritev(int fd, const iovec* vectors, int count, off_t offset) = 0;
  virtual ssize_t write(int fd, const void* data, size_t size) = 0;
  virtual off_t seekEnd(int fd) = 0;
  virtual int ftruncate(int fd, off_t length) = 0;

  virtual int renameAt(int fromFolder, const char* from, int toFolder, const char* to) = 0;
  virtual int unlinkAt(int folder, const char* name, int flags) = 0;
  virtual int mkdirAt(int folder, const char* name, mode_t mode) = 0;

  virtual int fsync(int fd) = 0;
  virtual int fdatasync(int fd) = 0;

  // A shared, writable mapping of the file's first size bytes.
  virtual void* mapShared(int fd, size_t size) = 0;
  virtual int unmap(void* address, size_t size) = 0;
  virtual int msync(void* address, size_t size) = 0;

  virtual int fstat(int fd, struct stat* out) = 0;
  // Does not follow a link in name.
  virtual int fstatAt(int folder, const char* name, struct stat* out) = 0;
  // Follows the path as the host would: what the data folder's path names now.
  virtual int statPath(const char* path, struct stat* out) = 0;
  virtual int fchmod(int fd, mode_t mode) = 0;
  virtual int flock(int fd, int operation) = 0;

  // The names in a folder, without "." and "..".
  virtual bool listFolder(int folder, std::vector<std::string>& names) = 0;

  // The largest file this process may write (RLIMIT_FSIZE); UINT64_MAX
  // when unlimited.
  virtual uint64_t fileSizeLimit() = 0;
  // This process's effective user.
  virtual uid_t user() = 0;
};

// The plain system calls; one shared instance.
FileSystem& posixFileSystem();

}  // namespace korvel::network::internal
