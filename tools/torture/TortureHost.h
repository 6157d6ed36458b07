// The host side of korvel-torture: the processes the torture starts, kills
// and restarts. Each is korvel-torture itself, run with a mode as its first
// argument:
//
//   korvel-torture host   ... reports beacons through Reporting::start()'s
//                              library, writing each returned uuid to fd 3
//   korvel-torture drain  ... starts the library and flushes what is stored
//   korvel-torture census ... lists the uuids stored in a data folder on
//                              standard output without sending any
//
// Options are "--name value" pairs (see HostOptions).
#pragma once

#include <cstdint>
#include <string>

namespace korvel::tools::torture {

// The fd a host writes "uuid\n" lines to, each after its report call returned.
constexpr int kUUIDFd = 3;

// The bundle identifier and endpoint every torture host uses.
constexpr const char* kBundleIdentifier = "com.korvel.torture";

struct HostOptions {
  std::string directory;  // the data folder (Reporting::StartOptions::dataDirectory)
  int port = 0;           // the collector's, on 127.0.0.1
  int threads = 1;
  double ratePerThread = 0;   // beacons per second per thread; 0: flat out
  double seconds = 1;         // reports for this long, then shuts down and exits 0
  long maxBeacons = 1'000;    // over all threads
  int largeEvery = 10;        // every n-th beacon carries an 8-20 KB value; 0: none
  long openFilesLimit = 0;    // RLIMIT_NOFILE when > 0
  long fileSizeLimit = 0;     // RLIMIT_FSIZE in bytes when > 0 (SIGXFSZ left at its default)
  uint64_t seed = 1;
  double flushSeconds = 45;   // drain: how long a flush may take
};

// Parses argv[2...] into options; false (with a message) on a bad one.
bool parseHostOptions(int argc, char** argv, HostOptions& options);

// The modes; each returns the process's exit code.
int runHost(const HostOptions& options);
int runDrain(const HostOptions& options);
int runCensus(const HostOptions& options);

// Exit codes a host or drain process ends with on its own.
constexpr int kExitStartFailed = 10;
constexpr int kExitNotDrained = 11;
constexpr int kExitPipeFailed = 12;
constexpr int kExitUsage = 2;

}  // namespace korvel::tools::torture
