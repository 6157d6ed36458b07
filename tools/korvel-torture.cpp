// korvel-torture: the library under kills and faults, bounded in time.
//
//   korvel-torture [--seconds 120] [--rounds N] [--seed S] [--work DIR]
//                  [--grace SECONDS] [--keep] [--verbose]
//
// The parent runs a loopback collector in-process (collector/BeaconSink.h:
// it takes request lines of any length, as the long beacons need) and plays
// rounds. Each
// round starts one host process (two for "second host"): korvel-torture
// itself in "host" mode, which calls Reporting::start() on the data folder
// with the collector's endpoint and the library's defaults (1 MiB
// segments, 200 ms sync, libcurl) and reports beacons from 1-4 threads at
// a random rate (2/s to flat out), every n-th carrying an 8-20 KB value,
// writing each uuid to the parent once its report call returned. A round
// ends with a SIGKILL at a random instant, or (now and then) with a clean
// shutdown. Each round also draws one fault:
//
//   collector down, flaky (5xx and dropped connections) or slow; the data
//   folder deleted and made again, renamed away, or replaced by a file for
//   a while; RLIMIT_NOFILE 48; RLIMIT_FSIZE 256 KiB (SIGXFSZ at its
//   default); the folder read-only for a while; a second host process on
//   the same folder at once.
//
// After every round a census process opens the store paused and lists the
// stored uuids, so that each beacon's absence is pinned to the round that
// caused it. At the end a clean round drains everything. It prints returned,
// received, still stored, destroyed by a fault, unstorable, given up after
// refusals and lost (see torture/Ledger.h for what each means), and host
// deaths (a host ended by any signal but our SIGKILL). Exit status 1 when
// anything was lost or a host died or hung, 2 on a usage or set-up error.
// Run as root, hosts run as "nobody" so that a read-only folder is one.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "torture/Collector.h"
#include "torture/Ledger.h"
#include "torture/TortureHost.h"

#include <korvel/foundation/internal/Mutex.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace {

namespace fs = std::filesystem;
using namespace korvel::tools::torture;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;
using Clock = std::chrono::steady_clock;

struct Options {
  double seconds = 120;
  int rounds = 100'000;
  uint64_t seed = 0;
  bool seedGiven = false;
  std::string work;
  double grace = 1.0;
  bool keep = false;
  bool verbose = false;
};

double secondsSince(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// A host process and the pipe it writes its uuids to.
struct Child {
  pid_t pid = -1;
  int pipe = -1;      // read end: uuids (host) or the census listing
  std::string partial;
  bool killedByUs = false;
  bool exited = false;
  int status = 0;
  double killAt = -1;  // on the torture's clock; < 0: ends on its own
  double hangAt = 0;   // killed as hung past this
};

class Torture {
 public:
  explicit Torture(Options o)
      : options_(std::move(o)), random_(options_.seed), ledger_(options_.grace), collector_(tally_) {}

  int run();

 private:
  struct Event {
    double at;
    std::function<void()> action;
  };

  bool setUp();
  Child spawn(const std::vector<std::string>& args, bool census);
  void playRound(int round, Fault fault);
  // Runs until every child ended and every event ran; lines from hosts go
  // to the ledger under round.
  void drive(int round, std::vector<Child>& children, std::vector<Event> events);
  void readFrom(Child& child, int round, std::vector<std::string>* lines);
  void ended(int round, Child& child, const char* what);
  bool census(int round);
  void healFolder();
  // With --verbose: what happened when.
  void note(int round, const char* what) {
    if (options_.verbose) std::printf("  round %d: %s at %.2f s\n", round, what, secondsSince(t0_));
  }
  void chownToHost(const fs::path& path);
  std::vector<std::string> hostArgs(double seconds, long budget);
  int finish();

  Options options_;
  std::mt19937_64 random_;
  Ledger ledger_;
  Tally tally_;
  Collector collector_;
  Clock::time_point t0_ = Clock::now();
  fs::path work_, data_, log_;
  std::string self_;
  bool asNobody_ = false;
  size_t hangs_ = 0, abnormalExits_ = 0, startFailures_ = 0, kills_ = 0, cleanEnds_ = 0;
  size_t censusFailures_ = 0;
  int away_ = 0;
};

bool Torture::setUp() {
  self_ = fs::read_symlink("/proc/self/exe").string();
  asNobody_ = geteuid() == 0;
  std::error_code ec;
  if (options_.work.empty()) {
    char pattern[] = "/tmp/korvel-torture-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return false;
    work_ = pattern;
  } else {
    work_ = options_.work;
    fs::create_directories(work_, ec);
  }
  // The data folder sits in a folder of the host's user, as an
  // application's does in the user's home: a host whose folder was taken
  // away can make it again.
  const fs::path home = work_ / "home";
  data_ = home / "data";
  log_ = work_ / "hosts.log";
  fs::remove_all(home, ec);
  if (mkdir(home.c_str(), 0700) != 0 || mkdir(data_.c_str(), 0700) != 0) return false;
  chmod(work_.c_str(), 0755);
  chownToHost(home);
  chownToHost(data_);
  const int log = open(log_.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0644);
  if (log < 0) return false;
  close(log);
  chownToHost(log_);
  return collector_.start(Collector::Mode::Healthy, random_);
}

void Torture::chownToHost(const fs::path& path) {
  if (asNobody_ && chown(path.c_str(), 65534, 65534) != 0) {
    std::fprintf(stderr, "korvel-torture: chown %s: %s\n", path.c_str(), std::strerror(errno));
  }
}

Child Torture::spawn(const std::vector<std::string>& args, bool census) {
  Child child;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return child;
  std::vector<std::string> all = {self_};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  const int log = open(log_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  const pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    dup2(null, STDIN_FILENO);
    dup2(census ? fds[1] : null, STDOUT_FILENO);
    if (log >= 0) dup2(log, STDERR_FILENO);
    if (!census) dup2(fds[1], kUUIDFd);
    if (asNobody_) {
      const gid_t group = 65534;
      if (setgroups(1, &group) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(127);
    }
    execv(self_.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  if (log >= 0) close(log);
  if (null >= 0) close(null);
  if (pid < 0) {
    close(fds[0]);
    return child;
  }
  child.pid = pid;
  child.pipe = fds[0];
  fcntl(child.pipe, F_SETFL, O_NONBLOCK);
  return child;
}

void Torture::readFrom(Child& child, int round, std::vector<std::string>* lines) {
  char buffer[8192];
  for (;;) {
    const ssize_t n = read(child.pipe, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
        close(child.pipe);
        child.pipe = -1;
      }
      return;
    }
    child.partial.append(buffer, static_cast<size_t>(n));
    size_t start = 0;
    for (size_t nl; (nl = child.partial.find('\n', start)) != std::string::npos; start = nl + 1) {
      std::string line = child.partial.substr(start, nl - start);
      if (lines != nullptr) {
        lines->push_back(std::move(line));
      } else if (line.size() == 36) {
        ledger_.returned(line, round, secondsSince(t0_));
      }
    }
    child.partial.erase(0, start);
  }
}

void Torture::ended(int round, Child& child, const char* what) {
  child.exited = true;
  const int status = child.status;
  if (WIFSIGNALED(status)) {
    const int signal = WTERMSIG(status);
    if (signal == SIGKILL && child.killedByUs) {
      ++kills_;
      return;
    }
    ledger_.hostDied(round);
    std::printf("  round %d: %s %d died of %s\n", round, what, child.pid, strsignal(signal));
    return;
  }
  const int code = WEXITSTATUS(status);
  if (code == 0) {
    ++cleanEnds_;
  } else if (code == kExitStartFailed) {
    ++startFailures_;
  } else if (code != kExitNotDrained) {
    ++abnormalExits_;
    std::printf("  round %d: %s %d exited with %d\n", round, what, child.pid, code);
  }
}

void Torture::drive(int round, std::vector<Child>& children, std::vector<Event> events) {
  std::sort(events.begin(), events.end(), [](const Event& a, const Event& b) { return a.at < b.at; });
  size_t nextEvent = 0;
  for (;;) {
    const double now = secondsSince(t0_);
    while (nextEvent < events.size() && events[nextEvent].at <= now) events[nextEvent++].action();
    bool running = false;
    for (Child& child : children) {
      if (child.exited) continue;
      if (!child.killedByUs && child.killAt >= 0 && now >= child.killAt) {
        kill(child.pid, SIGKILL);
        child.killedByUs = true;
        note(round, "SIGKILL");
      }
      if (!child.killedByUs && now >= child.hangAt) {
        ++hangs_;
        std::printf("  round %d: host %d hung; killed\n", round, child.pid);
        kill(child.pid, SIGKILL);
        child.killedByUs = true;
      }
      running = true;
    }
    std::vector<pollfd> fds;
    for (Child& child : children) {
      if (child.pipe >= 0) fds.push_back({child.pipe, POLLIN, 0});
    }
    if (!running && fds.empty() && nextEvent == events.size()) break;
    double wait = 0.05;
    if (nextEvent < events.size()) wait = std::min(wait, std::max(0.0, events[nextEvent].at - now));
    if (!fds.empty()) {
      poll(fds.data(), fds.size(), static_cast<int>(wait * 1000) + 1);
    } else {
      std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    }
    for (Child& child : children) {
      if (child.pipe >= 0) readFrom(child, round, nullptr);
      if (!child.exited && waitpid(child.pid, &child.status, WNOHANG) == child.pid) {
        if (child.pipe >= 0) readFrom(child, round, nullptr);
        ended(round, child, "host");
      }
    }
  }
}

std::vector<std::string> Torture::hostArgs(double seconds, long budget) {
  const int threads = std::uniform_int_distribution<int>(1, 4)(random_);
  // A quarter flat out, the rest from 2/s to 1000/s, spread evenly on a log scale.
  double rate = 0;
  if (std::uniform_real_distribution<double>(0, 1)(random_) >= 0.25) {
    rate = std::exp(std::uniform_real_distribution<double>(std::log(2.0), std::log(1000.0))(random_)) /
           threads;
  }
  static constexpr int kLargeEvery[] = {2, 5, 10, 10, 20};
  const int largeEvery = kLargeEvery[random_() % std::size(kLargeEvery)];
  return {"host", "--dir", data_.string(), "--port", std::to_string(collector_.port()),
          "--threads", std::to_string(threads), "--rate", std::to_string(rate),
          "--seconds", std::to_string(seconds), "--max", std::to_string(budget),
          "--large-every", std::to_string(largeEvery), "--seed", std::to_string(random_() >> 12)};
}

void Torture::healFolder() {
  std::error_code ec;
  struct stat st {};
  if (lstat(data_.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) fs::remove(data_, ec);
  if (lstat(data_.c_str(), &st) != 0) {
    mkdir(data_.c_str(), 0700);
    chownToHost(data_);
  }
  chmod(data_.c_str(), 0700);
  const fs::path beacons = data_ / "beacons";
  if (lstat(beacons.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) chmod(beacons.c_str(), 0700);
  for (const auto& entry : fs::directory_iterator(work_, ec)) {
    if (entry.path().filename().string().starts_with("away-")) fs::remove_all(entry.path(), ec);
  }
}

void Torture::playRound(int round, Fault fault) {
  const double start = secondsSince(t0_);
  // Mostly short rounds; now and then a long one, in which a slow host fills
  // whole segments and lives on with them.
  const double duration = std::uniform_real_distribution<double>(0, 1)(random_) < 0.15
                              ? std::uniform_real_distribution<double>(8.0, 20.0)(random_)
                              : std::uniform_real_distribution<double>(1.0, 4.0)(random_);
  const double end = start + duration;
  // The store holds at most 10,000 waiting beacons and 64 MiB of records by
  // default: stay well under both (half the beacons long, say), so that no
  // beacon is dropped by a cap.
  size_t backlog = 0;
  {
    MutexLock lock(tally_.mutex);
    backlog = ledger_.backlog(tally_.received);
  }
  const long budget = static_cast<long>(std::clamp<double>(4000.0 - static_cast<double>(backlog), 0, 3000));
  auto at = [&](double from, double to) {
    return start + duration * std::uniform_real_distribution<double>(from, to)(random_);
  };

  std::vector<std::string> args = hostArgs(duration, budget);
  if (fault == Fault::FewDescriptors) args.insert(args.end(), {"--nofile", "48"});
  if (fault == Fault::FileSizeLimit) args.insert(args.end(), {"--fsize", "262144"});
  std::vector<Event> events;
  std::vector<Child> children;
  auto launch = [&](std::vector<std::string> hostArguments) {
    Child child = spawn(hostArguments, false);
    if (child.pid < 0) return;
    if (std::uniform_real_distribution<double>(0, 1)(random_) < 0.85) child.killAt = at(0.05, 1.0);
    child.hangAt = end + 20;
    children.push_back(std::move(child));
  };

  switch (fault) {
    case Fault::CollectorDown: {
      collector_.stop();
      events.push_back({at(0.3, 1.3), [this] { collector_.start(Collector::Mode::Healthy, random_); }});
      break;
    }
    case Fault::CollectorFlaky:
      collector_.start(Collector::Mode::Flaky, random_);
      for (int i = 0; i < 3; ++i) events.push_back({at(0, 1), [this] { collector_.dropNext(2); }});
      break;
    case Fault::CollectorSlow:
      collector_.start(Collector::Mode::Slow, random_);
      break;
    case Fault::FolderRecreated:
      events.push_back({at(0.1, 0.8), [this, round] {
                          std::error_code ec;
                          ledger_.folderTaken(round, secondsSince(t0_));
                          note(round, "folder deleted and made again");
                          fs::remove_all(data_, ec);
                          mkdir(data_.c_str(), 0700);
                          chownToHost(data_);
                        }});
      break;
    case Fault::FolderRenamed:
      events.push_back({at(0.1, 0.8), [this, round] {
                          ledger_.folderTaken(round, secondsSince(t0_));
                          note(round, "folder renamed away");
                          const fs::path away = work_ / ("away-" + std::to_string(away_++));
                          std::error_code ec;
                          fs::rename(data_, away, ec);
                        }});
      break;
    case Fault::FolderReplacedByFile: {
      const double from = at(0.1, 0.8);
      const double to = from + std::uniform_real_distribution<double>(0.3, 2.0)(random_);
      ledger_.unwritable(round, from, to);
      events.push_back({from, [this, round] {
                          std::error_code ec;
                          ledger_.folderTaken(round, secondsSince(t0_));
                          note(round, "folder replaced by a file");
                          fs::remove_all(data_, ec);
                          std::ofstream(data_) << "not a folder\n";
                        }});
      // The file goes; the host makes its folder again.
      events.push_back({to, [this] {
                          std::error_code ec;
                          fs::remove(data_, ec);
                        }});
      break;
    }
    case Fault::ReadOnlyFolder: {
      const double from = at(0.1, 0.8);
      const double to = from + std::uniform_real_distribution<double>(0.3, 2.0)(random_);
      ledger_.unwritable(round, from, to);
      events.push_back({from, [this] {
                          chmod(data_.c_str(), 0500);
                          chmod((data_ / "beacons").c_str(), 0500);
                        }});
      events.push_back({to, [this] {
                          chmod(data_.c_str(), 0700);
                          chmod((data_ / "beacons").c_str(), 0700);
                        }});
      break;
    }
    case Fault::FileSizeLimit:
      ledger_.unwritable(round, start, end + 5);
      break;
    default:
      break;
  }
  launch(args);
  if (fault == Fault::SecondHost) {
    launch(hostArgs(duration * std::uniform_real_distribution<double>(0.5, 1.0)(random_),
                    budget / 2));
  }
  drive(round, children, std::move(events));
  if (fault == Fault::CollectorDown || fault == Fault::CollectorFlaky || fault == Fault::CollectorSlow) {
    collector_.start(Collector::Mode::Healthy, random_);
  }
  healFolder();
}

bool Torture::census(int round) {
  Child child = spawn({"census", "--dir", data_.string()}, true);
  if (child.pid < 0) return false;
  std::vector<std::string> lines;
  const auto giveUp = Clock::now() + std::chrono::seconds(90);
  while (child.pipe >= 0 && Clock::now() < giveUp) {
    pollfd fd{child.pipe, POLLIN, 0};
    poll(&fd, 1, 100);
    readFrom(child, round, &lines);
  }
  if (child.pipe >= 0) {
    kill(child.pid, SIGKILL);
    close(child.pipe);
  }
  waitpid(child.pid, &child.status, 0);
  const bool complete = !lines.empty() && lines.back().starts_with("end ") &&
                        WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0;
  if (!complete) {
    ++censusFailures_;
    std::printf("  round %d: the census failed (status %d)\n", round, child.status);
    return false;
  }
  lines.pop_back();
  std::unordered_set<std::string> stored(lines.begin(), lines.end());
  MutexLock lock(tally_.mutex);
  ledger_.settle(round, tally_.received, tally_.refusals, stored);
  return true;
}

int Torture::finish() {
  // The final clean round: a healthy collector, no fault, until drained.
  const int round = ledger_.beginRound(Fault::FinalDrain);
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::vector<Child> children;
    Child child = spawn({"drain", "--dir", data_.string(), "--port", std::to_string(collector_.port()),
                         "--flush-seconds", "40"},
                        false);
    if (child.pid < 0) break;
    child.hangAt = secondsSince(t0_) + 60;
    children.push_back(std::move(child));
    drive(round, children, {});
    const int status = children[0].status;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) break;
  }
  census(round);

  const Summary s = ledger_.summary();
  {
    std::printf("\n%-27s %6s %8s %9s %10s %7s %6s %6s\n", "fault", "rounds", "returned",
                "destroyed", "unstorable", "gaveup", "lost", "deaths");
  }
  for (size_t f = 0; f < kFaultKinds; ++f) {
    const FaultFigures& k = s.perFault[f];
    if (k.rounds == 0) continue;
    std::printf("%-27s %6zu %8zu %9zu %10zu %7zu %6zu %6zu\n", faultName(static_cast<Fault>(f)),
                k.rounds, k.returned, k.destroyed, k.unstorable, k.givenUp, k.lost, k.deaths);
    for (const auto& uuid : k.lostSamples) std::printf("    lost, e.g. %s\n", uuid.c_str());
  }
  std::printf(
      "\nkorvel-torture: seed %llu, %d rounds in %.0f s: returned %zu, received %zu, still stored "
      "%zu, destroyed by faults %zu, unstorable at a kill %zu, given up after refusals %zu, "
      "lost %zu; host deaths %zu, hangs %zu, abnormal exits %zu (kills %zu, clean ends %zu, start "
      "failures %zu, census failures %zu)\n",
      static_cast<unsigned long long>(options_.seed), round, secondsSince(t0_), s.returned,
      s.received, s.stored, s.destroyed, s.unstorable, s.givenUp, s.lost, s.deaths, hangs_,
      abnormalExits_, kills_, cleanEnds_, startFailures_, censusFailures_);
  const bool failed = s.lost > 0 || s.deaths > 0 || hangs_ > 0 || abnormalExits_ > 0;
  std::printf("korvel-torture: %s\n", failed ? "FAILED" : "passed");
  std::error_code ec;
  if (failed || options_.keep) {
    std::printf("korvel-torture: data and host logs kept in %s\n", work_.c_str());
  } else {
    fs::remove_all(work_, ec);
  }
  return failed ? 1 : 0;
}

int Torture::run() {
  std::printf("korvel-torture: seed %llu\n", static_cast<unsigned long long>(options_.seed));
  std::fflush(stdout);
  if (!setUp()) {
    std::fprintf(stderr, "korvel-torture: cannot set up the work folder or the collector\n");
    return 2;
  }
  static constexpr Fault kFaults[] = {
      Fault::KillOnly,        Fault::KillOnly,          Fault::CollectorDown,
      Fault::CollectorFlaky,  Fault::CollectorSlow,     Fault::FolderRecreated,
      Fault::FolderRenamed,   Fault::FolderReplacedByFile, Fault::FewDescriptors,
      Fault::FileSizeLimit,   Fault::ReadOnlyFolder,    Fault::SecondHost};
  for (int played = 0; played < options_.rounds && secondsSince(t0_) < options_.seconds; ++played) {
    const Fault fault = kFaults[random_() % std::size(kFaults)];
    const int round = ledger_.beginRound(fault);
    playRound(round, fault);
    census(round);
    if (options_.verbose) {
      MutexLock lock(tally_.mutex);
      std::printf("round %d (%s): returned so far %zu, missing %zu\n", round, faultName(fault),
                  ledger_.summary().returned, ledger_.missing());
      std::fflush(stdout);
    }
  }
  return finish();
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--keep") {
      o.keep = true;
      continue;
    }
    if (flag == "--verbose") {
      o.verbose = true;
      continue;
    }
    if (i + 1 >= argc) return false;
    const char* value = argv[++i];
    char* end = nullptr;
    if (flag == "--seconds") {
      o.seconds = std::strtod(value, &end);
    } else if (flag == "--rounds") {
      o.rounds = static_cast<int>(std::strtol(value, &end, 10));
    } else if (flag == "--seed") {
      o.seed = std::strtoull(value, &end, 10);
      o.seedGiven = true;
    } else if (flag == "--grace") {
      o.grace = std::strtod(value, &end);
    } else if (flag == "--work") {
      o.work = value;
      end = const_cast<char*>(value) + std::strlen(value);
    } else {
      return false;
    }
    if (end == value || *end != '\0') return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && argv[1][0] != '-') {
    const std::string mode = argv[1];
    HostOptions options;
    if (!parseHostOptions(argc, argv, options)) return kExitUsage;
    if (mode == "host") return runHost(options);
    if (mode == "drain") return runDrain(options);
    if (mode == "census") return runCensus(options);
    std::fprintf(stderr, "korvel-torture: unknown mode %s\n", mode.c_str());
    return kExitUsage;
  }
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: korvel-torture [--seconds 120] [--rounds N] [--seed S] [--work DIR] "
                 "[--grace SECONDS] [--keep] [--verbose]\n");
    return 2;
  }
  if (!options.seedGiven) options.seed = std::random_device{}() ^ (uint64_t{std::random_device{}()} << 32);
  // Hosts get the default dispositions: a signal ignored here would be
  // ignored in them too.
  signal(SIGPIPE, SIG_DFL);
  signal(SIGXFSZ, SIG_DFL);
  return Torture(options).run();
}
