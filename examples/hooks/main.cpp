// The host's hooks: where the library's log lines go, what the host learns
// about each beacon's delivery, and the counts flush() and shutdown() answer.
//
// StartOptions::logCallback takes the library's lines from logLevel up
// (without it they go to standard error, from the level KORVEL_LOG_LEVEL
// names). StartOptions::deliveryObserver hears what became of each beacon:
// delivered, will be retried, dropped, with the reason. Both are called on
// the library's threads and must return quickly. KORVEL_EXAMPLE_ENDPOINT
// overrides the beacon endpoint.
#include <korvel/Korvel.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace {

const char* outcomeName(korvel::Reporting::DeliveryEvent::Outcome outcome) {
  switch (outcome) {
    case korvel::Reporting::DeliveryEvent::Outcome::Delivered:
      return "delivered";
    case korvel::Reporting::DeliveryEvent::Outcome::WillRetry:
      return "will retry";
    case korvel::Reporting::DeliveryEvent::Outcome::Dropped:
      return "dropped";
  }
  return "?";
}

}  // namespace

int main() {
  const char* endpoint = std::getenv("KORVEL_EXAMPLE_ENDPOINT");
  std::mutex output;  // the hooks run on the library's threads
  std::atomic<int> logLines{0};
  std::atomic<int> delivered{0};

  korvel::Reporting::StartOptions options;
  options.bundleIdentifier = "com.example.hooks";
  options.appVersion = "2.1";
  options.logLevel = korvel::platform::LogLevel::Info;
  options.logCallback = [&](korvel::platform::LogLevel, std::string_view category,
                            std::string_view message) {
    ++logLines;
    std::lock_guard lock(output);
    std::printf("host log: [%.*s] %.*s\n", static_cast<int>(category.size()), category.data(),
                static_cast<int>(message.size()), message.data());
  };
  options.deliveryObserver = [&](const korvel::Reporting::DeliveryEvent& event) {
    if (event.outcome == korvel::Reporting::DeliveryEvent::Outcome::Delivered) ++delivered;
    std::lock_guard lock(output);
    std::printf("delivery: %s %s (%s)\n", outcomeName(event.outcome), event.beaconUUID.c_str(),
                event.reason.c_str());
  };
  options.configure = [&](korvel::KVNConfiguration::Snapshot& c) {
    c.inid = "INSTALLATION-ID";
    c.beacons.beaconEndpoint =
        endpoint ? endpoint : "https://beacons.example.com/b/{inid}/{appversion}/{devicemodel}";
  };
  if (auto started = korvel::Reporting::start(options); !started) {
    std::fprintf(stderr, "cannot start reporting: %s\n", started.error.c_str());
    return 1;
  }

  const auto uuid = korvel::KVRBeacon::sendBeaconOfType(korvel::KVRBeaconTypeUserEvent,
                                                        korvel::KVRParameters{{"type", "share"}});
  {
    std::lock_guard lock(output);
    std::printf("beacon %s\n", uuid ? uuid->c_str() : "not made");
  }

  // flush() tells delivered from dropped from still pending; in an if it is
  // true only when everything was delivered.
  const auto flushed = korvel::Reporting::flush(std::chrono::seconds(10));
  const auto stopped = korvel::Reporting::shutdown(std::chrono::seconds(10));
  std::printf("flush: %llu delivered, %llu dropped, %llu pending\n",
              static_cast<unsigned long long>(flushed.delivered),
              static_cast<unsigned long long>(flushed.dropped),
              static_cast<unsigned long long>(flushed.pending));
  std::printf("%d log lines reached the host, %d beacons were reported delivered\n",
              logLines.load(), delivered.load());
  return uuid && flushed && stopped && delivered.load() == 1 ? 0 : 2;
}
