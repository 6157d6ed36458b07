// Processor features on Linux: the kernel's hardware capability bits.
#include <korvel/platform/internal/Cpu.h>

#include <sys/auxv.h>

#if defined(__aarch64__)
#include <asm/hwcap.h>
#endif

namespace korvel::platform::internal {

bool armCrc32Available() noexcept {
#if defined(__aarch64__)
  return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0;
#else
  return false;
#endif
}

}  // namespace korvel::platform::internal
