// The demo host's session: a beacon collector embedded in this process on
// 127.0.0.1, the library configured against it with durable delivery into a
// temporary store, and the host's actions (launch, a recognition, the track
// page, search, going to the background) that both the scripted run and
// the windowed demo's buttons use.
//
// The collector checks and keeps every beacon in a store (the inspector's);
// BeaconRoad prints the first beacon's road step by step, then one line per
// beacon:
//
//   #<n>  <event>  <own parameters>  <verdict>
//
// Main thread only, apart from the collector's printing.
#pragma once

#include <filesystem>
#include <memory>
#include <set>
#include <string>

#include <korvel/pageviews/PageID.h>
#include <korvel/pageviews/PageViewManager.h>
#include <korvel/platform/NotificationCenter.h>
#include <korvel/reporters/KVRTaggingReporter.h>

#include "demo/BeaconRoad.h"
#include <korvel/foundation/internal/Mutex.h>

namespace korvel::tools {

class BeaconCollector;
class BeaconStore;

}  // namespace korvel::tools

namespace korvel::network::internal {
class DurableRequestExecutor;
}

namespace korvel::demo {

class DemoSession {
 public:
  // inspect: finish() keeps the collector and its inspector page open
  // until SIGINT or SIGTERM (call blockInterrupts() first, before any
  // thread starts).
  explicit DemoSession(bool keepStore, bool inspect = false);
  ~DemoSession();
  DemoSession(const DemoSession&) = delete;
  DemoSession& operator=(const DemoSession&) = delete;

  // Starts the collector, makes the store directory and configures the
  // library; false (with a message on stderr) when the demo cannot run.
  bool start();
  const std::filesystem::path& storeDirectory() const { return storeDirectory_; }

  // Lets the previous step's beacons arrive (and print) before the next
  // one, then prints "-- what".
  void step(const char* what);

  // The host's actions.
  void launch();         // the session starts, start-up time, the home page
  void recognise();      // a tagging session with a match
  void openTrackPage();  // the track page of the last match
  void tapOnTrackPage(); // scroll the tracklist, share through Messages
  void closeTrackPage();
  void openSearch();
  void tapChartsCard();
  void showSearchResults();  // the search page is renamed "search results"
  void closeSearch();
  void tapAround();      // a scroll, a notification, widgets
  void goToBackground();
  void comeToForeground();

  // The whole scripted session, in steps.
  void runScript();

  // Waits for every submitted beacon to arrive (with a deadline), stops
  // everything and prints the summary. 0 when nothing was lost, 1 when a
  // beacon was lost (or none was sent).
  int finish();

  // Blocks SIGINT and SIGTERM in the calling thread and every thread it
  // starts afterwards, so that an inspecting finish() can wait for them.
  static void blockInterrupts();

  PageViewManager& pages() { return *pages_; }
  const KVRTagDetails& lastTag() const { return tag_; }
  bool trackPageOpen() const { return trackOpen_; }
  bool searchOpen() const { return searchOpen_; }
  bool inBackground() const { return inBackground_; }

 private:
  static void waitForInterrupt();

  bool keepStore_;
  bool inspect_;
  std::unique_ptr<BeaconRoad> road_;
  std::shared_ptr<tools::BeaconStore> store_;
  korvel::foundation::internal::Mutex mutex_;
  std::set<std::string> receivedUUIDs_ KORVEL_GUARDED_BY(mutex_);
  std::set<std::string> reportedUUIDs_ KORVEL_GUARDED_BY(mutex_);
  size_t receivedCount_ KORVEL_GUARDED_BY(mutex_) = 0;
  std::unique_ptr<tools::BeaconCollector> collector_;
  std::filesystem::path storeDirectory_;
  std::shared_ptr<network::internal::DurableRequestExecutor> executor_;
  platform::ObserverRegistration submitted_;
  platform::ObserverRegistration created_;
  std::unique_ptr<PageViewManager> pages_;
  KVRTagDetails tag_;
  PageID home_ = PageID::make();
  PageID track_ = PageID::make();
  PageID search_ = PageID::make();
  bool trackOpen_ = false;
  bool searchOpen_ = false;
  bool inBackground_ = false;
  int recognitions_ = 0;
};

}  // namespace korvel::demo
