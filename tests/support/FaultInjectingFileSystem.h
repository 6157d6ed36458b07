// A file system for the journal's tests: the real calls, except that a
// chosen kind of call fails with a chosen errno (at its N-th use from now,
// or from now on for names containing a text), the data folder can be
// shown with another owner or mode, and the file size limit can be lowered.
#pragma once

#include <errno.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <functional>
#include <iterator>
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
  using FileHandle = network::internal::FileHandle;

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
  // info() of a folder opened with openFolder answers this owner, and
  // access as a POSIX mode would (0777: open to others).
  void showFolderAs(std::string owner, unsigned mode) {
    foundation::internal::MutexLock lock(mutex_);
    folderOwner_ = std::move(owner);
    folderMode_ = mode;
  }
  void limitFileSize(uint64_t bytes) { fileSizeLimit_ = bytes; }
  // Runs action once, at the next data sync of a file whose name contains
  // text, before the real call; with no lock held, so the action may use
  // this file system (and the journal that called it).
  void beforeSyncOf(std::string text, std::function<void()> action) {
    foundation::internal::MutexLock lock(mutex_);
    syncHooks_.push_back({std::move(text), std::move(action)});
  }
  // The same at the next read of such a file.
  void beforeReadOf(std::string text, std::function<void()> action) {
    foundation::internal::MutexLock lock(mutex_);
    readHooks_.push_back({std::move(text), std::move(action)});
  }
  // From now on, what happens to the files' mappings and data, in order:
  // "map NAME", "prefault NAME", "unmap NAME", "cut NAME", "sync NAME".
  void startRecording() {
    foundation::internal::MutexLock lock(mutex_);
    recording_ = true;
    recorded_.clear();
  }
  std::vector<std::string> recorded() const {
    foundation::internal::MutexLock lock(mutex_);
    return recorded_;
  }

  FileHandle openFolder(const char* path) override {
    if (failing(FileCall::Open, path)) return network::internal::kNoFile;
    return remember(real().openFolder(path), path, true);
  }
  FileHandle openAt(FileHandle folder, const char* name, network::internal::OpenFlags flags) override {
    if (failing(FileCall::Open, name)) return network::internal::kNoFile;
    return remember(real().openAt(folder, name, flags), name, false);
  }
  int close(FileHandle fd) override {
    {
      foundation::internal::MutexLock lock(mutex_);
      names_.erase(fd);
      folders_.erase(fd);
    }
    return real().close(fd);
  }
  int64_t readAt(FileHandle fd, void* buffer, size_t size, uint64_t offset) override {
    const std::string name = nameOf(fd);
    if (auto hook = takeHook(HookOn::Read, name)) hook();
    if (failing(FileCall::Read, name)) return -1;
    return real().readAt(fd, buffer, size, offset);
  }
  int64_t writeAt(FileHandle fd, const void* data, size_t size, uint64_t offset) override {
    if (failing(FileCall::Write, nameOf(fd))) return -1;
    return real().writeAt(fd, data, size, offset);
  }
  int64_t writeRunsAt(FileHandle fd, const network::internal::WriteRun* runs, int count, uint64_t offset) override {
    if (failing(FileCall::Write, nameOf(fd))) return -1;
    return real().writeRunsAt(fd, runs, count, offset);
  }
  int64_t endOf(FileHandle fd) override { return real().endOf(fd); }
  int truncate(FileHandle fd, uint64_t length) override {
    if (failing(FileCall::Truncate, nameOf(fd))) return -1;
    record("cut", nameOf(fd));
    return real().truncate(fd, length);
  }
  int renameAt(FileHandle fromFolder, const char* from, FileHandle toFolder, const char* to) override {
    if (failing(FileCall::Rename, from)) return -1;
    return real().renameAt(fromFolder, from, toFolder, to);
  }
  int removeAt(FileHandle folder, const char* name) override {
    if (failing(FileCall::Unlink, name)) return -1;
    return real().removeAt(folder, name);
  }
  int removeFolderAt(FileHandle folder, const char* name) override {
    if (failing(FileCall::Unlink, name)) return -1;
    return real().removeFolderAt(folder, name);
  }
  int makeFolder(const char* path) override {
    if (failing(FileCall::MakeDir, path)) return -1;
    return real().makeFolder(path);
  }
  int makeFolderAt(FileHandle folder, const char* name) override {
    if (failing(FileCall::MakeDir, name)) return -1;
    return real().makeFolderAt(folder, name);
  }
  int syncData(FileHandle fd) override {
    const std::string name = nameOf(fd);
    if (auto hook = takeHook(HookOn::Sync, name)) hook();
    if (failing(FileCall::Sync, name)) return -1;
    record("sync", name);
    return real().syncData(fd);
  }
  int syncFolder(FileHandle fd) override {
    if (failing(FileCall::Sync, nameOf(fd))) return -1;
    return real().syncFolder(fd);
  }
  void* mapShared(FileHandle fd, size_t size) override {
    const std::string name = nameOf(fd);
    if (failing(FileCall::Map, name)) return nullptr;
    void* map = real().mapShared(fd, size);
    if (map != nullptr) {
      record("map", name);
      foundation::internal::MutexLock lock(mutex_);
      mapped_[map] = name;
    }
    return map;
  }
  int unmap(void* address, size_t size) override {
    std::string name;
    {
      foundation::internal::MutexLock lock(mutex_);
      name = mapped_[address];
      mapped_.erase(address);
    }
    record("unmap", name);
    return real().unmap(address, size);
  }
  int prefault(void* address, size_t size) override {
    std::string name;
    {
      foundation::internal::MutexLock lock(mutex_);
      auto mapping = mapped_.upper_bound(address);
      if (mapping != mapped_.begin()) name = std::prev(mapping)->second;
    }
    record("prefault", name);
    return real().prefault(address, size);
  }
  int syncMapped(FileHandle fd, void* address, size_t size) override {
    if (failing(FileCall::Sync, {})) return -1;
    return real().syncMapped(fd, address, size);
  }
  int info(FileHandle fd, network::internal::FileInfo& out) override {
    if (failing(FileCall::Stat, nameOf(fd))) return -1;
    const int result = real().info(fd, out);
    foundation::internal::MutexLock lock(mutex_);
    if (result == 0 && folders_.contains(fd)) {
      if (folderOwner_) out.owner = *folderOwner_;
      if (folderMode_) {
        out.openToOthers = (*folderMode_ & 077) != 0;
        char mode[16];
        std::snprintf(mode, sizeof mode, "mode %04o", *folderMode_);
        out.access = mode;
      }
    }
    return result;
  }
  int infoAt(FileHandle folder, const char* name, network::internal::FileInfo& out) override {
    if (failing(FileCall::Stat, name)) return -1;
    return real().infoAt(folder, name, out);
  }
  int infoOfPath(const char* path, network::internal::FileInfo& out) override {
    if (failing(FileCall::Stat, path)) return -1;
    return real().infoOfPath(path, out);
  }
  int makePrivate(FileHandle fd) override {
    if (failing(FileCall::Chmod, nameOf(fd))) return -1;
    return real().makePrivate(fd);
  }
  int lock(FileHandle fd, bool wait) override {
    if (failing(FileCall::Lock, nameOf(fd))) return -1;
    return real().lock(fd, wait);
  }
  bool listFolder(FileHandle folder, std::vector<std::string>& names) override {
    if (failing(FileCall::List, nameOf(folder))) return false;
    return real().listFolder(folder, names);
  }
  uint64_t fileSizeLimit() override {
    return std::min<uint64_t>(fileSizeLimit_, real().fileSizeLimit());
  }
  std::string user() override { return real().user(); }

 private:
  struct Rule {
    FileCall kind;
    int nth;  // 0: every call whose name contains text
    int error;
    std::string text;
  };

  static network::internal::FileSystem& real() { return network::internal::systemFileSystem(); }
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
  FileHandle remember(FileHandle fd, const std::string& name, bool folder) {
    if (fd < 0) return fd;
    foundation::internal::MutexLock lock(mutex_);
    names_[fd] = name;
    if (folder) folders_[fd] = true;
    return fd;
  }
  void record(const char* what, const std::string& name) {
    foundation::internal::MutexLock lock(mutex_);
    if (recording_) recorded_.push_back(std::string(what) + " " + name);
  }
  std::string nameOf(FileHandle fd) const {
    foundation::internal::MutexLock lock(mutex_);
    auto it = names_.find(fd);
    return it == names_.end() ? std::string() : it->second;
  }

  mutable foundation::internal::Mutex mutex_;
  std::vector<Rule> rules_ KORVEL_GUARDED_BY(mutex_);
  std::array<int, static_cast<size_t>(FileCall::Count)> calls_ KORVEL_GUARDED_BY(mutex_){};
  std::map<FileHandle, std::string> names_ KORVEL_GUARDED_BY(mutex_);
  std::map<FileHandle, bool> folders_ KORVEL_GUARDED_BY(mutex_);
  std::optional<std::string> folderOwner_ KORVEL_GUARDED_BY(mutex_);
  std::optional<unsigned> folderMode_ KORVEL_GUARDED_BY(mutex_);
  std::atomic<uint64_t> fileSizeLimit_{UINT64_MAX};
  using Hooks = std::vector<std::pair<std::string, std::function<void()>>>;
  Hooks syncHooks_ KORVEL_GUARDED_BY(mutex_);
  Hooks readHooks_ KORVEL_GUARDED_BY(mutex_);
  enum class HookOn { Read, Sync };
  // The first hook set on such calls for a file named name, taken out of
  // its list.
  std::function<void()> takeHook(HookOn on, const std::string& name) KORVEL_EXCLUDES(mutex_) {
    foundation::internal::MutexLock lock(mutex_);
    Hooks& hooks = on == HookOn::Read ? readHooks_ : syncHooks_;
    for (auto it = hooks.begin(); it != hooks.end(); ++it) {
      if (name.find(it->first) == std::string::npos) continue;
      auto hook = std::move(it->second);
      hooks.erase(it);
      return hook;
    }
    return {};
  }
  std::map<void*, std::string> mapped_ KORVEL_GUARDED_BY(mutex_);
  bool recording_ KORVEL_GUARDED_BY(mutex_) = false;
  std::vector<std::string> recorded_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace korvel::testing
