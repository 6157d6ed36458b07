#include <korvel/debug/KVRDebugLogEntry.h>

#include <gtest/gtest.h>

#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/foundation/KVNConfiguration.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

using ui::FontWeight;
using ui::TextRun;

TextRun heavy14(std::string t) { return {std::move(t), FontWeight::Heavy, 14}; }
TextRun semibold(std::string t, double size) { return {std::move(t), FontWeight::Semibold, size}; }
TextRun regular(std::string t, double size) { return {std::move(t), FontWeight::Regular, size}; }

class KVRDebugLogEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KVNConfiguration::Snapshot config;
    config.inid = "INID-A";
    config.configured = true;
    KVNConfiguration::sharedInstance().replace(config);
  }

  // A record as a beacon sent with inid INID-A.
  static std::shared_ptr<const KVRReliableNetworkingTask> task(bool withEvent = true) {
    auto t = std::make_shared<KVRReliableNetworkingTask>();
    if (withEvent) t->setEvent("userevent");
    t->setNonCommonParameters({{"b", "2"}, {"A", 1}});
    t->setCommonParameters({{"sessionid", "S"}, {"OSVersion", "14"}});
    t->setParameters({{"b", "2"}, {"A", 1}, {"sessionid", "S"}, {"OSVersion", "14"}});
    t->setUuid("U-1");
    t->setCreationTimestamp(1700000000.6);
    t->setDebugInid("INID-A");
    return t;
  }

  testing::TestEnv env_;
  platform::ScopedEnv scope_{env_};
};

TEST_F(KVRDebugLogEntryTest, BeaconTextListsParametersThenStampsWithTheCapturedInid) {
  const KVRDebugLogBeaconEntry entry(task());
  EXPECT_EQ(entry.type(), 0);
  const auto text = entry.attributedString();
  EXPECT_EQ(text.plainText(),
            "userevent\n"
            "A = 1\nb = 2\n"
            "\n"
            "OSVersion = 14\nsessionid = S\n"
            "clientcreationtimestamp = 1700000001\n"
            "clientbeaconuuid = U-1\n"
            "inid = INID-A");
  const std::vector<TextRun> expected = {
      heavy14("userevent\n"),
      semibold("A", 13), regular(" = 1\n", 13),
      semibold("b", 13), regular(" = 2\n\n", 13),
      semibold("OSVersion", 10), regular(" = 14\n", 10),
      semibold("sessionid", 10), regular(" = S\n", 10),
      semibold("clientcreationtimestamp", 10), regular(" = 1700000001\n", 10),
      semibold("clientbeaconuuid", 10), regular(" = U-1\n", 10),
      semibold("inid", 10), regular(" = INID-A", 10),
  };
  EXPECT_EQ(text.runs(), expected);
}

TEST_F(KVRDebugLogEntryTest, ExpiredInidShowsTheCapturedInidAndTheExpiredLine) {
  const auto record = task();
  KVNConfiguration::sharedInstance().setInid("INID-B");
  const auto text = KVRDebugLogBeaconEntry(record).attributedString();
  const std::string plain = text.plainText();
  EXPECT_TRUE(plain.ends_with("clientbeaconuuid = U-1\ninid = INID-A\nexpiredinid = 1")) << plain;
  const auto& runs = text.runs();
  ASSERT_GE(runs.size(), 4u);
  EXPECT_EQ(std::vector<TextRun>(runs.end() - 3, runs.end()),
            (std::vector<TextRun>{regular(" = INID-A\n", 10), semibold("expiredinid", 10),
                                  regular(" = 1", 10)}));

  // The e-mail text is the record's dictionary form, which speaks of now.
  const std::string mail = KVRDebugLogBeaconEntry(record).emailString();
  EXPECT_TRUE(mail.starts_with("{\n")) << mail;
  EXPECT_TRUE(mail.ends_with("}\n\n\n")) << mail;
  for (const char* line :
       {"type = userevent;", "clientbeaconuuid = U-1;", "inid = INID-B;", "expiredinid = 1;"}) {
    EXPECT_NE(mail.find(line), std::string::npos) << line << " in " << mail;
  }
}

TEST_F(KVRDebugLogEntryTest, BeaconWithoutEventStartsWithItsParameters) {
  const auto text = KVRDebugLogBeaconEntry(task(false)).attributedString();
  EXPECT_TRUE(text.plainText().starts_with("A = 1\nb = 2\n\n")) << text.plainText();
  EXPECT_EQ(text.runs().front(), semibold("A", 13));
}

TEST_F(KVRDebugLogEntryTest, URLEntryTexts) {
  const KVRDebugLogURLEntry entry(KVRURL{"https://korvel.example/t?x=1"});
  EXPECT_EQ(entry.type(), 1);
  EXPECT_EQ(entry.attributedString().runs(),
            (std::vector<TextRun>{heavy14("Opened URL:\n"),
                                  regular("https://korvel.example/t?x=1", 13)}));
  EXPECT_EQ(entry.emailString(), "Opened URL:\nhttps://korvel.example/t?x=1\n\n\n");
}

TEST_F(KVRDebugLogEntryTest, UpsellTextHasNoLineBreakAfterItsLastLine) {
  const KVRDebugLogInAppUpsellOptionsEntry one(KVRParameters{{"sku", "gold"}});
  EXPECT_EQ(one.type(), 2);
  EXPECT_EQ(one.attributedString().runs(),
            (std::vector<TextRun>{heavy14("In App Upsell Options\n"), semibold("sku", 13),
                                  regular(" = gold", 13)}));
  EXPECT_EQ(one.emailString(), "In App Upsell Options\n{\n    sku = gold;\n}\n\n\n");

  // Case-insensitive order: "alpha" before "Beta" (byte order would swap them).
  const KVRDebugLogInAppUpsellOptionsEntry two(KVRParameters{{"Beta", 2}, {"alpha", 1}});
  EXPECT_EQ(two.attributedString().plainText(), "In App Upsell Options\nalpha = 1\nBeta = 2");

  EXPECT_EQ(KVRDebugLogInAppUpsellOptionsEntry(KVRParameters{}).attributedString().plainText(),
            "In App Upsell Options\n");
}

TEST_F(KVRDebugLogEntryTest, KeyValueLinesDescribeTheirValues) {
  EXPECT_EQ(attributedStringForKey("when", KVRDate{1700000000}, 12, true).runs(),
            (std::vector<TextRun>{semibold("when", 12),
                                  regular(" = 2023-11-14 22:13:20 +0000\n", 12)}));
  EXPECT_EQ(attributedStringForKey("d", KVRParameters{{"k", "v w"}}, 10, false).plainText(),
            "d = {\n    k = \"v w\";\n}");
  EXPECT_EQ(keysSortedCaseInsensitively(KVRParameters{{"b", 1}, {"B", 2}, {"a", 3}, {"_z", 4}}),
            (std::vector<std::string>{"_z", "a", "B", "b"}));
}

}  // namespace
}  // namespace korvel
