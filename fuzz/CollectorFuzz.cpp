// The collector's decoding of a request target.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "collector/BeaconCollector.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto beacon = korvel::tools::CollectedBeacon::decode(
      std::string_view(reinterpret_cast<const char*>(data), size));
  (void)beacon.toJsonLine();
  return 0;
}
