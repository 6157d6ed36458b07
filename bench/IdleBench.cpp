// What the library costs a host that does nothing: it starts the durable
// executor, reports 10 beacons, and then idles; over the idle spell it
// counts the context switches (voluntary and involuntary) of the library's
// threads, from /proc/self/task/*/status, and prints them as wake-ups per
// second, over the spell and over its second half (once the writer's last
// syncs and the extra senders' ends are behind), the writer's switches over
// the spell, with the
// library's threads and the bytes of its files at the end.
//
//   idle            a collector on 127.0.0.1 in this process took the 10
//                   beacons; nothing is pending
//   collector down  nothing listens at the endpoint: the 10 beacons wait,
//                   and the senders probe the host with backoff (the
//                   probes made in the spell are printed beside)
//
//   IdleBench [--seconds N] [--runs N] [--only idle|down]
//
// A thread is the library's when its name starts with "korvel-" (senders,
// the journal writer, the configuration fetch). A thread that ends during
// the spell (an extra sender the 10 beacons started) takes its switches
// with it: the figure counts the threads that live through the spell and
// the ones started in it; the thread counts at its start and end show how
// many ended. Figures are
// only comparable on a quiet machine: the load average is printed.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "collector/BeaconCollector.h"
#include "support/BenchOptions.h"
#include "support/BenchSystem.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/network/internal/DurableRequestExecutor.h>

namespace {

using namespace korvel;
using network::internal::DurableRequestExecutor;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// The discard port: nothing listens on it here, so connecting is refused.
constexpr int kDeadPort = 9;
constexpr int kBeacons = 10;

struct Settings {
  int seconds = 30;
  int runs = 3;
  std::string only;
};

struct Threads {
  int library = 0;
  int all = 0;
  std::map<std::string, long long> switches;  // of the library's threads, by task id
  std::map<std::string, bool> writer;         // whether the task is the journal writer
};

// Switches between two looks: of the threads seen at both, and of the ones
// started in between (all of theirs).
long long switchesBetween(const Threads& start, const Threads& end, bool writerOnly = false) {
  long long total = 0;
  for (const auto& [task, count] : end.switches) {
    if (writerOnly && !end.writer.at(task)) continue;
    auto before = start.switches.find(task);
    total += count - (before != start.switches.end() ? before->second : 0);
  }
  return total;
}

// The library's threads, and how many the process has.
Threads threads() {
  Threads t;
  for (const bench::ThreadSample& thread : bench::threadSamples()) {
    ++t.all;
    if (thread.name.find("korvel-") == std::string::npos) continue;
    ++t.library;
    t.switches[thread.id] = thread.switches;
    t.writer[thread.id] = thread.name.find("korvel-journal") != std::string::npos;
  }
  return t;
}

// Bytes the directory's files take on the disk (allocated blocks).
unsigned long long diskBytes(const fs::path& directory) {
  unsigned long long total = 0;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(directory, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    struct stat st {};
    if (lstat(it->path().c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      total += static_cast<unsigned long long>(st.st_blocks) * 512;
    }
  }
  return total;
}

struct Figure {
  double wakeupsPerSecond = 0;
  double secondHalfPerSecond = 0;  // once settled
  long long writerSwitches = 0;
  Threads start, end;
  unsigned long long disk = 0;
  uint64_t probes = 0;
};

Figure run(bool collectorUp, tools::BeaconCollector& collector, int seconds) {
  bench::configure(collectorUp ? collector.port() : kDeadPort);
  const fs::path directory = bench::temporaryDirectory("idle");
  DurableRequestExecutor::Options o;
  o.directory = directory;
  auto executor = std::make_shared<DurableRequestExecutor>("bench.backgroundBeacons", o);
  KVRBeacon::setBackgroundSession(executor);

  const size_t before = collector.beaconCount();
  const KVRParameters parameters = bench::userEvent(20);
  for (int i = 0; i < kBeacons; ++i) KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
  if (collectorUp) {
    if (!collector.waitForBeacons(before + kBeacons, std::chrono::seconds(30)) ||
        !executor->flush(std::chrono::seconds(30))) {
      std::fprintf(stderr, "the beacons were not delivered within 30 s\n");
    }
  } else {
    // Until the host backs off after the first refused connection.
    const auto until = Clock::now() + std::chrono::seconds(30);
    while (executor->stats().hostsBackingOff == 0 && Clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  Figure f;
  const uint64_t attempts = executor->stats().attempts;
  f.start = threads();
  const auto start = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 500));
  const Threads middle = threads();
  const auto half = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(seconds * 500));
  f.end = threads();
  const auto end = Clock::now();
  const double elapsed = std::chrono::duration<double>(end - start).count();
  f.secondHalfPerSecond = static_cast<double>(switchesBetween(middle, f.end)) /
                          std::chrono::duration<double>(end - half).count();
  f.wakeupsPerSecond = static_cast<double>(switchesBetween(f.start, f.end)) / elapsed;
  f.writerSwitches = switchesBetween(f.start, f.end, true);
  f.disk = diskBytes(directory);
  f.probes = executor->stats().attempts - attempts;
  bench::tearDown(std::move(executor), directory);
  return f;
}

Settings parse(int argc, char** argv) {
  Settings s;
  bench::Options()
      .number("--seconds", s.seconds)
      .number("--runs", s.runs)
      .text("--only", s.only, "idle|down")
      .readOrExit(argc, argv);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = parse(argc, argv);
  std::printf("load average at start: %s\n", bench::loadAverage().c_str());
  std::printf("%d beacons, then %d s idle, %d runs per state\n\n", kBeacons, settings.seconds,
              settings.runs);
  std::printf("%-16s %10s %12s %14s %14s %12s %10s %10s %8s\n", "state", "wakeups/s",
              "2nd half/s", "writer's (all)",
              "threads start", "threads end", "all end", "disk KiB", "probes");

  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.keepBeacons = false;
  tools::BeaconCollector collector(collectorOptions);
  if (!collector.start()) {
    std::fprintf(stderr, "cannot listen on 127.0.0.1\n");
    return 1;
  }

  for (const bool up : {true, false}) {
    const char* name = up ? "idle" : "down";
    if (!settings.only.empty() && settings.only != name) continue;
    std::vector<double> rates;
    std::vector<double> settled;
    for (int r = 0; r < settings.runs; ++r) {
      const Figure f = run(up, collector, settings.seconds);
      rates.push_back(f.wakeupsPerSecond);
      settled.push_back(f.secondHalfPerSecond);
      std::printf("%-16s %10.2f %12.2f %14lld %14d %12d %10d %10.1f %8llu\n",
                  up ? "idle" : "collector down", f.wakeupsPerSecond, f.secondHalfPerSecond,
                  f.writerSwitches, f.start.library,
                  f.end.library, f.end.all, static_cast<double>(f.disk) / 1024.0,
                  static_cast<unsigned long long>(f.probes));
      std::fflush(stdout);
    }
    std::sort(rates.begin(), rates.end());
    std::sort(settled.begin(), settled.end());
    std::printf("%-16s %10.2f %12.2f   (medians, wake-ups per second)\n\n",
                up ? "idle" : "collector down", rates[rates.size() / 2], settled[settled.size() / 2]);
  }
  std::printf("load average at end: %s\n", bench::loadAverage().c_str());
  return 0;
}
