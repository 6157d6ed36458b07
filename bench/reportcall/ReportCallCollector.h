// The beacon collector ReportCallBench delivers to when it runs one in its
// own process.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace korvel::bench {

class EmbeddedCollector {
 public:
  virtual ~EmbeddedCollector() = default;
  virtual int port() const = 0;
  virtual size_t beaconCount() const = 0;
  virtual bool waitForBeacons(size_t count, std::chrono::milliseconds timeout) = 0;
};

// A collector listening on 127.0.0.1, its threads at background priority;
// null, with the reason in `why`, where this build has none or it cannot
// listen.
std::unique_ptr<EmbeddedCollector> startEmbeddedCollector(std::string& why);

}  // namespace korvel::bench
