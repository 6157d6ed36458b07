#include <korvel/platform/KVNUserDefaults.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/UserDefaultsFixture.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;

using KVNUserDefaultsTest = testing::UserDefaultsFixture;

// --- Values survive a reopen --------------------------------------------------

TEST_F(KVNUserDefaultsTest, EveryKindOfValueSurvivesReopening) {
  KVRParameters nested{{"name", "x"}, {"count", 3}, {"when", KVRDate{12.5}}};
  KVRList list{KVRValue("a"), KVRValue(int64_t{-2}), KVRValue(2.25), KVRValue(false),
               KVRValue(KVRParameters{{"deep", KVRList{KVRValue(true)}}})};
  const std::vector<std::pair<std::string, KVRValue>> values = {
      {"text", KVRValue("héllo \"quoted\"\nline")},
      {"empty", KVRValue("")},
      {"negative", KVRValue(int64_t{-42})},
      {"largeSigned", KVRValue(std::numeric_limits<int64_t>::max())},
      {"largeUnsigned", KVRValue(std::numeric_limits<uint64_t>::max())},
      {"double", KVRValue(0.1)},
      {"wholeDouble", KVRValue(3.0)},
      {"infinity", KVRValue(-HUGE_VAL)},
      {"yes", KVRValue(true)},
      {"no", KVRValue(false)},
      {"date", KVRValue(KVRDate{1'700'000'123.25})},
      {"url", KVRValue(KVRURL{"https://example.test/a?b=c"})},
      {"dictionary", KVRValue(nested)},
      {"list", KVRValue(list)},
      // Dictionaries that look like the file's own markers stay dictionaries.
      {"dateLookalike", KVRValue(KVRParameters{{"$date", 5}})},
      {"urlLookalike", KVRValue(KVRParameters{{"$url", "x"}})},
  };
  {
    KVNUserDefaults defaults(path_);
    for (const auto& [key, value] : values) ASSERT_TRUE(defaults.setObject(value, key)) << key;
  }
  KVNUserDefaults reopened(path_);
  for (const auto& [key, value] : values) {
    auto read = reopened.objectForKey(key);
    ASSERT_TRUE(read.has_value()) << key;
    EXPECT_EQ(*read, value) << key << ": " << read->description();
  }
  EXPECT_EQ(reopened.dictionaryRepresentation().keys().size(), values.size());
  EXPECT_TRUE(env_.logs().records().empty());
}

TEST_F(KVNUserDefaultsTest, SmallUnsignedNumbersReadBackAsSignedIntegers) {
  { KVNUserDefaults(path_).setObject(KVRValue(uint64_t{7}), "n"); }
  auto read = KVNUserDefaults(path_).objectForKey("n");
  ASSERT_TRUE(read);
  EXPECT_EQ(read->kind(), KVRValue::Kind::Int);
  EXPECT_EQ(read->asInt(), 7);
}

TEST_F(KVNUserDefaultsTest, KeysKeepTheirFirstOrderAndRemovalIsPersisted) {
  {
    KVNUserDefaults defaults(path_);
    defaults.setObject("1", "b");
    defaults.setObject("2", "a");
    defaults.setObject("3", "c");
    defaults.setObject("4", "b");  // replaces in place
    EXPECT_TRUE(defaults.removeObjectForKey("c"));
    EXPECT_TRUE(defaults.removeObjectForKey("absent"));
  }
  KVNUserDefaults reopened(path_);
  EXPECT_EQ(reopened.dictionaryRepresentation().keys(), (std::vector<std::string>{"b", "a"}));
  EXPECT_EQ(reopened.stringForKey("b"), "4");
  EXPECT_FALSE(reopened.objectForKey("c"));
  // Typed readers give nothing for another kind.
  EXPECT_FALSE(reopened.dateForKey("b"));
}

// --- Atomic writes and damaged files ----------------------------------------------

TEST_F(KVNUserDefaultsTest, WritesLeaveOnlyTheStoreFileBehind) {
  KVNUserDefaults defaults(path_);
  for (int i = 0; i < 20; ++i) defaults.setObject(std::string(1000 + i, 'x'), "k");
  EXPECT_EQ(filesIn(dir_), (std::vector<std::string>{"defaults.json"}));
  EXPECT_EQ(KVNUserDefaults(path_).stringForKey("k")->size(), 1019u);
}

TEST_F(KVNUserDefaultsTest, AFailedWriteKeepsTheOldFileAndCleansUp) {
  KVNUserDefaults defaults(path_);
  ASSERT_TRUE(defaults.setObject("old", "k"));
  // A directory put in the way of the final name makes the rename fail.
  const std::string blockedPath = dir_ + "/blocked.json";
  KVNUserDefaults blocked(blockedPath);
  fs::create_directories(blockedPath + "/inside");
  env_.logs().clear();

  EXPECT_FALSE(blocked.setObject("new", "k"));
  EXPECT_EQ(blocked.stringForKey("k"), "new");  // kept in memory
  EXPECT_TRUE(logged("Could not save user defaults"));
  EXPECT_EQ(filesIn(dir_), (std::vector<std::string>{"blocked.json", "defaults.json"}));
  EXPECT_EQ(KVNUserDefaults(path_).stringForKey("k"), "old");
}

TEST_F(KVNUserDefaultsTest, UnusableFilesAreMovedAsideAndTheStoreStartsEmpty) {
  const std::string tooDeep =
      "nested deeper than " + std::to_string(KVNUserDefaults::kMaxDepth) + " levels";
  // The file's content and the reason the log line gives.
  const std::vector<std::tuple<std::string, std::string, std::string>> damaged = {
      {"truncated", "{\"configurationURL\": \"https://x", "it is not JSON"},
      {"not an object", "[1, 2, 3]", "the top level is not an object"},
      {"empty", "", "it is empty"},
      {"bad marker", "{\"d\": {\"$date\": \"yesterday\"}}", "a date that is not a number"},
      {"bad nested marker", "{\"l\": [1, {\"$url\": 2}]}", "a URL that is not text"},
      {"bad number marker", "{\"d\": {\"$double\": \"big\"}}", "an unknown special number"},
      {"null value", "{\"k\": null}", "a null or binary value"},
      // Nested far past the cap: read without running out of stack.
      {"100,000 lists deep",
       "{\"k\": " + std::string(100'000, '[') + std::string(100'000, ']') + "}",
       tooDeep},
      {"100,000 objects deep",
       [] {
         std::string text = "{";
         for (int i = 0; i < 100'000; ++i) text += "\"a\":{";
         return text + std::string(100'001, '}');
       }(),
       tooDeep},
      {"one level past the cap",
       "{\"k\": " + std::string(KVNUserDefaults::kMaxDepth, '[') +
           std::string(KVNUserDefaults::kMaxDepth, ']') + "}",
       tooDeep},
  };
  for (const auto& [what, content, reason] : damaged) {
    SCOPED_TRACE(what);
    fs::remove_all(dir_);
    env_.logs().clear();
    writeFile(path_, content);

    KVNUserDefaults defaults(path_);
    EXPECT_TRUE(defaults.dictionaryRepresentation().empty());
    const std::string aside = path_ + ".corrupt-1700000000";
    EXPECT_EQ(filesIn(dir_), (std::vector<std::string>{"defaults.json.corrupt-1700000000"}));
    EXPECT_EQ(readFile(aside), content);
    const auto records = env_.logs().records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, platform::LogLevel::Error);
    EXPECT_NE(records[0].message.find("moved aside to " + aside), std::string::npos)
        << records[0].message;
    EXPECT_NE(records[0].message.find("(" + reason + ")"), std::string::npos)
        << records[0].message;

    // The store works on: the next write makes a fresh file.
    EXPECT_TRUE(defaults.setObject("fresh", "k"));
    EXPECT_EQ(KVNUserDefaults(path_).stringForKey("k"), "fresh");
  }
}

TEST_F(KVNUserDefaultsTest, TheDeepestAllowedNestingRoundTripsAndDeeperIsNotWritten) {
  auto nested = [](int levels) {
    KVRValue value("leaf");
    for (int i = 1; i < levels; ++i) value = KVRValue(KVRList{std::move(value)});
    return value;
  };
  {
    KVNUserDefaults defaults(path_);
    // The top-level object is one level, the leaf none.
    ASSERT_TRUE(defaults.setObject(nested(KVNUserDefaults::kMaxDepth), "deep"));
  }
  EXPECT_EQ(KVNUserDefaults(path_).objectForKey("deep"), nested(KVNUserDefaults::kMaxDepth));
  EXPECT_FALSE(logged("unusable"));

  KVNUserDefaults defaults(path_);
  EXPECT_FALSE(defaults.setObject(nested(KVNUserDefaults::kMaxDepth + 1), "deeper"));
  EXPECT_TRUE(logged("nested deeper than 64 levels"));
  // Kept in memory; the file still has what was there.
  EXPECT_TRUE(defaults.objectForKey("deeper").has_value());
  EXPECT_FALSE(KVNUserDefaults(path_).objectForKey("deeper").has_value());
  EXPECT_TRUE(KVNUserDefaults(path_).objectForKey("deep").has_value());
}

TEST_F(KVNUserDefaultsTest, ASecondDamagedFileInTheSameSecondGetsItsOwnName) {
  writeFile(path_, "garbage");
  { KVNUserDefaults first(path_); }
  writeFile(path_, "more garbage");
  { KVNUserDefaults second(path_); }
  EXPECT_EQ(filesIn(dir_), (std::vector<std::string>{"defaults.json.corrupt-1700000000",
                                                      "defaults.json.corrupt-1700000000-1"}));
  EXPECT_EQ(readFile(path_ + ".corrupt-1700000000"), "garbage");
}

// --- Sharing and threads --------------------------------------------------------

TEST_F(KVNUserDefaultsTest, ConcurrentReadersAndWritersSeeWholeValues) {
  KVNUserDefaults defaults(path_);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&defaults, t] {
      const std::string key = "key" + std::to_string(t);
      for (int i = 0; i < 40; ++i) {
        defaults.setObject(int64_t{i}, key);
        defaults.setObject("shared-" + std::to_string(t), "shared");
        auto mine = defaults.objectForKey(key);
        EXPECT_TRUE(mine && mine->asInt() == i);
        // Another thread may just have removed it; if there, it is whole.
        if (auto shared = defaults.stringForKey("shared")) {
          EXPECT_EQ(shared->rfind("shared-", 0), 0u);
        }
        (void)defaults.dictionaryRepresentation();
        if (i % 10 == 9) defaults.removeObjectForKey("shared");
      }
    });
  }
  for (auto& t : threads) t.join();
  KVNUserDefaults reopened(path_);
  EXPECT_EQ(reopened.dictionaryRepresentation(), defaults.dictionaryRepresentation());
  for (int t = 0; t < 4; ++t) EXPECT_EQ(reopened.objectForKey("key" + std::to_string(t))->asInt(), 39);
}

TEST_F(KVNUserDefaultsTest, TheSharedStoreIsTheInstalledOneOrTheDefaultFile) {
  const std::string config = env_.documentsDirectory() + "/xdg";
  testing::ScopedEnvironmentVariable folder(testing::kConfigFolderVariable, config);
  env_.setMainBundleIdentifier("com.korvel.defaults-test");

  auto installed = std::make_shared<KVNUserDefaults>(path_);
  KVNUserDefaults::setSharedUserDefaults(installed);
  EXPECT_EQ(KVNUserDefaults::sharedUserDefaults(), installed);

  KVNUserDefaults::setSharedUserDefaults(nullptr);
  const fs::path expected = config + "/korvel/com.korvel.defaults-test/defaults.json";
  EXPECT_EQ(fs::path(KVNUserDefaults::defaultFilePath()), expected);
  auto opened = KVNUserDefaults::sharedUserDefaults();
  EXPECT_EQ(fs::path(opened->filePath()), expected);
  EXPECT_EQ(KVNUserDefaults::sharedUserDefaults(), opened);  // made once
  opened->setObject("v", "k");
  EXPECT_TRUE(fs::exists(expected));

  env_.setMainBundleIdentifier(std::nullopt);
  EXPECT_EQ(fs::path(KVNUserDefaults::defaultFilePath()),
            fs::path(config + "/korvel/Unknown bundle/defaults.json"));

  KVNUserDefaults::setSharedUserDefaults(nullptr);
}

}  // namespace
}  // namespace korvel
