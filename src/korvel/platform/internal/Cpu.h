// What the processor offers beyond its baseline, asked once.
#pragma once

namespace korvel::platform::internal {

// Whether the ARMv8 CRC32 instructions (CRC32C* included) may be used; false
// on other processors and where the system cannot tell.
bool armCrc32Available() noexcept;

}  // namespace korvel::platform::internal
