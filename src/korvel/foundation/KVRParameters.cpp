#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/internal/CivilTime.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <limits>

namespace korvel {

KVRValue::KVRValue(KVRParameters dictionary)
    : storage_(std::make_shared<const KVRParameters>(std::move(dictionary))) {}

KVRValue::KVRValue(KVRList list) : storage_(std::make_shared<const KVRList>(std::move(list))) {}

std::optional<int64_t> KVRValue::asInt() const {
  if (auto i = std::get_if<int64_t>(&storage_)) return *i;
  if (auto u = std::get_if<uint64_t>(&storage_)) {
    if (*u <= static_cast<uint64_t>(INT64_MAX)) return static_cast<int64_t>(*u);
  }
  return std::nullopt;
}

std::optional<uint64_t> KVRValue::asUInt() const {
  if (auto u = std::get_if<uint64_t>(&storage_)) return *u;
  if (auto i = std::get_if<int64_t>(&storage_)) {
    if (*i >= 0) return static_cast<uint64_t>(*i);
  }
  return std::nullopt;
}

std::optional<double> KVRValue::asDouble() const {
  switch (kind()) {
    case Kind::Int: return static_cast<double>(std::get<int64_t>(storage_));
    case Kind::UInt: return static_cast<double>(std::get<uint64_t>(storage_));
    case Kind::Double: return std::get<double>(storage_);
    case Kind::Bool: return std::get<bool>(storage_) ? 1.0 : 0.0;
    default: return std::nullopt;
  }
}

const KVRParameters* KVRValue::asDictionary() const {
  auto p = std::get_if<std::shared_ptr<const KVRParameters>>(&storage_);
  return p ? p->get() : nullptr;
}

const KVRList* KVRValue::asList() const {
  auto p = std::get_if<std::shared_ptr<const KVRList>>(&storage_);
  return p ? p->get() : nullptr;
}

namespace {

std::string formatDouble(double d) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.16g", d);
  return buf;
}

bool isPlainWord(std::string_view s) {
  if (s.empty()) return false;
  return std::all_of(s.begin(), s.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '_' || c == '$' || c == '.' || c == '/' || c == ':' || c == '-';
  });
}

std::string quoted(std::string_view s) {
  if (isPlainWord(s)) return std::string(s);
  std::string out = "\"";
  for (char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  out += '"';
  return out;
}

void describeInto(std::string& out, const KVRValue& value, int indent, bool nested);

void describeDictionary(std::string& out, const KVRParameters& d, int indent) {
  const std::string pad(static_cast<size_t>(indent) * 4, ' ');
  out += "{\n";
  for (const auto& [key, value] : d) {
    out += pad + "    " + quoted(key) + " = ";
    describeInto(out, value, indent + 1, true);
    out += ";\n";
  }
  out += pad + "}";
}

void describeList(std::string& out, const KVRList& list, int indent) {
  const std::string pad(static_cast<size_t>(indent) * 4, ' ');
  out += "(\n";
  for (size_t i = 0; i < list.size(); ++i) {
    out += pad + "    ";
    describeInto(out, list[i], indent + 1, true);
    out += i + 1 < list.size() ? ",\n" : "\n";
  }
  out += pad + ")";
}

void describeInto(std::string& out, const KVRValue& value, int indent, bool nested) {
  if (auto d = value.asDictionary()) return describeDictionary(out, *d, indent);
  if (auto l = value.asList()) return describeList(out, *l, indent);
  if (auto s = value.asString()) {
    out += nested ? quoted(*s) : *s;
    return;
  }
  std::string text = value.description();
  out += nested && value.kind() == KVRValue::Kind::Date ? quoted(text) : text;
}

}  // namespace

std::string KVRValue::description() const {
  switch (kind()) {
    case Kind::String: return std::get<std::string>(storage_);
    case Kind::Int: return std::to_string(std::get<int64_t>(storage_));
    case Kind::UInt: return std::to_string(std::get<uint64_t>(storage_));
    case Kind::Double: return formatDouble(std::get<double>(storage_));
    case Kind::Bool: return std::get<bool>(storage_) ? "1" : "0";
    case Kind::Date: return describeDate(std::get<KVRDate>(storage_));
    case Kind::URL: return std::get<KVRURL>(storage_).absoluteString;
    case Kind::Dictionary:
    case Kind::List: return describe(*this);
  }
  return {};
}

bool operator==(const KVRValue& a, const KVRValue& b) {
  if (a.kind() != b.kind()) return false;
  if (auto d = a.asDictionary()) return *d == *b.asDictionary();
  if (auto l = a.asList()) return *l == *b.asList();
  return a.storage_ == b.storage_;
}

KVRParameters::KVRParameters(std::initializer_list<Literal> entries) {
  entries_.reserve(entries.size());
  for (const auto& [key, value] : entries) set(key, value);
}

KVRParameters& KVRParameters::set(std::string_view key, KVRValue value) {
  for (auto& entry : entries_) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return *this;
    }
  }
  entries_.emplace_back(std::string(key), std::move(value));
  return *this;
}

KVRParameters& KVRParameters::merge(const KVRParameters& other) {
  if (entries_.empty()) {
    entries_ = other.entries_;
    return *this;
  }
  entries_.reserve(entries_.size() + other.entries_.size());
  for (const auto& [key, value] : other.entries_) set(key, value);
  return *this;
}

KVRParameters& KVRParameters::appendDisjoint(KVRParameters&& other) {
  if (entries_.empty()) {
    entries_ = std::move(other.entries_);
  } else {
    entries_.insert(entries_.end(), std::make_move_iterator(other.entries_.begin()),
                    std::make_move_iterator(other.entries_.end()));
  }
  other.entries_.clear();
  return *this;
}

KVRParameters KVRParameters::slice(size_t begin, size_t end) const {
  KVRParameters out;
  end = std::min(end, entries_.size());
  if (begin < end) out.entries_.assign(entries_.begin() + static_cast<std::ptrdiff_t>(begin),
                                       entries_.begin() + static_cast<std::ptrdiff_t>(end));
  return out;
}

bool KVRParameters::remove(std::string_view key) {
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const Entry& e) { return e.first == key; });
  if (it == entries_.end()) return false;
  entries_.erase(it);
  return true;
}

const KVRValue* KVRParameters::find(std::string_view key) const {
  for (const auto& entry : entries_) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

std::optional<std::string> KVRParameters::stringForKey(std::string_view key) const {
  const KVRValue* v = find(key);
  if (v == nullptr || v->asString() == nullptr) return std::nullopt;
  return *v->asString();
}

std::vector<std::string> KVRParameters::keys() const {
  std::vector<std::string> out;
  out.reserve(entries_.size());
  for (const auto& entry : entries_) out.push_back(entry.first);
  return out;
}

bool operator==(const KVRParameters& a, const KVRParameters& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [key, value] : a) {
    const KVRValue* other = b.find(key);
    if (other == nullptr || !(*other == value)) return false;
  }
  return true;
}

std::string describe(const KVRValue& value) {
  std::string out;
  describeInto(out, value, 0, false);
  return out;
}

std::string describe(const KVRParameters& dictionary) {
  std::string out;
  describeDictionary(out, dictionary, 0);
  return out;
}

std::string describeDate(KVRDate date) {
  double whole = std::floor(date.secondsSince1970);
  if (!std::isfinite(whole)) return "(invalid date)";
  // Outside 64 bits the cast is undefined; past int's years there is no calendar.
  constexpr double kTimeLimit = -static_cast<double>(std::numeric_limits<int64_t>::min());
  if (whole < -kTimeLimit || whole >= kTimeLimit) return "(invalid date)";
  const std::optional<std::tm> tm = foundation::internal::utcCalendarTime(static_cast<int64_t>(whole));
  if (!tm) return "(invalid date)";
  // By hand rather than strftime: the year as plain digits whatever its
  // size or sign, on every C library.
  char buf[48];
  std::snprintf(buf, sizeof buf, "%lld-%02d-%02d %02d:%02d:%02d +0000",
                static_cast<long long>(tm->tm_year) + 1900, tm->tm_mon + 1, tm->tm_mday, tm->tm_hour,
                tm->tm_min, tm->tm_sec);
  return buf;
}

}  // namespace korvel
