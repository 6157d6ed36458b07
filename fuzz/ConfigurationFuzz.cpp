// The configuration document as the server might send it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/network/KVNConfigurationManager.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  korvel::KVNConfiguration configuration;
  std::string error;
  (void)korvel::KVNConfigurationManager::applyConfigurationDocument(
      std::string_view(reinterpret_cast<const char*>(data), size), configuration, &error);
  return 0;
}
