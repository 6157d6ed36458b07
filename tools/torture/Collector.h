// The torture's collector: a BeaconSink on one port for the whole run,
// stopped, started again, or made flaky or slow by the rounds, feeding what
// it saw into a Tally.
#pragma once

#include <chrono>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "collector/BeaconSink.h"

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::tools::torture {

// What the collector saw, fed from its threads.
struct Tally {
  foundation::internal::Mutex mutex;
  std::unordered_set<std::string> received KORVEL_GUARDED_BY(mutex);
  std::unordered_map<std::string, int> refusals KORVEL_GUARDED_BY(mutex);
};

class Collector {
 public:
  explicit Collector(Tally& tally) : tally_(tally) {}

  enum class Mode { Healthy, Flaky, Slow };

  bool start(Mode mode, std::mt19937_64& random) {
    server_.reset();
    BeaconSink::Options o;
    o.port = port_;
    if (mode == Mode::Flaky) {
      o.failEvery = std::uniform_int_distribution<int>(2, 5)(random);
      static constexpr int kStatuses[] = {500, 502, 503, 429, 408};
      o.failStatus = kStatuses[random() % std::size(kStatuses)];
    } else if (mode == Mode::Slow) {
      o.delay = std::chrono::milliseconds(std::uniform_int_distribution<int>(100, 1500)(random));
    }
    o.onAnswer = [this](const std::string& uuid, int status) {
      foundation::internal::MutexLock lock(tally_.mutex);
      if (status == 204) {
        tally_.received.insert(uuid);
      } else {
        ++tally_.refusals[uuid];
      }
    };
    // The port may still be held for a moment by the last server.
    for (int attempt = 0; attempt < 50; ++attempt) {
      auto server = std::make_unique<BeaconSink>(o);
      if (server->start()) {
        port_ = server->port();
        server_ = std::move(server);
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  void stop() { server_.reset(); }
  void dropNext(int count) {
    if (server_) server_->dropNext(count);
  }
  int port() const { return port_; }

 private:
  Tally& tally_;
  std::unique_ptr<BeaconSink> server_;
  int port_ = 0;
};

}  // namespace korvel::tools::torture
