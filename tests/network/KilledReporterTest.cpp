// A process reporting requests is killed at random instants (SIGKILL on
// POSIX, TerminateProcess on Windows), while its segments fill, switch, are
// synced and removed as deliveries succeed: every request whose report call
// had returned is then restored and delivered from its journal.
//
// The child is this same test program, started again with KORVEL_KILL_CHILD
// in its environment: it runs its part during static initialisation and
// never reaches the tests. It writes a line to its standard output for each
// report call that returned ("R <seq>") and for each request its transport
// answered as delivered ("D <seq>", written before the answer).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <korvel/network/internal/DurableRequestExecutor.h>
#include "support/ChildOfThisProgram.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kKind = "test.killed";

KVNNetworkRequest makeRequest(long seq) {
  KVNNetworkRequest r;
  r.setPriority(1);
  r.setBackgroundSessionRetryCount(1000);  // a refusal never drops it
  r.setEndpointBuilderBlock([seq] { return KVNEndpoint("http://kill.test/r?seq=" + std::to_string(seq)); });
  r.setRestorationPayload(kKind, [seq](std::string& out) { out += std::to_string(seq); });
  return r;
}

void registerRestorer() {
  KVNRequestRestorers::registerRestorer(kKind, [](std::string_view payload) {
    return std::optional<KVNNetworkRequest>(makeRequest(std::stol(std::string(payload))));
  });
}

long seqOf(const std::string& url) { return std::stol(url.substr(url.rfind('=') + 1)); }

// Answers each request through a callback: delivered (204) or refused (503).
class ScriptedTransport : public DeliveryTransport {
 public:
  explicit ScriptedTransport(std::function<bool(long)> deliver) : deliver_(std::move(deliver)) {}
  DeliveryResponse get(const std::string& url) override {
    DeliveryResponse response;
    response.reachedServer = true;
    response.status = deliver_(seqOf(url)) ? 204 : 503;
    return response;
  }

 private:
  std::function<bool(long)> deliver_;
};

DurableRequestExecutor::Options options(const fs::path& dir, std::function<bool(long)> deliver) {
  DurableRequestExecutor::Options o;
  o.directory = dir;
  o.retryBaseDelay = 1ms;
  o.maxRetryDelay = 4ms;
  // Small segments and frequent syncs: many switches, syncs and removals
  // between two kills.
  o.syncInterval = 10ms;
  o.segmentBytes = 64u << 10;
  o.concurrency = 2;
  o.maxStoredRequests = 1'000'000;
  o.transport = [deliver](const std::atomic<bool>&) { return std::make_unique<ScriptedTransport>(deliver); };
  return o;
}

// MARK: - The child

std::mutex outputMutex;

void emit(char kind, long seq) {
  const std::string line = std::string(1, kind) + " " + std::to_string(seq) + "\n";
  std::lock_guard<std::mutex> lock(outputMutex);
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

// Reports until killed (ending by itself after 30 s), about fifty requests
// a millisecond; one answer in three is a refusal, so segments are left
// partly delivered.
[[noreturn]] void runReporter() {
  const char* dir = std::getenv("KORVEL_KILL_DIR");
  const char* first = std::getenv("KORVEL_KILL_FIRST_SEQ");
  if (dir == nullptr || first == nullptr) std::_Exit(2);
  registerRestorer();
  std::atomic<unsigned> answers{0};
  auto executor = std::make_unique<DurableRequestExecutor>(
      "kill.backgroundBeacons", options(dir, [&answers](long seq) {
        if (answers.fetch_add(1) % 3 == 0) return false;
        emit('D', seq);
        return true;
      }));
  const auto stopAt = std::chrono::steady_clock::now() + 30s;
  for (long seq = std::atol(first); std::chrono::steady_clock::now() < stopAt; ++seq) {
    executor->executeRequest(makeRequest(seq));
    emit('R', seq);
    // Paced, so that deliveries, marks and removals run between reports.
    if (seq % 50 == 0) std::this_thread::sleep_for(1ms);
  }
  std::_Exit(0);
}

const bool kIsChild = [] {
  if (std::getenv("KORVEL_KILL_CHILD") != nullptr) runReporter();
  return false;
}();

// MARK: - The parent

TEST(KilledReporterTest, EveryReturnedRequestIsDeliveredAfterAKillAtARandomInstant) {
  ASSERT_FALSE(kIsChild);
  registerRestorer();
  std::mt19937 random(std::random_device{}());
  const fs::path dir =
      fs::temp_directory_path() / ("korvel-kill-" + std::to_string(random() % 100'000'000));

  std::set<long> returned;
  std::set<long> arrived;  // delivered by a child before its kill, or by the restoring executor
  size_t restoredDeliveries = 0;
  size_t deliveredBeforeKills = 0;
  constexpr int kRounds = 5;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    testing::ChildOfThisProgram reporter;
    ASSERT_TRUE(reporter.start({"KORVEL_KILL_CHILD=report", "KORVEL_KILL_DIR=" + dir.string(),
                                "KORVEL_KILL_FIRST_SEQ=" + std::to_string(round * 1'000'000L)},
                               "KORVEL_KILL_"));
    // A random number of returned report calls, then a random few hundred
    // microseconds: anywhere inside a report call, a sync or a removal.
    const size_t killAfter = returned.size() + std::uniform_int_distribution<size_t>(200, 8000)(random);
    std::string line;
    const auto take = [&] {
      if (line.size() < 3) return;
      const long seq = std::stol(line.substr(2));
      if (line[0] == 'R') {
        returned.insert(seq);
      } else {
        arrived.insert(seq);
        ++deliveredBeforeKills;
      }
    };
    while (returned.size() < killAfter && reporter.readLine(line)) take();
    std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 800)(random)));
    EXPECT_TRUE(reporter.kill()) << "the reporter ended on its own";
    while (reporter.readLine(line)) take();  // what it wrote before the kill

    // This process restores the journal the killed one left and delivers it.
    std::mutex mutex;
    std::set<long> delivered;
    {
      DurableRequestExecutor executor("kill.backgroundBeacons", options(dir, [&](long seq) {
                                         std::lock_guard<std::mutex> lock(mutex);
                                         delivered.insert(seq);
                                         return true;
                                       }));
      ASSERT_TRUE(executor.flush(60s)) << "the restored requests could not all be delivered";
    }
    restoredDeliveries += delivered.size();
    arrived.insert(delivered.begin(), delivered.end());
  }

  size_t lost = 0;
  for (long seq : returned) {
    if (arrived.contains(seq)) continue;
    if (++lost <= 5) ADD_FAILURE() << "request " << seq << " was returned and never delivered";
  }
  EXPECT_EQ(lost, 0u) << "of " << returned.size() << " returned requests";
  EXPECT_GE(returned.size(), size_t{kRounds * 50});
  EXPECT_GT(restoredDeliveries, 0u) << "no kill left anything to restore";
  EXPECT_GT(deliveredBeforeKills, 0u) << "the reporters delivered nothing before their kills";
  std::printf("%zu requests returned by %d killed reporters: %zu delivered before the kills, %zu after "
              "restarts, %zu lost\n",
              returned.size(), kRounds, deliveredBeforeKills, restoredDeliveries, lost);
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace korvel::network::internal
