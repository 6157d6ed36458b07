// Delivery figures of the durable executor:
//   ReportCall       KVRBeacon::sendBeaconOfType with a 20-entry user-event
//                    dictionary, delivery paused so only the caller's cost is
//                    measured (p50/p99 counters from per-call timing).
//                    For reference, executor 1 keeps nothing and executor 2
//                    keeps every request in memory, as a paused durable
//                    executor also does.
//   EncodePayload    the restoration payload encoder alone (the keyed archive
//                    of one record), the largest part of the report call.
//   BytesPerBeacon   store bytes per queued beacon with 25 parameters.
//   Throughput       beacons per second delivered, one GET each, to a
//                    collector on 127.0.0.1 in this process.
// Run with --benchmark_filter to pick; each figure repeats a few times and
// reports the median.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <filesystem>
#include <vector>

#include "collector/BeaconCollector.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/network/DurableRequestExecutor.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>

namespace {

using namespace korvel;
using platform::DurableRequestExecutor;
namespace fs = std::filesystem;

void configure(int port) {
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

// A caller's dictionary that, with the common parameters, gives a record of
// about `entries` parameters of realistic sizes.
KVRParameters userEvent(int entries) {
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

fs::path temporaryDirectory() {
  char pattern[] = "/tmp/korvel-bench-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return {};
  return pattern;
}

DurableRequestExecutor::Options storeOptions(const fs::path& dir) {
  DurableRequestExecutor::Options o;
  o.directory = dir;
  o.maxStoredRequests = 10'000'000;  // nothing dropped while paused
  return o;
}

class NullExecutor : public KVNNetworkBackgroundRequestExecutor {
 public:
  const std::string& backgroundSessionIdentifier() const override { return id_; }
  void executeRequest(KVNNetworkRequest request) noexcept override { benchmark::DoNotOptimize(request); }
  bool flush(std::chrono::milliseconds) override { return true; }

 private:
  std::string id_ = "null";
};

class KeepAllExecutor : public NullExecutor {
 public:
  void executeRequest(KVNNetworkRequest request) noexcept override { all.push_back(std::move(request)); }
  std::deque<KVNNetworkRequest> all;
};

class LastRequestExecutor : public NullExecutor {
 public:
  void executeRequest(KVNNetworkRequest request) noexcept override { last = std::move(request); }
  KVNNetworkRequest last;
};

// Arg 0: the durable executor (journal), 1: an executor that keeps nothing,
// 2: one that keeps every request in memory.
void ReportCall(benchmark::State& state) {
  configure(9);  // never contacted: delivery is paused
  const fs::path dir = temporaryDirectory();
  std::shared_ptr<KVNNetworkBackgroundRequestExecutor> executor;
  if (state.range(0) == 2) {
    executor = std::make_shared<KeepAllExecutor>();
  } else if (state.range(0) == 1) {
    executor = std::make_shared<NullExecutor>();
  } else {
    auto o = storeOptions(dir);
    o.startPaused = true;
    executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
  }
  KVRBeacon::setBackgroundSession(executor);
  const KVRParameters parameters = userEvent(20);
  for (int i = 0; i < 200; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);

  std::vector<double> micros;
  micros.reserve(static_cast<size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    const auto end = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(uuid);
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  KVRBeacon::setBackgroundSession(nullptr);
  executor.reset();
  std::error_code ec;
  fs::remove_all(dir, ec);
}
BENCHMARK(ReportCall)
    ->ArgName("executor")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(40'000)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);

void EncodePayload(benchmark::State& state) {
  configure(9);
  auto capture = std::make_shared<LastRequestExecutor>();
  KVRBeacon::setBackgroundSession(capture);
  KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, userEvent(20));
  const auto encoder = capture->last.restorationPayloadEncoder();
  size_t bytes = 0;
  for (auto _ : state) {
    auto payload = encoder();
    bytes = payload.size();
    benchmark::DoNotOptimize(payload);
  }
  state.counters["payload_bytes"] = static_cast<double>(bytes);
  KVRBeacon::setBackgroundSession(nullptr);
}
BENCHMARK(EncodePayload)->Repetitions(3)->ReportAggregatesOnly(true)->Unit(benchmark::kMicrosecond);

void BytesPerBeacon(benchmark::State& state) {
  configure(9);
  constexpr int kBeacons = 2'000;
  // Caller parameters such that the record carries 25 (the session adds its
  // common ones).
  auto probe = KVRBeacon::taskOfType(KVRBeaconTypeUserEvent, userEvent(25), std::nullopt);
  const int callerEntries = 25 - static_cast<int>(probe->parameters().size() - 25);
  const KVRParameters parameters = userEvent(callerEntries);
  double perBeacon = 0;
  for (auto _ : state) {
    const fs::path dir = temporaryDirectory();
    auto o = storeOptions(dir);
    o.startPaused = true;
    auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
    KVRBeacon::setBackgroundSession(executor);
    for (int i = 0; i < kBeacons; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    auto stats = executor->syncStore(std::chrono::seconds(30));
    perBeacon = stats ? static_cast<double>(stats->bytesOnDisk) / kBeacons : -1;
    KVRBeacon::setBackgroundSession(nullptr);
    executor.reset();
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  state.counters["bytes_per_beacon"] = perBeacon;
  state.counters["record_parameters"] =
      static_cast<double>(KVRBeacon::taskOfType(KVRBeaconTypeUserEvent, parameters, std::nullopt)
                              ->parameters()
                              .size());
}
BENCHMARK(BytesPerBeacon)->Iterations(1)->Unit(benchmark::kMillisecond);

// Queues the beacons with delivery paused, then
// times delivering all of them.
void Throughput(benchmark::State& state) {
  constexpr int kBeacons = 10'000;
  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.keepBeacons = false;
  tools::BeaconCollector collector(collectorOptions);
  if (!collector.start()) {
    state.SkipWithError("cannot listen on 127.0.0.1");
    return;
  }
  configure(collector.port());
  const KVRParameters parameters = userEvent(20);
  for (auto _ : state) {
    const fs::path dir = temporaryDirectory();
    auto o = storeOptions(dir);
    o.startPaused = true;
    auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
    KVRBeacon::setBackgroundSession(executor);
    for (int i = 0; i < kBeacons; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    const size_t before = collector.beaconCount();
    const auto start = std::chrono::steady_clock::now();
    executor->setPaused(false);
    const bool delivered = collector.waitForBeacons(before + kBeacons, std::chrono::seconds(60));
    const auto end = std::chrono::steady_clock::now();
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
    if (!delivered) state.SkipWithError("not everything arrived within 60 s");
    KVRBeacon::setBackgroundSession(nullptr);
    executor.reset();
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  state.counters["beacons_per_s"] =
      benchmark::Counter(static_cast<double>(kBeacons) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate);
}
BENCHMARK(Throughput)
    ->Iterations(1)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
