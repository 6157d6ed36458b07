#include <korvel/foundation/KeyedArchive.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

#include <nlohmann/json.hpp>

namespace korvel {
namespace {

KVRParameters sampleDictionary() {
  KVRParameters inner{{"zeta", "last-first"}, {"alpha", int64_t{-3}}, {"mid", true}};
  return KVRParameters{
      {"text", "héllo \"wörld\"\n"},
      {"empty", ""},
      {"int", int64_t{42}},
      {"zero", int64_t{0}},
      {"negative", int64_t{-7}},
      {"intMin", std::numeric_limits<int64_t>::min()},
      {"intMax", std::numeric_limits<int64_t>::max()},
      {"uint", uint64_t{5}},
      {"uintMax", std::numeric_limits<uint64_t>::max()},
      {"double", 1.0},
      {"fraction", 0.1},
      {"negZero", -0.0},
      {"huge", 1e300},
      {"yes", true},
      {"no", false},
      {"date", KVRDate{1710493507.25}},
      {"url", KVRURL{"https://example.com/a?b=c"}},
      {"inner", inner},
      {"list", KVRList{"a", int64_t{1}, uint64_t{2}, 2.5, false, KVRList{}, inner}},
  };
}

std::string sampleArchive() {
  KeyedArchiver archiver;
  archiver.encodeObject("dict", sampleDictionary());
  archiver.encodeObject("name", std::string("record"));
  archiver.encodeDouble("time", 12.5);
  archiver.encodeInt("count", -9);
  archiver.encodeBool("sent", true);
  return archiver.encodedData();
}

TEST(KeyedArchiveTest, EveryValueKindRoundTripsExactly) {
  auto unarchiver = KeyedUnarchiver::open(sampleArchive());
  ASSERT_TRUE(unarchiver);
  auto dict = unarchiver->decodeDictionary("dict");
  ASSERT_TRUE(dict);
  const KVRParameters expected = sampleDictionary();
  EXPECT_EQ(*dict, expected);

  // Equality is by value and kind; check the kinds that CBOR could blur and
  // the order, which equality ignores.
  EXPECT_EQ(dict->keys(), expected.keys());
  struct KindCase {
    const char* key;
    KVRValue::Kind kind;
  };
  const KindCase kinds[] = {
      {"int", KVRValue::Kind::Int},       {"zero", KVRValue::Kind::Int},
      {"intMax", KVRValue::Kind::Int},    {"uint", KVRValue::Kind::UInt},
      {"uintMax", KVRValue::Kind::UInt},  {"double", KVRValue::Kind::Double},
      {"yes", KVRValue::Kind::Bool},      {"date", KVRValue::Kind::Date},
      {"url", KVRValue::Kind::URL},       {"list", KVRValue::Kind::List},
      {"inner", KVRValue::Kind::Dictionary},
  };
  for (const auto& k : kinds) {
    const KVRValue* value = dict->find(k.key);
    ASSERT_NE(value, nullptr) << k.key;
    EXPECT_EQ(value->kind(), k.kind) << k.key;
  }
  EXPECT_TRUE(std::signbit(*dict->find("negZero")->asDouble()));
  EXPECT_EQ(dict->find("inner")->asDictionary()->keys(),
            (std::vector<std::string>{"zeta", "alpha", "mid"}));
  const KVRList& list = *dict->find("list")->asList();
  ASSERT_EQ(list.size(), 7u);
  EXPECT_EQ(list[2].kind(), KVRValue::Kind::UInt);
  EXPECT_EQ(list[6].asDictionary()->keys(), (std::vector<std::string>{"zeta", "alpha", "mid"}));

  EXPECT_EQ(unarchiver->decodeString("name"), "record");
  EXPECT_EQ(unarchiver->decodeDouble("time"), 12.5);
  EXPECT_EQ(unarchiver->decodeInt("count"), -9);
  EXPECT_EQ(unarchiver->decodeBool("sent"), true);
}

// Keys and texts of every length around the writer's boundaries: its inline
// copies (4, 8 and 16 bytes) and CBOR's head forms (24, 256, 65,536). The
// bytes must be CBOR's own, as nlohmann-json writes them, and a key written
// again with a longer value must still fit.
TEST(KeyedArchiveTest, TextsOfEveryLengthAreWrittenAsCBORWritesThem) {
  const size_t lengths[] = {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 23, 24, 255, 256, 65535, 65536};
  for (const size_t length : lengths) {
    const std::string key(length, 'k');
    const std::string text(length, 't');
    KeyedArchiver archiver;
    archiver.encodeObject(key, text);
    archiver.encodeObject("dict", KVRParameters{{key, text}, {"url", KVRURL{text}}});
    const nlohmann::ordered_json expected = {{key, text},
                                             {"dict", {{key, text}, {"url", nullptr}}}};
    std::vector<std::uint8_t> bytes = nlohmann::ordered_json::to_cbor(expected);
    // nlohmann has no URL kind: compare up to the URL's value, then the
    // tagged byte string the archive keeps it as.
    const std::string archived(archiver.data());
    const std::string prefix(bytes.begin(), bytes.end() - 1);
    ASSERT_GE(archived.size(), prefix.size()) << length;
    EXPECT_EQ(archived.substr(0, prefix.size()), prefix) << length;
    auto unarchiver = KeyedUnarchiver::open(archived);
    ASSERT_TRUE(unarchiver) << length;
    EXPECT_EQ(unarchiver->decodeString(key), text) << length;
    EXPECT_EQ(*unarchiver->decodeDictionary("dict")->find("url")->asURL(), KVRURL{text})
        << length;

    archiver.encodeObject(key, text + text + "!");
    unarchiver = KeyedUnarchiver::open(archiver.data());
    ASSERT_TRUE(unarchiver) << length;
    EXPECT_EQ(unarchiver->decodeString(key), text + text + "!") << length;
    EXPECT_TRUE(unarchiver->decodeDictionary("dict")) << length;
  }
}

// The map's head grows with its keys (one byte up to 23, then two, then
// three), a key written again keeps its place, whether the archiver still
// tracks it or reads the entries back to find it, and an archive written
// after bytes already in the buffer leaves them as they were.
TEST(KeyedArchiveTest, KeysOfEveryCountAreWrittenAsCBORWritesThem) {
  const auto keyNumber = [](size_t i) { return std::string("k").append(std::to_string(i)); };
  const size_t counts[] = {1, 2, 12, 13, 23, 24, 25, 255, 256, 300};
  for (const size_t count : counts) {
    const std::string before = "frame head";
    std::string out = before;
    KeyedArchiver archiver(out);
    nlohmann::ordered_json expected = nlohmann::ordered_json::object();
    for (size_t i = 0; i < count; ++i) {
      const std::string key = keyNumber(i);
      archiver.encodeInt(key, static_cast<int64_t>(i) * 1000);
      expected[key] = static_cast<int64_t>(i) * 1000;
    }
    // Again, the first key and the last: the last is past the tracked ones
    // when there are more keys than the archiver tracks.
    for (const size_t i : {size_t{0}, count - 1}) {
      const std::string key = keyNumber(i);
      const std::string again = std::string("again ").append(key);
      archiver.encodeObject(key, again);
      expected[key] = again;
    }
    const std::vector<std::uint8_t> cbor = nlohmann::ordered_json::to_cbor(expected);
    EXPECT_EQ(out, std::string(before).append(cbor.begin(), cbor.end())) << count << " keys";
    auto unarchiver = KeyedUnarchiver::open(archiver.data());
    ASSERT_TRUE(unarchiver) << count;
    EXPECT_EQ(unarchiver->decodeString("k0"), "again k0") << count;
  }
}

TEST(KeyedArchiveTest, WrongKindOrMissingKeyGivesNothing) {
  KeyedArchiver archiver;
  archiver.encodeObject("dict", KVRParameters{{"a", "b"}});
  archiver.encodeObject("text", std::string("12"));
  archiver.encodeDouble("real", 1.0);
  archiver.encodeInt("int", 3);
  archiver.encodeBool("flag", true);
  archiver.encodeObject("big", KVRParameters{{"u", std::numeric_limits<uint64_t>::max()}});
  auto u = KeyedUnarchiver::open(archiver.encodedData());
  ASSERT_TRUE(u);

  EXPECT_TRUE(u->containsValueForKey("flag"));
  EXPECT_FALSE(u->containsValueForKey("missing"));
  EXPECT_FALSE(u->decodeString("missing"));
  EXPECT_FALSE(u->decodeDictionary("missing"));

  EXPECT_FALSE(u->decodeDictionary("text"));
  EXPECT_FALSE(u->decodeString("int"));
  EXPECT_FALSE(u->decodeString("dict"));
  EXPECT_FALSE(u->decodeInt("real"));    // a double, even an integral one
  EXPECT_FALSE(u->decodeInt("text"));
  EXPECT_FALSE(u->decodeInt("flag"));
  EXPECT_FALSE(u->decodeBool("int"));
  EXPECT_FALSE(u->decodeDouble("text"));
  EXPECT_FALSE(u->decodeDouble("flag"));
  EXPECT_EQ(u->decodeDouble("int"), 3.0);  // any number reads as a double
}

// Archives built by hand to hold CBOR that no archiver writes.
TEST(KeyedArchiveTest, UnsupportedNestedValuesFailTheDictionary) {
  struct Case {
    const char* name;
    std::string bytes;  // a map {"d": {"v": <value>}, "s": "ok"}
  };
  auto wrap = [](std::string value) {
    return std::string("\xA2\x61" "d\xA1\x61v", 6) + value + std::string("\x61s\x62ok", 5);
  };
  const Case cases[] = {
      {"null", wrap("\xF6")},
      {"untagged bytes", wrap(std::string("\x41\x00", 2))},
      {"unknown subtype", wrap(std::string("\xD8\x09\x41\x00", 4))},
      {"short date", wrap(std::string("\xD8\x01\x44\x00\x00\x00\x00", 7))},
      {"short unsigned", wrap(std::string("\xD8\x03\x41\x01", 4))},
      {"null in list", wrap("\x82\x01\xF6")},
  };
  for (const auto& c : cases) {
    auto u = KeyedUnarchiver::open(c.bytes);
    ASSERT_TRUE(u) << c.name;
    EXPECT_FALSE(u->decodeDictionary("d")) << c.name;
    EXPECT_EQ(u->decodeString("s"), "ok") << c.name;
  }
}

TEST(KeyedArchiveTest, ALaterDuplicateKeyWinsAndANullIsPresentWithoutAValue) {
  // {"k": 1, "n": null, "k": {"x": 2, "x": 3}}
  const std::string bytes("\xA3\x61k\x01\x61n\xF6\x61k\xA2\x61x\x02\x61x\x03", 16);
  auto u = KeyedUnarchiver::open(bytes);
  ASSERT_TRUE(u);
  EXPECT_EQ(u->decodeDictionary("k"), (KVRParameters{{"x", 3}}));
  EXPECT_FALSE(u->decodeInt("k"));
  EXPECT_TRUE(u->containsValueForKey("n"));
  EXPECT_FALSE(u->decodeString("n"));
  EXPECT_FALSE(u->decodeDouble("n"));
}

TEST(KeyedArchiveTest, OpenRejectsWhatIsNotAWholeMap) {
  const std::string bad[] = {
      "",
      std::string("\x80", 1),              // an array
      std::string("\x01", 1),              // a number
      std::string("\xA0\x00", 2),          // trailing byte
      std::string("\xA1\x01\x02", 3),      // non-text key
      std::string("\xBB\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 9),  // absurd length
      std::string("\xBF\x61k\x01", 4),     // indefinite map without break
      std::string("\xFF", 1),              // lone break
      std::string("\xA1\x61k\x1C", 4),     // reserved additional info
      "not cbor at all",
  };
  for (const auto& bytes : bad) EXPECT_FALSE(KeyedUnarchiver::open(bytes)) << bytes.size();

  // An indefinite-length map is still a map.
  auto indefinite = KeyedUnarchiver::open(std::string("\xBF\x61k\x01\xFF", 5));
  ASSERT_TRUE(indefinite);
  EXPECT_EQ(indefinite->decodeInt("k"), 1);
}

TEST(KeyedArchiveTest, DeepNestingIsRefusedNotRecursedInto) {
  for (const char nesting : {'\x81', '\xC6'}) {  // arrays 200000 deep; tag upon tag
    std::string bytes("\xA1\x61k", 3);
    bytes.append(200000, nesting);
    EXPECT_FALSE(KeyedUnarchiver::open(bytes + '\x01')) << int(nesting);
  }
}

void exercise(const KeyedUnarchiver& u) {
  for (const char* key : {"dict", "name", "time", "count", "sent"}) {
    (void)u.containsValueForKey(key);
    (void)u.decodeDictionary(key);
    (void)u.decodeString(key);
    (void)u.decodeDouble(key);
    (void)u.decodeInt(key);
    (void)u.decodeBool(key);
  }
}

TEST(KeyedArchiveTest, TruncatedArchivesAreRejected) {
  const std::string archive = sampleArchive();
  for (size_t length = 0; length < archive.size(); ++length) {
    auto u = KeyedUnarchiver::open(std::string_view(archive).substr(0, length));
    // A definite-length map cannot be complete before its last byte.
    EXPECT_FALSE(u) << length;
    if (u) exercise(*u);
  }
}

TEST(KeyedArchiveTest, CorruptedArchivesNeverCrash) {
  const std::string archive = sampleArchive();
  std::mt19937 rng(20240315);
  std::uniform_int_distribution<size_t> position(0, archive.size() - 1);
  std::uniform_int_distribution<int> byte(0, 255);
  int opened = 0;
  for (int round = 0; round < 500; ++round) {
    std::string corrupt = archive;
    const int flips = 1 + round % 4;
    for (int i = 0; i < flips; ++i) corrupt[position(rng)] = static_cast<char>(byte(rng));
    if (auto u = KeyedUnarchiver::open(corrupt)) {
      ++opened;
      exercise(*u);
    }
  }
  // Most flips land in text or numbers and leave a readable archive.
  EXPECT_GT(opened, 0);
}

// An archive read twice: as it is, and with its top-level map turned into an
// indefinite-length one, which only the general CBOR reader takes. Whatever
// the direct reader opens must give the same values, kinds and keys as the
// general reader gives for the same items, and what the general reader
// refuses it must refuse too.
std::string withIndefiniteTop(std::string_view archive) {
  return "\xBF" + std::string(archive.substr(1)) + "\xFF";
}

void expectSameValues(const KeyedUnarchiver& direct, const KeyedUnarchiver& general,
                      const std::string& what) {
  for (const char* key : {"dict", "name", "time", "count", "sent", "d", "k", "v", "s", "x"}) {
    EXPECT_EQ(direct.containsValueForKey(key), general.containsValueForKey(key)) << what << key;
    const auto dictionary = direct.decodeDictionary(key);
    EXPECT_EQ(dictionary, general.decodeDictionary(key)) << what << key;
    if (dictionary && general.decodeDictionary(key)) {
      EXPECT_EQ(dictionary->keys(), general.decodeDictionary(key)->keys()) << what << key;
    }
    EXPECT_EQ(direct.decodeString(key), general.decodeString(key)) << what << key;
    const auto a = direct.decodeDouble(key), b = general.decodeDouble(key);
    EXPECT_EQ(a.has_value(), b.has_value()) << what << key;
    if (a && b && !(std::isnan(*a) && std::isnan(*b))) {
      EXPECT_EQ(std::signbit(*a), std::signbit(*b)) << what << key;
      EXPECT_EQ(*a, *b) << what << key;
    }
    EXPECT_EQ(direct.decodeInt(key), general.decodeInt(key)) << what << key;
    EXPECT_EQ(direct.decodeBool(key), general.decodeBool(key)) << what << key;
  }
}

TEST(KeyedArchiveTest, ArchivesReadDirectlyGiveWhatTheGeneralReaderGives) {
  const std::string archive = sampleArchive();
  ASSERT_EQ(static_cast<unsigned char>(archive[0]), 0xA5u);  // five keys, a one-byte head
  auto direct = KeyedUnarchiver::open(archive);
  auto general = KeyedUnarchiver::open(withIndefiniteTop(archive));
  ASSERT_TRUE(direct && general);
  expectSameValues(*direct, *general, "whole ");

  std::mt19937 rng(20261126);
  std::uniform_int_distribution<size_t> position(1, archive.size() - 1);
  std::uniform_int_distribution<int> byte(0, 255);
  int opened = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string corrupt = archive;
    for (int i = 0, flips = 1 + round % 3; i < flips; ++i) {
      corrupt[position(rng)] = static_cast<char>(byte(rng));
    }
    auto d = KeyedUnarchiver::open(corrupt);
    auto g = KeyedUnarchiver::open(withIndefiniteTop(corrupt));
    const std::string what = "round " + std::to_string(round) + " key ";
    if (!g) {
      EXPECT_FALSE(d) << what;
      continue;
    }
    if (!d) continue;  // the definite form can be short where the other is not
    ++opened;
    expectSameValues(*d, *g, what);
  }
  EXPECT_GT(opened, 100);
}

// Items the archiver never writes are left to the general reader, which
// still reads them as it always did.
TEST(KeyedArchiveTest, ItemsNoArchiverWritesAreStillRead) {
  struct Case {
    const char* name;
    std::string value;  // the value of "v" in {"d": {"v": value}, "s": "ok"}
    KVRValue expected;
  };
  const Case cases[] = {
      {"half float", std::string("\xF9\x3C\x00", 3), KVRValue(1.0)},
      {"indefinite text", std::string("\x7F\x62" "ab" "\x61" "c" "\xFF", 7), KVRValue("abc")},
      {"ignored tag on an integer", std::string("\xC6\x05", 2), KVRValue(int64_t{5})},
      {"indefinite list", std::string("\x9F\x01\x02\xFF", 4),
       KVRValue(KVRList{int64_t{1}, int64_t{2}})},
      {"two-byte tag on bytes", std::string("\xD9\x00\x02\x41z", 5), KVRValue(KVRURL{"z"})},
      {"negative past the signed range", std::string("\x3B\x7F\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 9),
       KVRValue(std::numeric_limits<int64_t>::min())},
  };
  for (const auto& c : cases) {
    const std::string bytes = std::string("\xA2\x61" "d" "\xA1\x61v", 6) + c.value +
                              std::string("\x61s\x62ok", 5);
    auto u = KeyedUnarchiver::open(bytes);
    ASSERT_TRUE(u) << c.name;
    EXPECT_EQ(u->decodeString("s"), "ok") << c.name;
    EXPECT_EQ(u->decodeDictionary("d"), (KVRParameters{{"v", c.expected}})) << c.name;
  }
}

}  // namespace
}  // namespace korvel
