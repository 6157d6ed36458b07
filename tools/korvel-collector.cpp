// korvel-collector: a beacon collector on 127.0.0.1. Prints one JSON line per
// beacon received ({"event":...,"path":...,"params":[[k,v],...]}) on
// standard output, or appends it to a file. Runs until interrupted, or until
// --exit-after beacons arrived.
//
//   korvel-collector [--port N] [--out FILE] [--quiet] [--db FILE]
//                    [--endpoint-template T] [--allow-event NAME]...
//                    [--fail-first N] [--fail-status S]
//                    [--retry-after VALUE] [--delay-ms N] [--drop-first N]
//                    [--exit-after N] [--configuration FILE]
//   korvel-collector expect [--url URL] [--count N | --none] [--timeout S]
//                    [KEY=VALUE ...]
//
// Every request is also checked and kept in a store (in memory, or the
// SQLite file --db) that the inspector page at the printed address and its
// JSON API (/api/...) show; --endpoint-template tells where the inid and app
// version sit in the path (default /b/{inid}/{appversion}/{devicemodel});
// --allow-event accepts an event a host's web page sends (the library lets a
// page name its own).
//
// "expect" asks a running collector (--url, default http://127.0.0.1:8787,
// or $KORVEL_COLLECTOR_URL) until at least --count beacons (default 1)
// match the filter, or none with --none; exits 0 when met, 1 when not within
// --timeout seconds (default 10), 2 on a usage or connection error.
//
// --port 0 (the default) picks a free port; the port in use is printed on
// standard error as "korvel-collector: listening on http://127.0.0.1:PORT".
// With --configuration, GET /configuration/v1/configure answers with the
// JSON document in FILE (a "buckets" query item is echoed into its beacon
// parameters), so the application's configuration can be served locally.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>

#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"
#include "collector/ConfigurationEndpoint.h"
#include "collector/ExpectBeacons.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: korvel-collector [--port N] [--out FILE] [--quiet] [--db FILE]\n"
               "                        [--endpoint-template T] [--allow-event NAME]... "
               "[--fail-first N]\n"
               "                        [--fail-status S] "
               "[--retry-after VALUE] [--delay-ms N] [--drop-first N] "
               "[--exit-after N]\n"
               "                        [--configuration FILE]\n"
               "       korvel-collector expect [--url URL] [--count N | --none] [--timeout S] "
               "[KEY=VALUE ...]\n");
}

bool parseInt(const char* text, long min, long max, long& out) {
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < min || value > max) return false;
  out = value;
  return true;
}

int expect(int argc, char** argv) {
  korvel::tools::Expectation expectation;
  const char* fromEnv = std::getenv("KORVEL_COLLECTOR_URL");
  expectation.baseURL = fromEnv ? fromEnv : "http://127.0.0.1:8787";
  for (int i = 0; i < argc; ++i) {
    const std::string arg = argv[i];
    long number = 0;
    if (arg == "--none") {
      expectation.none = true;
    } else if (arg == "--url" && i + 1 < argc) {
      expectation.baseURL = argv[++i];
    } else if (arg == "--count" && i + 1 < argc && parseInt(argv[++i], 0, 1'000'000'000, number)) {
      expectation.atLeast = number;
    } else if (arg == "--timeout" && i + 1 < argc && parseInt(argv[++i], 0, 86'400, number)) {
      expectation.deadline = std::chrono::seconds(number);
    } else if (arg.find('=') != std::string::npos && arg.front() != '-') {
      const size_t eq = arg.find('=');
      expectation.filter.emplace(arg.substr(0, eq), arg.substr(eq + 1));
    } else {
      std::fprintf(stderr, "korvel-collector expect: bad argument %s\n", arg.c_str());
      usage();
      return 2;
    }
  }
  const auto result = korvel::tools::expectBeacons(expectation);
  using Outcome = korvel::tools::ExpectationResult::Outcome;
  std::fprintf(result.outcome == Outcome::Met ? stdout : stderr, "korvel-collector expect: %s\n",
               result.message.c_str());
  return result.outcome == Outcome::Met ? 0 : result.outcome == Outcome::NotMet ? 1 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "expect") == 0) return expect(argc - 2, argv + 2);

  korvel::tools::BeaconCollector::Options options;
  options.keepBeacons = false;
  korvel::tools::BeaconStore::Options storeOptions;
  std::string outPath;
  long exitAfter = 0;
  bool quiet = false;

  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      usage();
      return 0;
    }
    if (flag == "--quiet") {
      quiet = true;
      continue;
    }
    if (i + 1 >= argc) {
      usage();
      return 2;
    }
    const char* value = argv[++i];
    long number = 0;
    bool ok = true;
    if (flag == "--port") {
      ok = parseInt(value, 0, 65535, number);
      options.port = static_cast<int>(number);
    } else if (flag == "--out") {
      outPath = value;
    } else if (flag == "--db") {
      storeOptions.file = value;
    } else if (flag == "--allow-event") {
      storeOptions.webEvents.insert(value);
    } else if (flag == "--endpoint-template") {
      storeOptions.endpointTemplate = value;
    } else if (flag == "--fail-first") {
      ok = parseInt(value, 0, 1'000'000'000, number);
      options.failFirst = static_cast<int>(number);
    } else if (flag == "--fail-status") {
      ok = parseInt(value, 100, 599, number);
      options.failStatus = static_cast<int>(number);
    } else if (flag == "--retry-after") {
      options.retryAfter = value;
    } else if (flag == "--delay-ms") {
      ok = parseInt(value, 0, 600'000, number);
      options.delay = std::chrono::milliseconds(number);
    } else if (flag == "--drop-first") {
      ok = parseInt(value, 0, 1'000'000'000, number);
      options.dropFirst = static_cast<int>(number);
    } else if (flag == "--configuration") {
      std::ifstream in(value, std::ios::binary);
      ok = in.is_open();
      if (ok) {
        std::string document((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
        options.configuration =
            std::make_shared<korvel::tools::ConfigurationEndpoint>(std::move(document));
      }
    } else if (flag == "--exit-after") {
      ok = parseInt(value, 0, 1'000'000'000, number);
      exitAfter = number;
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "korvel-collector: bad option %s %s\n", flag.c_str(), value);
      usage();
      return 2;
    }
  }

  std::ofstream file;
  if (!outPath.empty()) {
    file.open(outPath, std::ios::app);
    if (!file) {
      std::fprintf(stderr, "korvel-collector: cannot open %s\n", outPath.c_str());
      return 1;
    }
  }
  std::ostream& out = outPath.empty() ? std::cout : file;

  // The signals end the program in the main thread below, not in a handler.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  long received = 0;
  std::string error;
  options.store = korvel::tools::BeaconStore::open(storeOptions, &error);
  if (!options.store) {
    std::fprintf(stderr, "korvel-collector: cannot open the store: %s\n", error.c_str());
    return 1;
  }

  options.onBeacon = [&](const korvel::tools::CollectedBeacon& beacon) {
    if (!quiet) {
      out << beacon.toJsonLine() << '\n';
      out.flush();
    }
    if (exitAfter > 0 && ++received == exitAfter) kill(getpid(), SIGTERM);
  };

  korvel::tools::BeaconCollector collector(options);
  if (!collector.start()) {
    std::fprintf(stderr, "korvel-collector: cannot listen on 127.0.0.1:%d\n", options.port);
    return 1;
  }
  std::fprintf(stderr, "korvel-collector: listening on %s\n", collector.baseURL().c_str());
  std::fprintf(stderr, "korvel-collector: inspector on %s/\n", collector.baseURL().c_str());
  std::fflush(stderr);

  int signal = 0;
  sigwait(&signals, &signal);
  collector.stop();
  return 0;
}
