// The journal's file-system seam on Windows.
//
// A FileHandle is a HANDLE. Windows has no calls relative to a folder
// handle, so a folder handle is kept with the full path it was opened by and
// names are joined to it; what a name opens is then checked through its
// handle, and a reparse point (a symbolic link or a junction) is never
// followed: it is opened as itself (FILE_FLAG_OPEN_REPARSE_POINT) and
// refused with ELOOP. Every file is opened sharing read, write and delete,
// so that a segment the journal holds open can still be renamed (mapped or
// not) and removed (once unmapped), as on POSIX. Names are UTF-8 in the journal and
// UTF-16 here.
//
// Private means an access list that names the current user alone,
// protected from what the parent folder would pass down, as 0700 and 0600
// are on POSIX; a folder's owner is compared as a SID where POSIX compares
// a uid. The journal's lock is a LockFileEx lock on the whole lock file:
// another process (or another handle) is refused until the holder closes
// its handle or ends. Win32 errors become the errno values the journal
// handles (ERROR_DISK_FULL is ENOSPC, ERROR_TOO_MANY_OPEN_FILES is EMFILE,
// ERROR_ACCESS_DENIED and ERROR_SHARING_VIOLATION are EACCES...).
#include <windows.h>
#include <aclapi.h>
#include <sddl.h>

#include <errno.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <unordered_map>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/FileSystem.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

namespace {

int errnoOf(DWORD code) {
  switch (code) {
    case ERROR_SUCCESS: return 0;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_PATHNAME: return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_PRIVILEGE_NOT_HELD:
    case ERROR_CURRENT_DIRECTORY: return EACCES;
    case ERROR_LOCK_VIOLATION: return EWOULDBLOCK;
    case ERROR_WRITE_PROTECT: return EROFS;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL: return ENOSPC;
    case ERROR_TOO_MANY_OPEN_FILES: return EMFILE;
    case ERROR_FILE_TOO_LARGE: return EFBIG;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS: return EEXIST;
    case ERROR_DIRECTORY: return ENOTDIR;
    case ERROR_DIR_NOT_EMPTY: return ENOTEMPTY;
    case ERROR_NOT_ENOUGH_MEMORY:
    case ERROR_OUTOFMEMORY:
    case ERROR_COMMITMENT_LIMIT: return ENOMEM;
    case ERROR_CANT_RESOLVE_FILENAME: return ELOOP;
    case ERROR_INVALID_HANDLE: return EBADF;
    case ERROR_INVALID_PARAMETER:
    case ERROR_INVALID_NAME: return EINVAL;
    case ERROR_NOT_SAME_DEVICE: return EXDEV;
    case ERROR_BUSY:
    case ERROR_USER_MAPPED_FILE: return EBUSY;
    case ERROR_FILENAME_EXCED_RANGE: return ENAMETOOLONG;
    default: return EIO;
  }
}

// The last Win32 error as errno; returns fail for the caller to return.
template <typename T>
T failed(T fail) {
  errno = errnoOf(GetLastError());
  return fail;
}
template <typename T>
T failedWith(int error, T fail) {
  errno = error;
  return fail;
}

HANDLE handleOf(FileHandle file) { return reinterpret_cast<HANDLE>(file); }
FileHandle fileOf(HANDLE handle) { return reinterpret_cast<FileHandle>(handle); }

std::wstring wide(std::string_view text) {
  if (text.empty()) return {};
  const int size = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                       static_cast<int>(text.size()), nullptr, 0);
  if (size <= 0) return {};
  std::wstring out(static_cast<size_t>(size), L'\0');
  MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), static_cast<int>(text.size()),
                      out.data(), size);
  return out;
}

std::string narrow(std::wstring_view text) {
  if (text.empty()) return {};
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()),
                                       nullptr, 0, nullptr, nullptr);
  if (size <= 0) return {};
  std::string out(static_cast<size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size,
                      nullptr, nullptr);
  return out;
}

struct LocalFreer {
  void operator()(void* p) const noexcept { LocalFree(p); }
};

std::string sidText(PSID sid) {
  LPSTR text = nullptr;
  if (sid == nullptr || !ConvertSidToStringSidA(sid, &text)) return {};
  std::unique_ptr<char, LocalFreer> owned(text);
  return text;
}

// The current user's SID, copied out of the process token.
class CurrentUser {
 public:
  CurrentUser() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    buffer_.resize(size);
    if (size == 0 || !GetTokenInformation(token, TokenUser, buffer_.data(), size, &size)) buffer_.clear();
    CloseHandle(token);
    text_ = sidText(sid());
  }
  PSID sid() const {
    return buffer_.empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(buffer_.data())->User.Sid;
  }
  const std::string& text() const { return text_; }

 private:
  std::vector<unsigned char> buffer_;
  std::string text_;
};

const CurrentUser& currentUser() {
  static const auto* user = new CurrentUser;
  return *user;
}

// A security descriptor whose access list grants everything to the current
// user alone, passed on to what a folder holds; protected from inheritance.
class PrivateSecurity {
 public:
  explicit PrivateSecurity(bool folder) {
    const std::string& user = currentUser().text();
    if (user.empty()) return;
    const std::wstring sddl = wide("D:P(A;" + std::string(folder ? "OICI" : "") + ";FA;;;" + user + ")");
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, &descriptor,
                                                              nullptr)) {
      return;
    }
    descriptor_.reset(descriptor);
    attributes_.nLength = sizeof attributes_;
    attributes_.lpSecurityDescriptor = descriptor;
    attributes_.bInheritHandle = FALSE;
  }
  SECURITY_ATTRIBUTES* attributes() { return descriptor_ ? &attributes_ : nullptr; }
  PSECURITY_DESCRIPTOR descriptor() const { return descriptor_.get(); }

 private:
  std::unique_ptr<void, LocalFreer> descriptor_;
  SECURITY_ATTRIBUTES attributes_{};
};

bool wellKnownAdministrator(PSID sid) {
  // The system and the administrators reach every file, as root does on
  // POSIX: an entry for them does not open a folder to others.
  return IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid);
}

// Owner, and whether the access list lets anyone else in.
void describeSecurity(HANDLE handle, FileInfo& out) {
  PSID owner = nullptr;
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetSecurityInfo(handle, SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                      &owner, nullptr, &dacl, nullptr, &descriptor) != ERROR_SUCCESS) {
    return;
  }
  std::unique_ptr<void, LocalFreer> owned(descriptor);
  out.owner = sidText(owner);
  if (dacl == nullptr) {
    out.openToOthers = true;
    out.access = "no access list: everyone may use it";
    return;
  }
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* entry = nullptr;
    if (!GetAce(dacl, i, &entry)) continue;
    const auto* header = static_cast<const ACE_HEADER*>(entry);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) continue;
    PSID sid = &static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart;
    if (owner != nullptr && EqualSid(sid, owner)) continue;
    if (wellKnownAdministrator(sid)) continue;
    out.openToOthers = true;
    out.access = "access list admits " + sidText(sid);
    return;
  }
  out.access = "access list for " + out.owner + " alone";
}

int describe(HANDLE handle, FileInfo& out) {
  BY_HANDLE_FILE_INFORMATION info{};
  if (!GetFileInformationByHandle(handle, &info)) return failed(-1);
  out = FileInfo{};
  out.type = (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? FileType::Link
             : (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0   ? FileType::Folder
                                                                          : FileType::Regular;
  out.size = (static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  out.device = info.dwVolumeSerialNumber;
  out.fileNumber = (static_cast<uint64_t>(info.nFileIndexHigh) << 32) | info.nFileIndexLow;
  out.links = info.nNumberOfLinks;
  FILE_STANDARD_INFO standard{};
  if (GetFileInformationByHandleEx(handle, FileStandardInfo, &standard, sizeof standard) &&
      standard.DeletePending) {
    out.links = 0;
  }
  // 100 ns ticks since 1601.
  const uint64_t ticks =
      (static_cast<uint64_t>(info.ftLastWriteTime.dwHighDateTime) << 32) | info.ftLastWriteTime.dwLowDateTime;
  out.modifiedNanos = (static_cast<int64_t>(ticks) - 116444736000000000LL) * 100;
  describeSecurity(handle, out);
  return 0;
}

bool validName(const char* name) {
  const std::string_view text = name;
  return !text.empty() && text != "." && text != ".." && text.find_first_of("/\\:") == std::string_view::npos;
}

OVERLAPPED at(uint64_t offset) {
  OVERLAPPED overlapped{};
  overlapped.Offset = static_cast<DWORD>(offset);
  overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return overlapped;
}

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr DWORD kMostBytesPerCall = 1u << 30;

class WindowsFileSystem final : public FileSystem {
 public:
  FileHandle openFolder(const char* path) override {
    const std::wstring given = wide(path);
    if (given.empty()) return failedWith(ENOENT, kNoFile);
    const DWORD length = GetFullPathNameW(given.c_str(), 0, nullptr, nullptr);
    if (length == 0) return failed(kNoFile);
    std::wstring full(length, L'\0');
    full.resize(GetFullPathNameW(given.c_str(), length, full.data(), nullptr));
    while (full.size() > 3 && (full.back() == L'\\' || full.back() == L'/')) full.pop_back();
    // The host's path may pass through links; the folder it names is
    // checked through the handle.
    HANDLE handle = openFolderHandle(full, 0);
    if (handle == INVALID_HANDLE_VALUE) return kNoFile;
    return rememberFolder(handle, std::move(full));
  }

  FileHandle openAt(FileHandle folder, const char* name, OpenFlags flags) override {
    std::wstring path;
    if (!pathIn(folder, name, path)) return kNoFile;
    if (hasFlag(flags, OpenFlags::Folder)) {
      HANDLE handle = openFolderHandle(path, FILE_FLAG_OPEN_REPARSE_POINT);
      if (handle == INVALID_HANDLE_VALUE) return kNoFile;
      if (!refuseLink(handle)) return kNoFile;
      return rememberFolder(handle, std::move(path));
    }
    DWORD access = READ_CONTROL | FILE_READ_ATTRIBUTES;
    if (hasFlag(flags, OpenFlags::ReadWrite)) {
      access |= GENERIC_READ | GENERIC_WRITE;
    } else if (hasFlag(flags, OpenFlags::Write)) {
      access |= GENERIC_WRITE;
    } else {
      access |= GENERIC_READ;
    }
    const bool create = hasFlag(flags, OpenFlags::Create);
    const DWORD disposition = !create                                ? OPEN_EXISTING
                              : hasFlag(flags, OpenFlags::Exclusive) ? CREATE_NEW
                                                                     : OPEN_ALWAYS;
    PrivateSecurity security(false);
    HANDLE handle = CreateFileW(path.c_str(), access, kShareAll, create ? security.attributes() : nullptr,
                                disposition, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return failed(kNoFile);
    if (!refuseLink(handle)) return kNoFile;
    return fileOf(handle);
  }

  int close(FileHandle file) override {
    {
      MutexLock lock(mutex_);
      folders_.erase(file);
    }
    return CloseHandle(handleOf(file)) ? 0 : failed(-1);
  }

  int64_t readAt(FileHandle file, void* buffer, size_t size, uint64_t offset) override {
    OVERLAPPED overlapped = at(offset);
    DWORD read = 0;
    const DWORD ask = static_cast<DWORD>(std::min<size_t>(size, kMostBytesPerCall));
    if (!ReadFile(handleOf(file), buffer, ask, &read, &overlapped)) {
      if (GetLastError() == ERROR_HANDLE_EOF) return 0;
      return failed<int64_t>(-1);
    }
    return read;
  }
  int64_t writeAt(FileHandle file, const void* data, size_t size, uint64_t offset) override {
    OVERLAPPED overlapped = at(offset);
    DWORD written = 0;
    const DWORD ask = static_cast<DWORD>(std::min<size_t>(size, kMostBytesPerCall));
    if (!WriteFile(handleOf(file), data, ask, &written, &overlapped)) return failed<int64_t>(-1);
    return written;
  }
  int64_t writeRunsAt(FileHandle file, const WriteRun* runs, int count, uint64_t offset) override {
    // No gathering write on an ordinary handle: run by run, a short count
    // when a later run fails.
    int64_t total = 0;
    for (int i = 0; i < count; ++i) {
      const int64_t n = writeAt(file, runs[i].data, runs[i].size, offset + static_cast<uint64_t>(total));
      if (n < 0) return total > 0 ? total : -1;
      total += n;
      if (static_cast<size_t>(n) < runs[i].size) break;
    }
    return total;
  }
  int64_t endOf(FileHandle file) override {
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(handleOf(file), &size)) return failed<int64_t>(-1);
    return size.QuadPart;
  }
  int truncate(FileHandle file, uint64_t length) override {
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = static_cast<LONGLONG>(length);
    if (!SetFileInformationByHandle(handleOf(file), FileEndOfFileInfo, &end, sizeof end)) return failed(-1);
    return 0;
  }

  int renameAt(FileHandle fromFolder, const char* from, FileHandle toFolder, const char* to) override {
    std::wstring source;
    std::wstring target;
    if (!pathIn(fromFolder, from, source) || !pathIn(toFolder, to, target)) return -1;
    // A reparse point is moved as itself, never through.
    if (!MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
      return failed(-1);
    }
    return 0;
  }
  int removeAt(FileHandle folder, const char* name) override {
    std::wstring path;
    if (!pathIn(folder, name, path)) return -1;
    return DeleteFileW(path.c_str()) ? 0 : failed(-1);
  }
  int removeFolderAt(FileHandle folder, const char* name) override {
    std::wstring path;
    if (!pathIn(folder, name, path)) return -1;
    return RemoveDirectoryW(path.c_str()) ? 0 : failed(-1);
  }
  int makeFolder(const char* path) override {
    const std::wstring name = wide(path);
    if (name.empty()) return failedWith(ENOENT, -1);
    PrivateSecurity security(true);
    return CreateDirectoryW(name.c_str(), security.attributes()) ? 0 : failed(-1);
  }
  int makeFolderAt(FileHandle folder, const char* name) override {
    std::wstring path;
    if (!pathIn(folder, name, path)) return -1;
    PrivateSecurity security(true);
    return CreateDirectoryW(path.c_str(), security.attributes()) ? 0 : failed(-1);
  }

  int syncData(FileHandle file) override { return FlushFileBuffers(handleOf(file)) ? 0 : failed(-1); }
  int syncFolder(FileHandle) override {
    // NTFS logs the names made, renamed and removed in a folder, and every
    // rename is made with MOVEFILE_WRITE_THROUGH: there is nothing to flush.
    return 0;
  }

  void* mapShared(FileHandle file, size_t size) override {
    const uint64_t bytes = size;
    HANDLE mapping = CreateFileMappingW(handleOf(file), nullptr, PAGE_READWRITE,
                                        static_cast<DWORD>(bytes >> 32), static_cast<DWORD>(bytes), nullptr);
    if (mapping == nullptr) return failed<void*>(nullptr);
    void* view = MapViewOfFile(mapping, FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, size);
    const DWORD error = GetLastError();
    // The view keeps the mapping alive.
    CloseHandle(mapping);
    if (view == nullptr) return failedWith<void*>(errnoOf(error), nullptr);
    return view;
  }
  int unmap(void* address, size_t) override { return UnmapViewOfFile(address) ? 0 : failed(-1); }
  // No call makes a view's pages writable without writing them: the front
  // writes them when it makes the segment.
  int prefault(void*, size_t) override {
    errno = ENOSYS;
    return -1;
  }
  int syncMapped(FileHandle file, void* address, size_t size) override {
    // FlushViewOfFile starts writing the pages; FlushFileBuffers waits for
    // them to be on the disk.
    if (!FlushViewOfFile(address, size)) return failed(-1);
    return FlushFileBuffers(handleOf(file)) ? 0 : failed(-1);
  }

  int info(FileHandle file, FileInfo& out) override { return describe(handleOf(file), out); }
  int infoAt(FileHandle folder, const char* name, FileInfo& out) override {
    std::wstring path;
    if (!pathIn(folder, name, path)) return -1;
    return infoOfWide(path, FILE_FLAG_OPEN_REPARSE_POINT, out);
  }
  int infoOfPath(const char* path, FileInfo& out) override {
    const std::wstring name = wide(path);
    if (name.empty()) return failedWith(ENOENT, -1);
    return infoOfWide(name, 0, out);
  }
  int makePrivate(FileHandle file) override {
    FileInfo info;
    if (describe(handleOf(file), info) != 0) return -1;
    PrivateSecurity security(info.type == FileType::Folder);
    if (security.descriptor() == nullptr) return failedWith(EPERM, -1);
    // The descriptor as it is, protected: SetSecurityInfo would merge in
    // what the parent folder passes down (and does, under Wine).
    if (!SetKernelObjectSecurity(handleOf(file), DACL_SECURITY_INFORMATION, security.descriptor())) {
      return failed(-1);
    }
    return 0;
  }
  int lock(FileHandle file, bool wait) override {
    OVERLAPPED overlapped{};
    const DWORD flags = LOCKFILE_EXCLUSIVE_LOCK | (wait ? 0 : LOCKFILE_FAIL_IMMEDIATELY);
    if (LockFileEx(handleOf(file), flags, 0, MAXDWORD, MAXDWORD, &overlapped)) return 0;
    const DWORD error = GetLastError();
    if (error == ERROR_LOCK_VIOLATION || error == ERROR_IO_PENDING) return failedWith(EWOULDBLOCK, -1);
    return failedWith(errnoOf(error), -1);
  }

  bool listFolder(FileHandle folder, std::vector<std::string>& names) override {
    std::wstring pattern;
    {
      MutexLock lock(mutex_);
      auto it = folders_.find(folder);
      if (it == folders_.end()) return failedWith(ENOTDIR, false);
      pattern = it->second + L"\\*";
    }
    WIN32_FIND_DATAW entry{};
    HANDLE find = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch, nullptr, 0);
    if (find == INVALID_HANDLE_VALUE) return failed(false);
    names.clear();
    do {
      const std::wstring_view name = entry.cFileName;
      if (name != L"." && name != L"..") names.push_back(narrow(name));
    } while (FindNextFileW(find, &entry));
    const DWORD error = GetLastError();
    FindClose(find);
    if (error != ERROR_NO_MORE_FILES) return failedWith(errnoOf(error), false);
    return true;
  }

  uint64_t fileSizeLimit() override { return UINT64_MAX; }
  std::string user() override { return currentUser().text(); }

 private:
  static HANDLE openFolderHandle(const std::wstring& path, DWORD extraFlags) {
    // WRITE_DAC to make it private; a folder the user may not change that
    // way is still opened, and refused by its owner or access list.
    constexpr DWORD kAccess = FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE;
    const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | extraFlags;
    HANDLE handle = CreateFileW(path.c_str(), kAccess | WRITE_DAC, kShareAll, nullptr, OPEN_EXISTING, flags, nullptr);
    if (handle == INVALID_HANDLE_VALUE && GetLastError() == ERROR_ACCESS_DENIED) {
      handle = CreateFileW(path.c_str(), kAccess, kShareAll, nullptr, OPEN_EXISTING, flags, nullptr);
    }
    if (handle == INVALID_HANDLE_VALUE) return failed(INVALID_HANDLE_VALUE);
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info) || (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      CloseHandle(handle);
      return failedWith(ENOTDIR, INVALID_HANDLE_VALUE);
    }
    return handle;
  }

  // Closes a handle that opened a reparse point: such a name is refused.
  static bool refuseLink(HANDLE handle) {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info)) {
      const DWORD error = GetLastError();
      CloseHandle(handle);
      return failedWith(errnoOf(error), false);
    }
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      CloseHandle(handle);
      return failedWith(ELOOP, false);
    }
    return true;
  }

  static int infoOfWide(const std::wstring& path, DWORD extraFlags, FileInfo& out) {
    HANDLE handle = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES | READ_CONTROL, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS | extraFlags, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return failed(-1);
    const int result = describe(handle, out);
    CloseHandle(handle);
    return result;
  }

  FileHandle rememberFolder(HANDLE handle, std::wstring path) {
    MutexLock lock(mutex_);
    folders_[fileOf(handle)] = std::move(path);
    return fileOf(handle);
  }

  // The full path of name in folder; false (errno set) for an unknown
  // folder or a name that is not a single component.
  bool pathIn(FileHandle folder, const char* name, std::wstring& out) const {
    if (!validName(name)) return failedWith(EINVAL, false);
    const std::wstring component = wide(name);
    if (component.empty()) return failedWith(EINVAL, false);
    MutexLock lock(mutex_);
    auto it = folders_.find(folder);
    if (it == folders_.end()) return failedWith(EBADF, false);
    out = it->second + L"\\" + component;
    return true;
  }

  mutable Mutex mutex_;
  // Each open folder handle and the full path it was opened by.
  std::unordered_map<FileHandle, std::wstring> folders_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace

FileSystem& systemFileSystem() {
  static auto* fileSystem = new WindowsFileSystem;
  return *fileSystem;
}

uint64_t memoryPageBytes() {
  static const uint64_t bytes = [] {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    return static_cast<uint64_t>(info.dwPageSize);
  }();
  return bytes;
}

}  // namespace korvel::network::internal
