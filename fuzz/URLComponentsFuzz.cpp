// URL parsing, and printing back what was parsed.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <korvel/foundation/URLComponents.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto url = korvel::URLComponents::parse(text)) {
    (void)korvel::URLComponents::parse(url->string());
  }
  return 0;
}
