#include "collector/ExpectBeacons.h"

#include <httplib.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "collector/BeaconStore.h"

namespace korvel::tools {

namespace {

std::string describe(const std::multimap<std::string, std::string>& filter) {
  if (filter.empty()) return "any beacon";
  std::string text;
  for (const auto& [k, v] : filter) text += (text.empty() ? "" : " ") + k + "=" + v;
  return text;
}

// What went wrong, in words: httplib's own names ("Connection", "Read") read
// like a message cut short.
std::string describe(httplib::Error error) {
  switch (error) {
    case httplib::Error::Connection:
      return "no connection could be made (is korvel-collector running and listening there?)";
    case httplib::Error::ConnectionTimeout:
      return "the connection timed out";
    case httplib::Error::Read:
      return "the connection broke while reading the answer";
    case httplib::Error::Write:
      return "the connection broke while sending the question";
    case httplib::Error::BindIPAddress:
      return "the local address cannot be bound";
    default:
      return "the request failed (" + httplib::to_string(error) + ")";
  }
}

}  // namespace

ExpectationResult expectBeacons(const Expectation& expectation) {
  ExpectationResult result;
  std::string error;
  if (!BeaconFilter::fromQuery(expectation.filter, &error)) {
    result.message = error;
    return result;
  }
  httplib::Client client(expectation.baseURL);
  client.set_connection_timeout(std::chrono::seconds(2));
  client.set_read_timeout(std::chrono::seconds(10));
  httplib::Params params(expectation.filter.begin(), expectation.filter.end());
  const std::string path = httplib::append_query_params("/api/count", params);
  const std::string what = describe(expectation.filter);

  const auto deadline = std::chrono::steady_clock::now() + expectation.deadline;
  for (;;) {
    const auto answer = client.Get(path);
    if (!answer) {
      result.message = "cannot reach the collector at " + expectation.baseURL + ": " +
                       describe(answer.error());
      return result;
    }
    const auto body = nlohmann::json::parse(answer->body, nullptr, false);
    if (answer->status != 200 || !body.contains("count")) {
      result.message = "the collector answered " + std::to_string(answer->status) + ": " +
                       answer->body;
      return result;
    }
    result.matched = body["count"].get<int64_t>();
    if (expectation.none) {
      const bool met = result.matched == 0;
      result.outcome = met ? ExpectationResult::Outcome::Met : ExpectationResult::Outcome::NotMet;
      result.message = met ? "no beacon matches " + what
                           : std::to_string(result.matched) + " beacons match " + what +
                                 ", expected none";
      return result;
    }
    if (result.matched >= expectation.atLeast) {
      result.outcome = ExpectationResult::Outcome::Met;
      result.message = std::to_string(result.matched) + " beacons match " + what;
      return result;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      result.outcome = ExpectationResult::Outcome::NotMet;
      result.message = "only " + std::to_string(result.matched) + " of " +
                       std::to_string(expectation.atLeast) + " beacons matching " + what +
                       " arrived within " +
                       std::to_string(expectation.deadline.count()) + " ms";
      return result;
    }
    std::this_thread::sleep_for(expectation.pollInterval);
  }
}

}  // namespace korvel::tools
