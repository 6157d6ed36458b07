// A bare beacon sink on the loopback interface for long beacons: it answers
// the library's GETs (HTTP/1.1, keep-alive) whatever the length of their
// request line, where BeaconCollector's server (cpp-httplib as packaged)
// refuses a line over 8 KiB with 414 before any handler sees it. It only
// counts: each request's clientbeaconuuid goes to onAnswer with the status
// it got. It can fail every n-th request, drop connections or answer slowly,
// and be stopped and started again on the same port.
//
// One thread accepts, one thread serves each connection.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>

namespace korvel::tools {

class BeaconSink {
 public:
  struct Options {
    int port = 0;  // 0: an ephemeral port
    // Every failEvery-th request (0: none) gets failStatus.
    int failEvery = 0;
    int failStatus = 503;
    std::chrono::milliseconds delay{0};  // before each answer
    // Called for every request with its beacon's uuid (empty when it has
    // none) and the status it got (0: the connection was dropped instead);
    // from the connections' threads, one call at a time.
    std::function<void(const std::string& uuid, int status)> onAnswer;
  };

  explicit BeaconSink(Options options);
  ~BeaconSink();
  BeaconSink(const BeaconSink&) = delete;
  BeaconSink& operator=(const BeaconSink&) = delete;

  // Binds (SO_REUSEADDR) and starts serving; false when the port cannot be bound.
  bool start();
  // Closes the listening socket and every connection, and joins the threads.
  void stop();
  int port() const { return port_; }
  // The next count requests get their connection closed without an answer.
  void dropNext(int count) { dropLeft_ += count; }

 private:
  void acceptLoop();
  void serve(int fd);
  // Answers one request; false when the connection is to be closed.
  bool answer(int fd, const std::string& target);

  Options options_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> dropLeft_{0};
  std::atomic<uint64_t> requests_{0};
  std::thread acceptor_;

  foundation::internal::Mutex mutex_;
  std::vector<int> connections_ KORVEL_GUARDED_BY(mutex_);
  std::vector<std::thread> servers_ KORVEL_GUARDED_BY(mutex_);
  foundation::internal::Mutex callbackMutex_;  // held while onAnswer runs: one call at a time
};

}  // namespace korvel::tools
