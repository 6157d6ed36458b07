// The keyed-archive decoder and the beacon restorer on arbitrary payloads,
// as a stored request is read back. The decoder is also held against a
// JSON document of the same bytes: whatever it opens is a map with the same
// keys, and its texts and booleans are the document's. A beacon read back
// to be sent has its URL written straight from the archive where it can
// be: that URL must be the one the fully restored record gives.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNRequestReload.h>
#include <korvel/foundation/KeyedArchive.h>
#include <korvel/platform/Env.h>

namespace {

using Json = nlohmann::ordered_json;

// A clock that stands still: an archive without its creation time takes
// the time of its decoding, and both decodings must see the same.
class StillClock final : public korvel::platform::EnvWrapper {
 public:
  StillClock() : EnvWrapper(korvel::platform::Env::Default()) {}
  double now() override { return 1'700'000'000.5; }
};

void compareWithDocument(const korvel::KeyedUnarchiver& coder, const uint8_t* data,
                         size_t size) {
  const Json document = Json::from_cbor(data, data + size, /*strict=*/true,
                                        /*allow_exceptions=*/false, Json::cbor_tag_handler_t::store);
  if (!document.is_object()) std::abort();
  for (const auto& [key, value] : document.items()) {
    if (!coder.containsValueForKey(key)) std::abort();
    const auto text = coder.decodeString(key);
    if (value.is_string() != text.has_value()) std::abort();
    if (text && *text != value.get<std::string>()) std::abort();
    const auto flag = coder.decodeBool(key);
    if (value.is_boolean() != flag.has_value()) std::abort();
    if (flag && *flag != value.get<bool>()) std::abort();
    if (value.is_number_integer() && !value.is_number_unsigned() &&
        coder.decodeInt(key) != value.get<int64_t>()) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static StillClock clock;
  static korvel::platform::ScopedEnv scope(clock);
  static const bool registered = [] {
    korvel::KVRBeacon::registerRequestRestorer();
    korvel::KVNConfiguration::sharedInstance().update([](korvel::KVNConfiguration::Snapshot& s) {
      s.inid = "FUZZ-INID";
      s.configured = true;
      s.deviceModel = "Fuzz1,1";
      s.beacons.beaconEndpoint = "http://127.0.0.1:9/b/{inid}/{appversion}/{devicemodel}?k=v";
    });
    return true;
  }();
  (void)registered;
  const std::string_view payload(reinterpret_cast<const char*>(data), size);
  if (auto coder = korvel::KeyedUnarchiver::open(payload)) {
    (void)coder->decodeString("$class");
    (void)coder->decodeDictionary("parameters");
    compareWithDocument(*coder, data, size);
  }
  const auto readBack = korvel::KVNReloadRequest(korvel::KVRBeacon::kRestorationKind, payload);
  const auto endpoint = readBack ? readBack->buildEndpoint() : std::nullopt;
  if (endpoint) {
    const auto restored =
        korvel::KVNRequestRestorers::restore(korvel::KVRBeacon::kRestorationKind, payload);
    const auto full = restored ? restored->buildEndpoint() : std::nullopt;
    if (!full || full->urlString() != endpoint->urlString()) std::abort();
  }
  return 0;
}
