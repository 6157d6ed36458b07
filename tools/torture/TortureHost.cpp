#include "torture/TortureHost.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <korvel/Korvel.h>
#include <korvel/beacon/KVRReliableNetworkingTask.h>
#include <korvel/foundation/KeyedArchive.h>
#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/DurableRequestExecutor.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::tools::torture {

namespace {

using Clock = std::chrono::steady_clock;

bool parseNumber(const char* text, double min, double max, double& out) {
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (errno != 0 || end == text || *end != '\0' || !(value >= min && value <= max)) return false;
  out = value;
  return true;
}

Reporting::StartOptions startOptions(const HostOptions& options) {
  Reporting::StartOptions start;
  start.bundleIdentifier = kBundleIdentifier;
  start.dataDirectory = options.directory;
  start.appVersion = "1.0";
  const std::string endpoint = "http://127.0.0.1:" + std::to_string(options.port) +
                               "/b/{inid}/{appversion}/{devicemodel}";
  start.configure = [endpoint](KVNConfiguration::Snapshot& c) {
    c.inid = "TORTURE-INID";
    c.configured = true;
    c.deviceModel = "Torture1,1";
    c.beacons.beaconEndpoint = endpoint;
  };
  return start;
}

// Letters and digits only: the value travels percent-encoded in the URL, so
// its size on the wire is its size here.
std::string largeValue(std::mt19937_64& random) {
  static constexpr char kAlphabet[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  const size_t length = std::uniform_int_distribution<size_t>(8 * 1024, 20 * 1024)(random);
  std::string value(length, 'a');
  for (char& c : value) c = kAlphabet[random() % (sizeof kAlphabet - 1)];
  return value;
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void applyLimit(int resource, long value, const char* name) {
  if (value <= 0) return;
  rlimit limit{static_cast<rlim_t>(value), static_cast<rlim_t>(value)};
  if (setrlimit(resource, &limit) != 0) {
    std::fprintf(stderr, "korvel-torture host: cannot set %s: %s\n", name, std::strerror(errno));
  }
}

}  // namespace

bool parseHostOptions(int argc, char** argv, HostOptions& o) {
  for (int i = 2; i < argc; i += 2) {
    const std::string flag = argv[i];
    if (i + 1 >= argc) {
      std::fprintf(stderr, "korvel-torture: %s needs a value\n", flag.c_str());
      return false;
    }
    const char* value = argv[i + 1];
    double number = 0;
    bool ok = true;
    if (flag == "--dir") {
      o.directory = value;
    } else if (flag == "--port") {
      ok = parseNumber(value, 1, 65535, number);
      o.port = static_cast<int>(number);
    } else if (flag == "--threads") {
      ok = parseNumber(value, 1, 64, number);
      o.threads = static_cast<int>(number);
    } else if (flag == "--rate") {
      ok = parseNumber(value, 0, 1e6, o.ratePerThread);
    } else if (flag == "--seconds") {
      ok = parseNumber(value, 0, 3600, o.seconds);
    } else if (flag == "--max") {
      ok = parseNumber(value, 0, 1e9, number);
      o.maxBeacons = static_cast<long>(number);
    } else if (flag == "--large-every") {
      ok = parseNumber(value, 0, 1e6, number);
      o.largeEvery = static_cast<int>(number);
    } else if (flag == "--nofile") {
      ok = parseNumber(value, 0, 1e7, number);
      o.openFilesLimit = static_cast<long>(number);
    } else if (flag == "--fsize") {
      ok = parseNumber(value, 0, 1e15, number);
      o.fileSizeLimit = static_cast<long>(number);
    } else if (flag == "--seed") {
      ok = parseNumber(value, 0, 1.8e19, number);
      o.seed = static_cast<uint64_t>(number);
    } else if (flag == "--flush-seconds") {
      ok = parseNumber(value, 0, 3600, o.flushSeconds);
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "korvel-torture: bad option %s %s\n", flag.c_str(), value);
      return false;
    }
  }
  if (o.directory.empty()) {
    std::fprintf(stderr, "korvel-torture: --dir is required\n");
    return false;
  }
  return true;
}

int runHost(const HostOptions& o) {
  // A host that never touched its signals: a file size limit kills it with
  // SIGXFSZ unless the library keeps the signal from it.
  signal(SIGXFSZ, SIG_DFL);
  applyLimit(RLIMIT_NOFILE, o.openFilesLimit, "RLIMIT_NOFILE");
  applyLimit(RLIMIT_FSIZE, o.fileSizeLimit, "RLIMIT_FSIZE");

  const auto started = Reporting::start(startOptions(o));
  if (!started) {
    std::fprintf(stderr, "korvel-torture host %d: start failed: %s\n", getpid(),
                 started.error.c_str());
    return kExitStartFailed;
  }
  const auto stopAt = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(o.seconds));
  std::atomic<long> sequence{0};
  std::atomic<bool> pipeFailed{false};
  auto reporter = [&](int thread) {
    std::mt19937_64 random(o.seed * 1'000'003 + static_cast<uint64_t>(thread));
    const auto period = o.ratePerThread > 0
                            ? std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(1.0 / o.ratePerThread))
                            : Clock::duration::zero();
    auto next = Clock::now();
    while (Clock::now() < stopAt && !pipeFailed) {
      const long seq = sequence.fetch_add(1);
      if (seq >= o.maxBeacons) break;
      KVRParameters parameters{{"type", "torture"}, {"seq", static_cast<int64_t>(seq)}};
      if (o.largeEvery > 0 && seq % o.largeEvery == 0) parameters.set("blob", largeValue(random));
      const auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, parameters);
      // Only once the call returned: what the parent counts is what the
      // library promised to keep.
      if (uuid && !writeAll(kUUIDFd, *uuid + "\n")) pipeFailed = true;
      if (period > Clock::duration::zero()) {
        next += period;
        std::this_thread::sleep_until(std::min(next, stopAt));
      }
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < o.threads; ++t) threads.emplace_back(reporter, t);
  for (auto& t : threads) t.join();
  // The library keeps working (delivery, syncs) until the end of the round.
  std::this_thread::sleep_until(stopAt);
  if (pipeFailed) return kExitPipeFailed;
  Reporting::shutdown(std::chrono::seconds(3));
  return 0;
}

int runDrain(const HostOptions& o) {
  const auto started = Reporting::start(startOptions(o));
  if (!started) {
    std::fprintf(stderr, "korvel-torture drain: start failed: %s\n", started.error.c_str());
    return kExitStartFailed;
  }
  // Beacons the collector refused for good count as given up, not as pending.
  const auto flushed = Reporting::flush(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(o.flushSeconds)));
  const bool delivered = flushed.pending == 0;
  Reporting::shutdown(std::chrono::seconds(3));
  return delivered ? 0 : kExitNotDrained;
}

// Opens the data folder's store paused, with a restorer that takes each
// stored beacon's uuid and restores nothing: every stored request stays
// where it is, unsent and kept.
int runCensus(const HostOptions& o) {
  struct Found {
    Mutex mutex;
    std::set<std::string> uuids KORVEL_GUARDED_BY(mutex);
    size_t unreadable KORVEL_GUARDED_BY(mutex) = 0;
  } found;
  KVNRequestRestorers::registerRestorer(
      KVRBeacon::kRestorationKind,
      [&](std::string_view payload) -> std::optional<KVNNetworkRequest> {
        auto coder = KeyedUnarchiver::open(payload);
        auto uuid = coder ? coder->decodeString(KVRReliableNetworkingTask::kArchiveUUIDKey)
                          : std::nullopt;
        MutexLock lock(found.mutex);
        if (uuid) {
          found.uuids.insert(*uuid);
        } else {
          ++found.unreadable;
        }
        return std::nullopt;
      });
  {
    network::internal::DurableRequestExecutor::Options options;
    options.directory = std::filesystem::path(o.directory) / "beacons";
    options.startPaused = true;
    network::internal::DurableRequestExecutor executor(std::string(kBundleIdentifier) + ".census",
                                              options);
    if (!executor.syncStore(std::chrono::seconds(60))) {
      std::fprintf(stderr, "korvel-torture census: the store could not be read in time\n");
    }
  }
  MutexLock lock(found.mutex);
  std::string out;
  for (const auto& uuid : found.uuids) out += uuid + "\n";
  out += "end " + std::to_string(found.uuids.size()) + " " + std::to_string(found.unreadable) +
         "\n";
  return writeAll(STDOUT_FILENO, out) ? 0 : kExitPipeFailed;
}

}  // namespace korvel::tools::torture
