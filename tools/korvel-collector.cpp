// korvel-collector: a beacon collector on 127.0.0.1. Prints one JSON line per
// beacon received ({"event":...,"path":...,"params":[[k,v],...]}) on
// standard output, or appends it to a file. Runs until interrupted, or until
// --exit-after beacons arrived.
//
//   korvel-collector [--port N] [--out FILE] [--fail-first N] [--fail-status S]
//                    [--retry-after VALUE] [--delay-ms N] [--drop-first N]
//                    [--exit-after N] [--configuration FILE]
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
#include "collector/ConfigurationEndpoint.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: korvel-collector [--port N] [--out FILE] [--fail-first N] "
               "[--fail-status S]\n"
               "                        [--retry-after VALUE] [--delay-ms N] [--drop-first N] "
               "[--exit-after N]\n"
               "                        [--configuration FILE]\n");
}

bool parseInt(const char* text, long min, long max, long& out) {
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < min || value > max) return false;
  out = value;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  korvel::tools::BeaconCollector::Options options;
  options.keepBeacons = false;
  std::string outPath;
  long exitAfter = 0;

  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--help" || flag == "-h") {
      usage();
      return 0;
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
  options.onBeacon = [&](const korvel::tools::CollectedBeacon& beacon) {
    out << beacon.toJsonLine() << '\n';
    out.flush();
    if (exitAfter > 0 && ++received == exitAfter) kill(getpid(), SIGTERM);
  };

  korvel::tools::BeaconCollector collector(options);
  if (!collector.start()) {
    std::fprintf(stderr, "korvel-collector: cannot listen on 127.0.0.1:%d\n", options.port);
    return 1;
  }
  std::fprintf(stderr, "korvel-collector: listening on %s\n", collector.baseURL().c_str());
  std::fflush(stderr);

  int signal = 0;
  sigwait(&signals, &signal);
  collector.stop();
  return 0;
}
