// The journal's file-system seam as plain POSIX calls.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <korvel/network/internal/FileSystem.h>

namespace korvel::network::internal {

namespace {

class PosixFileSystem final : public FileSystem {
 public:
  int openFolder(const char* path) override {
    return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  int openAt(int folder, const char* name, int flags, mode_t mode) override {
    for (;;) {
      const int fd = ::openat(folder, name, flags | O_NOFOLLOW | O_CLOEXEC, mode);
      if (fd >= 0 || errno != EINTR) return fd;
    }
  }
  int close(int fd) override { return ::close(fd); }

  ssize_t pread(int fd, void* buffer, size_t size, off_t offset) override {
    return ::pread(fd, buffer, size, offset);
  }
  ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override {
    return ::pwrite(fd, data, size, offset);
  }
  ssize_t pwritev(int fd, const iovec* vectors, int count, off_t offset) override {
    return ::pwritev(fd, vectors, count, offset);
  }
  ssize_t write(int fd, const void* data, size_t size) override { return ::write(fd, data, size); }
  off_t seekEnd(int fd) override { return ::lseek(fd, 0, SEEK_END); }
  int ftruncate(int fd, off_t length) override { return ::ftruncate(fd, length); }

  int renameAt(int fromFolder, const char* from, int toFolder, const char* to) override {
    return ::renameat(fromFolder, from, toFolder, to);
  }
  int unlinkAt(int folder, const char* name, int flags) override {
    return ::unlinkat(folder, name, flags);
  }
  int mkdirAt(int folder, const char* name, mode_t mode) override {
    return ::mkdirat(folder, name, mode);
  }

  int fsync(int fd) override { return ::fsync(fd); }
  int fdatasync(int fd) override { return ::fdatasync(fd); }

  void* mapShared(int fd, size_t size) override {
    return ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  }
  int unmap(void* address, size_t size) override { return ::munmap(address, size); }
  int msync(void* address, size_t size) override { return ::msync(address, size, MS_SYNC); }

  int fstat(int fd, struct stat* out) override { return ::fstat(fd, out); }
  int fstatAt(int folder, const char* name, struct stat* out) override {
    return ::fstatat(folder, name, out, AT_SYMLINK_NOFOLLOW);
  }
  int statPath(const char* path, struct stat* out) override { return ::stat(path, out); }
  int fchmod(int fd, mode_t mode) override { return ::fchmod(fd, mode); }
  int flock(int fd, int operation) override {
    for (;;) {
      const int result = ::flock(fd, operation);
      if (result == 0 || errno != EINTR) return result;
    }
  }

  bool listFolder(int folder, std::vector<std::string>& names) override {
    // fdopendir takes the descriptor over: list through a duplicate.
    const int copy = ::fcntl(folder, F_DUPFD_CLOEXEC, 0);
    if (copy < 0) return false;
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
      ::close(copy);
      return false;
    }
    ::rewinddir(dir);
    names.clear();
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") names.emplace_back(name);
    }
    const bool ok = errno == 0;
    ::closedir(dir);
    return ok;
  }

  uint64_t fileSizeLimit() override {
    rlimit limit{};
    if (::getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return UINT64_MAX;
    return static_cast<uint64_t>(limit.rlim_cur);
  }
  uid_t user() override { return ::geteuid(); }
};

}  // namespace

FileSystem& posixFileSystem() {
  static PosixFileSystem fileSystem;
  return fileSystem;
}

}  // namespace korvel::network::internal
