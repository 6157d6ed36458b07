// What delivery costs the host's process, with the collector in a process of
// its own (korvel-collector on 127.0.0.1), as a host sees it in production:
//
//   cpu   a fresh process starts the library (Reporting::start), reports N
//         beacons through KVRBeacon as fast as it can (or at --rate per
//         second) and flushes, to a collector that keeps nothing
//         (--no-store); the process's own CPU time (getrusage
//         RUSAGE_SELF, user and system) from the first report to the end of
//         the flush, divided by N, and the beacons per second delivered in
//         that time. The CPU is also split by thread name (the senders, the
//         journal writer, the reporting thread) from /proc/self/task; and
//         the collector's own CPU time (user and system) divided by N.
//   rss   a fresh process starts the library with nothing listening at the
//         endpoint, reports N beacons (default 100,000) and waits until the
//         host backs off and the store has synced; its peak resident memory
//         (VmHWM), the resident memory then, and the heap (RssAnon) and
//         mapped files (RssFile) parts of it, then and at their highest (read
//         every millisecond meanwhile: the libraries are some 7 MiB of the
//         files, the journal's mapped segments the rest).
//
//   ClientCostBench [--only cpu|rss] [--runs N] [--beacons N] [--queued N]
//                   [--rate N] [--concurrency N] [--collector PATH]
//
// --concurrency is StartOptions::sendConcurrency (requests on the wire at
// once; 4 unless given).
//
// Each run is a child process of its own, so that one run's threads, heap
// and files do not count in the next; for cpu each run has a collector of
// its own, which exits once it has accepted the N beacons (the proof they
// all arrived). Figures are medians over the runs with their min-max, and
// the load average is printed: they are only comparable on a quiet machine.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "support/BenchOptions.h"
#include "support/BenchSystem.h"
#include <korvel/Korvel.h>
#include <korvel/beacon/KVRBeacon.h>

namespace {

using namespace korvel;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

#ifndef KORVEL_COLLECTOR_PATH
#define KORVEL_COLLECTOR_PATH "korvel-collector"
#endif

constexpr int kDeadPort = 9;  // discard: nothing listens here

struct Settings {
  std::string only;
  int runs = 5;
  int beacons = 50'000;
  int queued = 100'000;
  int rate = 0;  // reports per second; 0: as fast as possible
  int concurrency = 4;  // StartOptions::sendConcurrency
  std::string collector = KORVEL_COLLECTOR_PATH;
};

// CPU seconds of the process's threads, by thread name.
std::map<std::string, double> cpuByThreadName() {
  std::map<std::string, double> byName;
  for (const bench::ThreadSample& thread : bench::threadSamples()) {
    byName[thread.name] += thread.cpuSeconds;
  }
  return byName;
}

Reporting::StartOptions startOptions(const fs::path& directory, int port, int concurrency) {
  Reporting::StartOptions o;
  o.sendConcurrency = concurrency;
  o.bundleIdentifier = "com.korvel.bench";
  o.dataDirectory = directory;
  o.startUserSession = false;
  o.maxStoredBeacons = 10'000'000;
  o.maxStoredBytes = uint64_t{16} << 30;
  o.logLevel = platform::LogLevel::Error;
  o.configure = [port](KVNConfiguration::Snapshot& s) {
    s.inid = "BENCH-INID-0123456789";
    s.configured = true;
    s.deviceModel = "Bench14,2";
    s.beacons.beaconEndpoint =
        "http://127.0.0.1:" + std::to_string(port) + "/b/{inid}/{appversion}/{devicemodel}";
  };
  return o;
}

// A collector process that exits after `beacons`; its port, or 0.
pid_t startCollector(const std::string& path, int beacons, int& port) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDERR_FILENO);
    close(fds[0]);
    close(fds[1]);
    const std::string count = std::to_string(beacons);
    execl(path.c_str(), path.c_str(), "--quiet", "--no-store", "--port", "0", "--exit-after",
          count.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string text;
  char buffer[256];
  port = 0;
  while (port == 0) {
    const ssize_t got = read(fds[0], buffer, sizeof buffer);
    if (got <= 0) break;
    text.append(buffer, static_cast<size_t>(got));
    const size_t at = text.find("http://127.0.0.1:");
    if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
      port = std::atoi(text.c_str() + at + std::strlen("http://127.0.0.1:"));
    }
  }
  close(fds[0]);
  return pid;
}

// Child: reports and flushes; {cpu µs/beacon, user µs, system µs, beacons/s,
// senders' µs, writer's µs, others' µs per beacon}.
std::vector<double> cpuRun(int port, int beacons, int rate, int concurrency) {
  const fs::path directory = bench::temporaryDirectory("cost");
  auto started = Reporting::start(startOptions(directory, port, concurrency));
  if (!started) {
    std::fprintf(stderr, "start failed: %s\n", started.error.c_str());
    return {};
  }
  const KVRParameters parameters = bench::userEvent(20);
  const auto threadsBefore = cpuByThreadName();
  const bench::ProcessCpu before = bench::processCpu();
  const auto start = Clock::now();
  for (int i = 0; i < beacons; ++i) {
    if (rate > 0 && i % 100 == 0) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t{i} * 1'000'000 / rate));
    }
    KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
  }
  const auto flushed = Reporting::flush(std::chrono::seconds(120));
  const auto end = Clock::now();
  const bench::ProcessCpu after = bench::processCpu();
  const auto threadsAfter = cpuByThreadName();
  Reporting::shutdown(std::chrono::seconds(10));
  std::error_code ec;
  fs::remove_all(directory, ec);
  if (!flushed || flushed.delivered < static_cast<uint64_t>(beacons)) {
    std::fprintf(stderr, "delivered %llu of %d\n", static_cast<unsigned long long>(flushed.delivered),
                 beacons);
    return {};
  }
  const double user = after.user - before.user;
  const double system = after.system - before.system;
  const double wall = std::chrono::duration<double>(end - start).count();
  double senders = 0, writer = 0, others = 0;
  for (const auto& [name, cpu] : threadsAfter) {
    const auto was = threadsBefore.find(name);
    const double used = cpu - (was != threadsBefore.end() ? was->second : 0.0);
    if (name.starts_with("korvel-send")) senders += used;
    else if (name.starts_with("korvel-journal")) writer += used;
    else others += used;
  }
  const double n = beacons;
  return {(user + system) * 1e6 / n, user * 1e6 / n, system * 1e6 / n, n / wall,
          senders * 1e6 / n, writer * 1e6 / n, others * 1e6 / n};
}

// Child: {VmHWM, VmRSS, RssAnon, RssFile, highest RssAnon, highest RssFile}
// in KiB with `queued` waiting.
std::vector<double> rssRun(int queued, int rate) {
  const fs::path directory = bench::temporaryDirectory("cost");
  auto o = startOptions(directory, kDeadPort, 4);
  if (!Reporting::start(o)) return {};
  const KVRParameters parameters = bench::userEvent(20);
  std::atomic<bool> measured{false};
  long highestAnon = 0, highestFile = 0;
  std::thread sampler([&] {
    while (!measured.load()) {
      const bench::Memory kib = bench::memory();
      highestAnon = std::max(highestAnon, kib.anonymousKiB);
      highestFile = std::max(highestFile, kib.fileKiB);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  const auto start = Clock::now();
  for (int i = 0; i < queued; ++i) {
    if (rate > 0 && i % 100 == 0) {
      std::this_thread::sleep_until(start + std::chrono::microseconds(int64_t{i} * 1'000'000 / rate));
    }
    KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
  }
  // The host backs off, the writer syncs and compacts.
  Reporting::flush(std::chrono::seconds(2));
  const bench::Memory kib = bench::memory();
  measured = true;
  sampler.join();
  Reporting::shutdown(std::chrono::milliseconds(100));
  std::error_code ec;
  fs::remove_all(directory, ec);
  return {static_cast<double>(kib.peakKiB), static_cast<double>(kib.residentKiB),
          static_cast<double>(kib.anonymousKiB), static_cast<double>(kib.fileKiB),
          static_cast<double>(highestAnon), static_cast<double>(highestFile)};
}

struct Spread {
  double median = 0, min = 0, max = 0;
};

Spread spread(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  return {values[values.size() / 2], values.front(), values.back()};
}

void printSpread(const char* label, const std::vector<double>& values, const char* unit) {
  const Spread s = spread(values);
  std::printf("  %-28s median %9.2f  min %9.2f  max %9.2f  %s\n", label, s.median, s.min, s.max, unit);
}

Settings parse(int argc, char** argv) {
  Settings s;
  bench::Options()
      .text("--only", s.only, "cpu|rss")
      .number("--runs", s.runs)
      .number("--beacons", s.beacons)
      .number("--queued", s.queued)
      .number("--rate", s.rate, 0)
      .number("--concurrency", s.concurrency)
      .text("--collector", s.collector, "PATH")
      .readOrExit(argc, argv);
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = parse(argc, argv);
  signal(SIGPIPE, SIG_IGN);
  std::printf("load average at start: %s\n", bench::loadAverage().c_str());
  int failures = 0;

  if (settings.only.empty() || settings.only == "cpu") {
    std::printf("\ncpu: %d beacons a run, %d on the wire at most, %s, collector %s\n",
                settings.beacons, settings.concurrency,
                settings.rate > 0 ? (std::to_string(settings.rate) + " reports/s").c_str()
                                  : "reported as fast as possible",
                settings.collector.c_str());
    std::vector<double> total, user, system, rate, senders, writer, others, collectorCpus;
    for (int r = 0; r < settings.runs; ++r) {
      int port = 0;
      const pid_t collector = startCollector(settings.collector, settings.beacons, port);
      if (collector < 0 || port == 0) {
        std::fprintf(stderr, "cannot start %s\n", settings.collector.c_str());
        if (collector > 0) kill(collector, SIGTERM), waitpid(collector, nullptr, 0);
        return 1;
      }
      const auto f = bench::inChildProcess(
          [&] { return cpuRun(port, settings.beacons, settings.rate, settings.concurrency); });
      int status = 0;
      // The collector exits by itself once every beacon arrived; its CPU
      // time is that of the whole run (its start and idle wait are a few
      // milliseconds of it).
      const auto until = Clock::now() + std::chrono::seconds(10);
      pid_t ended = 0;
      rusage used{};
      while ((ended = wait4(collector, &status, WNOHANG, &used)) == 0 && Clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      if (ended == 0) {
        kill(collector, SIGTERM);
        wait4(collector, &status, 0, &used);
        std::fprintf(stderr, "run %d: the collector did not get every beacon\n", r + 1);
        ++failures;
      }
      const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
      const double collectorCpu =
          (seconds(used.ru_utime) + seconds(used.ru_stime)) * 1e6 / settings.beacons;
      if (f.size() != 7) {
        std::fprintf(stderr, "run %d failed\n", r + 1);
        ++failures;
        continue;
      }
      std::printf("  run %d: %6.2f us/beacon (user %5.2f, system %5.2f), %8.0f beacons/s; "
                  "senders %5.2f, writer %5.2f, others %5.2f us/beacon; collector %5.2f\n",
                  r + 1, f[0], f[1], f[2], f[3], f[4], f[5], f[6], collectorCpu);
      std::fflush(stdout);
      total.push_back(f[0]);
      user.push_back(f[1]);
      system.push_back(f[2]);
      rate.push_back(f[3]);
      senders.push_back(f[4]);
      writer.push_back(f[5]);
      others.push_back(f[6]);
      collectorCpus.push_back(collectorCpu);
    }
    printSpread("client CPU per beacon", total, "us");
    printSpread("  user", user, "us");
    printSpread("  system", system, "us");
    printSpread("  sender threads", senders, "us");
    printSpread("  journal writer", writer, "us");
    printSpread("  other threads (reports)", others, "us");
    printSpread("delivered", rate, "beacons/s");
    printSpread("collector CPU per beacon", collectorCpus, "us");
  }

  if (settings.only.empty() || settings.only == "rss") {
    std::printf("\nrss: %d beacons queued, nothing listening at the endpoint\n", settings.queued);
    std::vector<double> peak, now, anon, file, highestAnon, highestFile;
    for (int r = 0; r < settings.runs; ++r) {
      const auto f = bench::inChildProcess([&] { return rssRun(settings.queued, settings.rate); });
      if (f.size() != 6) {
        std::fprintf(stderr, "run %d failed\n", r + 1);
        ++failures;
        continue;
      }
      std::printf("  run %d: peak %7.2f MiB, resident %7.2f MiB (heap %7.2f, files %7.2f); "
                  "highest heap %7.2f, files %7.2f\n",
                  r + 1, f[0] / 1024, f[1] / 1024, f[2] / 1024, f[3] / 1024, f[4] / 1024, f[5] / 1024);
      std::fflush(stdout);
      peak.push_back(f[0] / 1024);
      now.push_back(f[1] / 1024);
      anon.push_back(f[2] / 1024);
      file.push_back(f[3] / 1024);
      highestAnon.push_back(f[4] / 1024);
      highestFile.push_back(f[5] / 1024);
    }
    printSpread("peak RSS (VmHWM)", peak, "MiB");
    printSpread("RSS at the end", now, "MiB");
    printSpread("  heap (RssAnon)", anon, "MiB");
    printSpread("  mapped files (RssFile)", file, "MiB");
    printSpread("highest heap (RssAnon)", highestAnon, "MiB");
    printSpread("highest mapped files", highestFile, "MiB");
  }

  std::printf("\nload average at end: %s\n", bench::loadAverage().c_str());
  return failures == 0 ? 0 : 1;
}
