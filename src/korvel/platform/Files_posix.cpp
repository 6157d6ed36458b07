// Private files and folders, and durable replacement, on POSIX systems:
// modes 0600 and 0700 whatever the umask, fsync and rename.
#include <korvel/platform/Files.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <korvel/platform/internal/FilesInternal.h>

namespace korvel::platform {

namespace {

bool writeAll(int fd, std::span<const uint8_t> bytes) {
  const uint8_t* at = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    const ssize_t n = ::write(fd, at, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    at += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool writeFileReplacing(const std::filesystem::path& path,
                        std::span<const std::span<const uint8_t>> pieces,
                        std::error_code& error) {
  error.clear();
  int fd;
  do {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    error.assign(errno, std::generic_category());
    return false;
  }
  // An existing file keeps its mode through O_TRUNC: make it private too.
  if (::fchmod(fd, 0600) != 0) {
    error.assign(errno, std::generic_category());
    ::close(fd);
    return false;
  }
  for (const auto& piece : pieces) {
    if (!writeAll(fd, piece)) {
      error.assign(errno, std::generic_category());
      ::close(fd);
      return false;
    }
  }
  if (::close(fd) != 0 && errno != EINTR) {
    error.assign(errno, std::generic_category());
    return false;
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
    if (::mkdir(built.c_str(), 0700) == 0) {
      // mkdir applies the umask; a stricter one than 077 is kept as it is.
      continue;
    }
    if (errno != EEXIST) {
      error.assign(errno, std::generic_category());
      return false;
    }
  }
  std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error) return false;
  if (!std::filesystem::is_directory(status)) {
    error = std::make_error_code(std::errc::not_a_directory);
    return false;
  }
  return true;
}

std::optional<std::string> unsafePrivateDirectory(const std::filesystem::path& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::string(std::strerror(errno));
  if (!S_ISDIR(status.st_mode)) return std::string("not a folder");
  if (status.st_uid != ::geteuid()) {
    return "owned by another user (uid " + std::to_string(status.st_uid) + ")";
  }
  if ((status.st_mode & 022) != 0 && ::chmod(path.c_str(), 0700) != 0) {
    return std::string("writable by group or others, and it cannot be made private: ") +
           std::strerror(errno);
  }
  return std::nullopt;
}


bool internal::replaceFileDurably(const std::filesystem::path& path, std::string_view data,
                        std::string& error) {
  std::error_code ec;
  if (path.has_parent_path()) createPrivateDirectories(path.parent_path(), ec);
  if (ec) {
    error = "cannot create " + path.parent_path().string() + ": " + ec.message();
    return false;
  }
  const std::string temporary = temporarySibling(path).string();
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = "cannot create " + temporary + ": " + std::strerror(errno);
    return false;
  }
  const std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  if (!ok) error = "cannot write " + temporary + ": " + std::strerror(errno);
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = "cannot close " + temporary + ": " + std::strerror(errno);
  }
  if (ok && ::rename(temporary.c_str(), path.c_str()) != 0) {
    ok = false;
    error = "cannot rename " + temporary + " to " + path.string() + ": " + std::strerror(errno);
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    return false;
  }
  // Make the rename itself durable.
  const std::string directory = path.has_parent_path() ? path.parent_path().string() : ".";
  const int dirfd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dirfd >= 0) {
    ::fsync(dirfd);
    ::close(dirfd);
  }
  return true;
}

}  // namespace korvel::platform
