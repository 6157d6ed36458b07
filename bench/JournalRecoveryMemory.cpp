// Memory after restoring a large backlog from the journal: one process
// stores N beacons (default 1,000,000 of about 600 bytes) and reports its
// peak resident size; a second one restores them either all at once
// (recover) or streamed (recoverInBatches, keeping only what the executor
// keeps per request: its id) and reports its own.
//
//   JournalRecoveryMemory [count] [payload bytes]
//
// Not a timed benchmark: it prints sizes. Uses a scratch folder in /tmp.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/BenchSystem.h"
#include <korvel/network/internal/RequestStore.h>

using korvel::network::internal::RequestStore;
using korvel::network::internal::RequestStoreOptions;
using korvel::network::internal::StoredRequest;
using korvel::network::internal::appendFrame;
using korvel::network::internal::openJournalRequestStore;

namespace {

using namespace korvel::platform;
namespace fs = std::filesystem;

std::unique_ptr<RequestStore> open(const fs::path& dir) {
  RequestStoreOptions options;
  options.directory = dir;
  return openJournalRequestStore(options);
}

// Runs body in a child and gives its peak resident size in KiB; -1 when
// the child failed (body gives up with std::_Exit).
template <class Body>
long inChild(Body body) {
  const std::vector<double> peak = korvel::bench::inChildProcess([&]() -> std::vector<double> {
    body();
    return {static_cast<double>(korvel::bench::memory().peakKiB)};
  });
  return peak.size() == 1 ? static_cast<long>(peak[0]) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1'000'000;
  const size_t payloadBytes = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 600;
  const fs::path dir = korvel::bench::temporaryDirectory("recovery-memory");
  if (dir.empty()) return 1;

  const long queued = inChild([&] {
    auto store = open(dir);
    if (!store) std::_Exit(2);
    store->recover();
    std::string frame;
    const std::string payload(payloadBytes, 'p');
    for (size_t i = 0; i < count; ++i) {
      const uint64_t id = (uint64_t{store->epoch()} << 32) | i;
      frame.clear();
      appendFrame(frame, id, 1'700'000'000'000, 1, 2, 3, "KVRBeacon", payload);
      if (!store->append(frame, id)) std::_Exit(3);
      if (i % 10'000 == 0) store->sync({});
    }
    store->sync({});
  });
  const long whole = inChild([&] {
    auto store = open(dir);
    const auto all = store->recover();
    if (all.size() != count) std::_Exit(4);
  });
  const long streamed = inChild([&] {
    auto store = open(dir);
    std::vector<uint64_t> ids;
    ids.reserve(count);
    store->recoverInBatches(nullptr, 1024, [&](std::vector<StoredRequest>& batch) {
      for (const auto& r : batch) ids.push_back(r.id);
      return true;
    });
    if (ids.size() != count) std::_Exit(5);
  });
  std::printf("%zu beacons of %zu payload bytes, peak resident size\n", count, payloadBytes);
  std::printf("  the process that stored them      %8ld KiB\n", queued);
  std::printf("  restored at once (recover)        %8ld KiB\n", whole);
  std::printf("  streamed (recoverInBatches, ids)  %8ld KiB\n", streamed);
  std::error_code ec;
  fs::remove_all(dir, ec);
  return 0;
}
