// The keyed-archive decoder and the beacon restorer on arbitrary payloads,
// as a stored request is read back.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/foundation/KeyedArchive.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool registered = [] {
    korvel::KVRBeacon::registerRequestRestorer();
    return true;
  }();
  (void)registered;
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  if (auto coder = korvel::platform::KeyedUnarchiver::open(payload)) {
    (void)coder->decodeString("$class");
    (void)coder->decodeDictionary("parameters");
  }
  if (auto request = korvel::KVNReloadRequest(korvel::KVRBeacon::kRestorationKind, payload)) {
    (void)request->buildEndpoint();
  }
  return 0;
}
