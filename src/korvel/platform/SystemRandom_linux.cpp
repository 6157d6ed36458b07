// The kernel's random bytes: getrandom, or /dev/urandom where that is
// unavailable (an old kernel, a seccomp filter).
#include <korvel/platform/internal/SystemRandom.h>

#include <cerrno>

#include <fcntl.h>
#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

namespace korvel::platform::internal {

namespace {

bool fillFromGetrandom(unsigned char* out, size_t size) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t n = ::getrandom(out + filled, size - filled, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    filled += static_cast<size_t>(n);
  }
  return true;
}

bool fillFromDevURandom(unsigned char* out, size_t size) {
  const int fd = ::open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  size_t filled = 0;
  while (filled < size) {
    const ssize_t n = ::read(fd, out + filled, size - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    filled += static_cast<size_t>(n);
  }
  ::close(fd);
  return filled == size;
}

}  // namespace

bool systemRandomBytes(unsigned char* out, size_t size) noexcept {
  return fillFromGetrandom(out, size) || fillFromDevURandom(out, size);
}

void callInForkedChildren(void (*child)()) noexcept {
  static const bool registered = [child] {
    ::pthread_atfork(nullptr, nullptr, child);
    return true;
  }();
  (void)registered;
}

}  // namespace korvel::platform::internal
