// Typed reporting parameters: the page-view side and the tag-parameter
// builders speak in these instead of loose dictionaries.
//
// All four types are immutable values with equality and hashing, and each has
// a keyed encoded form, JSON text (toJSONString / fromJSONString), that stays
// readable by every earlier and later version:
//   ReportingValue      {"string": {"_0": "abc"}}, {"int": {"_0": 2}},
//                       {"double": {"_0": 1.5}}, {"bool": {"_0": true}}
//   ReportingParameter  {"key": "trackkey", "value": <ReportingValue>}
//   PageName            {"stringValue": "home"}
//   PageView            {"name": <PageName>, "duration": 1.5,
//                        "reportingParameters": [<ReportingParameter>...]}
#pragma once

#include <korvel/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <variant>
#include <vector>

namespace korvel {

// A decoding failure: the description and the coding path where it happened
// (keys and array indices from the root, e.g. ["reportingParameters", "0",
// "value"]).
class KORVEL_EXPORT ReportingDecodingError : public std::runtime_error {
 public:
  enum class Kind { TypeMismatch, KeyNotFound, DataCorrupted };
  ReportingDecodingError(Kind kind, std::vector<std::string> codingPath, std::string description);
  Kind kind() const { return kind_; }
  const std::vector<std::string>& codingPath() const { return codingPath_; }
  const std::string& description() const { return description_; }

 private:
  Kind kind_;
  std::vector<std::string> codingPath_;
  std::string description_;
};

// An encoding failure: a value that JSON cannot hold (a NaN or infinite
// double, text that is not well-formed UTF-8), with the coding path where it
// sits (as for ReportingDecodingError).
class ReportingEncodingError : public std::runtime_error {
 public:
  ReportingEncodingError(std::vector<std::string> codingPath, std::string description);
  const std::vector<std::string>& codingPath() const { return codingPath_; }
  const std::string& description() const { return description_; }

 private:
  std::vector<std::string> codingPath_;
  std::string description_;
};

// A tagged value with exactly four cases, in this order (the order is the
// case index fed first into the hash).
class KORVEL_EXPORT ReportingValue {
 public:
  enum class Case { Bool = 0, Double = 1, Int = 2, String = 3 };

  static ReportingValue boolean(bool v);
  static ReportingValue double_(double v);
  static ReportingValue int_(int64_t v);
  static ReportingValue string(std::string v);

  Case valueCase() const { return static_cast<Case>(payload_.index()); }
  const bool* boolValue() const { return std::get_if<bool>(&payload_); }
  const double* doubleValue() const { return std::get_if<double>(&payload_); }
  const int64_t* intValue() const { return std::get_if<int64_t>(&payload_); }
  const std::string* stringValue() const { return std::get_if<std::string>(&payload_); }

  // Same case and equal payloads: doubles by ==, so NaN is never equal and
  // -0.0 equals 0.0; texts by canonical equivalence (NFD), not bytes.
  friend bool operator==(const ReportingValue& a, const ReportingValue& b);
  size_t hash() const;

  // The encoded form as JSON text, and back. Encoding throws
  // ReportingEncodingError for a double that is not finite or text that is
  // not UTF-8; decoding throws ReportingDecodingError, with a DataCorrupted
  // error for text that is not JSON. So do the other types' encoders and
  // decoders.
  std::string toJSONString() const;
  static ReportingValue fromJSONString(std::string_view text);

 private:
  explicit ReportingValue(std::variant<bool, double, int64_t, std::string> payload)
      : payload_(std::move(payload)) {}
  // Builds the payload in place (no variant temporary to move from).
  template <class T>
  ReportingValue(std::in_place_type_t<T> type, T value) : payload_(type, std::move(value)) {}
  std::variant<bool, double, int64_t, std::string> payload_;
};

struct KORVEL_EXPORT ReportingParameter {
  std::string key;
  ReportingValue value;

  ReportingParameter(std::string parameterKey, ReportingValue parameterValue)
      : key(std::move(parameterKey)), value(std::move(parameterValue)) {}

  static ReportingParameter trackID(std::string v);          // "trackkey"
  static ReportingParameter trackAdamID(std::string v);      // "track_adam_id"
  static ReportingParameter artistID(std::string v);         // "artist_adam_id"
  static ReportingParameter tagID(std::string v);            // "tagid"
  static ReportingParameter tagType(std::string v);          // "tagtype"
  static ReportingParameter matchType(std::string v);        // "matchcategory"
  static ReportingParameter forensicID(std::string v);       // "x-forensic-id"
  static ReportingParameter microphone(std::string v);       // "microphone"
  static ReportingParameter polarPattern(std::string v);     // "polarpattern"
  static ReportingParameter headphonesConnected(int64_t v);  // "headphones", int
  static ReportingParameter inputPort(std::string v);        // "inputport"
  static ReportingParameter outputPort(std::string v);       // "outputport"
  static ReportingParameter initialOrientation(std::string v);  // "initialorientation"
  static ReportingParameter currentOrientation(std::string v);  // "currentorientation"
  static ReportingParameter sampleRate(double v);            // "samplerate", double

  // Keys canonically equal and values equal.
  friend bool operator==(const ReportingParameter& a, const ReportingParameter& b);
  size_t hash() const;

  // JSON text with "key" written before "value".
  std::string toJSONString() const;
  static ReportingParameter fromJSONString(std::string_view text);
};

struct KORVEL_EXPORT ReportingParameterHash {
  size_t operator()(const ReportingParameter& p) const { return p.hash(); }
};

// An unordered set of parameters (no two fully equal elements).
using ReportingParameters = std::unordered_set<ReportingParameter, ReportingParameterHash>;

struct KORVEL_EXPORT PageName {
  std::string stringValue;

  explicit PageName(std::string name) : stringValue(std::move(name)) {}
  ReportingValue reportingValue() const { return ReportingValue::string(stringValue); }

  friend bool operator==(const PageName& a, const PageName& b);
  size_t hash() const;

  std::string toJSONString() const;
  static PageName fromJSONString(std::string_view text);
};

struct KORVEL_EXPORT PageView {
  PageName name;
  double duration = 0;  // seconds the page was visible
  ReportingParameters reportingParameters;

  friend bool operator==(const PageView& a, const PageView& b);
  // Agrees with ==: the parameters count whatever order the set holds them in.
  size_t hash() const;

  // JSON text with "name", "duration", "reportingParameters" in that order.
  std::string toJSONString() const;
  static PageView fromJSONString(std::string_view text);
};

// Canonical text equality: the same characters under Unicode canonical
// equivalence (both sides compared in their canonical decomposition).
KORVEL_EXPORT bool canonicallyEqual(const std::string& a, const std::string& b);
// The canonical decomposition (NFD) of UTF-8 text; invalid UTF-8 is kept
// byte for byte.
KORVEL_EXPORT std::string canonicalDecomposition(const std::string& text);

}  // namespace korvel

namespace std {
template <>
struct hash<korvel::ReportingValue> {
  size_t operator()(const korvel::ReportingValue& v) const { return v.hash(); }
};
template <>
struct hash<korvel::ReportingParameter> {
  size_t operator()(const korvel::ReportingParameter& v) const { return v.hash(); }
};
template <>
struct hash<korvel::PageName> {
  size_t operator()(const korvel::PageName& v) const { return v.hash(); }
};
template <>
struct hash<korvel::PageView> {
  size_t operator()(const korvel::PageView& v) const { return v.hash(); }
};
}  // namespace std
