// What the delivery and report-call benchmarks share: one-time set-up of the
// library and a configuration whose beacon endpoint is a loopback port.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/foundation/KVRParameters.h>
#include <korvel/platform/Env.h>

namespace korvel::bench {

// Sets up the library once per process, then points the beacon endpoint at
// 127.0.0.1:port (a port nothing listens on makes every connection fail).
inline void configure(int port) {
  static const bool once = [] {
    platform::setMainBundleIdentifier("com.korvel.bench");
    KVRBeacon::registerRequestRestorer();
    KVRUserSession::load();
    return true;
  }();
  (void)once;
  KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
    s.inid = "BENCH-INID-0123456789";
    s.configured = true;
    s.deviceModel = "Bench14,2";
    s.beacons.beaconEndpoint =
        "http://127.0.0.1:" + std::to_string(port) + "/b/{inid}/{appversion}/{devicemodel}";
  });
}

// Ends a run: reports stop reaching the executor, the executor stops (its
// threads joined, its files closed), then its store directory goes.
inline void tearDown(std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor,
                     const std::filesystem::path& directory) {
  KVRBeacon::setBackgroundSession(nullptr);
  executor.reset();
  std::error_code ec;
  std::filesystem::remove_all(directory, ec);
}

// A caller's dictionary of `entries` parameters of realistic sizes (the
// session's common parameters come on top).
inline KVRParameters userEvent(int entries) {
  KVRParameters p;
  p.set("type", "share");
  p.set("providername", "messages");
  p.set("origin", "trackpage");
  p.set("tagid", "7C2D9E4A-1B3F-4E5D-9A8B-0C1D2E3F4A5B");
  p.set("trackkey", 571234567);
  p.set("screenname", "track");
  for (int i = static_cast<int>(p.size()); i < entries; ++i) {
    p.set("key" + std::to_string(i), "value-" + std::to_string(i * 7919));
  }
  return p;
}

}  // namespace korvel::bench
