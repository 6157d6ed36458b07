// A host's ordinary calls in every state the library can be in: not
// started, opted out, shut down, and with its store gone bad under it. None
// of them may stop the process: each state runs in a child process that
// makes the calls a host makes (reporters, page views through the manager
// and BeaconReporter, the life-cycle notifications, flush, purge, shutdown),
// checks what they answer and exits normally.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "collector/BeaconCollector.h"
#include <korvel/Korvel.h>
#include <korvel/pageviews/PageViewBeaconReporter.h>
#include "support/DeathTests.h"

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

enum class State {
  NotStarted,
  OptedOut,
  Stopped,
  OptedOutThenStopped,
  StoreReplacedByAFile,  // the beacons folder replaced by a file while running
  StoreUnusableAtStart,  // the beacons folder is a file before start
};

struct StateCase {
  const char* name;
  State state;
  // What a report call answers in that state: a uuid or none.
  bool reportsAnswerAUUID;
};

// Ends the child with a reason when an answer is not the expected one (the
// parent sees the exit code and the text).
void check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "HostSurvivesTest: unexpected: %s\n", what);
  std::fflush(stderr);
  std::_Exit(3);
}

void postLifeCycle(std::string_view name) {
  platform::env().notificationCenter().post(std::string(name), {});
}

// The host's calls, each of the kinds it has. Runs in the child.
void hostCalls(const StateCase& c) {
  const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "share"}});
  check(uuid.has_value() == c.reportsAnswerAUUID, "KVRBeacon::sendBeaconOfType's answer");

  const std::string reported = BeaconReporter::report(
      KVRBeaconTypePageView, {ReportingParameter::trackID("t")}, {{"server", "1"}});
  check(reported.empty() != c.reportsAnswerAUUID, "BeaconReporter::report's answer");

  // Page views go out when a page closes and when the application goes to
  // the background, through the reporter hosts install.
  {
    PageViewManager pages(std::make_shared<PageViewBeaconReporter>(), true);
    const auto home = PageID::make();
    const auto lyrics = PageID::make();
    pages.trackPageAppeared(home, PageName("home"), {ReportingParameter::tagID("tag")});
    pages.trackPageAppeared(lyrics, PageName("lyrics"), {});
    pages.trackPageNameChanged(PageName("lyrics-full"), lyrics);
    pages.trackPageClosed(lyrics);
    postLifeCycle(platform::ApplicationDidEnterBackgroundNotification);
    postLifeCycle(platform::ApplicationWillEnterForegroundNotification);
    pages.trackPageClosed(home);
  }

  KVRUserEventReporter::reportShortcutUsed("search");
  KVRUserEventReporter::reportAboutIconEasterEggSuccess(true);
  KVRPlayerReporter::reportNavigationToArtistPage();
  KVRTaggingReporter::reportTaggingSessionStarted("TAG-SESSION", 4, std::nullopt, false);
  KVRTaggingReporter::reportTaggingSessionEnded("TAG-SESSION", nullptr, 0, false, nullptr);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeWebInitiated, {{"campaign", "fall"}}, "webpromo");
  KVRBeacon::sendBeacon(KVRBeacon::taskOfType(KVRBeaconTypeUserEvent, {}, std::nullopt),
                        KVRBeaconTypeUserEvent);
  KVRUserSession::startSession();
  KVRUserSession::endSession();
  KVRUserSession::reportUserSessionWithDuration(KVRValue(1.5));
  Reporting::dataDirectory();

  Reporting::flush(200ms);
  Reporting::purgePendingBeacons();
  Reporting::setOptedOut(true, Reporting::PendingBeacons::Purge);
  Reporting::setOptedOut(false);
  Reporting::shutdown(200ms);
  Reporting::shutdown(200ms);
  // After everything, once more: a report after the last shutdown.
  BeaconReporter::report(KVRBeaconTypePageView, {}, {});
}

// Brings the library into the case's state, makes the host's calls and
// exits through the normal exit path (static destructors included).
void survive(const StateCase& c) {
  char pattern[] = "/tmp/korvel-survives-XXXXXX";
  check(mkdtemp(pattern) != nullptr, "mkdtemp");
  const fs::path data = fs::path(pattern) / "data";
  // A library used before start() keeps its files under the user's data
  // folder: here, the test's own.
  setenv("HOME", pattern, 1);
  setenv("XDG_DATA_HOME", (fs::path(pattern) / "xdg").c_str(), 1);
  tools::BeaconCollector collector;
  check(collector.start(), "the collector's start");

  Reporting::StartOptions options;
  options.bundleIdentifier = "com.korvel.tests.survives";
  options.dataDirectory = data;
  const std::string endpoint = collector.baseURL() + "/b/{inid}/{appversion}/{devicemodel}";
  options.configure = [endpoint](KVNConfiguration::Snapshot& s) {
    s.beacons.beaconEndpoint = endpoint;
    s.inid = "SURVIVES-INID";
  };

  const State s = c.state;
  if (s == State::NotStarted) {
    KVNConfiguration::sharedInstance().update(options.configure);
  } else if (s == State::StoreUnusableAtStart) {
    fs::create_directories(data);
    std::ofstream(data / "beacons") << "not a folder";
    // Whatever start() answers for such a store, the calls after it must
    // return.
    Reporting::start(options);
  } else {
    check(static_cast<bool>(Reporting::start(options)), "start");
  }
  if (s == State::OptedOut || s == State::OptedOutThenStopped) {
    check(Reporting::setOptedOut(true), "setOptedOut(true)");
  }
  if (s == State::Stopped || s == State::OptedOutThenStopped) Reporting::shutdown(1s);
  if (s == State::StoreReplacedByAFile) {
    check(KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, {{"type", "before"}}).has_value(),
          "a report before the store went bad");
    std::error_code ec;
    fs::rename(data / "beacons", data / "beacons-away", ec);
    std::ofstream(data / "beacons") << "not a folder";
  }
  hostCalls(c);
  collector.stop();
  std::error_code ec;
  fs::remove_all(pattern, ec);
  std::exit(0);
}

TEST(HostSurvivesTest, NoStateOfTheLibraryStopsTheHost) {
  testing::useThreadsafeDeathTests();
  const StateCase cases[] = {
      {"not started", State::NotStarted, true},
      {"opted out", State::OptedOut, false},
      {"shut down", State::Stopped, false},
      {"opted out, then shut down", State::OptedOutThenStopped, false},
      {"store replaced by a file while running", State::StoreReplacedByAFile, true},
      {"store unusable at start", State::StoreUnusableAtStart, true},
  };
  for (const auto& c : cases) {
    EXPECT_EXIT(survive(c), ::testing::ExitedWithCode(0), "") << c.name;
  }
}

}  // namespace
}  // namespace korvel
