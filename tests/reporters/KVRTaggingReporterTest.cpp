#include <gtest/gtest.h>
#include <korvel/beacon/KVRBeaconTypes.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVNError.h>
#include <korvel/reporters/KVRTaggingReporter.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "reporters/ReporterTestSupport.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

using platform::DeviceOrientation;
using Params = std::vector<std::pair<std::string, std::string>>;
using testing::params;
using testing::words;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

class TaggingReporterTest : public testing::ReporterTest {
 protected:
  void SetUp() override {
    ReporterTest::SetUp();
    KVRInitialOrientation::setInitialOrientation(std::nullopt);
    KVRTaggingReporter::activeSessions().clear();
  }
  void TearDown() override {
    KVRInitialOrientation::setInitialOrientation(std::nullopt);
    KVRTaggingReporter::activeSessions().clear();
    KVNConfiguration::sharedInstance().setKorvelFrameworksRaiseExceptions(false);
    ReporterTest::TearDown();
  }

  static void raiseExceptions(bool raise) {
    KVNConfiguration::sharedInstance().setKorvelFrameworksRaiseExceptions(raise);
  }

  // The text of the assertion `call` throws, or nothing when it returns.
  template <class F>
  static std::optional<std::string> assertionText(F&& call) {
    try {
      call();
    } catch (const KVRAssertionException& e) {
      return std::string(e.what());
    }
    return std::nullopt;
  }
};

// MARK: - Sessions

TEST_F(TaggingReporterTest, StartedThenEndedCarriesOriginOutcomeAndConsistentTimes) {
  env_.setNow(1'700'000'000.25);
  KVRTaggingReporter::reportTaggingSessionStarted("S1", 4, std::nullopt, false);
  env_.setNow(1'700'000'012.5);
  KVRTagDetails details;
  details.tagID = "TAG-1";
  const KVNError error("KVNErrorDomain", 7);
  KVRTaggingReporter::reportTaggingSessionEnded("S1", &details, 0, true, &error);

  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 2u);
  EXPECT_EQ(beacons[0].event, "userevent");
  EXPECT_EQ(beacons[0].parameters(), params("type=taggingstarted&origin=watch&background=0"));
  EXPECT_EQ(beacons[1].event, "userevent");
  EXPECT_EQ(beacons[1].parameters(),
            params("type=taggingended&tagid=TAG-1&currentorientation=unknown&errorcode=7&origin="
                   "watch&outcome=match&starttime=1700000000250&background=1&endtime=1700000012500&"
                   "timespent=12250"));
  EXPECT_TRUE(KVRTaggingReporter::activeSessions().empty());
}

TEST_F(TaggingReporterTest, TimeSpentIsEndMinusStartInWholeMilliseconds) {
  env_.setNow(1'000.0004);
  KVRTaggingReporter::reportTaggingSessionStarted("S", 0, std::nullopt, false);
  env_.setNow(1'003.0014);
  KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 1, false, nullptr);
  const auto ended = sent().at(1);
  EXPECT_EQ(std::tuple(ended.value("starttime"), ended.value("endtime"), ended.value("timespent")),
            std::tuple("1000000", "1003001", "3001"));
  // Without tag details the tag parameters still name the orientation.
  EXPECT_EQ(ended.parameters().at(1),
            (std::pair<std::string, std::string>{"currentorientation", "unknown"}));
}

TEST_F(TaggingReporterTest, ThirdPartyOriginWinsOnlyWhenNonEmpty) {
  struct Case {
    std::optional<std::string> thirdParty;
    int64_t origin;
    std::optional<std::string> expected;
  };
  const std::vector<Case> cases = {
      {std::nullopt, 9, "imessage"},
      {"", 9, "imessage"},
      {"com.example.app", 9, "com.example.app"},
      {"Some App", 22, "Some App"},
      {"", 22, std::nullopt},
  };
  for (const auto& c : cases) {
    executor_->clear();
    KVRTaggingReporter::reportTaggingSessionStarted("S", c.origin, c.thirdParty, false);
    KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 0, false, nullptr);
    const auto beacons = sent();
    ASSERT_EQ(beacons.size(), 2u);
    EXPECT_EQ(beacons[0].value("origin"), c.expected) << c.origin;
    EXPECT_EQ(beacons[1].value("origin"), c.expected) << c.origin;
  }
}

TEST_F(TaggingReporterTest, StartingTwiceReplacesTheFirstSession) {
  env_.setNow(100);
  KVRTaggingReporter::reportTaggingSessionStarted("S", 0, std::nullopt, false);
  env_.setNow(200);
  KVRTaggingReporter::reportTaggingSessionStarted("S", 5, std::nullopt, false);
  EXPECT_EQ(KVRTaggingReporter::activeSessions().size(), 1u);
  env_.setNow(201);
  KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 0, false, nullptr);

  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 3u);
  EXPECT_EQ(beacons[0].value("origin"), "primary");
  EXPECT_EQ(std::tuple(beacons[1].value("type"), beacons[1].value("origin")),
            std::tuple("taggingstarted", "camera"));
  EXPECT_EQ(std::tuple(beacons[2].value("origin"), beacons[2].value("starttime"),
                       beacons[2].value("timespent")),
            std::tuple("camera", "200000", "1000"));
}

TEST_F(TaggingReporterTest, SessionsAreKeptApartById) {
  env_.setNow(10);
  KVRTaggingReporter::reportTaggingSessionStarted("A", 0, std::nullopt, false);
  env_.setNow(20);
  KVRTaggingReporter::reportTaggingSessionStarted("B", 4, std::nullopt, false);
  env_.setNow(30);
  KVRTaggingReporter::reportTaggingSessionEnded("A", nullptr, 0, false, nullptr);
  KVRTaggingReporter::reportTaggingSessionEnded("B", nullptr, 0, false, nullptr);
  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 4u);
  EXPECT_EQ(beacons[2].value("origin"), "primary");
  EXPECT_EQ(beacons[2].value("timespent"), "20000");
  EXPECT_EQ(beacons[3].value("origin"), "watch");
  EXPECT_EQ(beacons[3].value("timespent"), "10000");
}

TEST_F(TaggingReporterTest, CancelLeavesTheSessionOpen) {
  KVRTaggingReporter::reportTaggingSessionStarted("S", 0, std::nullopt, false);
  KVRTaggingReporter::reportTaggingCancelledFromOrigin(6, false);
  EXPECT_EQ(KVRTaggingReporter::activeSessions().count("S"), 1u);
  raiseExceptions(true);
  EXPECT_NO_THROW(KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 3, false, nullptr));
  EXPECT_EQ(sent().at(2).value("outcome"), "canceled");
}

TEST_F(TaggingReporterTest, EndingAnUnknownIdSendsNothingAndRaisesOnlyWhenEnabled) {
  const std::string kText =
      "KORVEL ASSERTION: Trying to end a tagging session when no session is active";

  raiseExceptions(false);
  EXPECT_EQ(assertionText([] {
              KVRTaggingReporter::reportTaggingSessionEnded("never", nullptr, 0, false, nullptr);
            }),
            std::nullopt);
  EXPECT_TRUE(sent().empty());

  raiseExceptions(true);
  KVRTaggingReporter::reportTaggingSessionStarted("S", 0, std::nullopt, false);
  EXPECT_EQ(assertionText([] {
              KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 0, false, nullptr);
            }),
            std::nullopt);
  // The second end of the same id is the unknown-id case.
  EXPECT_EQ(assertionText([] {
              KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, 0, false, nullptr);
            }),
            kText);
  EXPECT_EQ(sent().size(), 2u);
  EXPECT_EQ(submitted().size(), 2u);
}

TEST_F(TaggingReporterTest, MissingSessionIdRaisesTheExactTextOnlyWhenEnabled) {
  struct Case {
    const char* name;
    void (*call)();
    const char* text;
  };
  const Case cases[] = {
      {"start",
       [] { KVRTaggingReporter::reportTaggingSessionStarted(std::nullopt, 0, "x", false); },
       "KORVEL ASSERTION: Trying to start a tagging session with a nil session id"},
      {"end",
       [] {
         KVRTaggingReporter::reportTaggingSessionEnded(std::nullopt, nullptr, 0, false, nullptr);
       },
       "KORVEL ASSERTION: Trying to end a tagging session with a nil session id"},
  };
  for (const auto& c : cases) {
    raiseExceptions(true);
    EXPECT_EQ(assertionText(c.call), std::string(c.text)) << c.name;
    raiseExceptions(false);
    EXPECT_EQ(assertionText(c.call), std::nullopt) << c.name;
  }
  EXPECT_TRUE(sent().empty());
  EXPECT_TRUE(submitted().empty());
  EXPECT_TRUE(KVRTaggingReporter::activeSessions().empty());
}

// MARK: - Mapping tables

TEST_F(TaggingReporterTest, InitiationOriginTable) {
  std::vector<std::pair<int64_t, std::optional<std::string>>> table;
  for (const auto& word : words(
           "primary nomatch magictap deeplink watch camera statuslabel shortcut welcome imessage "
           "tagonstart interstitial webbridge menubar library nomatch_background_notif "
           "lockscreen_widget_small lockscreen_widget_medium home_widget_small home_widget_medium "
           "home_widget_large live_activity_retry")) {
    table.emplace_back(static_cast<int64_t>(table.size()), word);
  }
  for (const int64_t none : {int64_t{-1}, int64_t{22}, kMax, kMin})
    table.emplace_back(none, std::nullopt);
  for (const auto& [origin, word] : table) {
    EXPECT_EQ(KVRTaggingReporter::tagInitiationOriginStringForTagInitiationOrigin(origin), word)
        << origin;
    executor_->clear();
    KVRTaggingReporter::reportTaggingSessionStarted("S", origin, std::nullopt, false);
    EXPECT_EQ(onlySent().value("origin"), word) << origin;
  }
}

TEST_F(TaggingReporterTest, CancelOriginTable) {
  const std::vector<std::pair<int64_t, std::optional<std::string>>> table = {
      {6, "live_activity"}, {0, std::nullopt},  {5, std::nullopt},    {7, std::nullopt},
      {21, std::nullopt},   {-1, std::nullopt}, {kMax, std::nullopt}, {kMin, std::nullopt},
  };
  for (const auto& [origin, word] : table) {
    EXPECT_EQ(KVRTaggingReporter::cancelTaggingOriginStringForCancelTaggingOrigin(origin), word)
        << origin;
    executor_->clear();
    KVRTaggingReporter::reportTaggingCancelledFromOrigin(origin, true);
    Params expected{{"type", "taggingcancel"}};
    if (word) expected.emplace_back("origin", *word);
    expected.emplace_back("background", "1");
    EXPECT_EQ(onlySent().parameters(), expected) << origin;
  }
}

TEST_F(TaggingReporterTest, OutcomeTableOnTheEndedBeacon) {
  const std::vector<std::pair<int64_t, std::string>> table = {
      {0, "match"},   {1, "nomatch"},  {2, "error"},      {3, "canceled"},   {4, "unknown"},
      {7, "unknown"}, {-1, "unknown"}, {kMax, "unknown"}, {kMin, "unknown"},
  };
  for (const auto& [outcome, word] : table) {
    executor_->clear();
    KVRTaggingReporter::reportTaggingSessionStarted("S", 0, std::nullopt, false);
    KVRTaggingReporter::reportTaggingSessionEnded("S", nullptr, outcome, false, nullptr);
    const auto beacons = sent();
    ASSERT_EQ(beacons.size(), 2u);
    EXPECT_EQ(beacons[1].value("outcome"), word) << outcome;
  }
}

TEST_F(TaggingReporterTest, TaggingTypeSelectsBeaconTypeEventAndDeviceModel) {
  struct Case {
    int64_t taggingType;
    KVRBeaconType beaconType;
    const char* event;
    const char* deviceModel;  // as it appears in the path
  };
  const std::vector<Case> table = {
      {0, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
      {1, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
      {2, KVRBeaconTypeAutoTag, "autotag", "TestDevice1%2C1"},
      {3, KVRBeaconTypeWatchTagged, "tagged", "watch"},
      {4, KVRBeaconTypeTaggedVariant, "tagged", "TestDevice1%2C1"},
      {5, KVRBeaconTypeTestTagged, "testtagged", "TestDevice1%2C1"},
      {6, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
      {-1, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
      {kMax, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
      {kMin, KVRBeaconTypeTagged, "tagged", "TestDevice1%2C1"},
  };
  KVRTagDetails details;
  details.trackID = "TRACK";
  for (const auto& c : table) {
    EXPECT_EQ(KVRTaggingReporter::beaconTypeFromTaggingType(c.taggingType), c.beaconType)
        << c.taggingType;
    executor_->clear();
    KVRTaggingReporter::reportTag(&details, c.taggingType);
    const auto beacon = onlySent();
    EXPECT_EQ(beacon.event, c.event) << c.taggingType;
    EXPECT_EQ(beacon.path, std::string("/b/TEST-INID/9.9/") + c.deviceModel + "/" + c.event)
        << c.taggingType;
  }
}

TEST_F(TaggingReporterTest, OrientationTable) {
  const std::vector<std::pair<int, std::string>> table = {
      {0, "unknown"},
      {1, "portrait"},
      {2, "portraitupsidedown"},
      {3, "landscapeleft"},
      {4, "landscaperight"},
      {5, "faceup"},
      {6, "facedown"},
      {7, "unknown"},
      {-1, "unknown"},
      {std::numeric_limits<int>::max(), "unknown"},
  };
  for (const auto& [value, word] : table) {
    const auto orientation = static_cast<DeviceOrientation>(value);
    EXPECT_EQ(orientationString(orientation), word) << value;

    env_.setDeviceOrientation(orientation);
    KVRInitialOrientation::setInitialOrientation(orientation);
    const auto parameters = KVRTaggingReporter::reportingParametersForTagDetails(nullptr);
    EXPECT_EQ(parameters.stringForKey("currentorientation"), word) << value;
    EXPECT_EQ(parameters.stringForKey("initialorientation"), word) << value;
  }
}

TEST_F(TaggingReporterTest, HardwareFailureReasons) {
  const std::vector<std::pair<int64_t, std::string>> reasons = {
      {0, "microphone"},    {1, "polarpattern"},    {5, "polarpattern"},
      {-1, "polarpattern"}, {kMax, "polarpattern"}, {kMin, "polarpattern"},
  };
  for (const auto& [reason, word] : reasons) {
    executor_->clear();
    KVRTaggingReporter::reportHardwareConfigurationFailure(
        reason, std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt);
    EXPECT_EQ(onlySent().parameters(), (Params{{"type", "hardwarefailure"}, {"reason", word}}))
        << reason;
  }
}

// MARK: - Tags

KVRTagDetails everyField() {
  KVRTagDetails d;
  d.thirdPartyOrigin = "ignored";
  d.tagTypeString = "manual";
  d.trackID = "12345";
  d.adamID = "A1";
  d.artistAdamID = "AR1";
  d.type = "exact";
  d.forensicID = "F1";
  d.tagID = "T1";
  d.recognitionType = "audio";
  d.recordDuration = 2.5;
  d.sampleLength = 1.9999;
  d.sampleRate = 48000.5;
  d.microphone = "front";
  d.polarPattern = "cardioid";
  d.headphonesConnected = 0;
  d.outputPort = "speaker";
  d.inputPort = "mic";
  d.tagDuration = 1.2345;
  d.unsubmitted = true;
  return d;
}

TEST_F(TaggingReporterTest, TagCarriesTagThenSuccessfulParametersInOrder) {
  env_.setDeviceOrientation(DeviceOrientation::LandscapeLeft);
  KVRInitialOrientation::setInitialOrientation(DeviceOrientation::Portrait);
  const KVRTagDetails d = everyField();
  KVRTaggingReporter::reportTag(&d, 1);
  const auto beacon = onlySent();
  EXPECT_EQ(beacon.event, "tagged");
  EXPECT_EQ(beacon.parameters(),
            params("artist_adam_id=AR1&x-forensic-id=F1&inputport=mic&matchcategory=exact&"
                   "microphone=front&outputport=speaker&polarpattern=cardioid&samplerate=48000.5&"
                   "tagid=T1&tagtype=manual&track_adam_id=A1&trackkey=12345&currentorientation="
                   "landscapeleft&initialorientation=portrait&headphones=0&time=1234.5&recordtime="
                   "2500&samplelength=1999&unsubmitted=true&rectype=audio"));
}

TEST_F(TaggingReporterTest, SuccessfulTagRecordingFiguresTruncateAndClamp) {
  struct Case {
    double recordDuration;
    double sampleLength;
    std::optional<uint64_t> recordtime;  // nothing: neither key is written
    std::optional<uint64_t> samplelength;
  };
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<Case> table = {
      {0, 5, std::nullopt, std::nullopt},
      {-1, 5, std::nullopt, std::nullopt},
      {nan, 5, std::nullopt, std::nullopt},
      {2.5, 1.9999, 2500, 1999},
      {0.0009, 0.0009, 0, 0},
      {1, -0.5, 1000, 0},
      {1, nan, 1000, 0},
      {1e300, 1e15, std::numeric_limits<uint64_t>::max(), 1'000'000'000'000'000'000u},
      {1, 1e17, 1000, std::numeric_limits<uint64_t>::max()},
  };
  for (const auto& c : table) {
    KVRTagDetails d;
    d.recordDuration = c.recordDuration;
    d.sampleLength = c.sampleLength;
    const auto p = KVRTaggingReporter::reportingParametersForSuccessfulTagWithTagDetails(&d);
    if (!c.recordtime) {
      EXPECT_EQ(p.keys(), (std::vector<std::string>{"time", "unsubmitted"})) << c.recordDuration;
      continue;
    }
    EXPECT_EQ(p.keys(),
              (std::vector<std::string>{"time", "recordtime", "samplelength", "unsubmitted"}));
    // Unsigned integers, not doubles: the wire shows no fraction or exponent.
    EXPECT_EQ(*p.find("recordtime"), KVRValue(*c.recordtime)) << c.recordDuration;
    EXPECT_EQ(*p.find("samplelength"), KVRValue(*c.samplelength)) << c.sampleLength;
  }
}

TEST_F(TaggingReporterTest, SuccessfulTagTimeKeepsFractionAndUnsubmittedIsAWord) {
  KVRTagDetails d;
  d.tagDuration = 0.0015;
  d.unsubmitted = false;
  auto p = KVRTaggingReporter::reportingParametersForSuccessfulTagWithTagDetails(&d);
  ASSERT_NE(p.find("time"), nullptr);
  EXPECT_EQ(p.find("time")->kind(), KVRValue::Kind::Double);
  EXPECT_DOUBLE_EQ(*p.find("time")->asDouble(), 1.5);
  EXPECT_EQ(p.stringForKey("unsubmitted"), "false");
  EXPECT_FALSE(p.contains("rectype"));

  d.unsubmitted = true;
  d.recognitionType = "";
  p = KVRTaggingReporter::reportingParametersForSuccessfulTagWithTagDetails(&d);
  EXPECT_EQ(p.stringForKey("unsubmitted"), "true");
  EXPECT_EQ(p.stringForKey("rectype"), "");

  EXPECT_TRUE(
      KVRTaggingReporter::reportingParametersForSuccessfulTagWithTagDetails(nullptr).empty());
}

TEST_F(TaggingReporterTest, AutoTagWithoutTrackIdIsStillHandedToTheDispatcher) {
  KVRTaggingReporter::reportTag(nullptr, 2);
  const auto records = submitted();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0]->className(), "KVRAutoTagBeacon");
  EXPECT_FALSE(records[0]->isValid());
  EXPECT_EQ(records[0]->parameters().keys(), (std::vector<std::string>{"currentorientation"}));
}

TEST_F(TaggingReporterTest, SingleBeacons) {
  using R = KVRTaggingReporter;
  KVRFeatureExtractionDetails noSampleLength;
  noSampleLength.duration = 0.0126;
  expectBeacons({
      // An unknown origin leaves the origin out.
      {[] { R::reportTaggingSessionStarted("S", 22, std::nullopt, true); },
       "type=taggingstarted&background=1"},
      // A deleted tag puts its origin under "tagtype".
      {[] { R::reportDeletedTagWithTrackID("TR", "history"); },
       "type=deletetagtapped&trackkey=TR&tagtype=history"},
      {[] { R::reportDeletedTagWithTrackID(std::nullopt, std::nullopt); }, "type=deletetagtapped"},
      {[] { R::reportMagicTap(); }, "type=magictap"},
      {[] { R::reportHardwareConfigurationFailure(0, "-50", "Built-In", "omni", "USB", {}, ""); },
       "type=hardwarefailure&reason=microphone&code=-50&currentmicrophone=Built-In&"
       "currentpolarpattern=omni&targetmicrophone=USB&stereoorientation="},
      {[] { R::reportTaggingErrorWithTagID("T9", -202); },
       "code=-202&taggingerrorcode=-202&tagid=T9", "error"},
      {[] { R::reportTaggingErrorWithTagID(std::nullopt, std::nullopt); }, "", "error"},
      // Feature extraction without details leaves their keys out.
      {[&] {
         R::reportFeatureExtractionEndedWithOutcome(0, &noSampleLength, std::nullopt, nullptr);
       },
       "type=feature_extraction&outcome=success&time=13", "performance"},
      {[] { R::reportFeatureExtractionEndedWithOutcome(0, nullptr, "T", nullptr); },
       "type=feature_extraction&outcome=success&tagid=T", "performance"},
  });
}

TEST_F(TaggingReporterTest, TagErrorSendsTheCodeAsTextAndAsNumber) {
  KVRTaggingReporter::reportTaggingErrorWithTagID("T9", -202);
  const auto& p = submitted().at(0)->parameters();
  EXPECT_EQ(p.find("code")->kind(), KVRValue::Kind::String);
  EXPECT_EQ(p.find("taggingerrorcode")->kind(), KVRValue::Kind::Int);
}

TEST_F(TaggingReporterTest, FeatureExtractionOutcomes) {
  struct Case {
    int64_t outcome;
    bool withError;
    const char* expected;
  };
  const std::vector<Case> table = {
      {0, false, "type=feature_extraction&outcome=success&time=3000&samplelength=1500&tagid=T"},
      {1, true, "type=feature_extraction&outcome=error&time=3000&errorcode=-9&tagid=T"},
      {1, false, "type=feature_extraction&outcome=error&time=3000&errorcode=0&tagid=T"},
      {2, true, "type=feature_extraction&outcome=timeout&timeout_limit=3000&tagid=T"},
      {3, false, "type=feature_extraction&outcome=empty&time=3000&tagid=T"},
      {4, true, "type=feature_extraction&tagid=T"},
      {9, true, "type=feature_extraction&tagid=T"},
      {-1, true, "type=feature_extraction&tagid=T"},
      {kMax, true, "type=feature_extraction&tagid=T"},
  };
  KVRFeatureExtractionDetails details;
  details.duration = 3;
  details.sampleLengthMillis = KVRValue(int64_t{1500});
  const KVNError error("Audio", -9);
  for (const auto& c : table) {
    executor_->clear();
    KVRTaggingReporter::reportFeatureExtractionEndedWithOutcome(c.outcome, &details, "T",
                                                                c.withError ? &error : nullptr);
    const auto beacon = onlySent();
    EXPECT_EQ(beacon.event, "performance") << c.outcome;
    EXPECT_EQ(beacon.parameters(), params(c.expected)) << c.outcome;
  }
}

// MARK: - Tag parameters

// The dictionary and the typed set must hold the same entries with the
// same value kinds.
void expectSameContent(const ReportingParameters& set, const KVRParameters& dictionary) {
  ASSERT_EQ(set.size(), dictionary.size());
  for (const auto& parameter : set) {
    const KVRValue* value = dictionary.find(parameter.key);
    ASSERT_NE(value, nullptr) << parameter.key;
    switch (parameter.value.valueCase()) {
      case ReportingValue::Case::Bool:
        EXPECT_EQ(*value, KVRValue(*parameter.value.boolValue())) << parameter.key;
        break;
      case ReportingValue::Case::Double:
        EXPECT_EQ(*value, KVRValue(*parameter.value.doubleValue())) << parameter.key;
        break;
      case ReportingValue::Case::Int:
        EXPECT_EQ(*value, KVRValue(*parameter.value.intValue())) << parameter.key;
        break;
      case ReportingValue::Case::String:
        EXPECT_EQ(*value, KVRValue(*parameter.value.stringValue())) << parameter.key;
        break;
    }
  }
}

TEST_F(TaggingReporterTest, TypedSetAndDictionariesAgreeForEveryField) {
  KVRInitialOrientation::setInitialOrientation(DeviceOrientation::Portrait);
  env_.setDeviceOrientation(DeviceOrientation::FaceUp);
  KVRTagDetails d = everyField();  // the recording figures are for successful tags only
  d.trackID = "";  // an empty string is a value and is kept
  d.sampleRate = 8000;
  d.headphonesConnected = 1;

  const auto set = KVRTaggingReporter::reportingParameters(&d);
  const ReportingParameters expected = {
      ReportingParameter::artistID("AR1"),
      ReportingParameter::forensicID("F1"),
      ReportingParameter::inputPort("mic"),
      ReportingParameter::matchType("exact"),
      ReportingParameter::microphone("front"),
      ReportingParameter::outputPort("speaker"),
      ReportingParameter::polarPattern("cardioid"),
      ReportingParameter::sampleRate(8000),
      ReportingParameter::tagID("T1"),
      ReportingParameter::tagType("manual"),
      ReportingParameter::trackAdamID("A1"),
      ReportingParameter::trackID(""),
      ReportingParameter::currentOrientation("faceup"),
      ReportingParameter::initialOrientation("portrait"),
      ReportingParameter::headphonesConnected(1),
  };
  EXPECT_EQ(set, expected);

  const auto dictionary = KVRTaggingReporter::reportingParametersForTagDetails(&d);
  expectSameContent(set, dictionary);
  expectSameContent(set, KVRTaggingReporter::legacyReportingParameters(&d));
  // The wire order is fixed, whatever order the set iterates in.
  EXPECT_EQ(dictionary.keys(),
            (std::vector<std::string>{"artist_adam_id", "x-forensic-id", "inputport",
                                      "matchcategory", "microphone", "outputport", "polarpattern",
                                      "samplerate", "tagid", "tagtype", "track_adam_id", "trackkey",
                                      "currentorientation", "initialorientation", "headphones"}));
}

TEST_F(TaggingReporterTest, NoTagDetailsGiveOnlyTheOrientations) {
  EXPECT_EQ(KVRTaggingReporter::reportingParameters(nullptr),
            (ReportingParameters{ReportingParameter::currentOrientation("unknown")}));
  KVRInitialOrientation::setInitialOrientation(DeviceOrientation::Unknown);
  EXPECT_EQ(KVRTaggingReporter::reportingParametersForTagDetails(nullptr).keys(),
            (std::vector<std::string>{"currentorientation", "initialorientation"}));
}

TEST_F(TaggingReporterTest, CurrentOrientationIsReadAtEachCall) {
  KVRTagDetails d;
  env_.setDeviceOrientation(DeviceOrientation::Portrait);
  KVRTaggingReporter::reportTag(&d, 0);
  env_.setDeviceOrientation(DeviceOrientation::LandscapeRight);
  KVRTaggingReporter::reportTag(&d, 0);
  const auto beacons = sent();
  ASSERT_EQ(beacons.size(), 2u);
  EXPECT_EQ(beacons[0].value("currentorientation"), "portrait");
  EXPECT_EQ(beacons[1].value("currentorientation"), "landscaperight");
}

TEST_F(TaggingReporterTest, InitialOrientationIsSafeToSetWhileTagsAreReported) {
  KVRTagDetails d;
  d.tagID = "T";
  std::thread writer([] {
    for (int i = 0; i < 2000; ++i) {
      KVRInitialOrientation::setInitialOrientation(static_cast<DeviceOrientation>(i % 7));
    }
  });
  for (int i = 0; i < 2000; ++i) {
    const auto p = KVRTaggingReporter::reportingParametersForTagDetails(&d);
    const auto initial = p.stringForKey("initialorientation");
    if (initial) {
      EXPECT_NE(*initial, "");
    }
  }
  writer.join();
  EXPECT_EQ(KVRInitialOrientation::initialOrientation(), static_cast<DeviceOrientation>(1999 % 7));
}

// MARK: - No-match record

TEST_F(TaggingReporterTest, NoMatchFileNameUsesTheLocalTimeZone) {
  const double kUTC = 1'710'493'507;  // 2024-03-15 09:05:07 UTC
  struct Case {
    long offset;
    double seconds;
  };
  // The same local wall-clock time, 15 March 2024 09:05:07, in three zones.
  const Case cases[] = {{0, kUTC}, {3600, kUTC - 3600}, {-5 * 3600, kUTC + 5 * 3600}};
  for (const auto& c : cases) {
    env_.setUTCOffsetSeconds(c.offset);
    EXPECT_EQ(KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{c.seconds}),
              "NO_MATCH-2024-03-15-090507")
        << c.offset;
    // A fraction never rounds up into the next second.
    EXPECT_EQ(KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{c.seconds + 0.999}),
              "NO_MATCH-2024-03-15-090507")
        << c.offset;
  }
  env_.setUTCOffsetSeconds(3600);
  EXPECT_EQ(KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{kUTC}),
            "NO_MATCH-2024-03-15-100507");
}

TEST_F(TaggingReporterTest, NoMatchFileNameWithoutAUsableDate) {
  EXPECT_EQ(KVRNoMatchTagInfo::noMatchFileNameWithDate(std::nullopt), "NO_MATCH-(null)");
  EXPECT_EQ(
      KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{std::numeric_limits<double>::quiet_NaN()}),
      "NO_MATCH-(null)");
  EXPECT_EQ(
      KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{std::numeric_limits<double>::infinity()}),
      "NO_MATCH-(null)");
  // Just before 1970 still shows its own second.
  EXPECT_EQ(KVRNoMatchTagInfo::noMatchFileNameWithDate(KVRDate{-0.5}),
            "NO_MATCH-1969-12-31-235959");
}

TEST_F(TaggingReporterTest, NoMatchRecordNamesItselfAfterItsDate) {
  env_.setNow(1'710'493'507.25);
  const KVRNoMatchTagInfo now;
  EXPECT_EQ(now.tagID(), "NO_MATCH-2024-03-15-090507");
  EXPECT_EQ(now.date(), KVRDate{1'710'493'507.25});

  const KVRNoMatchTagInfo undated(std::nullopt);
  EXPECT_EQ(std::tuple(undated.tagID(), undated.trackIDOrUnknown(), undated.date()),
            std::tuple("NO_MATCH-(null)", "NO_MATCH", std::nullopt));
  EXPECT_TRUE(sent().empty());
}

}  // namespace
}  // namespace korvel
