// Processor features on Windows, as the system reports them.
#include <korvel/platform/internal/Cpu.h>

#include <windows.h>

namespace korvel::platform::internal {

bool armCrc32Available() noexcept {
#if defined(_M_ARM64) || defined(__aarch64__)
  return IsProcessorFeaturePresent(PF_ARM_V8_CRC32_INSTRUCTIONS_AVAILABLE) != 0;
#else
  return false;
#endif
}

}  // namespace korvel::platform::internal
