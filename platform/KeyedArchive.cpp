#include "platform/KeyedArchive.h"

#include <charconv>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace korvel::platform {

namespace {

using Json = nlohmann::ordered_json;
using Binary = Json::binary_t;

// How kinds without a native CBOR form are stored: a tagged byte string.
// CBOR cannot tell a non-negative signed integer from an unsigned one, so
// unsigned values get a tag of their own and plain CBOR integers stay Int.
constexpr std::uint8_t kDateSubtype = 1;  // 8 bytes: little-endian IEEE double
constexpr std::uint8_t kURLSubtype = 2;   // the URL's text
constexpr std::uint8_t kUIntSubtype = 3;  // 8 bytes: little-endian uint64

// Deeper nesting than this is refused before decoding (the decoder recurses
// once per level; corrupt input must not be able to exhaust the stack).
constexpr size_t kMaxDepth = 256;

Json littleEndianBytes(std::uint64_t bits, std::uint8_t subtype) {
  std::vector<std::uint8_t> bytes(8);
  for (size_t i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(bits >> (8 * i));
  return Json::binary(std::move(bytes), subtype);
}

std::uint64_t fromLittleEndian(const Binary& bytes) {
  std::uint64_t bits = 0;
  for (size_t i = 8; i-- > 0;) bits = (bits << 8) | bytes[i];
  return bits;
}

std::uint64_t unsignedValue(const KVRValue& value) {
  if (auto i = value.asInt()) return static_cast<std::uint64_t>(*i);
  // Above INT64_MAX: the decimal text is the only exact accessor.
  const std::string text = value.description();
  std::uint64_t u = 0;
  std::from_chars(text.data(), text.data() + text.size(), u);
  return u;
}

Json toJson(const KVRValue& value) {
  switch (value.kind()) {
    case KVRValue::Kind::String:
      return *value.asString();
    case KVRValue::Kind::Int:
      return *value.asInt();
    case KVRValue::Kind::UInt:
      return littleEndianBytes(unsignedValue(value), kUIntSubtype);
    case KVRValue::Kind::Double:
      return *value.asDouble();
    case KVRValue::Kind::Bool:
      return *value.asBool();
    case KVRValue::Kind::Date: {
      const double seconds = value.asDate()->secondsSince1970;
      std::uint64_t bits = 0;
      std::memcpy(&bits, &seconds, sizeof bits);
      return littleEndianBytes(bits, kDateSubtype);
    }
    case KVRValue::Kind::URL: {
      const std::string& text = value.asURL()->absoluteString;
      return Json::binary(std::vector<std::uint8_t>(text.begin(), text.end()), kURLSubtype);
    }
    case KVRValue::Kind::Dictionary: {
      Json object = Json::object();
      for (const auto& [key, entry] : *value.asDictionary()) object[key] = toJson(entry);
      return object;
    }
    case KVRValue::Kind::List: {
      Json array = Json::array();
      for (const auto& entry : *value.asList()) array.push_back(toJson(entry));
      return array;
    }
  }
  return nullptr;
}

std::optional<KVRValue> fromJson(const Json& json);

std::optional<KVRParameters> dictionaryFromJson(const Json& json) {
  if (!json.is_object()) return std::nullopt;
  KVRParameters dictionary;
  dictionary.reserve(json.size());
  for (const auto& [key, entry] : json.items()) {
    auto value = fromJson(entry);
    if (!value) return std::nullopt;
    dictionary.set(key, std::move(*value));
  }
  return dictionary;
}

std::optional<KVRValue> fromJson(const Json& json) {
  switch (json.type()) {
    case Json::value_t::string:
      return KVRValue(json.get_ref<const std::string&>());
    case Json::value_t::number_integer:
      return KVRValue(json.get<std::int64_t>());
    case Json::value_t::number_unsigned: {
      // Every non-negative CBOR integer arrives here; only values beyond the
      // signed range have to stay unsigned.
      const auto u = json.get<std::uint64_t>();
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return KVRValue(static_cast<std::int64_t>(u));
      }
      return KVRValue(u);
    }
    case Json::value_t::number_float:
      return KVRValue(json.get<double>());
    case Json::value_t::boolean:
      return KVRValue(json.get<bool>());
    case Json::value_t::object: {
      auto dictionary = dictionaryFromJson(json);
      if (!dictionary) return std::nullopt;
      return KVRValue(std::move(*dictionary));
    }
    case Json::value_t::array: {
      KVRList list;
      list.reserve(json.size());
      for (const auto& entry : json) {
        auto value = fromJson(entry);
        if (!value) return std::nullopt;
        list.push_back(std::move(*value));
      }
      return KVRValue(std::move(list));
    }
    case Json::value_t::binary: {
      const Binary& bytes = json.get_binary();
      if (!bytes.has_subtype()) return std::nullopt;
      switch (bytes.subtype()) {
        case kDateSubtype: {
          if (bytes.size() != 8) return std::nullopt;
          const std::uint64_t bits = fromLittleEndian(bytes);
          double seconds = 0;
          std::memcpy(&seconds, &bits, sizeof seconds);
          return KVRValue(KVRDate{seconds});
        }
        case kURLSubtype:
          return KVRValue(KVRURL{std::string(bytes.begin(), bytes.end())});
        case kUIntSubtype:
          if (bytes.size() != 8) return std::nullopt;
          return KVRValue(fromLittleEndian(bytes));
        default:
          return std::nullopt;
      }
    }
    default:
      return std::nullopt;
  }
}

// Walks the CBOR item headers without recursion and checks that the input is
// exactly one item, that every declared length fits in the bytes that are
// left, and that nesting stays shallow. Only then is the (recursive) decoder
// run, so hostile input can neither blow the stack nor make it allocate for
// lengths the data cannot back.
bool isWellFormedCBOR(const unsigned char* data, size_t size) {
  struct Frame {
    std::uint64_t remaining;  // items still expected (definite containers)
    bool indefinite;
  };
  std::vector<Frame> stack;
  size_t pos = 0;

  // An item just ended: count it against the open containers.
  auto itemDone = [&stack] {
    while (!stack.empty() && !stack.back().indefinite) {
      if (--stack.back().remaining != 0) return;
      stack.pop_back();  // the container itself is now a finished item
    }
  };
  auto push = [&stack](std::uint64_t count, bool indefinite) {
    stack.push_back({count, indefinite});
    return stack.size() <= kMaxDepth;
  };

  do {
    if (pos >= size) return false;
    const unsigned char initial = data[pos++];
    const unsigned major = initial >> 5;
    const unsigned info = initial & 0x1F;

    if (initial == 0xFF) {  // "break": ends the innermost indefinite container
      if (stack.empty() || !stack.back().indefinite) return false;
      stack.pop_back();
      itemDone();
      continue;
    }

    std::uint64_t argument = info;
    bool indefinite = false;
    if (info >= 24 && info <= 27) {
      const size_t width = size_t{1} << (info - 24);
      if (size - pos < width) return false;
      argument = 0;
      for (size_t i = 0; i < width; ++i) argument = (argument << 8) | data[pos + i];
      pos += width;
    } else if (info == 31) {
      if (major < 2 || major > 5) return false;
      indefinite = true;
    } else if (info > 27) {
      return false;
    }

    const size_t left = size - pos;
    switch (major) {
      case 2:
      case 3:  // byte and text strings
        if (indefinite) {
          if (!push(0, true)) return false;
          continue;
        }
        if (argument > left) return false;
        pos += static_cast<size_t>(argument);
        break;
      case 4:  // array
      case 5:  // map: twice as many items
        if (indefinite) {
          if (!push(0, true)) return false;
          continue;
        }
        if (argument > left || (major == 5 && argument > left / 2)) return false;
        if (argument != 0) {
          if (!push(major == 5 ? argument * 2 : argument, false)) return false;
          continue;
        }
        break;
      case 6:  // tag: applies to the one item that follows
        if (!push(1, false)) return false;
        continue;
      default:  // integers, simple values and floats
        break;
    }
    itemDone();
  } while (!stack.empty());
  return pos == size;
}

}  // namespace

// MARK: - KeyedArchiver

struct KeyedArchiver::Impl {
  Json root = Json::object();
};

KeyedArchiver::KeyedArchiver() : impl_(std::make_unique<Impl>()) {}
KeyedArchiver::~KeyedArchiver() = default;
KeyedArchiver::KeyedArchiver(KeyedArchiver&&) noexcept = default;
KeyedArchiver& KeyedArchiver::operator=(KeyedArchiver&&) noexcept = default;

void KeyedArchiver::encodeObject(std::string_view key, const KVRParameters& dictionary) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->root[std::string(key)] = toJson(KVRValue(dictionary));
}

void KeyedArchiver::encodeObject(std::string_view key, const std::string& text) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->root[std::string(key)] = text;
}

void KeyedArchiver::encodeDouble(std::string_view key, double value) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->root[std::string(key)] = value;
}

void KeyedArchiver::encodeInt(std::string_view key, int64_t value) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->root[std::string(key)] = value;
}

void KeyedArchiver::encodeBool(std::string_view key, bool value) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->root[std::string(key)] = value;
}

std::string KeyedArchiver::encodedData() const {
  if (!impl_) return std::string(1, '\xA0');  // an empty map
  const std::vector<std::uint8_t> bytes = Json::to_cbor(impl_->root);
  return std::string(bytes.begin(), bytes.end());
}

// MARK: - KeyedUnarchiver

struct KeyedUnarchiver::Impl {
  Json root;

  const Json* find(std::string_view key) const {
    auto it = root.find(std::string(key));
    return it == root.end() ? nullptr : &*it;
  }
};

KeyedUnarchiver::KeyedUnarchiver(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
KeyedUnarchiver::KeyedUnarchiver(KeyedUnarchiver&&) noexcept = default;
KeyedUnarchiver& KeyedUnarchiver::operator=(KeyedUnarchiver&&) noexcept = default;
KeyedUnarchiver::~KeyedUnarchiver() = default;

std::optional<KeyedUnarchiver> KeyedUnarchiver::open(std::string_view data) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
  if (!isWellFormedCBOR(bytes, data.size())) return std::nullopt;
  try {
    auto impl = std::make_unique<Impl>();
    impl->root = Json::from_cbor(bytes, bytes + data.size(), /*strict=*/true,
                                 /*allow_exceptions=*/false,
                                 Json::cbor_tag_handler_t::store);
    if (!impl->root.is_object()) return std::nullopt;
    return KeyedUnarchiver(std::move(impl));
  } catch (...) {
    // Lengths the decoder refuses to allocate are reported by throwing even
    // with exceptions disabled; any such archive is simply unreadable.
    return std::nullopt;
  }
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return impl_ && impl_->find(key) != nullptr;
}

std::optional<KVRParameters> KeyedUnarchiver::decodeDictionary(std::string_view key) const {
  const Json* json = impl_ ? impl_->find(key) : nullptr;
  if (json == nullptr) return std::nullopt;
  return dictionaryFromJson(*json);
}

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) const {
  const Json* json = impl_ ? impl_->find(key) : nullptr;
  if (json == nullptr || !json->is_string()) return std::nullopt;
  return json->get<std::string>();
}

std::optional<double> KeyedUnarchiver::decodeDouble(std::string_view key) const {
  const Json* json = impl_ ? impl_->find(key) : nullptr;
  if (json == nullptr) return std::nullopt;
  if (json->is_number()) return json->get<double>();
  if (json->is_binary()) {
    auto value = fromJson(*json);
    if (value && value->kind() == KVRValue::Kind::UInt) return value->asDouble();
  }
  return std::nullopt;
}

std::optional<int64_t> KeyedUnarchiver::decodeInt(std::string_view key) const {
  const Json* json = impl_ ? impl_->find(key) : nullptr;
  if (json == nullptr) return std::nullopt;
  if (!json->is_number_integer() && !json->is_binary()) return std::nullopt;
  auto value = fromJson(*json);
  if (!value || (value->kind() != KVRValue::Kind::Int && value->kind() != KVRValue::Kind::UInt)) {
    return std::nullopt;
  }
  return value->asInt();
}

std::optional<bool> KeyedUnarchiver::decodeBool(std::string_view key) const {
  const Json* json = impl_ ? impl_->find(key) : nullptr;
  if (json == nullptr || !json->is_boolean()) return std::nullopt;
  return json->get<bool>();
}

}  // namespace korvel::platform
