// "korvel-collector expect": waits until a running collector holds beacons
// that match a filter, for a host's CI to assert on what its app sent.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace korvel::tools {

struct Expectation {
  std::string baseURL;  // the collector, "http://127.0.0.1:PORT"
  // Filter items as for /api/count (event=..., type=..., good=false,
  // screenname=home, ...).
  std::multimap<std::string, std::string> filter;
  int64_t atLeast = 1;  // matching beacons needed
  bool none = false;    // instead: no beacon matches (checked once)
  std::chrono::milliseconds deadline{10'000};
  std::chrono::milliseconds pollInterval{100};
};

struct ExpectationResult {
  enum class Outcome { Met, NotMet, Error };
  Outcome outcome = Outcome::Error;
  int64_t matched = 0;
  std::string message;  // one line for the CI log
};

ExpectationResult expectBeacons(const Expectation& expectation);

}  // namespace korvel::tools
