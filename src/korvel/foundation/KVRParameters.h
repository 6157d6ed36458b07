// The library's parameter value and dictionary types.
//
// Every beacon is a type plus a flat dictionary of string keys and values.
// KVRParameters keeps its entries in insertion order so the wire order is
// deterministic; writing a key that is already present replaces the value in
// place (a later write wins, the position stays), and writing a missing value
// (an empty std::optional) removes the key instead of storing an empty string.
//
// Dictionaries hold 5 to 40 entries almost always, so entries live in one
// contiguous vector and lookups are linear scans: cheaper than hashing at
// this size and free of per-node allocations.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace korvel {

class KVRParameters;
class KVRValue;

// A point in time, as seconds since 1970-01-01 00:00:00 UTC.
struct KORVEL_EXPORT KVRDate {
  double secondsSince1970 = 0;
  friend bool operator==(const KVRDate&, const KVRDate&) = default;
};

// An absolute URL, kept as its text.
struct KORVEL_EXPORT KVRURL {
  std::string absoluteString;
  friend bool operator==(const KVRURL&, const KVRURL&) = default;
};

using KVRList = std::vector<KVRValue>;

// One parameter value: text, a signed or unsigned integer, a double, a
// boolean, a date, a URL, or a nested dictionary or list. Nested containers
// are shared immutable values, so copying a KVRValue never deep-copies.
class KORVEL_EXPORT KVRValue {
 public:
  enum class Kind { String, Int, UInt, Double, Bool, Date, URL, Dictionary, List };

  KVRValue() : storage_(std::string()) {}
  KVRValue(std::string s) : storage_(std::move(s)) {}
  KVRValue(std::string_view s) : storage_(std::string(s)) {}
  KVRValue(const char* s) : storage_(std::string(s)) {}
  KVRValue(bool b) : storage_(b) {}
  KVRValue(double d) : storage_(d) {}
  KVRValue(float f) : storage_(static_cast<double>(f)) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                          std::is_signed_v<T>, int> = 0>
  KVRValue(T i) : storage_(static_cast<int64_t>(i)) {}
  template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> &&
                                          std::is_unsigned_v<T>, int> = 0>
  KVRValue(T u) : storage_(static_cast<uint64_t>(u)) {}
  KVRValue(KVRDate d) : storage_(d) {}
  KVRValue(KVRURL u) : storage_(std::move(u)) {}
  KVRValue(KVRParameters dictionary);
  KVRValue(KVRList list);

  Kind kind() const { return static_cast<Kind>(storage_.index()); }

  const std::string* asString() const { return std::get_if<std::string>(&storage_); }
  std::optional<int64_t> asInt() const;  // Int, or UInt that fits
  std::optional<uint64_t> asUInt() const;  // UInt, or Int that is not negative
  std::optional<double> asDouble() const;  // any number (Int, UInt, Double, Bool)
  std::optional<bool> asBool() const { return get<bool>(); }
  std::optional<KVRDate> asDate() const { return get<KVRDate>(); }
  const KVRURL* asURL() const { return std::get_if<KVRURL>(&storage_); }
  const KVRParameters* asDictionary() const;
  const KVRList* asList() const;
  bool isNumber() const {
    auto k = kind();
    return k == Kind::Int || k == Kind::UInt || k == Kind::Double || k == Kind::Bool;
  }

  // The value's text as it goes on the wire: strings as they are, integers in
  // decimal, booleans "1"/"0", doubles with "%.16g", dates and containers in
  // the description format of describe().
  std::string description() const;

  // Same kind and same payload; doubles compare with ==, containers deeply.
  friend bool operator==(const KVRValue& a, const KVRValue& b);

 private:
  template <class T>
  std::optional<T> get() const {
    if (auto p = std::get_if<T>(&storage_)) return *p;
    return std::nullopt;
  }

  std::variant<std::string, int64_t, uint64_t, double, bool, KVRDate, KVRURL,
               std::shared_ptr<const KVRParameters>, std::shared_ptr<const KVRList>>
      storage_;
};

class KORVEL_EXPORT KVRParameters {
 public:
  using Entry = std::pair<std::string, KVRValue>;
  using const_iterator = std::vector<Entry>::const_iterator;

  // One entry of a braced list: {{"type", "share"}, {kKVRValue, 1}}.
  struct Literal {
    std::string_view key;
    KVRValue value;
  };

  KVRParameters() = default;
  KVRParameters(std::initializer_list<Literal> entries);

  // Stores value under key; an existing key keeps its position.
  KVRParameters& set(std::string_view key, KVRValue value);

  // Stores the value when present; a missing value removes the key.
  template <class T>
  KVRParameters& set(std::string_view key, const std::optional<T>& value) {
    if (value) return set(key, KVRValue(*value));
    remove(key);
    return *this;
  }
  KVRParameters& set(std::string_view key, std::nullopt_t) {
    remove(key);
    return *this;
  }

  // Adds every entry of other, in other's order; other's values win.
  KVRParameters& merge(const KVRParameters& other);
  // Adds every entry of other when one is given.
  KVRParameters& merge(const std::optional<KVRParameters>& other) {
    if (other) merge(*other);
    return *this;
  }

  // Adds other's entries after these, moving them, without looking for its
  // keys here: for a caller that knows the two share no key (a clash would
  // give the key twice).
  KVRParameters& appendDisjoint(KVRParameters&& other);
  // The entries at positions [begin, end), in order.
  KVRParameters slice(size_t begin, size_t end) const;

  bool remove(std::string_view key);
  void clear() { entries_.clear(); }
  void reserve(size_t n) { entries_.reserve(n); }

  const KVRValue* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // The value's text when the key holds a string, otherwise nothing.
  std::optional<std::string> stringForKey(std::string_view key) const;

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  const std::vector<Entry>& entries() const { return entries_; }
  std::vector<std::string> keys() const;

  // Dictionary equality: the same keys with equal values, in any order.
  friend bool operator==(const KVRParameters& a, const KVRParameters& b);

 private:
  std::vector<Entry> entries_;
};

// The description format used wherever a value is shown as text (wire values
// of nested containers, debug e-mails, logs):
//   dictionary  {\n    key = value;\n}   (nested levels indent 4 more spaces)
//   list        (\n    a,\n    b\n)
//   date        2024-03-15 09:05:07 +0000   (always UTC)
//   string      as is at the top level; inside a container it is quoted with
//               "..." (backslash escapes for ", \ and line breaks) unless it
//               is non-empty and made only of letters, digits and _$./:-
KORVEL_EXPORT std::string describe(const KVRValue& value);
KORVEL_EXPORT std::string describe(const KVRParameters& dictionary);
KORVEL_EXPORT std::string describeDate(KVRDate date);

}  // namespace korvel
