// korvel-collector: a beacon collector on 127.0.0.1. Prints one JSON line per
// beacon received ({"event":...,"path":...,"params":[[k,v],...]}) on
// standard output, or appends it to a file. Runs until interrupted, or until
// --exit-after beacons arrived.
//
//   korvel-collector [--port N] [--out FILE] [--quiet] [--db FILE]
//                    [--endpoint-template T] [--allow-event NAME]...
//                    [--fail-first N] [--fail-status S]
//                    [--retry-after VALUE] [--delay-ms N] [--drop-first N]
//                    [--exit-after N] [--configuration FILE] [--no-store]
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

constexpr const char* kUsage =
    "usage: korvel-collector [--port N] [--out FILE] [--quiet] [--db FILE]\n"
    "                        [--endpoint-template T] [--allow-event NAME]... [--fail-first N]\n"
    "                        [--fail-status S] [--retry-after VALUE] [--delay-ms N]\n"
    "                        [--drop-first N] [--exit-after N] [--configuration FILE]\n"
    "                        [--no-store]\n"
    "       korvel-collector expect [--url URL] [--count N | --none] [--timeout S]\n"
    "                        [KEY=VALUE ...]\n"
    "       korvel-collector --help\n";

constexpr const char* kHelp =
    "\n"
    "A beacon collector on 127.0.0.1 for developing and testing a host of the\n"
    "Korvel reporting library. Prints one JSON line per beacon received\n"
    "({\"event\":...,\"path\":...,\"params\":[[k,v],...]}) and keeps every request,\n"
    "checked, for the inspector page and its JSON API at the printed address.\n"
    "Runs until interrupted (SIGINT, SIGTERM) or --exit-after beacons arrived.\n"
    "\n"
    "Options:\n"
    "  --port N               listen on port N; 0 (the default) picks a free one.\n"
    "                         The address in use is printed on standard error as\n"
    "                         \"korvel-collector: listening on http://127.0.0.1:PORT\"\n"
    "  --out FILE             append the JSON lines to FILE instead of standard output\n"
    "  --quiet                print no JSON lines\n"
    "  --db FILE              keep the checked beacons in the SQLite file FILE\n"
    "                         (created 0600) instead of in memory\n"
    "  --endpoint-template T  where the inid and app version sit in the beacon path\n"
    "                         (default /b/{inid}/{appversion}/{devicemodel})\n"
    "  --allow-event NAME     accept the event NAME that a host's web page sends\n"
    "                         (repeatable); any other unknown event is a bad beacon\n"
    "  --drop-first N         cut the first N requests off without an answer\n"
    "  --fail-first N         answer the next N requests with --fail-status\n"
    "  --fail-status S        the status of those failures (default 500)\n"
    "  --retry-after VALUE    send a Retry-After header with each failure\n"
    "  --delay-ms N           wait N ms before answering every request\n"
    "  --exit-after N         exit once N beacons were accepted\n"
    "  --configuration FILE   answer GET /configuration/v1/configure with the JSON\n"
    "                         document in FILE (a \"buckets\" query item is echoed\n"
    "                         into its beacon parameters)\n"
    "  --no-store             keep nothing and serve no inspector: answer and count\n"
    "                         only (load tests, measurements)\n"
    "  -h, --help             print this help\n"
    "\n"
    "The inspector: open the printed address in a browser. Its JSON API:\n"
    "  GET  /api/beacons, /api/good, /api/bad   beacons, newest first (filtered)\n"
    "  GET  /api/count                          {\"count\":n} of the filter\n"
    "  GET  /api/beacons/UUID                   every record of one beacon\n"
    "  GET  /api/counts, /api/sessions, /api/sessions/ID, /api/events\n"
    "  POST /api/reset                          forget every stored beacon\n"
    "Filter items: event, type, session, uuid, inid, appversion, verdict\n"
    "(good, retry, bad), good (true, false), since and until (ms since 1970),\n"
    "limit, and any other KEY=VALUE for a beacon parameter.\n"
    "\n"
    "korvel-collector expect: asks a running collector until at least --count\n"
    "beacons (default 1) match the KEY=VALUE filter items, or with --none that\n"
    "none does.\n"
    "  --url URL              the collector (default $KORVEL_COLLECTOR_URL, else\n"
    "                         http://127.0.0.1:8787)\n"
    "  --count N              how many matching beacons are needed\n"
    "  --none                 no beacon may match (checked once)\n"
    "  --timeout S            give up after S seconds (default 10)\n"
    "Exits 0 when met, 1 when not within the timeout, 2 on a usage or\n"
    "connection error. For example, in a host's CI:\n"
    "  korvel-collector --port 8787 --quiet &\n"
    "  ./my-app-tests\n"
    "  korvel-collector expect --count 3 event=pageview inid=MY-INID\n"
    "  korvel-collector expect --none good=false\n";

void usage() { std::fputs(kUsage, stderr); }

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
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::fputs(kHelp, stdout);
      return 0;
    }
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
  bool noStore = false;

  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      std::fputs(kUsage, stdout);
      std::fputs(kHelp, stdout);
      return 0;
    }
    if (flag == "--quiet") {
      quiet = true;
      continue;
    }
    if (flag == "--no-store") {
      noStore = true;
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
  if (!noStore) options.store = korvel::tools::BeaconStore::open(storeOptions, &error);
  if (!noStore && !options.store) {
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
