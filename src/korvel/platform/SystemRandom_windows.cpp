// The system's random bytes on Windows: BCryptGenRandom with the system's
// preferred generator (the same one RtlGenRandom and rand_s draw from).
#include <korvel/platform/internal/SystemRandom.h>

#include <windows.h>
#include <bcrypt.h>

#include <limits>

namespace korvel::platform::internal {

bool systemRandomBytes(unsigned char* out, size_t size) noexcept {
  while (size > 0) {
    const ULONG chunk = static_cast<ULONG>(
        size < std::numeric_limits<ULONG>::max() ? size : std::numeric_limits<ULONG>::max());
    if (!BCRYPT_SUCCESS(BCryptGenRandom(nullptr, out, chunk, BCRYPT_USE_SYSTEM_PREFERRED_RNG))) {
      return false;
    }
    out += chunk;
    size -= chunk;
  }
  return true;
}

// Windows processes do not fork: a child never shares its parent's buffers.
void callInForkedChildren(void (*)()) noexcept {}

}  // namespace korvel::platform::internal
