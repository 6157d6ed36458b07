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

namespace korvel {

// Writes the archive as it goes: after every encode call the buffer holds a
// complete archive. Encoding allocates nothing beyond the buffer's growth, so
// an archiver over a buffer that is reused (cleared, capacity kept) does not
// allocate at all.
class KORVEL_EXPORT KeyedArchiver {
 public:
  // Into a buffer of its own.
  KeyedArchiver();
  // Appends the archive to out, after what out holds already; out must
  // outlive the archiver and take nothing else while it writes.
  explicit KeyedArchiver(std::string& out);
  KeyedArchiver(KeyedArchiver&& other) noexcept;
  KeyedArchiver& operator=(KeyedArchiver&& other) noexcept;
  ~KeyedArchiver() = default;

  // Writing a key again replaces its value in place.
  void encodeObject(std::string_view key, const KVRParameters& dictionary);
  void encodeObject(std::string_view key, std::string_view text);
  void encodeDouble(std::string_view key, double value);
  void encodeInt(std::string_view key, int64_t value);
  void encodeBool(std::string_view key, bool value);

  // The archive's bytes.
  std::string_view data() const;
  std::string encodedData() const { return std::string(data()); }

 private:
  // Where one key's entry lies, relative to the first entry.
  struct Slot {
    size_t key = 0;  // the key's text, after its head
    size_t keyLength = 0;
    size_t value = 0;  // the value item
    size_t end = 0;
  };
  // Archives of up to this many keys find a key again without reading the
  // bytes back; larger ones read the entries past the last slot.
  static constexpr size_t kSlots = 12;

  // Writes the key's entry; write puts the value at a pointer into at most
  // bound bytes reserved for it, and gives back the end of what it wrote.
  template <class Write>
  void put(std::string_view key, size_t bound, Write&& write);
  std::optional<Slot> findSlot(std::string_view key) const;
  size_t entriesStart() const { return start_ + headBytes_; }
  void writeHead();

  std::string own_;
  std::string* out_;
  size_t start_ = 0;       // where the archive starts in *out_
  size_t headBytes_ = 1;   // the map head's length
  uint64_t count_ = 0;     // keys written
  Slot slots_[kSlots];
};

// Reads an archive once, when opened: the bytes are checked item by item,
// then nlohmann-json's CBOR reader hands its events to a builder that makes
// the values directly (no JSON document in between). Each decode looks its
// key up among the top-level entries.
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

}  // namespace korvel
