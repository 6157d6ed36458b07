// The file-system seam under the journal: every call the journal makes on
// its folder goes through a FileSystem, so the tests can fail any of them
// at will (FaultInjectingFileSystem in tests/support) and production runs
// the operating system's own calls, one implementation per system
// (FileSystem_posix.cpp, FileSystem_windows.cpp).
//
// The seam names no type of one system: files are FileHandles, flags are
// OpenFlags, what a file is comes back as a FileInfo. Errors are errno
// values on every system (ENOENT, EACCES, ENOSPC, EMFILE, EFBIG, ELOOP,
// EEXIST, EWOULDBLOCK...), so the journal's fault handling reads the same
// everywhere: each call answers -1 (or null, or false) with errno set.
//
// Names are always relative to a folder the caller opened, and a link (a
// reparse point on Windows) in a name is never followed: opening one fails
// with ELOOP. Files and folders are made private to the user.
//
// Not on the report call's path: an append is a copy into a mapping, and a
// segment that is not mapped is written through the handle directly. The
// seam is for opening, syncing, reading, renaming and removing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace korvel::network::internal {

// An open file or folder: a descriptor on POSIX, a HANDLE on Windows.
using FileHandle = std::intptr_t;
inline constexpr FileHandle kNoFile = -1;

// The kinds of call, for counting and for failing them.
enum class FileCall : uint8_t {
  Open,      // openAt, openFolder
  Read,      // readAt
  Write,     // writeAt, writeRunsAt
  Truncate,  // truncate
  Rename,    // renameAt
  Unlink,    // removeAt, removeFolderAt
  MakeDir,   // makeFolder, makeFolderAt
  Sync,      // syncData, syncFolder, syncMapped
  Map,       // mapShared
  Stat,      // info, infoAt, infoOfPath
  List,      // listFolder
  Lock,      // lock
  Chmod,     // makePrivate
  Count
};

// How openAt opens a name; combined with |.
enum class OpenFlags : uint8_t {
  Read = 0,           // for reading only
  Write = 1 << 0,     // for writing only
  ReadWrite = 1 << 1,
  Create = 1 << 2,     // made (private to the user) when missing
  Exclusive = 1 << 3,  // with Create: EEXIST when it is there
  Append = 1 << 4,
  Folder = 1 << 5,  // a folder, to name files in (ENOTDIR when not one)
};
constexpr OpenFlags operator|(OpenFlags a, OpenFlags b) {
  return static_cast<OpenFlags>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}
constexpr bool hasFlag(OpenFlags flags, OpenFlags flag) {
  return (static_cast<unsigned>(flags) & static_cast<unsigned>(flag)) != 0;
}

enum class FileType : uint8_t { Regular, Folder, Link, Other };

// What a file is.
struct FileInfo {
  FileType type = FileType::Other;
  uint64_t size = 0;
  // Which file it is: the device (volume) and its number there. Two names
  // with equal identities are the same file.
  uint64_t device = 0;
  uint64_t fileNumber = 0;
  // Names it has; 0 once it was removed while open.
  uint64_t links = 1;
  int64_t modifiedNanos = 0;  // since 1970
  // The user who owns it, as the system names users ("uid 1000", a SID);
  // compared with FileSystem::user().
  std::string owner;
  // Users other than the owner may read or change it.
  bool openToOthers = false;
  // Who may use it, for messages ("mode 0777").
  std::string access;
};

// A run of bytes to write.
struct WriteRun {
  const void* data;
  size_t size;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // A folder by its path, for the data folder itself. The path is the
  // host's and may pass through links; what it names is then checked
  // (owner, access) through the handle.
  virtual FileHandle openFolder(const char* path) = 0;
  virtual FileHandle openAt(FileHandle folder, const char* name, OpenFlags flags) = 0;
  virtual int close(FileHandle file) = 0;

  // Bytes read (0 at the end), or -1.
  virtual int64_t readAt(FileHandle file, void* buffer, size_t size, uint64_t offset) = 0;
  // Bytes written (perhaps fewer than asked), or -1.
  virtual int64_t writeAt(FileHandle file, const void* data, size_t size, uint64_t offset) = 0;
  virtual int64_t writeRunsAt(FileHandle file, const WriteRun* runs, int count, uint64_t offset) = 0;
  // The file's size, or -1.
  virtual int64_t endOf(FileHandle file) = 0;
  // Cuts (or extends with zeros) the file to length. Not while it is mapped.
  virtual int truncate(FileHandle file, uint64_t length) = 0;

  // Replaces what to names, if anything.
  virtual int renameAt(FileHandle fromFolder, const char* from, FileHandle toFolder, const char* to) = 0;
  // Open files may be removed, mapped ones not (Windows refuses).
  virtual int removeAt(FileHandle folder, const char* name) = 0;
  // An empty folder.
  virtual int removeFolderAt(FileHandle folder, const char* name) = 0;
  // A private folder by its path, or by its name in a folder.
  virtual int makeFolder(const char* path) = 0;
  virtual int makeFolderAt(FileHandle folder, const char* name) = 0;

  // Makes the file's bytes survive a power loss.
  virtual int syncData(FileHandle file) = 0;
  // Makes the names made, renamed and removed in a folder survive one.
  virtual int syncFolder(FileHandle folder) = 0;

  // A shared, writable mapping of the file's first size bytes; null when
  // it cannot be made.
  virtual void* mapShared(FileHandle file, size_t size) = 0;
  virtual int unmap(void* address, size_t size) = 0;
  // Makes the pages of size bytes of a mapping, from address (page
  // aligned), present and writable without changing a byte, so that writes
  // into them take no page fault; safe while other threads write there. -1
  // where the system has no such call (the caller writes the pages itself
  // before anyone else may).
  virtual int prefault(void* address, size_t size) = 0;
  // Makes size bytes written through a mapping of file survive a power
  // loss, from address (page aligned).
  virtual int syncMapped(FileHandle file, void* address, size_t size) = 0;

  virtual int info(FileHandle file, FileInfo& out) = 0;
  // Does not follow a link in name.
  virtual int infoAt(FileHandle folder, const char* name, FileInfo& out) = 0;
  // Follows the path as the host would: what the data folder's path names now.
  virtual int infoOfPath(const char* path, FileInfo& out) = 0;
  // Only the owner may use it from now on.
  virtual int makePrivate(FileHandle file) = 0;
  // An exclusive lock held until the handle is closed (or the process
  // ends). Without wait, -1 with EWOULDBLOCK when another handle holds it.
  virtual int lock(FileHandle file, bool wait) = 0;

  // The names in a folder, without "." and "..".
  virtual bool listFolder(FileHandle folder, std::vector<std::string>& names) = 0;

  // The largest file this process may write; UINT64_MAX when unlimited.
  virtual uint64_t fileSizeLimit() = 0;
  // This process's user, named as FileInfo::owner names owners.
  virtual std::string user() = 0;
};

// The system's own calls; one shared instance.
FileSystem& systemFileSystem();

// Mappings and their syncs work in whole pages of this size.
uint64_t memoryPageBytes();

}  // namespace korvel::network::internal
