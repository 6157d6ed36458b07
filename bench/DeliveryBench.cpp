// Delivery figures of the durable executor:
//   ReportCall       KVRBeacon::sendBeaconOfType with a 20-entry user-event
//                    dictionary, delivery paused so only the caller's cost is
//                    measured (p50/p99 counters from per-call timing).
//                    For reference, executor 1 keeps nothing and executor 2
//                    keeps every request in memory, as a paused durable
//                    executor also does.
//   EncodePayload    the restoration payload encoder alone (the keyed archive
//                    of one record) into a buffer that is reused, as the
//                    executor reuses its frame buffer.
//   BytesPerBeacon   store bytes per queued beacon with 25 parameters.
//   Throughput       beacons per second delivered, one GET each, to a
//                    collector on 127.0.0.1 in this process; queued while
//                    paused, so each is read back from the journal first.
//   QueuedMemory     RSS growth per queued beacon with N queued (delivery
//                    paused), and the report call's p50/p99 over the last
//                    10,000 of them with the collector down instead.
//   Outage           a collector outage with reports going on: connection
//                    attempts while it is down, then the time from the first
//                    answered probe to the last of the backlog delivered.
//                    Delays are scaled down ten times (retry base 100 ms,
//                    cap 30 s, outage 6 s): the attempts are those of a 60 s
//                    outage with the default delays (1 s, 5 min).
//   RestoredMemory   resident memory of a process that queued N beacons
//                    (delivery paused, store synced) against that of a fresh
//                    process that restored them, each in a child process of
//                    its own: rss_* all resident memory, anon_* the heap
//                    alone (without mapped journal pages), in MiB.
//   CraftedSegment   recovery time of a 1 MiB segment made of frame headers
//                    that each claim a long body with a bad checksum, and how
//                    long the executor takes to shut down during it.
// Run with --benchmark_filter to pick; each figure repeats a few times and
// reports the median.
#include <benchmark/benchmark.h>


#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>
#include <deque>
#include <filesystem>
#include <vector>

#include "BenchSupport.h"
#include "collector/BeaconCollector.h"
#include "support/BenchSystem.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/network/internal/RequestStore.h>
#include <korvel/platform/Env.h>
#include <korvel/foundation/KVNConfiguration.h>

using korvel::network::internal::RequestStoreOptions;
using korvel::network::internal::kFrameHeaderBytes;
using korvel::network::internal::kFrameMarker;
using korvel::network::internal::openJournalRequestStore;

namespace {

using namespace korvel;
using network::internal::DurableRequestExecutor;
namespace fs = std::filesystem;

using bench::configure;
using bench::tearDown;
using bench::userEvent;

DurableRequestExecutor::Options storeOptions(const fs::path& dir) {
  DurableRequestExecutor::Options o;
  o.directory = dir;
  o.maxStoredRequests = 10'000'000;  // nothing dropped while paused
  o.maxStoredBytes = uint64_t{1} << 40;
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
  const fs::path dir = bench::temporaryDirectory("bench");
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
  tearDown(std::move(executor), dir);
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
  std::string payload;
  for (auto _ : state) {
    payload.clear();
    encoder(payload);
    benchmark::DoNotOptimize(payload.data());
  }
  const size_t bytes = payload.size();
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
    const fs::path dir = bench::temporaryDirectory("bench");
    auto o = storeOptions(dir);
    o.startPaused = true;
    auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
    KVRBeacon::setBackgroundSession(executor);
    for (int i = 0; i < kBeacons; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    auto stats = executor->syncStore(std::chrono::seconds(30));
    perBeacon = stats ? static_cast<double>(stats->bytesOnDisk) / kBeacons : -1;
    tearDown(std::move(executor), dir);
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
    const fs::path dir = bench::temporaryDirectory("bench");
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
    tearDown(std::move(executor), dir);
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

// Arg: beacons queued.
void QueuedMemory(benchmark::State& state) {
  const int queued = static_cast<int>(state.range(0));
  const KVRParameters parameters = userEvent(20);
  double anonPerBeacon = 0, rssPerBeacon = 0, p50 = 0, p99 = 0;
  for (auto _ : state) {
    // Paused: what the backlog costs in memory.
    configure(9);
    {
      const fs::path dir = bench::temporaryDirectory("bench");
      auto o = storeOptions(dir);
      o.startPaused = true;
      auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
      KVRBeacon::setBackgroundSession(executor);
      for (int i = 0; i < 1000; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
      executor->syncStore(std::chrono::seconds(60));
      const bench::Memory before = bench::memory();
      for (int i = 0; i < queued; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
      executor->syncStore(std::chrono::seconds(60));
      const bench::Memory after = bench::memory();
      anonPerBeacon = static_cast<double>(after.anonymousKiB - before.anonymousKiB) * 1024 / queued;
      rssPerBeacon = static_cast<double>(after.residentKiB - before.residentKiB) * 1024 / queued;
      tearDown(std::move(executor), dir);
    }
    // The collector down (nothing listens on the port): the caller's cost
    // with the backlog growing.
    {
      const fs::path dir = bench::temporaryDirectory("bench");
      auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", storeOptions(dir));
      KVRBeacon::setBackgroundSession(executor);
      std::vector<double> micros;
      micros.reserve(10'000);
      for (int i = 0; i < queued; ++i) {
        const auto start = std::chrono::steady_clock::now();
        auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
        const auto end = std::chrono::steady_clock::now();
        benchmark::DoNotOptimize(uuid);
        if (i >= queued - 10'000) micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
      }
      std::sort(micros.begin(), micros.end());
      p50 = micros[micros.size() / 2];
      p99 = micros[micros.size() * 99 / 100];
      tearDown(std::move(executor), dir);
    }
  }
  state.counters["heap_bytes_per_beacon"] = anonPerBeacon;
  state.counters["rss_bytes_per_beacon"] = rssPerBeacon;
  state.counters["down_p50_us"] = p50;
  state.counters["down_p99_us"] = p99;
}
BENCHMARK(QueuedMemory)->Arg(10'000)->Arg(100'000)->Iterations(1)->Unit(benchmark::kMillisecond);

void Outage(benchmark::State& state) {
  constexpr int kBacklog = 5'000;
  // A port that nothing listens on until the collector comes back there.
  int port = 0;
  {
    tools::BeaconCollector probe;
    if (!probe.start()) {
      state.SkipWithError("cannot listen on 127.0.0.1");
      return;
    }
    port = probe.port();
  }
  configure(port);
  const KVRParameters parameters = userEvent(20);
  double attempts = 0, drainMillis = 0;
  for (auto _ : state) {
    const fs::path dir = bench::temporaryDirectory("bench");
    auto o = storeOptions(dir);
    o.retryBaseDelay = std::chrono::milliseconds(100);
    o.maxRetryDelay = std::chrono::seconds(30);
    auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
    KVRBeacon::setBackgroundSession(executor);
    // Reports spread over the outage.
    const auto outageEnd = std::chrono::steady_clock::now() + std::chrono::seconds(6);
    for (int i = 0; i < kBacklog; ++i) {
      KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
      std::this_thread::sleep_until(outageEnd - std::chrono::microseconds(1) * ((kBacklog - i) * 6'000'000 / kBacklog));
    }
    std::this_thread::sleep_until(outageEnd);
    attempts = static_cast<double>(executor->stats().attempts);

    tools::BeaconCollector::Options collectorOptions;
    collectorOptions.port = port;
    tools::BeaconCollector collector(collectorOptions);
    if (!collector.start()) {
      state.SkipWithError("cannot listen again on the port");
      break;
    }
    collector.waitForBeacons(kBacklog, std::chrono::seconds(120));
    const auto requests = collector.requests();
    if (requests.size() >= kBacklog) {
      drainMillis = std::chrono::duration<double, std::milli>(requests.back().at - requests.front().at).count();
    }
    state.SetIterationTime(drainMillis / 1000);
    tearDown(std::move(executor), dir);
  }
  state.counters["attempts_while_down"] = attempts;
  state.counters["drain_ms"] = drainMillis;
}
BENCHMARK(Outage)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void CraftedSegment(benchmark::State& state) {
  using namespace korvel::platform;
  // Header, then frame headers whose bodies would run to the end of the
  // file, each with a wrong checksum: every marker is a candidate.
  std::string segment("KVRJRNL1", 8);
  const uint32_t number = 1, epoch = 1;
  segment.append(reinterpret_cast<const char*>(&number), 4);
  segment.append(reinterpret_cast<const char*>(&epoch), 4);
  constexpr size_t kBytes = 1u << 20;
  while (segment.size() + kFrameHeaderBytes <= kBytes) {
    const uint32_t marker = kFrameMarker;
    const uint32_t body = static_cast<uint32_t>(kBytes - segment.size() - kFrameHeaderBytes);
    const uint32_t crc = 0;
    segment.append(reinterpret_cast<const char*>(&marker), 4);
    segment.append(reinterpret_cast<const char*>(&body), 4);
    segment.append(reinterpret_cast<const char*>(&crc), 4);
  }
  double recoverMillis = 0, shutdownMillis = 0;
  for (auto _ : state) {
    const fs::path dir = bench::temporaryDirectory("bench");
    auto write = [&] { std::ofstream(dir / "seg-0000000001.log", std::ios::binary) << segment; };
    write();
    const auto start = std::chrono::steady_clock::now();
    {
      RequestStoreOptions options;
      options.directory = dir;
      auto store = openJournalRequestStore(options);
      if (store) store->recover();
    }
    recoverMillis = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(recoverMillis / 1000);
    // Again, with an executor destroyed while it recovers.
    fs::remove_all(dir);
    fs::create_directories(dir);
    write();
    {
      auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", storeOptions(dir));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      const auto stop = std::chrono::steady_clock::now();
      executor.reset();
      shutdownMillis = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - stop).count();
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  state.counters["recover_ms"] = recoverMillis;
  state.counters["shutdown_ms"] = shutdownMillis;
}
BENCHMARK(CraftedSegment)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// VmRSS and RssAnon (the heap, without mapped journal pages), in MiB, of a
// child process once body has run in it; zeros when body gives up (returns
// false) or the child fails.
std::pair<double, double> memoryOfChild(const std::function<bool()>& body) {
  const std::vector<double> figures = bench::inChildProcess([&]() -> std::vector<double> {
    if (!body()) return {};
    const bench::Memory m = bench::memory();
    return {static_cast<double>(m.residentKiB) / 1024, static_cast<double>(m.anonymousKiB) / 1024};
  });
  if (figures.size() != 2) return {0, 0};
  return {figures[0], figures[1]};
}

// Arg: beacons queued, then restored.
void RestoredMemory(benchmark::State& state) {
  const int queued = static_cast<int>(state.range(0));
  std::pair<double, double> queuing, restoring;
  for (auto _ : state) {
    const fs::path dir = bench::temporaryDirectory("bench");
    queuing = memoryOfChild([&] {
      configure(9);
      auto o = storeOptions(dir);
      o.startPaused = true;
      auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
      KVRBeacon::setBackgroundSession(executor);
      const KVRParameters parameters = userEvent(20);
      for (int i = 0; i < queued; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
      executor->syncStore(std::chrono::minutes(10));
      return true;
    });
    restoring = memoryOfChild([&] {
      configure(9);
      auto o = storeOptions(dir);
      o.startPaused = true;
      auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
      KVRBeacon::setBackgroundSession(executor);
      // Returns once everything stored is restored.
      executor->syncStore(std::chrono::minutes(10));
      return executor->stats().restored == static_cast<uint64_t>(queued);
    });
    std::error_code ec;
    fs::remove_all(dir, ec);
  }
  state.counters["queue_rss_mib"] = queuing.first;
  state.counters["queue_anon_mib"] = queuing.second;
  state.counters["restore_rss_mib"] = restoring.first;
  state.counters["restore_anon_mib"] = restoring.second;
  state.counters["restore_over_queue"] = queuing.first > 0 ? restoring.first / queuing.first : 0;
}
BENCHMARK(RestoredMemory)->Arg(200'000)->Arg(1'000'000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
