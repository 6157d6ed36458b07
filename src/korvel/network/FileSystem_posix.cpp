// The journal's file-system seam as plain POSIX calls.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <string_view>

#include <korvel/network/internal/FileSystem.h>

namespace korvel::network::internal {

namespace {

int fd(FileHandle file) { return static_cast<int>(file); }

int openFlags(OpenFlags flags) {
  int out = hasFlag(flags, OpenFlags::ReadWrite) ? O_RDWR
            : hasFlag(flags, OpenFlags::Write)   ? O_WRONLY
                                                 : O_RDONLY;
  if (hasFlag(flags, OpenFlags::Create)) out |= O_CREAT;
  if (hasFlag(flags, OpenFlags::Exclusive)) out |= O_EXCL;
  if (hasFlag(flags, OpenFlags::Append)) out |= O_APPEND;
  if (hasFlag(flags, OpenFlags::Folder)) out |= O_DIRECTORY;
  return out;
}

void describe(const struct stat& st, FileInfo& out) {
  out.type = S_ISREG(st.st_mode)   ? FileType::Regular
             : S_ISDIR(st.st_mode) ? FileType::Folder
             : S_ISLNK(st.st_mode) ? FileType::Link
                                   : FileType::Other;
  out.size = static_cast<uint64_t>(st.st_size);
  out.device = static_cast<uint64_t>(st.st_dev);
  out.fileNumber = static_cast<uint64_t>(st.st_ino);
  out.links = static_cast<uint64_t>(st.st_nlink);
  out.modifiedNanos = static_cast<int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec;
  out.owner = "uid " + std::to_string(st.st_uid);
  out.openToOthers = (st.st_mode & 077) != 0;
  char mode[16];
  std::snprintf(mode, sizeof mode, "mode %04o", static_cast<unsigned>(st.st_mode & 07777));
  out.access = mode;
}

class PosixFileSystem final : public FileSystem {
 public:
  FileHandle openFolder(const char* path) override {
    return ::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  }
  FileHandle openAt(FileHandle folder, const char* name, OpenFlags flags) override {
    for (;;) {
      const int file = ::openat(fd(folder), name, openFlags(flags) | O_NOFOLLOW | O_CLOEXEC, 0600);
      if (file >= 0 || errno != EINTR) return file;
    }
  }
  int close(FileHandle file) override { return ::close(fd(file)); }

  int64_t readAt(FileHandle file, void* buffer, size_t size, uint64_t offset) override {
    return ::pread(fd(file), buffer, size, static_cast<off_t>(offset));
  }
  int64_t writeAt(FileHandle file, const void* data, size_t size, uint64_t offset) override {
    return ::pwrite(fd(file), data, size, static_cast<off_t>(offset));
  }
  int64_t writeRunsAt(FileHandle file, const WriteRun* runs, int count, uint64_t offset) override {
    constexpr int kMost = 64;
    iovec vectors[kMost];
    if (count > kMost) count = kMost;  // a short write; the caller goes on
    for (int i = 0; i < count; ++i) vectors[i] = {const_cast<void*>(runs[i].data), runs[i].size};
    return ::pwritev(fd(file), vectors, count, static_cast<off_t>(offset));
  }
  int64_t endOf(FileHandle file) override { return ::lseek(fd(file), 0, SEEK_END); }
  int truncate(FileHandle file, uint64_t length) override {
    return ::ftruncate(fd(file), static_cast<off_t>(length));
  }

  int renameAt(FileHandle fromFolder, const char* from, FileHandle toFolder, const char* to) override {
    return ::renameat(fd(fromFolder), from, fd(toFolder), to);
  }
  int removeAt(FileHandle folder, const char* name) override { return ::unlinkat(fd(folder), name, 0); }
  int removeFolderAt(FileHandle folder, const char* name) override {
    return ::unlinkat(fd(folder), name, AT_REMOVEDIR);
  }
  int makeFolder(const char* path) override { return ::mkdir(path, 0700); }
  int makeFolderAt(FileHandle folder, const char* name) override {
    return ::mkdirat(fd(folder), name, 0700);
  }

  int syncData(FileHandle file) override { return ::fdatasync(fd(file)); }
  int syncFolder(FileHandle folder) override { return ::fsync(fd(folder)); }

  void* mapShared(FileHandle file, size_t size) override {
    void* map = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd(file), 0);
    return map == MAP_FAILED ? nullptr : map;
  }
  int unmap(void* address, size_t size) override { return ::munmap(address, size); }
  int prefault(void* address, size_t size) override {
#ifdef MADV_POPULATE_WRITE
    return ::madvise(address, size, MADV_POPULATE_WRITE);
#else
    (void)address;
    (void)size;
    errno = ENOSYS;
    return -1;
#endif
  }
  int syncMapped(FileHandle, void* address, size_t size) override {
    return ::msync(address, size, MS_SYNC);
  }

  int info(FileHandle file, FileInfo& out) override {
    struct stat st {};
    if (::fstat(fd(file), &st) != 0) return -1;
    describe(st, out);
    return 0;
  }
  int infoAt(FileHandle folder, const char* name, FileInfo& out) override {
    struct stat st {};
    if (::fstatat(fd(folder), name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
    describe(st, out);
    return 0;
  }
  int infoOfPath(const char* path, FileInfo& out) override {
    struct stat st {};
    if (::stat(path, &st) != 0) return -1;
    describe(st, out);
    return 0;
  }
  int makePrivate(FileHandle file) override {
    struct stat st {};
    if (::fstat(fd(file), &st) != 0) return -1;
    return ::fchmod(fd(file), S_ISDIR(st.st_mode) ? 0700 : 0600);
  }
  int lock(FileHandle file, bool wait) override {
    for (;;) {
      const int result = ::flock(fd(file), wait ? LOCK_EX : LOCK_EX | LOCK_NB);
      if (result == 0 || errno != EINTR) return result;
    }
  }

  bool listFolder(FileHandle folder, std::vector<std::string>& names) override {
    // fdopendir takes the descriptor over: list through a duplicate.
    const int copy = ::fcntl(fd(folder), F_DUPFD_CLOEXEC, 0);
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
  std::string user() override { return "uid " + std::to_string(::geteuid()); }
};

}  // namespace

FileSystem& systemFileSystem() {
  static PosixFileSystem fileSystem;
  return fileSystem;
}

uint64_t memoryPageBytes() {
  static const uint64_t bytes = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  return bytes;
}

}  // namespace korvel::network::internal
