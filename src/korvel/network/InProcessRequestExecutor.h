// A background request executor that keeps its queue in memory: one worker
// thread takes requests in priority order, waits while a request's
// configuration policy is not yet met, builds the endpoint at that moment and
// hands it to a transport. Nothing survives the process; see
// DurableRequestExecutor for delivery that does.
#pragma once

#include <korvel/export.h>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <korvel/foundation/KVNNetwork.h>

namespace korvel {

class KORVEL_EXPORT InProcessRequestExecutor : public KVNNetworkBackgroundRequestExecutor {
 public:
  // Delivers one request to its endpoint; true when delivered. A failed
  // attempt is retried up to the request's retry count.
  using Transport = std::function<bool(const KVNNetworkRequest&, const KVNEndpoint&)>;

  InProcessRequestExecutor(std::string sessionIdentifier, Transport transport);
  ~InProcessRequestExecutor() override;

  const std::string& backgroundSessionIdentifier() const override { return identifier_; }
  void executeRequest(KVNNetworkRequest request) override;
  bool flush(std::chrono::milliseconds deadline) override;

  // Stops the worker; requests still queued are dropped.
  void stop();

 private:
  void run();

  const std::string identifier_;
  const Transport transport_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable drained_;
  std::deque<KVNNetworkRequest> queue_;
  size_t inFlight_ = 0;
  bool stopping_ = false;
  std::thread worker_;
};

}  // namespace korvel
