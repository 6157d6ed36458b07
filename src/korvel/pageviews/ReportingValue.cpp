#include <korvel/pageviews/ReportingValue.h>
#include <korvel/pageviews/internal/ReportingValueJSON.h>

#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <utility>

#include <nlohmann/json.hpp>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/foundation/internal/UTF8.h>
#include <korvel/pageviews/internal/Normalization.h>

using korvel::pageviews::internal::pageViewFromJSON;

namespace korvel {

using pageviews::internal::pageNameFromJSON;
using pageviews::internal::reportingParameterFromJSON;
using pageviews::internal::reportingValueFromJSON;
using pageviews::internal::toJSON;

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using Path = std::vector<std::string>;
using Kind = ReportingDecodingError::Kind;

// The case names double as the keys of the encoded form; indexed by Case.
constexpr std::array<const char*, 4> kCaseNames = {"bool", "double", "int", "string"};
constexpr const char* kPayloadKey = "_0";

// ---------------------------------------------------------------------------
// Canonical text

bool isASCII(std::string_view text) {
  for (unsigned char c : text) {
    if (c >= 0x80) return false;
  }
  return true;
}

// Text is decoded with 32-bit lengths (ICU's StringPiece, Windows' string
// functions): longer non-ASCII text is not encoded.
bool fitsTextLimit(std::string_view text) {
  return text.size() <= static_cast<size_t>(std::numeric_limits<int32_t>::max());
}

// Hash-combine with the golden-ratio constant, so that the order of the fed
// parts matters (case index first, then payload).
size_t combine(size_t seed, size_t value) {
  return seed ^ (value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2));
}

// -0.0 == 0.0, so both must hash alike; NaN equals nothing, so its hash
// does not matter.
size_t doubleHash(double value) {
  const double d = value == 0.0 ? 0.0 : value;
  return std::hash<uint64_t>{}(std::bit_cast<uint64_t>(d));
}

size_t canonicalTextHash(const std::string& text) {
  if (isASCII(text)) return std::hash<std::string_view>{}(text);
  return std::hash<std::string>{}(canonicalDecomposition(text));
}

// ---------------------------------------------------------------------------
// Decoding helpers

[[noreturn]] void fail(Kind kind, Path path, std::string description) {
  throw ReportingDecodingError(kind, std::move(path), std::move(description));
}

Path appending(Path path, std::string component) {
  path.push_back(std::move(component));
  return path;
}

std::string foundDescription(const json& value) {
  switch (value.type()) {
    case json::value_t::null: return "null";
    case json::value_t::object: return "a dictionary";
    case json::value_t::array: return "an array";
    case json::value_t::string: return "a string";
    case json::value_t::boolean: return "a boolean";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float: return "a number";
    case json::value_t::binary: return "binary data";
    case json::value_t::discarded: return "invalid JSON";
  }
  return "an unknown value";
}

[[noreturn]] void mismatch(const Path& path, const char* expected, const json& found) {
  fail(Kind::TypeMismatch, path,
       std::string("Expected to decode ") + expected + " but found " + foundDescription(found) +
           " instead.");
}

// The value of a keyed container; a result of json::parse(..., false) that
// did not parse is reported as corrupt data rather than as a wrong type.
const json& keyedContainer(const json& value, const Path& path) {
  if (value.is_discarded()) fail(Kind::DataCorrupted, path, "The given data was not valid JSON.");
  if (!value.is_object()) mismatch(path, "a keyed container", value);
  return value;
}

const json& requiredValue(const json& container, const char* key, const Path& path) {
  auto it = container.find(key);
  if (it == container.end()) {
    fail(Kind::KeyNotFound, path, std::string("No value associated with key \"") + key + "\".");
  }
  return *it;
}

std::string decodeString(const json& container, const char* key, const Path& path) {
  const json& value = requiredValue(container, key, path);
  if (!value.is_string()) mismatch(appending(path, key), "a string", value);
  return value.get<std::string>();
}

double decodeDouble(const json& container, const char* key, const Path& path) {
  const json& value = requiredValue(container, key, path);
  if (!value.is_number()) mismatch(appending(path, key), "a double", value);
  return value.get<double>();
}

int64_t decodeInt(const json& container, const char* key, const Path& path) {
  const json& value = requiredValue(container, key, path);
  if (value.is_number_unsigned()) {
    const auto u = value.get<uint64_t>();
    if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      fail(Kind::DataCorrupted, appending(path, key),
           "Parsed JSON number <" + std::to_string(u) + "> does not fit in Int64.");
    }
    return static_cast<int64_t>(u);
  }
  if (!value.is_number_integer()) mismatch(appending(path, key), "an Int64", value);
  return value.get<int64_t>();
}

bool decodeBool(const json& container, const char* key, const Path& path) {
  const json& value = requiredValue(container, key, path);
  // A JSON number is never a boolean, not even 0 or 1.
  if (!value.is_boolean()) mismatch(appending(path, key), "a Bool", value);
  return value.get<bool>();
}

json parseText(std::string_view text) {
  json parsed = json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) fail(Kind::DataCorrupted, {}, "The given data was not valid JSON.");
  return parsed;
}

// ---------------------------------------------------------------------------
// Encoding, for both JSON flavours: nlohmann::json (sorted keys) for callers
// that build documents, ordered_json for text that keeps the declared order.
//
// JSON has no NaN or infinity (nlohmann-json would write null, which then
// does not decode) and holds only UTF-8 text (nlohmann-json would throw its
// own error when writing), so both are refused here with the coding path.

// The coding path on the stack, from the leaf up; made into a Path only
// when something fails.
struct EncodingPath {
  const EncodingPath* parent;
  std::string_view component;

  Path components() const {
    Path path;
    for (const EncodingPath* at = this; at->parent != nullptr; at = at->parent) {
      path.emplace_back(at->component);
    }
    return Path(path.rbegin(), path.rend());
  }
};

const EncodingPath kRootPath{nullptr, {}};

const std::string& encodableText(const std::string& text, const EncodingPath& at) {
  if (!isASCII(text) && (!fitsTextLimit(text) || !foundation::internal::isWellFormedUTF8(text))) {
    throw ReportingEncodingError(at.components(),
                                 "Unable to encode text that is not valid UTF-8 in JSON.");
  }
  return text;
}

double encodableDouble(double value, const EncodingPath& at) {
  if (!std::isfinite(value)) {
    const char* name = std::isnan(value) ? "nan" : (value > 0 ? "infinity" : "-infinity");
    throw ReportingEncodingError(at.components(),
                                 std::string("Unable to encode the double ") + name +
                                     " directly in JSON.");
  }
  return value;
}

template <class Json>
Json encode(const ReportingValue& value, const EncodingPath& at) {
  const char* caseName = kCaseNames[static_cast<size_t>(value.valueCase())];
  const EncodingPath caseAt{&at, caseName};
  const EncodingPath payloadAt{&caseAt, kPayloadKey};
  Json payload = Json::object();
  switch (value.valueCase()) {
    case ReportingValue::Case::Bool: payload[kPayloadKey] = *value.boolValue(); break;
    case ReportingValue::Case::Double:
      payload[kPayloadKey] = encodableDouble(*value.doubleValue(), payloadAt);
      break;
    case ReportingValue::Case::Int: payload[kPayloadKey] = *value.intValue(); break;
    case ReportingValue::Case::String:
      payload[kPayloadKey] = encodableText(*value.stringValue(), payloadAt);
      break;
  }
  Json outer = Json::object();
  outer[caseName] = std::move(payload);
  return outer;
}

template <class Json>
Json encode(const ReportingParameter& parameter, const EncodingPath& at) {
  Json out = Json::object();
  out["key"] = encodableText(parameter.key, EncodingPath{&at, "key"});
  out["value"] = encode<Json>(parameter.value, EncodingPath{&at, "value"});
  return out;
}

template <class Json>
Json encode(const PageName& name, const EncodingPath& at) {
  Json out = Json::object();
  out["stringValue"] = encodableText(name.stringValue, EncodingPath{&at, "stringValue"});
  return out;
}

template <class Json>
Json encode(const PageView& view, const EncodingPath& at) {
  Json out = Json::object();
  out["name"] = encode<Json>(view.name, EncodingPath{&at, "name"});
  out["duration"] = encodableDouble(view.duration, EncodingPath{&at, "duration"});
  const EncodingPath listAt{&at, "reportingParameters"};
  Json parameters = Json::array();
  size_t index = 0;
  for (const auto& parameter : view.reportingParameters) {
    const std::string indexText = std::to_string(index++);
    parameters.push_back(encode<Json>(parameter, EncodingPath{&listAt, indexText}));
  }
  out["reportingParameters"] = std::move(parameters);
  return out;
}

std::string pathText(const std::vector<std::string>& path) {
  std::string text;
  for (const auto& component : path) {
    if (!text.empty()) text += '.';
    text += component;
  }
  return text;
}

}  // namespace

// ---------------------------------------------------------------------------

ReportingDecodingError::ReportingDecodingError(Kind kind, std::vector<std::string> codingPath,
                                               std::string description)
    : std::runtime_error(codingPath.empty()
                             ? description
                             : description + " (coding path: " + pathText(codingPath) + ")"),
      kind_(kind),
      codingPath_(std::move(codingPath)),
      description_(std::move(description)) {}

ReportingEncodingError::ReportingEncodingError(std::vector<std::string> codingPath,
                                               std::string description)
    : std::runtime_error(codingPath.empty()
                             ? description
                             : description + " (coding path: " + pathText(codingPath) + ")"),
      codingPath_(std::move(codingPath)),
      description_(std::move(description)) {}

std::string canonicalDecomposition(const std::string& text) {
  if (isASCII(text) || !foundation::internal::isWellFormedUTF8(text)) return text;
  std::optional<std::string> decomposed = pageviews::internal::nfdOfWellFormedUTF8(text);
  return decomposed ? std::move(*decomposed) : text;
}

bool canonicallyEqual(const std::string& a, const std::string& b) {
  if (a == b) return true;
  // Only when both sides are ASCII do different bytes settle it: some
  // non-ASCII characters decompose to ASCII ones (KELVIN SIGN is "K").
  if (isASCII(a) && isASCII(b)) return false;
  return canonicalDecomposition(a) == canonicalDecomposition(b);
}

// ---------------------------------------------------------------------------
// ReportingValue

ReportingValue ReportingValue::boolean(bool v) { return ReportingValue(std::in_place_type<bool>, v); }
ReportingValue ReportingValue::double_(double v) {
  return ReportingValue(std::in_place_type<double>, v);
}
ReportingValue ReportingValue::int_(int64_t v) {
  return ReportingValue(std::in_place_type<int64_t>, v);
}
ReportingValue ReportingValue::string(std::string v) {
  return ReportingValue(std::in_place_type<std::string>, std::move(v));
}

bool operator==(const ReportingValue& a, const ReportingValue& b) {
  if (a.payload_.index() != b.payload_.index()) return false;
  switch (a.valueCase()) {
    case ReportingValue::Case::Bool: return *a.boolValue() == *b.boolValue();
    case ReportingValue::Case::Double: return *a.doubleValue() == *b.doubleValue();
    case ReportingValue::Case::Int: return *a.intValue() == *b.intValue();
    case ReportingValue::Case::String: return canonicallyEqual(*a.stringValue(), *b.stringValue());
  }
  return false;
}

size_t ReportingValue::hash() const {
  size_t payloadHash = 0;
  switch (valueCase()) {
    case Case::Bool: payloadHash = std::hash<bool>{}(*boolValue()); break;
    case Case::Double: payloadHash = doubleHash(*doubleValue()); break;
    case Case::Int: payloadHash = std::hash<int64_t>{}(*intValue()); break;
    case Case::String: payloadHash = canonicalTextHash(*stringValue()); break;
  }
  return combine(combine(0, payload_.index()), payloadHash);
}

nlohmann::json pageviews::internal::toJSON(const ReportingValue& value) { return encode<json>(value, kRootPath); }

std::string ReportingValue::toJSONString() const {
  return encode<ordered_json>(*this, kRootPath).dump();
}

ReportingValue pageviews::internal::reportingValueFromJSON(const nlohmann::json& value,
                                      std::vector<std::string> codingPath) {
  const json& container = keyedContainer(value, codingPath);

  // Keys other than the case names are tolerated and do not count.
  const char* found = nullptr;
  size_t count = 0;
  for (const char* name : kCaseNames) {
    if (container.contains(name)) {
      found = name;
      ++count;
    }
  }
  if (count != 1) {
    fail(Kind::TypeMismatch, std::move(codingPath), "Invalid number of keys found, expected one.");
  }

  const Path casePath = appending(codingPath, found);
  const json& payload = keyedContainer(container[found], casePath);
  const std::string_view name = found;
  if (name == "bool") return ReportingValue::boolean(decodeBool(payload, kPayloadKey, casePath));
  if (name == "double") {
    return ReportingValue::double_(decodeDouble(payload, kPayloadKey, casePath));
  }
  if (name == "int") return ReportingValue::int_(decodeInt(payload, kPayloadKey, casePath));
  return ReportingValue::string(decodeString(payload, kPayloadKey, casePath));
}

ReportingValue ReportingValue::fromJSONString(std::string_view text) {
  return reportingValueFromJSON(parseText(text));
}

// ---------------------------------------------------------------------------
// ReportingParameter

namespace {
ReportingParameter stringParameter(std::string_view key, std::string v) {
  return ReportingParameter(std::string(key), ReportingValue::string(std::move(v)));
}
}  // namespace

ReportingParameter ReportingParameter::trackID(std::string v) {
  return stringParameter(kKVRTrackID, std::move(v));
}
ReportingParameter ReportingParameter::trackAdamID(std::string v) {
  return stringParameter(kKVRTrackAdamID, std::move(v));
}
ReportingParameter ReportingParameter::artistID(std::string v) {
  return stringParameter(kKVRArtistAdamID, std::move(v));
}
ReportingParameter ReportingParameter::tagID(std::string v) {
  return stringParameter(kKVRTagID, std::move(v));
}
ReportingParameter ReportingParameter::tagType(std::string v) {
  return stringParameter(kKVRTagType, std::move(v));
}
ReportingParameter ReportingParameter::matchType(std::string v) {
  return stringParameter(kKVRMatchType, std::move(v));
}
ReportingParameter ReportingParameter::forensicID(std::string v) {
  return stringParameter(kKVRForensicID, std::move(v));
}
ReportingParameter ReportingParameter::microphone(std::string v) {
  return stringParameter(kKVRMicrophone, std::move(v));
}
ReportingParameter ReportingParameter::polarPattern(std::string v) {
  return stringParameter(kKVRPolarPattern, std::move(v));
}
ReportingParameter ReportingParameter::headphonesConnected(int64_t v) {
  // An integer on purpose: the collectors expect a count-like number here.
  return ReportingParameter(std::string(kKVRHeadphonesConnected), ReportingValue::int_(v));
}
ReportingParameter ReportingParameter::inputPort(std::string v) {
  return stringParameter(kKVRInputPort, std::move(v));
}
ReportingParameter ReportingParameter::outputPort(std::string v) {
  return stringParameter(kKVROutputPort, std::move(v));
}
ReportingParameter ReportingParameter::initialOrientation(std::string v) {
  return stringParameter(kKVRInitialOrientation, std::move(v));
}
ReportingParameter ReportingParameter::currentOrientation(std::string v) {
  return stringParameter(kKVRCurrentOrientation, std::move(v));
}
ReportingParameter ReportingParameter::sampleRate(double v) {
  // No exported constant names this key; it stays a literal of its own.
  return ReportingParameter("samplerate", ReportingValue::double_(v));
}

bool operator==(const ReportingParameter& a, const ReportingParameter& b) {
  return a.value == b.value && canonicallyEqual(a.key, b.key);
}

size_t ReportingParameter::hash() const { return combine(canonicalTextHash(key), value.hash()); }

nlohmann::json pageviews::internal::toJSON(const ReportingParameter& value) { return encode<json>(value, kRootPath); }

std::string ReportingParameter::toJSONString() const {
  return encode<ordered_json>(*this, kRootPath).dump();
}

ReportingParameter pageviews::internal::reportingParameterFromJSON(const nlohmann::json& value,
                                              std::vector<std::string> codingPath) {
  const json& container = keyedContainer(value, codingPath);
  std::string key = decodeString(container, "key", codingPath);
  ReportingValue decoded =
      reportingValueFromJSON(requiredValue(container, "value", codingPath),
                             appending(codingPath, "value"));
  return ReportingParameter(std::move(key), std::move(decoded));
}

ReportingParameter ReportingParameter::fromJSONString(std::string_view text) {
  return reportingParameterFromJSON(parseText(text));
}

// ---------------------------------------------------------------------------
// PageName

bool operator==(const PageName& a, const PageName& b) {
  return canonicallyEqual(a.stringValue, b.stringValue);
}

size_t PageName::hash() const { return canonicalTextHash(stringValue); }

nlohmann::json pageviews::internal::toJSON(const PageName& value) { return encode<json>(value, kRootPath); }

std::string PageName::toJSONString() const {
  return encode<ordered_json>(*this, kRootPath).dump();
}

PageName pageviews::internal::pageNameFromJSON(const nlohmann::json& value, std::vector<std::string> codingPath) {
  const json& container = keyedContainer(value, codingPath);
  return PageName(decodeString(container, "stringValue", codingPath));
}

PageName PageName::fromJSONString(std::string_view text) {
  return pageNameFromJSON(parseText(text));
}

// ---------------------------------------------------------------------------
// PageView

bool operator==(const PageView& a, const PageView& b) {
  return a.name == b.name && a.duration == b.duration &&
         a.reportingParameters == b.reportingParameters;
}

size_t PageView::hash() const {
  // A sum does not depend on the order the set iterates in.
  size_t parameters = 0;
  for (const auto& parameter : reportingParameters) parameters += parameter.hash();
  return combine(combine(combine(0, name.hash()), doubleHash(duration)), parameters);
}

nlohmann::json pageviews::internal::toJSON(const PageView& value) { return encode<json>(value, kRootPath); }

std::string PageView::toJSONString() const {
  return encode<ordered_json>(*this, kRootPath).dump();
}

PageView pageviews::internal::pageViewFromJSON(const nlohmann::json& value, std::vector<std::string> codingPath) {
  const json& container = keyedContainer(value, codingPath);

  PageName name = pageNameFromJSON(requiredValue(container, "name", codingPath),
                                   appending(codingPath, "name"));
  const double duration = decodeDouble(container, "duration", codingPath);

  const Path listPath = appending(codingPath, "reportingParameters");
  const json& list = requiredValue(container, "reportingParameters", codingPath);
  if (!list.is_array()) mismatch(listPath, "an array", list);
  ReportingParameters parameters;
  parameters.reserve(list.size());
  for (size_t i = 0; i < list.size(); ++i) {
    parameters.insert(
        reportingParameterFromJSON(list[i], appending(listPath, std::to_string(i))));
  }
  return PageView{std::move(name), duration, std::move(parameters)};
}

PageView PageView::fromJSONString(std::string_view text) {
  return pageViewFromJSON(parseText(text));
}

}  // namespace korvel
