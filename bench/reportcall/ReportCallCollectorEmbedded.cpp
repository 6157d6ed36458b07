#include "ReportCallCollector.h"

#include "collector/BeaconCollector.h"

namespace korvel::bench {
namespace {

class Embedded final : public EmbeddedCollector {
 public:
  explicit Embedded(const tools::BeaconCollector::Options& options) : collector_(options) {}
  bool start() { return collector_.start(); }
  int port() const override { return collector_.port(); }
  size_t beaconCount() const override { return collector_.beaconCount(); }
  bool waitForBeacons(size_t count, std::chrono::milliseconds timeout) override {
    return collector_.waitForBeacons(count, timeout);
  }

 private:
  tools::BeaconCollector collector_;
};

}  // namespace

std::unique_ptr<EmbeddedCollector> startEmbeddedCollector(std::string& why) {
  tools::BeaconCollector::Options options;
  options.keepBeacons = false;
  options.backgroundPriority = true;
  auto collector = std::make_unique<Embedded>(options);
  if (!collector->start()) {
    why = "cannot listen on 127.0.0.1";
    return nullptr;
  }
  return collector;
}

}  // namespace korvel::bench
