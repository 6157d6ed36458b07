#include <korvel/foundation/KeyedArchive.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace korvel {

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

std::uint64_t fromLittleEndian(const unsigned char* bytes) {
  std::uint64_t bits = 0;
  for (size_t i = 8; i-- > 0;) bits = (bits << 8) | bytes[i];
  return bits;
}

// A CBOR head's argument or float bits: width bytes, most significant first.
std::uint64_t fromBigEndian(const unsigned char* bytes, size_t width) {
  std::uint64_t bits = 0;
  for (size_t i = 0; i < width; ++i) bits = (bits << 8) | bytes[i];
  return bits;
}

// The value a byte string with this tag stands for; nothing for an unknown
// tag or a wrong length.
std::optional<KVRValue> fromTagged(std::uint64_t subtype, const unsigned char* bytes, size_t size) {
  switch (subtype) {
    case kDateSubtype: {
      if (size != 8) return std::nullopt;
      const std::uint64_t bits = fromLittleEndian(bytes);
      double seconds = 0;
      std::memcpy(&seconds, &bits, sizeof seconds);
      return KVRValue(KVRDate{seconds});
    }
    case kURLSubtype:
      return KVRValue(KVRURL{std::string(reinterpret_cast<const char*>(bytes), size)});
    case kUIntSubtype:
      if (size != 8) return std::nullopt;
      return KVRValue(fromLittleEndian(bytes));
    default:
      return std::nullopt;
  }
}

// The value a tagged byte string stands for, as the general reader gives it.
std::optional<KVRValue> fromBinary(const Binary& bytes) {
  if (!bytes.has_subtype()) return std::nullopt;
  return fromTagged(bytes.subtype(), bytes.data(), bytes.size());
}

// An archive's top level: its keys in order, each with its value, or with
// nothing where the value is not one this library makes (null, an unknown
// tag, or a container holding one). A later duplicate key wins in place.
using TopLevel = std::vector<std::pair<std::string, std::optional<KVRValue>>>;

// Builds the values straight from the CBOR decoder's events (nlohmann's SAX
// interface), with no JSON document in between.
class ArchiveBuilder {
 public:
  explicit ArchiveBuilder(TopLevel& root) : root_(root) {}

  bool null() { return put(std::nullopt); }
  bool boolean(bool value) { return put(KVRValue(value)); }
  bool number_integer(std::int64_t value) { return put(KVRValue(value)); }
  bool number_unsigned(std::uint64_t value) {
    // Every non-negative CBOR integer arrives here; only values beyond the
    // signed range have to stay unsigned.
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return put(KVRValue(static_cast<std::int64_t>(value)));
    }
    return put(KVRValue(value));
  }
  bool number_float(double value, const std::string&) { return put(KVRValue(value)); }
  bool string(std::string& value) { return put(KVRValue(std::move(value))); }
  bool binary(Binary& value) { return put(fromBinary(value)); }
  // A value read without the general reader (a tagged byte string).
  bool value(std::optional<KVRValue> value) { return put(std::move(value)); }

  bool start_object(std::size_t size) {
    if (stack_.empty() && started_) return false;  // a second item after the first
    started_ = true;
    stack_.emplace_back();
    if (stack_.size() > 1 && size != static_cast<std::size_t>(-1)) {
      stack_.back().dictionary.reserve(size);
    }
    return true;
  }
  bool key(std::string& key) {
    stack_.back().key = std::move(key);
    return true;
  }
  bool end_object() {
    Level level = std::move(stack_.back());
    stack_.pop_back();
    if (stack_.empty()) return true;  // the top level is done
    return put(level.valid ? std::optional<KVRValue>(KVRValue(std::move(level.dictionary)))
                           : std::nullopt);
  }
  bool start_array(std::size_t size) {
    if (stack_.empty()) return false;  // the top level is a map
    stack_.emplace_back();
    stack_.back().isList = true;
    if (size != static_cast<std::size_t>(-1)) stack_.back().list.reserve(size);
    return true;
  }
  bool end_array() {
    Level level = std::move(stack_.back());
    stack_.pop_back();
    return put(level.valid ? std::optional<KVRValue>(KVRValue(std::move(level.list)))
                           : std::nullopt);
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) {
    return false;
  }

 private:
  struct Level {
    bool isList = false;
    bool valid = true;
    std::string key;
    KVRParameters dictionary;
    KVRList list;
  };

  bool put(std::optional<KVRValue> value) {
    if (stack_.empty()) return false;  // a top level that is not a map
    Level& level = stack_.back();
    if (stack_.size() == 1) {
      for (auto& entry : root_) {
        if (entry.first == level.key) {
          entry.second = std::move(value);
          return true;
        }
      }
      root_.emplace_back(std::move(level.key), std::move(value));
      return true;
    }
    if (!value) {
      level.valid = false;
    } else if (level.isList) {
      level.list.push_back(std::move(*value));
    } else {
      level.dictionary.set(level.key, std::move(*value));
    }
    return true;
  }

  TopLevel& root_;
  std::vector<Level> stack_;
  bool started_ = false;
};

// Reads what this library's archiver writes (definite lengths; integers,
// text, single and double floats, booleans, null, byte strings under a
// one-byte tag) straight from the bytes into the builder, a pointer walk
// with one allocation per text longer than a short string: the general
// reader takes its input a byte at a time through an adapter. False for
// anything else (and for what the builder refuses): the general reader then
// reads the archive afresh, so both give the same values for any input.
// Only for bytes isWellFormedCBOR accepted: every length fits.
class DirectReader {
 public:
  DirectReader(const unsigned char* data, ArchiveBuilder& builder) : at_(data), builder_(builder) {}

  bool item() {
    unsigned major = 0;
    std::uint64_t argument = 0;
    if (!head(major, argument)) return false;
    switch (major) {
      case 0:
        return builder_.number_unsigned(argument);
      case 1:
        if (argument > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
          return false;
        }
        return builder_.number_integer(-1 - static_cast<std::int64_t>(argument));
      case 3: {
        std::string text(reinterpret_cast<const char*>(at_), static_cast<size_t>(argument));
        at_ += argument;
        return builder_.string(text);
      }
      case 4: {
        if (!builder_.start_array(static_cast<size_t>(argument))) return false;
        for (std::uint64_t i = 0; i < argument; ++i) {
          if (!item()) return false;
        }
        return builder_.end_array();
      }
      case 5: {
        if (!builder_.start_object(static_cast<size_t>(argument))) return false;
        for (std::uint64_t i = 0; i < argument; ++i) {
          unsigned keyMajor = 0;
          std::uint64_t keyLength = 0;
          if (!head(keyMajor, keyLength) || keyMajor != 3) return false;
          std::string key(reinterpret_cast<const char*>(at_), static_cast<size_t>(keyLength));
          at_ += keyLength;
          if (!builder_.key(key) || !item()) return false;
        }
        return builder_.end_object();
      }
      case 6: {
        // Only the one-byte tag the archiver writes, on a byte string.
        if (initial_ != 0xD8) return false;
        unsigned bytesMajor = 0;
        std::uint64_t size = 0;
        if (!head(bytesMajor, size) || bytesMajor != 2) return false;
        const unsigned char* bytes = at_;
        at_ += size;
        return builder_.value(fromTagged(argument, bytes, static_cast<size_t>(size)));
      }
      case 7:
        return simple(static_cast<unsigned char>(argument));
      default:  // an untagged byte string
        return false;
    }
  }

 private:
  // An item's head; false for an indefinite length or a reserved width.
  // For major type 7, argument is the head's low five bits (the payload
  // of a float is read by simple()).
  bool head(unsigned& major, std::uint64_t& argument) {
    initial_ = *at_++;
    major = initial_ >> 5;
    const unsigned info = initial_ & 0x1Fu;
    if (major == 7) {
      argument = info;
      return true;
    }
    if (info < 24) {
      argument = info;
      return true;
    }
    if (info > 27) return false;
    const size_t width = size_t{1} << (info - 24);
    argument = fromBigEndian(at_, width);
    at_ += width;
    return true;
  }

  bool simple(unsigned char info) {
    static const std::string kNoText;
    switch (info) {
      case 20: return builder_.boolean(false);
      case 21: return builder_.boolean(true);
      case 22: return builder_.null();
      case 26: {
        const auto bits = static_cast<std::uint32_t>(fromBigEndian(at_, 4));
        at_ += 4;
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return builder_.number_float(static_cast<double>(value), kNoText);
      }
      case 27: {
        const std::uint64_t bits = fromBigEndian(at_, 8);
        at_ += 8;
        double value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return builder_.number_float(value, kNoText);
      }
      default:  // half floats, undefined and other simple values
        return false;
    }
  }

  const unsigned char* at_;
  unsigned char initial_ = 0;  // the last head's first byte
  ArchiveBuilder& builder_;
};

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
      argument = fromBigEndian(data + pos, width);
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

namespace {

// The archiver writes CBOR directly instead of building a JSON tree and
// serialising it: a beacon record is archived on the reporting thread, where
// the tree's allocations cost several times more than the bytes themselves.
// The output is the same CBOR the tree would give (definite lengths, compact
// floats, tagged byte strings for the kinds above), read back by the
// unarchiver below.

// The head of an item: major type and argument, in its shortest form.
size_t makeHead(char* bytes, unsigned major, std::uint64_t value) {
  const auto m = static_cast<char>(major << 5);
  size_t width;
  if (value < 24) {
    bytes[0] = static_cast<char>(m | static_cast<char>(value));
    return 1;
  } else if (value <= 0xFF) {
    bytes[0] = static_cast<char>(m | 24);
    width = 1;
  } else if (value <= 0xFFFF) {
    bytes[0] = static_cast<char>(m | 25);
    width = 2;
  } else if (value <= 0xFFFFFFFFull) {
    bytes[0] = static_cast<char>(m | 26);
    width = 4;
  } else {
    bytes[0] = static_cast<char>(m | 27);
    width = 8;
  }
  for (size_t i = 0; i < width; ++i) {
    bytes[1 + i] = static_cast<char>(value >> (8 * (width - 1 - i)));
  }
  return 1 + width;
}

// Items are written through a plain pointer into bytes reserved beforehand
// for the most they can take (a walk over the sizes alone), rather than
// appended piece by piece: a string's append checks its capacity and calls
// memcpy for every key, head and value.

constexpr size_t kMaxHeadBytes = 9;
// A map's head with fewer than 24 entries: major type 5, the count in the
// low five bits.
constexpr unsigned char kSmallMapHead = 0xA0;
constexpr size_t kTaggedBytesOverhead = 2 + kMaxHeadBytes;  // tag, then head

char* writeItemHead(char* at, unsigned major, std::uint64_t value) {
  return at + makeHead(at, major, value);
}

// Copies size bytes, sizeof(Word) <= size <= 2 * sizeof(Word), as two
// possibly overlapping words: the first and the last.
template <class Word>
void copyAsTwoWords(char* at, const char* bytes, size_t size) {
  Word first;
  Word last;
  std::memcpy(&first, bytes, sizeof(Word));
  std::memcpy(&last, bytes + size - sizeof(Word), sizeof(Word));
  std::memcpy(at, &first, sizeof(Word));
  std::memcpy(at + size - sizeof(Word), &last, sizeof(Word));
}

// Keys and most values are a few bytes long: copied inline, without a call.
char* writeBytes(char* at, const char* bytes, size_t size) {
  if (size > 16) {
    std::memcpy(at, bytes, size);
  } else if (size >= 8) {
    copyAsTwoWords<std::uint64_t>(at, bytes, size);
  } else if (size >= 4) {
    copyAsTwoWords<std::uint32_t>(at, bytes, size);
  } else {
    for (size_t i = 0; i < size; ++i) at[i] = bytes[i];
  }
  return at + size;
}

char* writeText(char* at, std::string_view text) {
  return writeBytes(writeItemHead(at, 3, text.size()), text.data(), text.size());
}

char* writeTaggedBytes(char* at, std::uint8_t subtype, const char* bytes, size_t size) {
  // Always the one-byte-argument form: the reader takes small tags (0xC0 to
  // 0xC5) for the standard date and bignum tags, not for byte-string kinds.
  at[0] = '\xD8';
  at[1] = static_cast<char>(subtype);
  return writeBytes(writeItemHead(at + 2, 2, size), bytes, size);
}

char* writeLittleEndian(char* at, std::uint8_t subtype, std::uint64_t bits) {
  char bytes[8];
  for (size_t i = 0; i < 8; ++i) bytes[i] = static_cast<char>(bits >> (8 * i));
  return writeTaggedBytes(at, subtype, bytes, 8);
}

char* writeDouble(char* at, double value) {
  // Single precision when that loses nothing, as the JSON writer does.
  const bool fitsFloat = value >= static_cast<double>(std::numeric_limits<float>::lowest()) &&
                         value <= static_cast<double>(std::numeric_limits<float>::max()) &&
                         static_cast<double>(static_cast<float>(value)) == value;
  if (fitsFloat) {
    const float f = static_cast<float>(value);
    std::uint32_t bits = 0;
    std::memcpy(&bits, &f, sizeof bits);
    at[0] = '\xFA';
    for (size_t i = 0; i < 4; ++i) at[1 + i] = static_cast<char>(bits >> (24 - 8 * i));
    return at + 5;
  }
  std::uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  at[0] = '\xFB';
  for (size_t i = 0; i < 8; ++i) at[1 + i] = static_cast<char>(bits >> (56 - 8 * i));
  return at + 9;
}

char* writeInt(char* at, std::int64_t i) {
  if (i >= 0) return writeItemHead(at, 0, static_cast<std::uint64_t>(i));
  return writeItemHead(at, 1, static_cast<std::uint64_t>(-(i + 1)));
}

char* writeBool(char* at, bool value) {
  *at = value ? '\xF5' : '\xF4';
  return at + 1;
}

size_t boundOf(const KVRParameters& dictionary);

// The most bytes writeValue can take for the value.
size_t boundOf(const KVRValue& value) {
  switch (value.kind()) {
    case KVRValue::Kind::String:
      return kMaxHeadBytes + value.asString()->size();
    case KVRValue::Kind::URL:
      return kTaggedBytesOverhead + value.asURL()->absoluteString.size();
    case KVRValue::Kind::UInt:
    case KVRValue::Kind::Date:
      return kTaggedBytesOverhead + 8;
    case KVRValue::Kind::Dictionary:
      return boundOf(*value.asDictionary());
    case KVRValue::Kind::List: {
      size_t bound = kMaxHeadBytes;
      for (const auto& entry : *value.asList()) bound += boundOf(entry);
      return bound;
    }
    default:  // numbers, booleans, null
      return kMaxHeadBytes;
  }
}

size_t boundOf(const KVRParameters& dictionary) {
  size_t bound = kMaxHeadBytes;
  for (const auto& [key, entry] : dictionary) bound += kMaxHeadBytes + key.size() + boundOf(entry);
  return bound;
}

char* writeDictionary(char* at, const KVRParameters& dictionary);

char* writeValue(char* at, const KVRValue& value) {
  switch (value.kind()) {
    case KVRValue::Kind::String:
      return writeText(at, *value.asString());
    case KVRValue::Kind::Int:
      return writeInt(at, *value.asInt());
    case KVRValue::Kind::UInt:
      return writeLittleEndian(at, kUIntSubtype, value.asUInt().value_or(0));
    case KVRValue::Kind::Double:
      return writeDouble(at, *value.asDouble());
    case KVRValue::Kind::Bool:
      return writeBool(at, *value.asBool());
    case KVRValue::Kind::Date: {
      const double seconds = value.asDate()->secondsSince1970;
      std::uint64_t bits = 0;
      std::memcpy(&bits, &seconds, sizeof bits);
      return writeLittleEndian(at, kDateSubtype, bits);
    }
    case KVRValue::Kind::URL: {
      const std::string& text = value.asURL()->absoluteString;
      return writeTaggedBytes(at, kURLSubtype, text.data(), text.size());
    }
    case KVRValue::Kind::Dictionary:
      return writeDictionary(at, *value.asDictionary());
    case KVRValue::Kind::List: {
      const KVRList& list = *value.asList();
      at = writeItemHead(at, 4, list.size());
      for (const auto& entry : list) at = writeValue(at, entry);
      return at;
    }
  }
  *at = '\xF6';  // null: not a kind this library makes
  return at + 1;
}

char* writeDictionary(char* at, const KVRParameters& dictionary) {
  at = writeItemHead(at, 5, dictionary.size());
  for (const auto& [key, entry] : dictionary) at = writeValue(writeText(at, key), entry);
  return at;
}

// The argument of the item head at data[pos], moving pos past the head.
// Only for bytes this archiver wrote.
std::uint64_t readHead(std::string_view data, size_t& pos) {
  const unsigned info = static_cast<unsigned char>(data[pos++]) & 0x1F;
  if (info < 24) return info;
  const size_t width = size_t{1} << (info - 24);
  const std::uint64_t argument =
      fromBigEndian(reinterpret_cast<const unsigned char*>(data.data()) + pos, width);
  pos += width;
  return argument;
}

// Moves pos past the item at data[pos]; only for bytes this archiver wrote.
void skipItem(std::string_view data, size_t& pos) {
  const unsigned major = static_cast<unsigned char>(data[pos]) >> 5;
  const std::uint64_t argument = readHead(data, pos);
  switch (major) {
    case 2:
    case 3:
      pos += static_cast<size_t>(argument);
      break;
    case 4:
      for (std::uint64_t i = 0; i < argument; ++i) skipItem(data, pos);
      break;
    case 5:
      for (std::uint64_t i = 0; i < 2 * argument; ++i) skipItem(data, pos);
      break;
    case 6:
      skipItem(data, pos);
      break;
    default:  // integers, simple values and floats: the head is the item
      break;
  }
}

}  // namespace

KeyedArchiver::KeyedArchiver() : out_(&own_) { writeHead(); }

KeyedArchiver::KeyedArchiver(std::string& out) : out_(&out), start_(out.size()) { writeHead(); }

KeyedArchiver::KeyedArchiver(KeyedArchiver&& other) noexcept { *this = std::move(other); }

KeyedArchiver& KeyedArchiver::operator=(KeyedArchiver&& other) noexcept {
  if (this == &other) return *this;
  const bool owned = other.out_ == &other.own_;
  own_ = std::move(other.own_);
  out_ = owned ? &own_ : other.out_;
  start_ = other.start_;
  headBytes_ = other.headBytes_;
  count_ = other.count_;
  std::copy(std::begin(other.slots_), std::end(other.slots_), std::begin(slots_));
  return *this;
}

std::string_view KeyedArchiver::data() const {
  return std::string_view(*out_).substr(start_);
}

void KeyedArchiver::writeHead() {
  std::string& out = *out_;
  // Up to 23 keys, as every record has, the head is the one byte of a small
  // map, rewritten in place after each key.
  if (count_ < 24 && headBytes_ == 1 && out.size() > start_) {
    out[start_] = static_cast<char>(kSmallMapHead | count_);
    return;
  }
  char head[kMaxHeadBytes];
  const size_t length = makeHead(head, 5, count_);
  if (out.size() == start_) {
    out.append(head, length);
  } else {
    // The count only grows, and so does its head: past 23 and 255 keys.
    if (length > headBytes_) out.insert(start_, length - headBytes_, '\0');
    std::memcpy(out.data() + start_, head, length);
  }
  headBytes_ = length;
}

std::optional<KeyedArchiver::Slot> KeyedArchiver::findSlot(std::string_view key) const {
  const std::string_view entries = std::string_view(*out_).substr(entriesStart());
  const size_t tracked = std::min<uint64_t>(count_, kSlots);
  for (size_t i = 0; i < tracked; ++i) {
    // The slots point into what this archiver wrote: no bounds to check.
    const Slot& slot = slots_[i];
    if (slot.keyLength == key.size() &&
        std::memcmp(entries.data() + slot.key, key.data(), key.size()) == 0) {
      return slot;
    }
  }
  if (count_ <= kSlots) return std::nullopt;
  // Past the slots: read the entries back.
  size_t pos = slots_[kSlots - 1].end;
  for (uint64_t i = kSlots; i < count_; ++i) {
    Slot slot;
    slot.keyLength = static_cast<size_t>(readHead(entries, pos));
    slot.key = pos;
    pos += slot.keyLength;
    slot.value = pos;
    skipItem(entries, pos);
    slot.end = pos;
    if (entries.substr(slot.key, slot.keyLength) == key) return slot;
  }
  return std::nullopt;
}

template <class Write>
void KeyedArchiver::put(std::string_view key, size_t bound, Write&& write) {
  std::string& out = *out_;
  const size_t base = entriesStart();
  if (auto found = findSlot(key)) {
    // Rare: a key written again. The value is written at the end, then
    // moved over the old one.
    const size_t end = out.size();
    out.resize(end + bound);
    out.resize(static_cast<size_t>(write(out.data() + end) - out.data()));
    const std::string value = out.substr(end);
    out.resize(end);
    out.replace(base + found->value, found->end - found->value, value);
    const auto shift = [&](size_t offset) { return offset - (found->end - found->value) + value.size(); };
    const size_t tracked = std::min<uint64_t>(count_, kSlots);
    for (size_t i = 0; i < tracked; ++i) {
      Slot& slot = slots_[i];
      if (slot.key == found->key) {
        slot.end = shift(slot.end);
      } else if (slot.key > found->key) {
        slot.key = shift(slot.key);
        slot.value = shift(slot.value);
        slot.end = shift(slot.end);
      }
    }
    return;
  }
  const size_t end = out.size();
  out.resize(end + kMaxHeadBytes + key.size() + bound);
  char* const first = out.data() + base;
  char* at = writeItemHead(out.data() + end, 3, key.size());
  Slot slot;
  slot.key = static_cast<size_t>(at - first);
  slot.keyLength = key.size();
  at = writeBytes(at, key.data(), key.size());
  slot.value = static_cast<size_t>(at - first);
  at = write(at);
  slot.end = static_cast<size_t>(at - first);
  out.resize(base + slot.end);
  if (count_ < kSlots) slots_[count_] = slot;
  ++count_;
  writeHead();
}

void KeyedArchiver::encodeObject(std::string_view key, const KVRParameters& dictionary) {
  put(key, boundOf(dictionary), [&](char* at) { return writeDictionary(at, dictionary); });
}

void KeyedArchiver::encodeObject(std::string_view key, std::string_view text) {
  put(key, kMaxHeadBytes + text.size(), [&](char* at) { return writeText(at, text); });
}

void KeyedArchiver::encodeDouble(std::string_view key, double value) {
  put(key, kMaxHeadBytes, [&](char* at) { return writeDouble(at, value); });
}

void KeyedArchiver::encodeInt(std::string_view key, int64_t value) {
  put(key, kMaxHeadBytes, [&](char* at) { return writeInt(at, value); });
}

void KeyedArchiver::encodeBool(std::string_view key, bool value) {
  put(key, 1, [&](char* at) { return writeBool(at, value); });
}

// MARK: - KeyedUnarchiver

struct KeyedUnarchiver::Impl {
  TopLevel root;

  // The key's entry, with or without a value; nothing when it is missing.
  const std::optional<KVRValue>* entry(std::string_view key) const {
    for (const auto& [name, value] : root) {
      if (name == key) return &value;
    }
    return nullptr;
  }

  // Nothing when the key is missing or holds no value this library makes.
  const KVRValue* find(std::string_view key) const {
    const auto* value = entry(key);
    return value != nullptr && *value ? &**value : nullptr;
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
    {
      auto impl = std::make_unique<Impl>();
      ArchiveBuilder builder(impl->root);
      DirectReader direct(bytes, builder);
      if (direct.item()) return KeyedUnarchiver(std::move(impl));
    }
    auto impl = std::make_unique<Impl>();
    ArchiveBuilder builder(impl->root);
    // The reader from_cbor itself runs, with the tag handling it takes
    // (tagged byte strings keep their tag), which the public sax_parse
    // does not pass on.
    auto input = nlohmann::detail::input_adapter(bytes, bytes + data.size());
    nlohmann::detail::binary_reader<Json, decltype(input), ArchiveBuilder> reader(
        std::move(input), nlohmann::detail::input_format_t::cbor);
    if (!reader.sax_parse(nlohmann::detail::input_format_t::cbor, &builder, /*strict=*/true,
                          Json::cbor_tag_handler_t::store)) {
      return std::nullopt;
    }
    return KeyedUnarchiver(std::move(impl));
  } catch (...) {
    // Lengths the decoder refuses to allocate are reported by throwing; any
    // such archive is simply unreadable.
    return std::nullopt;
  }
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const {
  return impl_ && impl_->entry(key) != nullptr;
}

std::optional<KVRParameters> KeyedUnarchiver::decodeDictionary(std::string_view key) const {
  const KVRValue* value = impl_ ? impl_->find(key) : nullptr;
  const KVRParameters* dictionary = value ? value->asDictionary() : nullptr;
  if (dictionary == nullptr) return std::nullopt;
  return *dictionary;
}

std::optional<std::string> KeyedUnarchiver::decodeString(std::string_view key) const {
  const KVRValue* value = impl_ ? impl_->find(key) : nullptr;
  const std::string* text = value ? value->asString() : nullptr;
  if (text == nullptr) return std::nullopt;
  return *text;
}

std::optional<double> KeyedUnarchiver::decodeDouble(std::string_view key) const {
  const KVRValue* value = impl_ ? impl_->find(key) : nullptr;
  // Any number but a boolean, which asDouble would also give.
  if (value == nullptr || value->kind() == KVRValue::Kind::Bool) return std::nullopt;
  return value->asDouble();
}

std::optional<int64_t> KeyedUnarchiver::decodeInt(std::string_view key) const {
  const KVRValue* value = impl_ ? impl_->find(key) : nullptr;
  // Integers only: asInt gives nothing for doubles, and an unsigned value
  // past the signed range is no int64_t either.
  return value ? value->asInt() : std::nullopt;
}

std::optional<bool> KeyedUnarchiver::decodeBool(std::string_view key) const {
  const KVRValue* value = impl_ ? impl_->find(key) : nullptr;
  return value ? value->asBool() : std::nullopt;
}

}  // namespace korvel
