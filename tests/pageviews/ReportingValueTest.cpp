#include <korvel/pageviews/ReportingValue.h>
#include <korvel/pageviews/internal/ReportingValueJSON.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <unordered_set>
#include <vector>

#include <nlohmann/json.hpp>

using korvel::pageviews::internal::pageViewFromJSON;
using korvel::pageviews::internal::reportingValueFromJSON;
using korvel::pageviews::internal::toJSON;

namespace korvel {
namespace {

using nlohmann::json;
using Kind = ReportingDecodingError::Kind;
using Case = ReportingValue::Case;

// "é" as one code point and as "e" + COMBINING ACUTE ACCENT.
const std::string kPrecomposedE = "\xC3\xA9";
const std::string kDecomposedE = "e\xCC\x81";

TEST(ReportingParameterTest, ConstructorsWriteTheirKeyAndCase) {
  struct Row {
    const char* name;
    ReportingParameter parameter;
    const char* key;
    Case valueCase;
  };
  const std::vector<Row> rows = {
      {"trackID", ReportingParameter::trackID("t"), "trackkey", Case::String},
      {"trackAdamID", ReportingParameter::trackAdamID("t"), "track_adam_id", Case::String},
      {"artistID", ReportingParameter::artistID("t"), "artist_adam_id", Case::String},
      {"tagID", ReportingParameter::tagID("t"), "tagid", Case::String},
      {"tagType", ReportingParameter::tagType("t"), "tagtype", Case::String},
      {"matchType", ReportingParameter::matchType("t"), "matchcategory", Case::String},
      {"forensicID", ReportingParameter::forensicID("t"), "x-forensic-id", Case::String},
      {"microphone", ReportingParameter::microphone("t"), "microphone", Case::String},
      {"polarPattern", ReportingParameter::polarPattern("t"), "polarpattern", Case::String},
      {"headphonesConnected", ReportingParameter::headphonesConnected(1), "headphones", Case::Int},
      {"inputPort", ReportingParameter::inputPort("t"), "inputport", Case::String},
      {"outputPort", ReportingParameter::outputPort("t"), "outputport", Case::String},
      {"initialOrientation", ReportingParameter::initialOrientation("t"), "initialorientation",
       Case::String},
      {"currentOrientation", ReportingParameter::currentOrientation("t"), "currentorientation",
       Case::String},
      {"sampleRate", ReportingParameter::sampleRate(44100), "samplerate", Case::Double},
  };
  ASSERT_EQ(rows.size(), 15u);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.parameter.key, row.key);
    EXPECT_EQ(row.parameter.value.valueCase(), row.valueCase);
  }
  EXPECT_EQ(ReportingParameter::headphonesConnected(1).value, ReportingValue::int_(1));
  EXPECT_FALSE(ReportingParameter::headphonesConnected(1).value == ReportingValue::boolean(true));
  EXPECT_EQ(ReportingParameter::sampleRate(44100).value, ReportingValue::double_(44100.0));
}

// ---------------------------------------------------------------------------
// Encoded forms

TEST(ReportingValueCodingTest, EveryCaseHasItsShapeBothWays) {
  struct Row {
    ReportingValue value;
    const char* encoded;
  };
  const std::vector<Row> rows = {
      {ReportingValue::boolean(true), R"({"bool":{"_0":true}})"},
      {ReportingValue::boolean(false), R"({"bool":{"_0":false}})"},
      {ReportingValue::double_(1.5), R"({"double":{"_0":1.5}})"},
      {ReportingValue::double_(-0.25), R"({"double":{"_0":-0.25}})"},
      {ReportingValue::int_(2), R"({"int":{"_0":2}})"},
      {ReportingValue::int_(std::numeric_limits<int64_t>::min()),
       R"({"int":{"_0":-9223372036854775808}})"},
      {ReportingValue::int_(std::numeric_limits<int64_t>::max()),
       R"({"int":{"_0":9223372036854775807}})"},
      {ReportingValue::string("abc"), R"({"string":{"_0":"abc"}})"},
      {ReportingValue::string(""), R"({"string":{"_0":""}})"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.encoded);
    EXPECT_EQ(toJSON(row.value), json::parse(row.encoded));
    EXPECT_EQ(row.value.toJSONString(), row.encoded);
    const auto decoded = reportingValueFromJSON(json::parse(row.encoded));
    EXPECT_EQ(decoded.valueCase(), row.value.valueCase());
    EXPECT_EQ(decoded, row.value);
    EXPECT_EQ(ReportingValue::fromJSONString(row.encoded), row.value);
  }
}

TEST(ReportingValueCodingTest, StructuresKeepTheirKeysInDeclaredOrder) {
  const auto parameter = ReportingParameter::trackID("123");
  EXPECT_EQ(parameter.toJSONString(), R"({"key":"trackkey","value":{"string":{"_0":"123"}}})");
  EXPECT_EQ(toJSON(parameter), json::parse(parameter.toJSONString()));

  EXPECT_EQ(PageName("home").toJSONString(), R"({"stringValue":"home"})");

  const PageView view{PageName("home"), 1.5, {ReportingParameter::headphonesConnected(0)}};
  EXPECT_EQ(view.toJSONString(),
            R"({"name":{"stringValue":"home"},"duration":1.5,)"
            R"("reportingParameters":[{"key":"headphones","value":{"int":{"_0":0}}}]})");
  EXPECT_EQ(toJSON(view), json::parse(view.toJSONString()));
}

TEST(ReportingValueCodingTest, PageViewRoundTrips) {
  const PageView view{PageName("caf" + kPrecomposedE),
                      12.375,
                      {ReportingParameter::trackID("t-1"), ReportingParameter::sampleRate(48000),
                       ReportingParameter::headphonesConnected(1),
                       ReportingParameter("flag", ReportingValue::boolean(true)),
                       ReportingParameter("flag", ReportingValue::int_(1))}};
  EXPECT_EQ(pageViewFromJSON(toJSON(view)), view);
  EXPECT_EQ(PageView::fromJSONString(view.toJSONString()), view);

  const PageView empty{PageName(""), 0, {}};
  EXPECT_EQ(PageView::fromJSONString(empty.toJSONString()), empty);
}

TEST(ReportingValueCodingTest, UnknownKeysAreIgnored) {
  EXPECT_EQ(ReportingValue::fromJSONString(R"({"int":{"_0":7},"integer":{"_0":"x"}})"),
            ReportingValue::int_(7));
  EXPECT_EQ(ReportingValue::fromJSONString(R"({"string":{"_0":"a","_1":2}})"),
            ReportingValue::string("a"));
  EXPECT_EQ(ReportingParameter::fromJSONString(
                R"({"key":"k","value":{"bool":{"_0":false}},"note":null})"),
            ReportingParameter("k", ReportingValue::boolean(false)));
  EXPECT_EQ(PageName::fromJSONString(R"({"stringValue":"p","extra":[]})"), PageName("p"));
  EXPECT_EQ(PageView::fromJSONString(
                R"({"version":3,"name":{"stringValue":"p"},"duration":2,"reportingParameters":[]})"),
            (PageView{PageName("p"), 2.0, {}}));
}

TEST(ReportingValueCodingTest, ADoublePayloadAcceptsAnyNumber) {
  const auto decoded = ReportingValue::fromJSONString(R"({"double":{"_0":3}})");
  EXPECT_EQ(decoded.valueCase(), Case::Double);
  EXPECT_EQ(*decoded.doubleValue(), 3.0);
  EXPECT_EQ(*ReportingValue::fromJSONString(R"({"double":{"_0":18446744073709551615}})")
                 .doubleValue(),
            18446744073709551615.0);
}

struct DecodingFailure {
  const char* name;
  std::function<void()> decode;
  Kind kind;
  std::vector<std::string> codingPath;
  const char* description;  // checked when not null
};

void expectFailure(const DecodingFailure& row) {
  SCOPED_TRACE(row.name);
  try {
    row.decode();
    ADD_FAILURE() << "decoded without an error";
  } catch (const ReportingDecodingError& error) {
    EXPECT_EQ(error.kind(), row.kind);
    EXPECT_EQ(error.codingPath(), row.codingPath);
    if (row.description != nullptr) {
      EXPECT_EQ(error.description(), row.description);
    }
  }
}

std::function<void()> value(const char* text) {
  return [text] { reportingValueFromJSON(json::parse(text)); };
}

TEST(ReportingValueCodingTest, ValueDecodingFailures) {
  const char* kInvalidCount = "Invalid number of keys found, expected one.";
  const std::vector<DecodingFailure> rows = {
      {"bool and int", value(R"({"bool":{"_0":true},"int":{"_0":1}})"), Kind::TypeMismatch, {},
       kInvalidCount},
      {"all four cases",
       value(R"({"bool":{"_0":true},"double":{"_0":1},"int":{"_0":1},"string":{"_0":""}})"),
       Kind::TypeMismatch, {}, kInvalidCount},
      {"empty object", value("{}"), Kind::TypeMismatch, {}, kInvalidCount},
      {"only unknown keys", value(R"({"Int":{"_0":1}})"), Kind::TypeMismatch, {}, kInvalidCount},
      {"missing _0", value(R"({"int":{}})"), Kind::KeyNotFound, {"int"}, nullptr},
      {"payload not an object", value(R"({"int":2})"), Kind::TypeMismatch, {"int"}, nullptr},
      {"number is not a bool", value(R"({"bool":{"_0":1}})"), Kind::TypeMismatch,
       {"bool", "_0"}, nullptr},
      {"string is not a bool", value(R"({"bool":{"_0":"true"}})"), Kind::TypeMismatch,
       {"bool", "_0"}, nullptr},
      {"fraction is not an int", value(R"({"int":{"_0":1.5}})"), Kind::TypeMismatch,
       {"int", "_0"}, nullptr},
      {"integral float is not an int", value(R"({"int":{"_0":2.0}})"), Kind::TypeMismatch,
       {"int", "_0"}, nullptr},
      {"bool is not an int", value(R"({"int":{"_0":true}})"), Kind::TypeMismatch, {"int", "_0"},
       nullptr},
      {"int past Int64", value(R"({"int":{"_0":9223372036854775808}})"), Kind::DataCorrupted,
       {"int", "_0"}, nullptr},
      {"string is not a double", value(R"({"double":{"_0":"1"}})"), Kind::TypeMismatch,
       {"double", "_0"}, nullptr},
      {"null is not a string", value(R"({"string":{"_0":null}})"), Kind::TypeMismatch,
       {"string", "_0"}, nullptr},
      {"array", value("[1]"), Kind::TypeMismatch, {}, nullptr},
      {"number", value("3"), Kind::TypeMismatch, {}, nullptr},
      {"null", value("null"), Kind::TypeMismatch, {}, nullptr},
      {"text", value(R"("int")"), Kind::TypeMismatch, {}, nullptr},
      {"malformed text, non-throwing parse",
       [] { reportingValueFromJSON(json::parse(R"({"int":{"_0":)", nullptr, false)); },
       Kind::DataCorrupted, {}, nullptr},
      {"malformed text", [] { ReportingValue::fromJSONString(R"({"int":{"_0":1})"); },
       Kind::DataCorrupted, {}, nullptr},
      {"empty text", [] { ReportingValue::fromJSONString(""); }, Kind::DataCorrupted, {}, nullptr},
      {"caller's coding path is kept",
       [] { reportingValueFromJSON(json::parse("{}"), {"outer", "3"}); }, Kind::TypeMismatch,
       {"outer", "3"}, kInvalidCount},
  };
  for (const auto& row : rows) expectFailure(row);
}

TEST(ReportingValueCodingTest, StructureDecodingFailuresNameTheirPath) {
  auto view = [](const char* text) { return [text] { PageView::fromJSONString(text); }; };
  const std::vector<DecodingFailure> rows = {
      {"parameter without key",
       [] { ReportingParameter::fromJSONString(R"({"value":{"int":{"_0":1}}})"); },
       Kind::KeyNotFound, {}, nullptr},
      {"parameter key not text",
       [] { ReportingParameter::fromJSONString(R"({"key":1,"value":{"int":{"_0":1}}})"); },
       Kind::TypeMismatch, {"key"}, nullptr},
      {"parameter without value", [] { ReportingParameter::fromJSONString(R"({"key":"k"})"); },
       Kind::KeyNotFound, {}, nullptr},
      {"page name not text", [] { PageName::fromJSONString(R"({"stringValue":3})"); },
       Kind::TypeMismatch, {"stringValue"}, nullptr},
      {"page name from text", [] { PageName::fromJSONString(R"("home")"); }, Kind::TypeMismatch,
       {}, nullptr},
      {"view without duration", view(R"({"name":{"stringValue":"p"},"reportingParameters":[]})"),
       Kind::KeyNotFound, {}, nullptr},
      {"view duration as text",
       view(R"({"name":{"stringValue":"p"},"duration":"1","reportingParameters":[]})"),
       Kind::TypeMismatch, {"duration"}, nullptr},
      {"view name as text", view(R"({"name":"p","duration":1,"reportingParameters":[]})"),
       Kind::TypeMismatch, {"name"}, nullptr},
      {"view parameters not a list",
       view(R"({"name":{"stringValue":"p"},"duration":1,"reportingParameters":{}})"),
       Kind::TypeMismatch, {"reportingParameters"}, nullptr},
      {"second parameter's value has two cases",
       view(R"({"name":{"stringValue":"p"},"duration":1,"reportingParameters":[)"
            R"({"key":"a","value":{"int":{"_0":1}}},)"
            R"({"key":"b","value":{"int":{"_0":1},"bool":{"_0":true}}}]})"),
       Kind::TypeMismatch, {"reportingParameters", "1", "value"},
       "Invalid number of keys found, expected one."},
      {"first parameter's payload wrong",
       view(R"({"name":{"stringValue":"p"},"duration":1,"reportingParameters":[)"
            R"({"key":"a","value":{"bool":{"_0":0}}}]})"),
       Kind::TypeMismatch, {"reportingParameters", "0", "value", "bool", "_0"}, nullptr},
      {"truncated view", view(R"({"name":{"stringValue":"p"},"dura)"), Kind::DataCorrupted, {},
       nullptr},
  };
  for (const auto& row : rows) expectFailure(row);
}

TEST(ReportingValueCodingTest, ErrorTextNamesThePath) {
  try {
    PageView::fromJSONString(R"({"name":{},"duration":1,"reportingParameters":[]})");
    FAIL();
  } catch (const ReportingDecodingError& error) {
    EXPECT_EQ(error.kind(), Kind::KeyNotFound);
    EXPECT_EQ(error.codingPath(), std::vector<std::string>{"name"});
    EXPECT_NE(std::string(error.what()).find("stringValue"), std::string::npos);
    EXPECT_NE(std::string(error.what()).find("name"), std::string::npos);
  }
}

// What cannot be written as JSON is refused with the library's own error,
// naming where it sits, from both encoders.
TEST(ReportingValueCodingTest, UnencodableValuesFailWithTheirPath) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::string badText = "caf\xC3";  // cut inside a two-byte sequence
  using Path = std::vector<std::string>;
  struct Row {
    const char* name;
    std::function<std::string()> toText;
    std::function<json()> toDocument;
    Path codingPath;
  };
  auto rows = std::vector<Row>{};
  auto add = [&rows](const char* name, const auto& value, Path path) {
    rows.push_back({name, [value] { return value.toJSONString(); },
                    [value] { return toJSON(value); }, std::move(path)});
  };
  add("NaN", ReportingValue::double_(nan), {"double", "_0"});
  add("infinity", ReportingValue::double_(inf), {"double", "_0"});
  add("minus infinity", ReportingValue::double_(-inf), {"double", "_0"});
  add("ill-formed text", ReportingValue::string(badText), {"string", "_0"});
  add("lone continuation byte", ReportingValue::string("\x80"), {"string", "_0"});
  add("encoded surrogate", ReportingValue::string("\xED\xA0\x80"), {"string", "_0"});
  add("parameter key", ReportingParameter(badText, ReportingValue::int_(1)), {"key"});
  add("parameter value", ReportingParameter::sampleRate(nan), {"value", "double", "_0"});
  add("page name", PageName(badText), {"stringValue"});
  add("page duration", (PageView{PageName("p"), inf, {}}), {"duration"});
  add("page view's name", (PageView{PageName(badText), 1, {}}), {"name", "stringValue"});
  add("page view's parameter",
      (PageView{PageName("p"), 1, {ReportingParameter::trackID(badText)}}),
      {"reportingParameters", "0", "value", "string", "_0"});
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    for (const auto& encode : {std::function<void()>([&] { row.toText(); }),
                               std::function<void()>([&] { row.toDocument(); })}) {
      try {
        encode();
        ADD_FAILURE() << "encoded without an error";
      } catch (const ReportingEncodingError& error) {
        EXPECT_EQ(error.codingPath(), row.codingPath);
        EXPECT_FALSE(error.description().empty());
      } catch (const std::exception& other) {
        ADD_FAILURE() << "not the library's error: " << other.what();
      }
    }
  }
  // Well-formed text of any script, and the largest finite doubles, encode.
  EXPECT_EQ(ReportingValue::string("caf" + kPrecomposedE + "\xF0\x9F\x8E\xB5").toJSONString(),
            "{\"string\":{\"_0\":\"caf\xC3\xA9\xF0\x9F\x8E\xB5\"}}");
  const auto largest = ReportingValue::double_(std::numeric_limits<double>::max());
  EXPECT_EQ(ReportingValue::fromJSONString(largest.toJSONString()), largest);
}

// ---------------------------------------------------------------------------
// Equality and hashing

TEST(ReportingValueEqualityTest, TextComparesByCanonicalEquivalence) {
  struct Row {
    const char* name;
    std::string a;
    std::string b;
    bool equal;
  };
  const std::vector<Row> rows = {
      {"precomposed vs decomposed e acute", kPrecomposedE, kDecomposedE, true},
      {"inside longer text", "caf" + kPrecomposedE + "!", "caf" + kDecomposedE + "!", true},
      {"combining marks in either order", "a\xCC\x81\xCC\xA3", "a\xCC\xA3\xCC\x81", true},
      {"KELVIN SIGN is K", "\xE2\x84\xAA", "K", true},
      {"Hangul syllable vs jamo", "\xEA\xB0\x80", "\xE1\x84\x80\xE1\x85\xA1", true},
      {"accent matters", kPrecomposedE, "e", false},
      {"compatibility forms differ", "\xEF\xAC\x81" /* fi ligature */, "fi", false},
      {"case matters", "Home", "home", false},
      {"ill-formed bytes compare as bytes", "\xFF\xC3", "\xFF\xC3", true},
      {"different ill-formed bytes", "\xFF", "\xFE", false},
      {"embedded NUL", std::string("a\0b", 3), std::string("a\0c", 3), false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto a = ReportingValue::string(row.a);
    const auto b = ReportingValue::string(row.b);
    EXPECT_EQ(a == b, row.equal);
    EXPECT_EQ(b == a, row.equal);
    EXPECT_EQ(canonicallyEqual(row.a, row.b), row.equal);
    EXPECT_EQ(PageName(row.a) == PageName(row.b), row.equal);
    EXPECT_EQ(ReportingParameter(row.a, ReportingValue::int_(1)) ==
                  ReportingParameter(row.b, ReportingValue::int_(1)),
              row.equal);
    if (row.equal) {
      EXPECT_EQ(a.hash(), b.hash());
      EXPECT_EQ(std::hash<PageName>{}(PageName(row.a)), std::hash<PageName>{}(PageName(row.b)));
      EXPECT_EQ(ReportingParameter(row.a, a).hash(), ReportingParameter(row.b, b).hash());
    }
  }
  EXPECT_EQ(canonicalDecomposition(kPrecomposedE), kDecomposedE);
  EXPECT_EQ(canonicalDecomposition("\xFF" + kPrecomposedE), "\xFF" + kPrecomposedE);
  // The stored text is never rewritten, only compared canonically.
  EXPECT_EQ(*ReportingValue::string(kPrecomposedE).stringValue(), kPrecomposedE);
}

TEST(ReportingValueEqualityTest, DoublesCompareAsFloatingPoint) {
  const auto zero = ReportingValue::double_(0.0);
  const auto negativeZero = ReportingValue::double_(-0.0);
  EXPECT_EQ(zero, negativeZero);
  EXPECT_EQ(zero.hash(), negativeZero.hash());

  const auto nan = ReportingValue::double_(std::numeric_limits<double>::quiet_NaN());
  EXPECT_FALSE(nan == nan);
  EXPECT_FALSE(nan == ReportingValue::double_(std::numeric_limits<double>::quiet_NaN()));

  EXPECT_FALSE(ReportingValue::double_(0.1 + 0.2) == ReportingValue::double_(0.3));
  EXPECT_EQ(ReportingValue::double_(std::numeric_limits<double>::infinity()),
            ReportingValue::double_(std::numeric_limits<double>::infinity()));
}

TEST(ReportingValueEqualityTest, CasesNeverMeet) {
  const std::vector<ReportingValue> ones = {
      ReportingValue::boolean(true), ReportingValue::double_(1.0), ReportingValue::int_(1),
      ReportingValue::string("1")};
  for (size_t i = 0; i < ones.size(); ++i) {
    for (size_t j = 0; j < ones.size(); ++j) {
      SCOPED_TRACE(testing::Message() << i << " vs " << j);
      EXPECT_EQ(ones[i] == ones[j], i == j);
      if (i != j) {
        EXPECT_NE(ones[i].hash(), ones[j].hash());
      }
    }
  }
  // Zero payloads of different cases still hash apart: the case goes first.
  EXPECT_NE(ReportingValue::boolean(false).hash(), ReportingValue::int_(0).hash());
}

TEST(ReportingValueEqualityTest, ParameterSetsHoldFullyDistinctElements) {
  ReportingParameters set;
  set.insert(ReportingParameter("a", ReportingValue::int_(1)));
  set.insert(ReportingParameter("a", ReportingValue::string("1")));
  EXPECT_EQ(set.size(), 2u);

  set.insert(ReportingParameter("a", ReportingValue::int_(1)));
  EXPECT_EQ(set.size(), 2u);

  set.insert(ReportingParameter("k", ReportingValue::string(kPrecomposedE)));
  set.insert(ReportingParameter("k", ReportingValue::string(kDecomposedE)));
  EXPECT_EQ(set.size(), 3u);

  set.insert(ReportingParameter("z", ReportingValue::double_(0.0)));
  set.insert(ReportingParameter("z", ReportingValue::double_(-0.0)));
  EXPECT_EQ(set.size(), 4u);
}

TEST(ReportingValueEqualityTest, EqualPageViewsHashAlike) {
  // The same parameters reached through different insertion orders and
  // bucket counts, so that the sets iterate differently.
  std::vector<ReportingParameter> parameters;
  for (int i = 0; i < 40; ++i) {
    parameters.push_back(ReportingParameter("k" + std::to_string(i), ReportingValue::int_(i)));
  }
  ReportingParameters forward;
  for (const auto& p : parameters) forward.insert(p);
  ReportingParameters backward(512);
  for (auto it = parameters.rbegin(); it != parameters.rend(); ++it) backward.insert(*it);
  ASSERT_FALSE(std::equal(forward.begin(), forward.end(), backward.begin()))
      << "the two sets should iterate in different orders";

  struct Row {
    const char* name;
    PageView a;
    PageView b;
  };
  const std::vector<Row> equalRows = {
      {"parameters in another order", PageView{PageName("home"), 2.5, forward},
       PageView{PageName("home"), 2.5, backward}},
      {"canonically equal names", PageView{PageName("caf" + kPrecomposedE), 1, {}},
       PageView{PageName("caf" + kDecomposedE), 1, {}}},
      {"zero and minus zero", PageView{PageName("p"), 0.0, {}},
       PageView{PageName("p"), -0.0, {}}},
      {"canonically equal parameter",
       PageView{PageName("p"), 1, {ReportingParameter::tagID(kPrecomposedE)}},
       PageView{PageName("p"), 1, {ReportingParameter::tagID(kDecomposedE)}}},
  };
  for (const auto& row : equalRows) {
    SCOPED_TRACE(row.name);
    ASSERT_EQ(row.a, row.b);
    EXPECT_EQ(row.a.hash(), row.b.hash());
    EXPECT_EQ(std::hash<PageView>{}(row.a), std::hash<PageView>{}(row.b));
  }

  // Each field takes part in equality and in the hash.
  const PageView base{PageName("home"), 2.5, forward};
  auto oneMore = forward;
  oneMore.insert(ReportingParameter::tagID("x"));
  auto otherValue = forward;
  otherValue.erase(ReportingParameter("k0", ReportingValue::int_(0)));
  otherValue.insert(ReportingParameter("k0", ReportingValue::int_(-1)));
  for (const auto& other :
       {PageView{PageName("Home"), 2.5, forward}, PageView{PageName("home"), 3.5, forward},
        PageView{PageName("home"), 2.5, {}}, PageView{PageName("home"), 2.5, oneMore},
        PageView{PageName("home"), 2.5, otherValue}}) {
    EXPECT_FALSE(base == other) << other.toJSONString();
    EXPECT_NE(base.hash(), other.hash()) << other.toJSONString();
  }
  EXPECT_EQ(PageName("x").reportingValue(), ReportingValue::string("x"));

  // So page views can be kept in hashed containers.
  std::unordered_set<PageView> views{equalRows[0].a, equalRows[0].b, equalRows[1].a,
                                     equalRows[1].b};
  EXPECT_EQ(views.size(), 2u);
}

}  // namespace
}  // namespace korvel
