#include <korvel/platform/Files.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

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

bool writeFileReplacing(const std::filesystem::path& path, std::span<const uint8_t> content,
                        std::error_code& error) {
  const std::span<const uint8_t> pieces[] = {content};
  return writeFileReplacing(path, pieces, error);
}

std::optional<Data> readFileContents(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Data out;
  const auto size = std::filesystem::file_size(path, ec);
  if (!ec) out.reserve(static_cast<size_t>(size));
  char buffer[64 * 1024];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    out.insert(out.end(), buffer, buffer + in.gcount());
  }
  if (in.bad()) return std::nullopt;
  return out;
}

}  // namespace korvel::platform
