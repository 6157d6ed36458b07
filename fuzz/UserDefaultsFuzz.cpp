// A user-defaults file of arbitrary content: loaded (or set aside), then
// written back.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <korvel/platform/KVNUserDefaults.h>
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto path = korvel::fuzz::scratch() / "defaults.json";
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(korvel::fuzz::scratch(), ec)) {
    std::filesystem::remove_all(entry.path(), ec);
  }
  korvel::fuzz::writeFile(path, std::string_view(reinterpret_cast<const char*>(data), size));
  korvel::KVNUserDefaults defaults(path.string());
  (void)defaults.setObject(korvel::KVRValue("x"), "fuzz");
  (void)defaults.dictionaryRepresentation();
  return 0;
}
