// The host's hooks: where the library's log lines go, and what the host
// learns about delivery.
//
// The library logs through the Env in force (korvel::platform::env()). A
// host that wants the lines in its own log installs an EnvWrapper whose
// logSink() is its own, before starting the library, for as long as the
// library runs. The default sink writes to standard error, from the level
// KORVEL_LOG_LEVEL names (debug, info, default, error, fault; "default"
// when unset). KORVEL_EXAMPLE_ENDPOINT overrides the beacon endpoint.
#include <korvel/Korvel.h>
#include <korvel/platform/Logging.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

// Forwards the library's records at `minimum` and above into the host's own
// log (here: standard output, one line each). Called from any of the
// library's threads.
class HostLogSink : public korvel::platform::LogSink {
 public:
  explicit HostLogSink(korvel::platform::LogLevel minimum) : minimum_(minimum) {}

  void write(const korvel::platform::LogRecord& record) override {
    if (record.level < minimum_) return;
    ++written_;
    const auto level = korvel::platform::logLevelName(record.level);
    std::printf("host log: %.*s [%s:%s] %s\n", static_cast<int>(level.size()), level.data(),
                record.subsystem.c_str(), record.category.c_str(), record.message.c_str());
    std::fflush(stdout);
  }
  int written() const { return written_.load(); }

 private:
  korvel::platform::LogLevel minimum_;
  std::atomic<int> written_{0};
};

// The machine's Env with the host's log sink.
class HostEnv : public korvel::platform::EnvWrapper {
 public:
  explicit HostEnv(HostLogSink& sink)
      : EnvWrapper(korvel::platform::Env::Default()), sink_(sink) {}
  korvel::platform::LogSink& logSink() override { return sink_; }

 private:
  HostLogSink& sink_;
};

}  // namespace

int main() {
  const char* endpoint = std::getenv("KORVEL_EXAMPLE_ENDPOINT");

  HostLogSink sink(korvel::platform::LogLevel::Info);
  HostEnv hostEnv(sink);
  // Installed before start() and kept until after shutdown().
  korvel::platform::ScopedEnv scopedEnv(hostEnv);

  // A start without a bundle identifier fails, says why in its result and
  // logs it: the first line in the host's log.
  korvel::Reporting::StartOptions incomplete;
  if (auto started = korvel::Reporting::start(incomplete); started) {
    std::fprintf(stderr, "started without a bundle identifier\n");
    return 1;
  } else {
    std::printf("start refused: %s\n", started.error.c_str());
  }
  if (sink.written() == 0) {
    std::fprintf(stderr, "the refused start logged nothing to the host's sink\n");
    return 1;
  }

  korvel::Reporting::StartOptions options;
  options.bundleIdentifier = "com.example.hooks";
  options.appVersion = "2.1";
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
  std::printf("beacon %s\n", uuid ? uuid->c_str() : "not made");

  // The delivery result: flush() answers whether nothing is left pending
  // (delivered, or given up for good) by the deadline.
  const bool delivered = korvel::Reporting::flush(std::chrono::seconds(10));
  std::printf("flush: %s\n", delivered ? "nothing pending" : "still pending");
  korvel::Reporting::shutdown(std::chrono::seconds(10));
  std::printf("%d log records reached the host's sink\n", sink.written());
  return uuid && delivered ? 0 : 2;
}
