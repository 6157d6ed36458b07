#include <korvel/foundation/KVRParameters.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace korvel {
namespace {

using Keys = std::vector<std::string>;

TEST(KVRParametersTest, KeepsInsertionOrderAndReplacesInPlace) {
  KVRParameters p;
  p.set("zeta", "1").set("alpha", "2").set("mid", "3");
  EXPECT_EQ(p.keys(), (Keys{"zeta", "alpha", "mid"}));

  // A later write wins but keeps the key where it was.
  p.set("zeta", 42);
  EXPECT_EQ(p.keys(), (Keys{"zeta", "alpha", "mid"}));
  EXPECT_EQ(*p.find("zeta"), KVRValue(42));
  EXPECT_EQ(p.size(), 3u);

  // A braced list with a repeated key behaves the same way.
  KVRParameters literal{{"a", "first"}, {"b", "x"}, {"a", "second"}};
  EXPECT_EQ(literal.keys(), (Keys{"a", "b"}));
  EXPECT_EQ(literal.stringForKey("a"), "second");
}

TEST(KVRParametersTest, MissingValueRemovesTheKeyButEmptyTextIsWritten) {
  KVRParameters p{{"a", "1"}, {"b", "2"}, {"c", "3"}};
  p.set("b", std::optional<std::string>());
  EXPECT_EQ(p.keys(), (Keys{"a", "c"}));
  p.set("c", std::nullopt);
  EXPECT_EQ(p.keys(), (Keys{"a"}));
  // Removing an absent key is harmless.
  p.set("never", std::optional<std::string>());
  EXPECT_EQ(p.keys(), (Keys{"a"}));

  p.set("empty", std::optional<std::string>(""));
  ASSERT_TRUE(p.contains("empty"));
  EXPECT_EQ(p.stringForKey("empty"), "");

  // A present optional stores its value, in place for an existing key.
  p.set("a", std::optional<int>(7));
  EXPECT_EQ(p.keys(), (Keys{"a", "empty"}));
  EXPECT_EQ(*p.find("a"), KVRValue(7));

  EXPECT_TRUE(p.remove("a"));
  EXPECT_FALSE(p.remove("a"));
}

TEST(KVRParametersTest, MergeKeepsExistingPositionsAndAppendsNewKeysInTheirOrder) {
  KVRParameters base{{"a", "1"}, {"b", "2"}, {"c", "3"}};
  base.merge(KVRParameters{{"d", "4"}, {"b", "two"}, {"e", "5"}});
  EXPECT_EQ(base.keys(), (Keys{"a", "b", "c", "d", "e"}));
  EXPECT_EQ(base.stringForKey("b"), "two");

  KVRParameters empty;
  empty.merge(KVRParameters{{"y", "1"}, {"x", "2"}});
  EXPECT_EQ(empty.keys(), (Keys{"y", "x"}));

  // Merging a dictionary into itself changes nothing.
  KVRParameters same = base;
  same.merge(same);
  EXPECT_EQ(same.keys(), base.keys());
  EXPECT_EQ(same, base);

  base.merge(std::optional<KVRParameters>());
  EXPECT_EQ(base.size(), 5u);
  base.merge(std::optional<KVRParameters>(KVRParameters{{"f", "6"}}));
  EXPECT_EQ(base.keys().back(), "f");
}

TEST(KVRParametersTest, EqualityIgnoresOrderButNotKindsOrValues) {
  const KVRParameters a{{"x", "1"}, {"y", 2}};
  EXPECT_EQ(a, (KVRParameters{{"y", 2}, {"x", "1"}}));
  EXPECT_NE(a, (KVRParameters{{"x", "1"}}));
  EXPECT_NE(a, (KVRParameters{{"x", "1"}, {"y", 2}, {"z", 3}}));
  EXPECT_NE(a, (KVRParameters{{"x", "1"}, {"y", "2"}}));        // text, not number
  EXPECT_NE(a, (KVRParameters{{"x", "1"}, {"y", 2.0}}));        // double, not integer
  EXPECT_NE(a, (KVRParameters{{"x", "1"}, {"y", 3}}));
  EXPECT_NE(a, (KVRParameters{{"x", "1"}, {"w", 2}}));          // same size, other key
  EXPECT_EQ(KVRParameters(), KVRParameters());

  // Nested containers compare deeply and order-insensitively.
  const KVRParameters nested1{{"n", KVRParameters{{"a", 1}, {"b", 2}}}, {"l", KVRList{1, "x"}}};
  const KVRParameters nested2{{"l", KVRList{1, "x"}}, {"n", KVRParameters{{"b", 2}, {"a", 1}}}};
  EXPECT_EQ(nested1, nested2);
  EXPECT_NE(nested1, (KVRParameters{{"n", KVRParameters{{"a", 1}, {"b", 2}}},
                                    {"l", KVRList{"x", 1}}}));

  // Dates compare by instant, and are no number.
  EXPECT_EQ(KVRValue(KVRDate{10.5}), KVRValue(KVRDate{10.5}));
  EXPECT_NE(KVRValue(KVRDate{10.5}), KVRValue(KVRDate{10.25}));
  EXPECT_NE(KVRValue(KVRDate{10}), KVRValue(10.0));
}

TEST(KVRParametersTest, ValueKindsFollowTheConstructorArgument) {
  struct Case {
    KVRValue value;
    KVRValue::Kind kind;
  };
  const std::vector<Case> cases = {
      {KVRValue("text"), KVRValue::Kind::String},
      {KVRValue(std::string("text")), KVRValue::Kind::String},
      {KVRValue(std::string_view("text")), KVRValue::Kind::String},
      {KVRValue(int8_t{-3}), KVRValue::Kind::Int},
      {KVRValue(-3), KVRValue::Kind::Int},
      {KVRValue(int64_t{-3}), KVRValue::Kind::Int},
      {KVRValue(uint16_t{3}), KVRValue::Kind::UInt},
      {KVRValue(3u), KVRValue::Kind::UInt},
      {KVRValue(uint64_t{3}), KVRValue::Kind::UInt},
      {KVRValue(2.5), KVRValue::Kind::Double},
      {KVRValue(2.5f), KVRValue::Kind::Double},
      {KVRValue(true), KVRValue::Kind::Bool},
      {KVRValue(KVRDate{1}), KVRValue::Kind::Date},
      {KVRValue(KVRURL{"https://a.example/"}), KVRValue::Kind::URL},
      {KVRValue(KVRParameters{}), KVRValue::Kind::Dictionary},
      {KVRValue(KVRList{}), KVRValue::Kind::List},
      {KVRValue(), KVRValue::Kind::String},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(cases[i].value.kind(), cases[i].kind) << "case " << i;
  }
}

TEST(KVRParametersTest, NumericAccessors) {
  EXPECT_EQ(KVRValue(-5).asInt(), -5);
  EXPECT_EQ(KVRValue(uint64_t{INT64_MAX}).asInt(), INT64_MAX);
  EXPECT_EQ(KVRValue(uint64_t{INT64_MAX} + 1).asInt(), std::nullopt);
  EXPECT_EQ(KVRValue(2.0).asInt(), std::nullopt);
  EXPECT_EQ(KVRValue("5").asInt(), std::nullopt);

  EXPECT_EQ(KVRValue(UINT64_MAX).asUInt(), UINT64_MAX);
  EXPECT_EQ(KVRValue(int64_t{0}).asUInt(), 0u);
  EXPECT_EQ(KVRValue(-1).asUInt(), std::nullopt);
  EXPECT_EQ(KVRValue(1.0).asUInt(), std::nullopt);

  EXPECT_EQ(KVRValue(true).asDouble(), 1.0);
  EXPECT_EQ(KVRValue(false).asDouble(), 0.0);
  EXPECT_EQ(KVRValue(-4).asDouble(), -4.0);
  EXPECT_EQ(KVRValue(uint64_t{8}).asDouble(), 8.0);
  EXPECT_EQ(KVRValue("1.5").asDouble(), std::nullopt);

  EXPECT_TRUE(KVRValue(false).isNumber());
  EXPECT_FALSE(KVRValue("1").isNumber());
  EXPECT_FALSE(KVRValue(KVRDate{0}).isNumber());
  EXPECT_EQ(KVRValue(KVRDate{42}).asDate()->secondsSince1970, 42);
  EXPECT_EQ(KVRValue(42).asDate(), std::nullopt);

  const KVRParameters p{{"s", "x"}, {"n", 1}};
  EXPECT_EQ(p.stringForKey("s"), "x");
  EXPECT_EQ(p.stringForKey("n"), std::nullopt);
  EXPECT_EQ(p.stringForKey("absent"), std::nullopt);
}

TEST(KVRParametersTest, DescriptionOfEachScalarKind) {
  struct Case {
    KVRValue value;
    std::string text;
  };
  const std::vector<Case> cases = {
      {KVRValue("as is, with spaces & \"quotes\""), "as is, with spaces & \"quotes\""},
      {KVRValue(""), ""},
      {KVRValue(5), "5"},
      {KVRValue(-42), "-42"},
      {KVRValue(int64_t{INT64_MIN}), "-9223372036854775808"},
      {KVRValue(std::numeric_limits<uint64_t>::max()), "18446744073709551615"},
      {KVRValue(2500.0), "2500"},
      {KVRValue(1.25), "1.25"},
      {KVRValue(0.1), "0.1"},
      {KVRValue(-0.5), "-0.5"},
      {KVRValue(1.0 / 3.0), "0.3333333333333333"},
      {KVRValue(1e21), "1e+21"},
      {KVRValue(1700000000.25), "1700000000.25"},
      {KVRValue(true), "1"},
      {KVRValue(false), "0"},
      {KVRValue(KVRDate{1700000000}), "2023-11-14 22:13:20 +0000"},
      {KVRValue(KVRDate{1700000000.999}), "2023-11-14 22:13:20 +0000"},  // whole seconds
      {KVRValue(KVRDate{0}), "1970-01-01 00:00:00 +0000"},
      {KVRValue(KVRDate{-1}), "1969-12-31 23:59:59 +0000"},
      {KVRValue(KVRURL{"https://a.example/p?q=1"}), "https://a.example/p?q=1"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.value.description(), c.text);
    EXPECT_EQ(describe(c.value), c.text);
  }
  EXPECT_EQ(describeDate(KVRDate{std::nan("")}), "(invalid date)");
  // Instants no calendar can show are not printed as some other date.
  for (double t : {1e17, -1e17, 1e300, -1e300}) {
    EXPECT_EQ(describeDate(KVRDate{t}), "(invalid date)") << t;
  }
  EXPECT_EQ(describeDate(KVRDate{std::numeric_limits<double>::infinity()}), "(invalid date)");
}

TEST(KVRParametersTest, NestedDescriptionFormat) {
  const KVRParameters p{
      {"a", 1},
      {"b", KVRParameters{{"c", "x y"}, {"plain_word-1.0/$:", "ok"}}},
      {"l", KVRList{1, "two words", KVRList{}}},
      {"needs quoting", ""},
      {"q", "say \"hi\"\\\nnext"},
      {"d", KVRDate{0}},
      {"e", KVRParameters{}},
  };
  const std::string expected =
      "{\n"
      "    a = 1;\n"
      "    b = {\n"
      "        c = \"x y\";\n"
      "        plain_word-1.0/$: = ok;\n"
      "    };\n"
      "    l = (\n"
      "        1,\n"
      "        \"two words\",\n"
      "        (\n"
      "        )\n"
      "    );\n"
      "    \"needs quoting\" = \"\";\n"
      "    q = \"say \\\"hi\\\"\\\\\\nnext\";\n"
      "    d = \"1970-01-01 00:00:00 +0000\";\n"
      "    e = {\n"
      "    };\n"
      "}";
  EXPECT_EQ(describe(p), expected);
  // A nested value's wire text is its description.
  EXPECT_EQ(KVRValue(p).description(), expected);
  EXPECT_EQ(describe(KVRParameters()), "{\n}");
  EXPECT_EQ(KVRValue(KVRList{}).description(), "(\n)");
  EXPECT_EQ(KVRValue(KVRList{true, 2.5}).description(), "(\n    1,\n    2.5\n)");
}

TEST(KVRParametersTest, CopiesShareNothingObservable) {
  KVRParameters inner{{"k", "v"}};
  KVRParameters outer{{"inner", inner}};
  inner.set("k", "changed");
  EXPECT_EQ(outer.find("inner")->asDictionary()->stringForKey("k"), "v");

  KVRParameters copy = outer;
  copy.set("inner", "replaced");
  EXPECT_NE(outer.find("inner")->asDictionary(), nullptr);
}

}  // namespace
}  // namespace korvel
