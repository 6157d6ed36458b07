// The page-view reporter a host normally installs in its PageViewManager:
// each finished visible stretch of a page becomes one "pageview" beacon with
// the page's reporting parameters, its name under "screenname" and the time
// it was visible under "duration", in seconds as a double. Seconds because
// every "duration" on these beacons is in seconds, the session beacon's
// among them.
#pragma once

#include <korvel/pageviews/PageViewManager.h>

namespace korvel {

class PageViewBeaconReporter : public PageViewReporter {
 public:
  // Sends through BeaconReporter; the page's name and duration replace any
  // of its parameters under "screenname" or "duration".
  void report(const PageView& pageView) override;
};

}  // namespace korvel
