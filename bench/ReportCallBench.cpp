// The report call's latency on the caller's thread, timed call by call, in
// the states a host meets, and the delivery rate behind it.
//
//   floor            an executor that keeps nothing: building the record and
//                    the request, and nothing else
//   durable, idle    the durable executor with delivery paused: the floor
//                    plus making the request durable (the overhead figure)
//   collector up     delivering to a beacon collector on 127.0.0.1 in this
//                    process while the calls are made (the backlog is kept
//                    small by letting it drain between batches, untimed);
//                    the collector's threads run at background priority,
//                    standing in for a server that is not on these cores
//   collector down   nothing listens at the endpoint and 100,000 requests
//                    are already queued; the workers keep trying
//   sync+rotation    delivery paused, small segments and a short sync
//                    interval, so the writer syncs and rotates segments all
//                    through the calls
//
// Each state prints p50/p99/p99.9/max in microseconds over --calls timed
// calls (after a warm-up), how many calls took over 30 us, how many
// times the calling thread was preempted meanwhile and how many page faults
// it took (a page of the journal's mapping touched before the writer made
// it writable), and how many allocations one call made on average (each
// past the allocator's per-thread cache is a slow one); the last block is
// the delivery rate, one GET per beacon, over --runs runs of --beacons
// queued beacons each: median, min and max. Every beacon has 23 parameters
// (20 from the caller, 3 common ones).
//
//   ReportCallBench [--calls N] [--runs N] [--beacons N] [--queued N] [--only NAME]
//                   [--collector http://127.0.0.1:PORT]
//
// --collector delivers to a korvel-collector running beside the program
// (`korvel-collector --port 0` prints its URL) instead of the one built in;
// a build without one skips the collector-up and delivery states unless it
// is given. Where the system does not count preemptions or faults the
// column says -1.
//
// The figures are only comparable on a quiet machine: the program prints the
// load average at its start and end.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "reportcall/AllocationCount.h"
#include "reportcall/ReportCallCollector.h"
#include "support/BenchOptions.h"
#include "support/BenchSystem.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/beacon/KVRUserSession.h>
#include <korvel/foundation/KVNConfiguration.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/platform/Env.h>

namespace {

using namespace korvel;
using network::internal::DurableRequestExecutor;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

struct Settings {
  size_t calls = 200'000;
  int runs = 5;
  int beacons = 10'000;
  int queued = 100'000;
  std::string only;
  int collectorPort = 0;  // from --collector; 0: the embedded one
};

// The discard port: nothing listens on it here, so connecting is refused.
constexpr int kDeadPort = 9;

using bench::configure;
using bench::involuntarySwitches;
using bench::threadMinorFaults;
using bench::loadAverage;
using bench::tearDown;
using bench::temporaryDirectory;
using bench::userEvent;

// The port of a collector URL on this machine ("http://127.0.0.1:PORT" or
// "http://localhost:PORT", a trailing slash allowed); 0 when it is not one.
int loopbackPort(std::string url) {
  if (!url.empty() && url.back() == '/') url.pop_back();
  for (const char* prefix : {"http://127.0.0.1:", "http://localhost:"}) {
    const size_t length = std::strlen(prefix);
    if (url.compare(0, length, prefix) != 0) continue;
    const std::string digits = url.substr(length);
    if (digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos) {
      return 0;
    }
    const int port = std::atoi(digits.c_str());
    return port > 0 && port < 65536 ? port : 0;
  }
  return 0;
}

class NullExecutor final : public KVNNetworkBackgroundRequestExecutor {
 public:
  const std::string& backgroundSessionIdentifier() const override { return id_; }
  void executeRequest(KVNNetworkRequest) noexcept override {}
  bool flush(std::chrono::milliseconds) override { return true; }

 private:
  std::string id_ = "bench.null";
};

// A durable executor in its own directory, removed again with it.
struct DurableUnderTest {
  fs::path directory;
  std::shared_ptr<DurableRequestExecutor> executor;

  explicit DurableUnderTest(const std::function<void(DurableRequestExecutor::Options&)>& tune) {
    directory = temporaryDirectory("reportcall");
    DurableRequestExecutor::Options o;
    o.directory = directory;
    // Nothing dropped over the caps.
    o.maxStoredRequests = 10'000'000;
    o.maxStoredBytes = 16ull << 30;
    tune(o);
    executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
    KVRBeacon::setBackgroundSession(executor);
  }
  ~DurableUnderTest() {
    tearDown(std::move(executor), directory);
  }
};

struct Percentiles {
  double p50 = 0, p99 = 0, p999 = 0, max = 0;
  // Calls over 30 us, and the times the calling thread was descheduled
  // while others ran during the timed calls: where the two are close, the
  // far tail is the scheduler's, not the library's.
  size_t slowCalls = 0;
  long preemptions = 0;
  // Page faults the calling thread took during the timed calls.
  long faults = 0;
  // What one call allocated, on average, on the calling thread.
  double allocations = 0;
};

Percentiles percentiles(std::vector<double> micros) {
  Percentiles p;
  if (micros.empty()) return p;
  std::sort(micros.begin(), micros.end());
  auto at = [&](double q) { return micros[static_cast<size_t>(q * double(micros.size() - 1))]; };
  p.p50 = at(0.50);
  p.p99 = at(0.99);
  p.p999 = at(0.999);
  p.max = micros.back();
  return p;
}

// Times `calls` report calls one by one. betweenBatches runs untimed after
// every batch of 1,000 calls.
Percentiles timeCalls(size_t calls, const std::function<void()>& betweenBatches = {}) {
  const KVRParameters parameters = userEvent(20);  // the session adds 3
  for (int i = 0; i < 2'000; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
  if (betweenBatches) betweenBatches();

  std::vector<double> micros;
  micros.reserve(calls);
  const long switchesBefore = involuntarySwitches();
  const long faultsBefore = threadMinorFaults();
  const uint64_t allocationsBefore = bench::threadAllocations();
  for (size_t i = 0; i < calls; ++i) {
    const auto start = Clock::now();
    auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    const auto end = Clock::now();
    if (!uuid) {
      std::fprintf(stderr, "a report call gave no uuid\n");
      std::exit(1);
    }
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    if (betweenBatches && (i + 1) % 1'000 == 0) betweenBatches();
  }
  const long switchesAfter = involuntarySwitches();
  const long faultsAfter = threadMinorFaults();
  // Counted over the whole loop: the vector of timings was reserved up front.
  const uint64_t allocations = bench::threadAllocations() - allocationsBefore;
  const long preemptions = switchesBefore < 0 || switchesAfter < 0 ? -1 : switchesAfter - switchesBefore;
  const size_t slowCalls = static_cast<size_t>(
      std::count_if(micros.begin(), micros.end(), [](double us) { return us > 30; }));
  Percentiles p = percentiles(std::move(micros));
  p.slowCalls = slowCalls;
  p.preemptions = preemptions;
  p.faults = faultsBefore < 0 || faultsAfter < 0 ? -1 : faultsAfter - faultsBefore;
  p.allocations = calls == 0 ? 0 : static_cast<double>(allocations) / static_cast<double>(calls);
  return p;
}

void printRow(const char* state, const Percentiles& p) {
  std::printf("%-16s %9.2f %9.2f %9.2f %9.1f %9zu %9ld %9ld %9.2f\n", state, p.p50, p.p99, p.p999,
              p.max, p.slowCalls, p.preemptions, p.faults, p.allocations);
  std::fflush(stdout);
}

double timerCost() {
  std::vector<double> micros;
  micros.reserve(100'000);
  for (int i = 0; i < 100'000; ++i) {
    const auto start = Clock::now();
    const auto end = Clock::now();
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }
  return percentiles(std::move(micros)).p50;
}

bool selected(const Settings& s, const char* name) {
  return s.only.empty() || s.only == name;
}

// Waits until the executor has had `count` requests delivered (answered by
// the collector), for a collector in another process.
bool waitForDelivered(DurableRequestExecutor& executor, uint64_t count,
                      std::chrono::seconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (executor.stats().delivered < count) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Queues `count` beacons with delivery paused, then times delivering them
// all to the collector (the embedded one when given, else the one the
// endpoint names); beacons per second.
double deliveryRun(bench::EmbeddedCollector* collector, int count) {
  DurableUnderTest durable([](DurableRequestExecutor::Options& o) { o.startPaused = true; });
  const KVRParameters parameters = userEvent(20);  // the session adds 3
  for (int i = 0; i < count; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
  const size_t before = collector ? collector->beaconCount() : 0;
  const auto start = Clock::now();
  durable.executor->setPaused(false);
  const bool arrived =
      collector ? collector->waitForBeacons(before + static_cast<size_t>(count), std::chrono::seconds(120))
                : waitForDelivered(*durable.executor, static_cast<uint64_t>(count), std::chrono::seconds(120));
  if (!arrived) {
    std::fprintf(stderr, "delivery run: not everything arrived within 120 s\n");
    return 0;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return count / seconds;
}

Settings parse(int argc, char** argv) {
  Settings s;
  bench::Options()
      .number("--calls", s.calls)
      .number("--runs", s.runs)
      .number("--beacons", s.beacons)
      .number("--queued", s.queued, 0)
      .text("--only", s.only, "floor|idle|up|down|sync|delivery")
      .custom("--collector", "URL",
              [&s](const std::string& url) -> std::string {
                s.collectorPort = loopbackPort(url);
                if (s.collectorPort != 0) return {};
                return "--collector takes http://127.0.0.1:PORT, not " + url;
              })
      .readOrExit(argc, argv);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = parse(argc, argv);
  std::printf("load average at start: %s\n", loadAverage().c_str());
  std::printf("timer pair: %.3f us (included in every figure)\n", timerCost());
  std::printf("%zu timed calls per state\n\n", settings.calls);
  std::printf("%-16s %9s %9s %9s %9s %9s %9s %9s %9s   (microseconds per report call)\n", "state",
              "p50", "p99", "p99.9", "max", ">30us", "preempted", "faults", "allocs");

  // The collector the up and delivery states deliver to: the one named by
  // --collector, else one in this process where the build has it.
  std::unique_ptr<bench::EmbeddedCollector> embedded;
  int collectorPort = settings.collectorPort;
  std::string noCollector;
  if (collectorPort == 0) {
    embedded = bench::startEmbeddedCollector(noCollector);
    if (embedded) collectorPort = embedded->port();
  }
  auto collectorMissing = [&](const char* state) {
    if (collectorPort != 0) return false;
    std::printf("%-16s skipped: %s\n", state, noCollector.c_str());
    std::fflush(stdout);
    return true;
  };

  std::optional<Percentiles> floor;
  if (selected(settings, "floor")) {
    configure(kDeadPort);
    KVRBeacon::setBackgroundSession(std::make_shared<NullExecutor>());
    floor = timeCalls(settings.calls);
    KVRBeacon::setBackgroundSession(nullptr);
    printRow("floor", *floor);
  }

  if (selected(settings, "idle")) {
    configure(kDeadPort);
    DurableUnderTest durable([](DurableRequestExecutor::Options& o) { o.startPaused = true; });
    const Percentiles idle = timeCalls(settings.calls);
    printRow("durable, idle", idle);
    if (floor) {
      std::printf("%-16s %9.2f %9.2f %9.2f\n", "  over floor", idle.p50 - floor->p50,
                  idle.p99 - floor->p99, idle.p999 - floor->p999);
    }
  }

  if (selected(settings, "up") && !collectorMissing("collector up")) {
    configure(collectorPort);
    DurableUnderTest durable([](DurableRequestExecutor::Options&) {});
    auto& executor = *durable.executor;
    // Keeps the backlog between 1,000 and 5,000, so the workers deliver all
    // through the timed calls without the queue growing without bound.
    const Percentiles up = timeCalls(settings.calls, [&executor] {
      if (executor.stats().waiting <= 5'000) return;
      while (executor.stats().waiting > 1'000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    printRow("collector up", up);
  }

  if (selected(settings, "down")) {
    configure(kDeadPort);
    DurableUnderTest durable([](DurableRequestExecutor::Options&) {});
    const KVRParameters parameters = userEvent(20);  // the session adds 3
    for (int i = 0; i < settings.queued; ++i) {
      KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
    }
    const Percentiles down = timeCalls(settings.calls);
    char label[32];
    std::snprintf(label, sizeof label, "down, %dk queued", settings.queued / 1000);
    printRow(label, down);
  }

  if (selected(settings, "sync")) {
    configure(kDeadPort);
    DurableUnderTest durable([](DurableRequestExecutor::Options& o) {
      o.startPaused = true;
      o.syncInterval = std::chrono::milliseconds(2);
      o.segmentBytes = 256u << 10;  // about 330 beacons a segment
    });
    const Percentiles sync = timeCalls(settings.calls);
    printRow("sync+rotation", sync);
  }

  if (selected(settings, "delivery") && !collectorMissing("delivery")) {
    configure(collectorPort);
    std::vector<double> rates;
    for (int run = 0; run < settings.runs; ++run) {
      rates.push_back(deliveryRun(embedded.get(), settings.beacons));
    }
    std::sort(rates.begin(), rates.end());
    std::printf("\ndelivery, %d beacons a run, %d runs: median %.0f/s, min %.0f/s, max %.0f/s\n",
                settings.beacons, settings.runs, rates[rates.size() / 2], rates.front(),
                rates.back());
  }

  std::printf("load average at end: %s\n", loadAverage().c_str());
  return 0;
}
