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

#include <cstddef>
#include <functional>
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
  void executeRequest(KVNNetworkRequest request) noexcept override;
  bool flush(std::chrono::milliseconds deadline) override;

  // Stops the worker; requests still queued are dropped.
  void stop();

  InProcessRequestExecutor(const InProcessRequestExecutor&) = delete;
  InProcessRequestExecutor& operator=(const InProcessRequestExecutor&) = delete;

 private:
  // The queue, its lock and the worker's signals (State, defined with the
  // code) live in place inside the object, so that executing a request costs
  // neither an allocation nor a pointer to follow beyond the queue's own.
  // The storage's size and alignment are part of the ABI; the code checks
  // that State fits.
  struct State;
  static constexpr std::size_t kStateSize = 320;
  State& state() noexcept;

  const std::string identifier_;
  const Transport transport_;
  alignas(std::max_align_t) unsigned char state_[kStateSize];
  std::thread worker_;
};

}  // namespace korvel
