// Keyed archives: a value stored under each key, with its kind kept, in a
// compact binary container (CBOR). Used to persist beacon records.
//
// Decoding never trusts its input: a truncated or corrupt archive, or a value
// of the wrong kind under a key, is reported as a failure (an empty optional),
// never a crash.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/KVRParameters.h>

namespace korvel::platform {

class KORVEL_EXPORT KeyedArchiver {
 public:
  KeyedArchiver();
  ~KeyedArchiver();
  KeyedArchiver(KeyedArchiver&&) noexcept;
  KeyedArchiver& operator=(KeyedArchiver&&) noexcept;

  void encodeObject(std::string_view key, const KVRParameters& dictionary);
  void encodeObject(std::string_view key, const std::string& text);
  void encodeDouble(std::string_view key, double value);
  void encodeInt(std::string_view key, int64_t value);
  void encodeBool(std::string_view key, bool value);

  // The archive's bytes.
  std::string encodedData() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

class KORVEL_EXPORT KeyedUnarchiver {
 public:
  // Opens an archive; nothing when the bytes are not a whole, valid archive.
  static std::optional<KeyedUnarchiver> open(std::string_view data);

  KeyedUnarchiver(KeyedUnarchiver&&) noexcept;
  KeyedUnarchiver& operator=(KeyedUnarchiver&&) noexcept;
  ~KeyedUnarchiver();

  bool containsValueForKey(std::string_view key) const;
  // Each gives nothing when the key is absent or holds another kind.
  std::optional<KVRParameters> decodeDictionary(std::string_view key) const;
  std::optional<std::string> decodeString(std::string_view key) const;
  std::optional<double> decodeDouble(std::string_view key) const;
  std::optional<int64_t> decodeInt(std::string_view key) const;
  std::optional<bool> decodeBool(std::string_view key) const;

 private:
  struct Impl;
  explicit KeyedUnarchiver(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace korvel::platform
