// A background request executor that keeps its queue in memory: one worker
// thread takes requests in priority order, waits while a request's
// configuration policy is not yet met, builds the endpoint at that moment and
// hands it to a transport. Nothing survives the process; see
// DurableRequestExecutor for delivery that does.
//
// Any thread may execute requests and flush; the executor owns its worker
// thread and the queued requests, and stop() (or destruction) joins the
// worker.
#pragma once

#include <korvel/export.h>

#include <deque>
#include <functional>
#include <thread>

#include <korvel/foundation/KVNNetwork.h>
#include <korvel/foundation/Mutex.h>

namespace korvel {

class KORVEL_EXPORT InProcessRequestExecutor : public KVNNetworkBackgroundRequestExecutor {
 public:
  // Delivers one request to its endpoint; true when delivered. A failed
  // attempt is retried up to the request's retry count.
  using Transport = std::function<bool(const KVNNetworkRequest&, const KVNEndpoint&)>;

  InProcessRequestExecutor(std::string sessionIdentifier, Transport transport);
  ~InProcessRequestExecutor() override;

  const std::string& backgroundSessionIdentifier() const override { return identifier_; }
  void executeRequest(KVNNetworkRequest request) noexcept override;
  bool flush(std::chrono::milliseconds deadline) override;

  // Stops the worker; requests still queued are dropped.
  void stop();

 private:
  void run() KORVEL_EXCLUDES(mutex_);

  const std::string identifier_;
  const Transport transport_;
  Mutex mutex_;
  CondVar wake_;
  CondVar drained_;
  std::deque<KVNNetworkRequest> queue_ KORVEL_GUARDED_BY(mutex_);
  size_t inFlight_ KORVEL_GUARDED_BY(mutex_) = 0;
  bool stopping_ KORVEL_GUARDED_BY(mutex_) = false;
  std::thread worker_;
};

}  // namespace korvel
