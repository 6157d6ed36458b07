// Private files and folders, and durable replacement, on Windows. What 0600
// and 0700 are on Linux is here an access list naming the current user
// alone, protected from what the parent folder would pass down; the
// temporary file is flushed with FlushFileBuffers and renamed over the old
// one with MoveFileEx's replace-existing and write-through.
#include <korvel/platform/Files.h>

#include <windows.h>
#include <aclapi.h>

#include <memory>
#include <vector>

#include <korvel/platform/internal/FilesInternal.h>

namespace korvel::platform {

namespace {

std::error_code lastError() {
  return std::error_code(static_cast<int>(GetLastError()), std::system_category());
}

std::string messageOf(DWORD code) {
  return std::error_code(static_cast<int>(code), std::system_category()).message();
}

struct HandleCloser {
  void operator()(HANDLE h) const noexcept {
    if (h != nullptr && h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

struct LocalFreer {
  void operator()(void* p) const noexcept { LocalFree(p); }
};

// The current user's SID, copied out of the process token.
class UserSid {
 public:
  UserSid() {
    HANDLE token = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return;
    UniqueHandle owned(token);
    DWORD size = 0;
    GetTokenInformation(token, TokenUser, nullptr, 0, &size);
    if (size == 0) return;
    buffer_.resize(size);
    if (!GetTokenInformation(token, TokenUser, buffer_.data(), size, &size)) buffer_.clear();
  }
  PSID get() const {
    return buffer_.empty() ? nullptr : reinterpret_cast<const TOKEN_USER*>(buffer_.data())->User.Sid;
  }

 private:
  std::vector<unsigned char> buffer_;
};

const UserSid& currentUser() {
  static const auto* sid = new UserSid;
  return *sid;
}

// An access list with one entry: everything for the current user, passed on
// to the files and folders inside a folder.
class PrivateAcl {
 public:
  explicit PrivateAcl(bool inherit) {
    PSID sid = currentUser().get();
    if (sid == nullptr) return;
    const DWORD size = sizeof(ACL) + sizeof(ACCESS_ALLOWED_ACE) + GetLengthSid(sid);
    buffer_.resize(size);
    auto* acl = reinterpret_cast<PACL>(buffer_.data());
    const DWORD flags = inherit ? (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE) : 0;
    if (!InitializeAcl(acl, size, ACL_REVISION) ||
        !AddAccessAllowedAceEx(acl, ACL_REVISION, flags, GENERIC_ALL, sid)) {
      buffer_.clear();
    }
  }
  PACL get() { return buffer_.empty() ? nullptr : reinterpret_cast<PACL>(buffer_.data()); }

 private:
  std::vector<unsigned char> buffer_;
};

// Security attributes that give a new file or folder the private list.
struct PrivateAttributes {
  explicit PrivateAttributes(bool folder) : acl(folder) {
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, acl.get(), FALSE);
    SetSecurityDescriptorControl(&descriptor, SE_DACL_PROTECTED, SE_DACL_PROTECTED);
    attributes.nLength = sizeof attributes;
    attributes.lpSecurityDescriptor = &descriptor;
    attributes.bInheritHandle = FALSE;
  }
  bool usable() { return acl.get() != nullptr; }

  PrivateAcl acl;
  SECURITY_DESCRIPTOR descriptor{};
  SECURITY_ATTRIBUTES attributes{};
};

// Gives an existing file or folder the private list, in place of what it
// has or inherits; a Win32 error code, ERROR_SUCCESS when done.
DWORD makePrivate(HANDLE handle, bool folder) {
  PrivateAcl acl(folder);
  if (acl.get() == nullptr) return ERROR_INVALID_SID;
  return SetSecurityInfo(handle, SE_FILE_OBJECT,
                         DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, nullptr,
                         nullptr, acl.get(), nullptr);
}

DWORD makePrivate(const std::filesystem::path& path, bool folder) {
  PrivateAcl acl(folder);
  if (acl.get() == nullptr) return ERROR_INVALID_SID;
  std::wstring name = path.wstring();
  return SetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT,
                               DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                               nullptr, nullptr, acl.get(), nullptr);
}

bool isFolder(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool writeAll(HANDLE file, std::span<const uint8_t> bytes) {
  const uint8_t* at = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const DWORD chunk = left > (1u << 30) ? (1u << 30) : static_cast<DWORD>(left);
    DWORD written = 0;
    if (!WriteFile(file, at, chunk, &written, nullptr)) return false;
    at += written;
    left -= written;
  }
  return true;
}

// Opens path for writing, emptied, private; never through a reparse point
// (a symbolic link or junction) in the last component.
UniqueHandle openPrivateForWriting(const std::filesystem::path& path, std::error_code& error) {
  PrivateAttributes security(/*folder=*/false);
  HANDLE h = CreateFileW(path.c_str(), GENERIC_WRITE | WRITE_DAC | READ_CONTROL, FILE_SHARE_READ,
                         security.usable() ? &security.attributes : nullptr, OPEN_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    error = lastError();
    return nullptr;
  }
  UniqueHandle file(h);
  BY_HANDLE_FILE_INFORMATION info{};
  if (!GetFileInformationByHandle(h, &info)) {
    error = lastError();
    return nullptr;
  }
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    error = std::make_error_code(std::errc::too_many_symbolic_link_levels);
    return nullptr;
  }
  // An existing file keeps its access list through OPEN_ALWAYS: made
  // private too, then emptied.
  if (const DWORD code = makePrivate(h, /*folder=*/false); code != ERROR_SUCCESS) {
    error = std::error_code(static_cast<int>(code), std::system_category());
    return nullptr;
  }
  if (!SetEndOfFile(h)) {
    error = lastError();
    return nullptr;
  }
  return file;
}

}  // namespace

bool writeFileReplacing(const std::filesystem::path& path,
                        std::span<const std::span<const uint8_t>> pieces,
                        std::error_code& error) {
  error.clear();
  UniqueHandle file = openPrivateForWriting(path, error);
  if (!file) return false;
  for (const auto& piece : pieces) {
    if (!writeAll(file.get(), piece)) {
      error = lastError();
      return false;
    }
  }
  return true;
}

bool createPrivateDirectories(const std::filesystem::path& path, std::error_code& error) {
  error.clear();
  if (path.empty()) {
    error = std::make_error_code(std::errc::invalid_argument);
    return false;
  }
  std::filesystem::path built;
  for (const auto& part : path) {
    built /= part;
    // The root ("C:\", "\\server\share\") and folders that exist are left as
    // they are.
    if (!built.has_relative_path() || isFolder(built)) continue;
    PrivateAttributes security(/*folder=*/true);
    if (CreateDirectoryW(built.c_str(), security.usable() ? &security.attributes : nullptr)) {
      continue;
    }
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
      error = lastError();
      return false;
    }
  }
  if (!isFolder(path)) {
    error = std::make_error_code(std::errc::not_a_directory);
    return false;
  }
  return true;
}

std::optional<std::string> unsafePrivateDirectory(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return messageOf(GetLastError());
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return std::string("not a folder");

  PSID owner = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD read = GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT, OWNER_SECURITY_INFORMATION,
                                           &owner, nullptr, nullptr, nullptr, &descriptor);
  std::unique_ptr<void, LocalFreer> freeDescriptor(descriptor);
  if (read != ERROR_SUCCESS) return "its owner cannot be read: " + messageOf(read);
  PSID user = currentUser().get();
  // A folder an administrator's elevated process created belongs to the
  // Administrators group; one the user may administer is the user's own.
  bool own = user != nullptr && owner != nullptr && EqualSid(owner, user);
  if (!own && owner != nullptr && IsWellKnownSid(owner, WinBuiltinAdministratorsSid)) {
    BOOL member = FALSE;
    own = CheckTokenMembership(nullptr, owner, &member) && member;
  }
  if (!own) return std::string("owned by another user");
  if (const DWORD code = makePrivate(path, /*folder=*/true); code != ERROR_SUCCESS) {
    return "open to other users, and it cannot be made private: " + messageOf(code);
  }
  return std::nullopt;
}

bool internal::replaceFileDurably(const std::filesystem::path& path, std::string_view data,
                        std::string& error) {
  std::error_code ec;
  if (path.has_parent_path()) createPrivateDirectories(path.parent_path(), ec);
  if (ec) {
    error = "cannot create " + utf8FromPath(path.parent_path()) + ": " + ec.message();
    return false;
  }
  const std::filesystem::path temporary = temporarySibling(path);
  const std::string temporaryName = utf8FromPath(temporary);
  PrivateAttributes security(/*folder=*/false);
  HANDLE h = CreateFileW(temporary.c_str(), GENERIC_WRITE | DELETE, 0,
                         security.usable() ? &security.attributes : nullptr, CREATE_ALWAYS,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
  if (h == INVALID_HANDLE_VALUE) {
    error = "cannot create " + temporaryName + ": " + messageOf(GetLastError());
    return false;
  }
  UniqueHandle file(h);
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  bool ok = writeAll(h, bytes) && FlushFileBuffers(h);
  if (!ok) error = "cannot write " + temporaryName + ": " + messageOf(GetLastError());
  file.reset();
  if (ok && !MoveFileExW(temporary.c_str(), path.c_str(),
                         MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    ok = false;
    error = "cannot rename " + temporaryName + " to " + utf8FromPath(path) + ": " +
            messageOf(GetLastError());
  }
  if (!ok) {
    DeleteFileW(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace korvel::platform
