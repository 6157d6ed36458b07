// What the durable executor's files share (DurableRequestExecutor.cpp,
// DeliveryQueue.cpp, DeliveryWorkers.cpp, DeliveryWriter.cpp in network/):
// its clocks and the bound on the requests that wait whole.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <korvel/platform/Env.h>

namespace korvel::network::internal::delivery {

using Clock = std::chrono::steady_clock;

// A stored request that is about to go out keeps its request object (sent
// then without a read-back) while the stored frames of the requests ready
// to send come to at most this many bytes, those kept whole first; past
// that, and whenever a request has to wait, only its index is kept. Bounds
// the memory held whole, whatever the backlog: a request object takes a few
// times its frame, about half a MiB for beacons of 20 parameters.
inline constexpr size_t kKeptWholeBytes = 128u << 10;

inline int64_t wallMillis() { return static_cast<int64_t>(platform::env().now() * 1000.0); }
inline int64_t monotonicMillis() { return static_cast<int64_t>(platform::env().monotonicNanos() / 1'000'000); }

}  // namespace korvel::network::internal::delivery
