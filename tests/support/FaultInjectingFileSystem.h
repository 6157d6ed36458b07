// A file system for the journal's tests: the real calls, except that a
// chosen kind of call fails with a chosen errno (at its N-th use from now,
// or from now on for names containing a text), the data folder can be
// shown with another owner or mode, and the file size limit can be lowered.
#pragma once

#include <errno.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/FileSystem.h>

namespace korvel::testing {

class FaultInjectingFileSystem final : public network::internal::FileSystem {
 public:
  using FileCall = network::internal::FileCall;

  // The nth call of kind from now on (1 = the next) fails with error.
  void failAt(FileCall kind, int nth, int error) {
    foundation::internal::MutexLock lock(mutex_);
    rules_.push_back({kind, calls_[index(kind)] + nth, error, {}});
  }
  // Every call of kind on a name containing text fails with error, until
  // clear().
  void failAlways(FileCall kind, int error, std::string text = {}) {
    foundation::internal::MutexLock lock(mutex_);
    rules_.push_back({kind, 0, error, std::move(text)});
  }
  void clear() {
    foundation::internal::MutexLock lock(mutex_);
    rules_.clear();
  }
  int calls(FileCall kind) const {
    foundation::internal::MutexLock lock(mutex_);
    return calls_[index(kind)];
  }
  // Descriptors opened through it and not closed yet.
  int openDescriptors() const {
    foundation::internal::MutexLock lock(mutex_);
    return static_cast<int>(names_.size());
  }
  // fstat of a folder opened with openFolder answers this owner and mode.
  void showFolderAs(uid_t owner, mode_t mode) {
    foundation::internal::MutexLock lock(mutex_);
    folderOwner_ = owner;
    folderMode_ = mode;
  }
  void limitFileSize(uint64_t bytes) { fileSizeLimit_ = bytes; }

  int openFolder(const char* path) override {
    if (failing(FileCall::Open, path)) return -1;
    return remember(real().openFolder(path), path, true);
  }
  int openAt(int folder, const char* name, int flags, mode_t mode) override {
    if (failing(FileCall::Open, name)) return -1;
    return remember(real().openAt(folder, name, flags, mode), name, false);
  }
  int close(int fd) override {
    {
      foundation::internal::MutexLock lock(mutex_);
      names_.erase(fd);
      folders_.erase(fd);
    }
    return real().close(fd);
  }
  ssize_t pread(int fd, void* buffer, size_t size, off_t offset) override {
    if (failing(FileCall::Read, nameOf(fd))) return -1;
    return real().pread(fd, buffer, size, offset);
  }
  ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override {
    if (failing(FileCall::Write, nameOf(fd))) return -1;
    return real().pwrite(fd, data, size, offset);
  }
  ssize_t pwritev(int fd, const iovec* vectors, int count, off_t offset) override {
    if (failing(FileCall::Write, nameOf(fd))) return -1;
    return real().pwritev(fd, vectors, count, offset);
  }
  ssize_t write(int fd, const void* data, size_t size) override {
    if (failing(FileCall::Write, nameOf(fd))) return -1;
    return real().write(fd, data, size);
  }
  off_t seekEnd(int fd) override { return real().seekEnd(fd); }
  int ftruncate(int fd, off_t length) override {
    if (failing(FileCall::Truncate, nameOf(fd))) return -1;
    return real().ftruncate(fd, length);
  }
  int renameAt(int fromFolder, const char* from, int toFolder, const char* to) override {
    if (failing(FileCall::Rename, from)) return -1;
    return real().renameAt(fromFolder, from, toFolder, to);
  }
  int unlinkAt(int folder, const char* name, int flags) override {
    if (failing(FileCall::Unlink, name)) return -1;
    return real().unlinkAt(folder, name, flags);
  }
  int mkdirAt(int folder, const char* name, mode_t mode) override {
    if (failing(FileCall::MakeDir, name)) return -1;
    return real().mkdirAt(folder, name, mode);
  }
  int fsync(int fd) override {
    if (failing(FileCall::Sync, nameOf(fd))) return -1;
    return real().fsync(fd);
  }
  int fdatasync(int fd) override {
    if (failing(FileCall::Sync, nameOf(fd))) return -1;
    return real().fdatasync(fd);
  }
  void* mapShared(int fd, size_t size) override {
    if (failing(FileCall::Map, nameOf(fd))) return reinterpret_cast<void*>(-1);
    return real().mapShared(fd, size);
  }
  int unmap(void* address, size_t size) override { return real().unmap(address, size); }
  int msync(void* address, size_t size) override {
    if (failing(FileCall::Sync, {})) return -1;
    return real().msync(address, size);
  }
  int fstat(int fd, struct stat* out) override {
    if (failing(FileCall::Stat, nameOf(fd))) return -1;
    const int result = real().fstat(fd, out);
    foundation::internal::MutexLock lock(mutex_);
    if (result == 0 && folders_.contains(fd)) {
      if (folderOwner_) out->st_uid = *folderOwner_;
      if (folderMode_) out->st_mode = (out->st_mode & ~07777u) | *folderMode_;
    }
    return result;
  }
  int fstatAt(int folder, const char* name, struct stat* out) override {
    if (failing(FileCall::Stat, name)) return -1;
    return real().fstatAt(folder, name, out);
  }
  int statPath(const char* path, struct stat* out) override {
    if (failing(FileCall::Stat, path)) return -1;
    return real().statPath(path, out);
  }
  int fchmod(int fd, mode_t mode) override {
    if (failing(FileCall::Chmod, nameOf(fd))) return -1;
    return real().fchmod(fd, mode);
  }
  int flock(int fd, int operation) override {
    if (failing(FileCall::Lock, nameOf(fd))) return -1;
    return real().flock(fd, operation);
  }
  bool listFolder(int folder, std::vector<std::string>& names) override {
    if (failing(FileCall::List, nameOf(folder))) return false;
    return real().listFolder(folder, names);
  }
  uint64_t fileSizeLimit() override {
    return std::min<uint64_t>(fileSizeLimit_, real().fileSizeLimit());
  }
  uid_t user() override { return real().user(); }

 private:
  struct Rule {
    FileCall kind;
    int nth;  // 0: every call whose name contains text
    int error;
    std::string text;
  };

  static network::internal::FileSystem& real() { return network::internal::posixFileSystem(); }
  static size_t index(FileCall kind) { return static_cast<size_t>(kind); }

  bool failing(FileCall kind, const std::string& name) {
    foundation::internal::MutexLock lock(mutex_);
    const int count = ++calls_[index(kind)];
    for (auto it = rules_.begin(); it != rules_.end(); ++it) {
      if (it->kind != kind) continue;
      if (it->nth == 0 ? name.find(it->text) != std::string::npos : it->nth == count) {
        errno = it->error;
        if (it->nth != 0) rules_.erase(it);
        return true;
      }
    }
    return false;
  }
  int remember(int fd, const std::string& name, bool folder) {
    if (fd < 0) return fd;
    foundation::internal::MutexLock lock(mutex_);
    names_[fd] = name;
    if (folder) folders_[fd] = true;
    return fd;
  }
  std::string nameOf(int fd) const {
    foundation::internal::MutexLock lock(mutex_);
    auto it = names_.find(fd);
    return it == names_.end() ? std::string() : it->second;
  }

  mutable foundation::internal::Mutex mutex_;
  std::vector<Rule> rules_ KORVEL_GUARDED_BY(mutex_);
  std::array<int, static_cast<size_t>(FileCall::Count)> calls_ KORVEL_GUARDED_BY(mutex_){};
  std::map<int, std::string> names_ KORVEL_GUARDED_BY(mutex_);
  std::map<int, bool> folders_ KORVEL_GUARDED_BY(mutex_);
  std::optional<uid_t> folderOwner_ KORVEL_GUARDED_BY(mutex_);
  std::optional<mode_t> folderMode_ KORVEL_GUARDED_BY(mutex_);
  std::atomic<uint64_t> fileSizeLimit_{UINT64_MAX};
};

}  // namespace korvel::testing
