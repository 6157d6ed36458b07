// A reporting process killed with SIGKILL at an arbitrary instant loses no
// beacon whose report call had returned: a second process restores and
// delivers them all, and a beacon sent twice keeps its clientbeaconuuid.
//
// The children are this same test program, started again with
// KORVEL_CRASH_CHILD in the environment: it then runs a child's part during
// static initialisation and never reaches the tests.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "collector/BeaconCollector.h"
#include "support/ChildOfThisProgram.h"
#include "support/TestEnv.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/foundation/KVNConfiguration.h>

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

network::internal::DurableRequestExecutor::Options childOptions(const char* directory) {
  network::internal::DurableRequestExecutor::Options o;
  o.directory = directory;
  o.retryBaseDelay = 10ms;
  o.maxRetryDelay = 50ms;
  o.syncInterval = 50ms;
  // Small segments and a fast sync make segment removal and compaction run
  // many times between two kills.
  if (const char* bytes = std::getenv("KORVEL_CRASH_SEGMENT_BYTES")) o.segmentBytes = std::stoull(bytes);
  if (const char* ms = std::getenv("KORVEL_CRASH_SYNC_MS")) o.syncInterval = std::chrono::milliseconds(std::stol(ms));
  // Every 503 makes the collector's host back off: keep those waits short.
  if (std::getenv("KORVEL_CRASH_SHORT_BACKOFF") != nullptr) {
    o.retryBaseDelay = 1ms;
    o.maxRetryDelay = 4ms;
  }
  o.requestTimeout = 5s;
  o.maxStoredRequests = 1'000'000;  // the test counts every beacon
  return o;
}

// The child's part: "report" reports in a tight loop until killed (it stops by
// itself after 30 s), writing "uuid seq" for each report call that returned
// to its standard output; "drain" restores, delivers and exits 0 when all is
// sent.
[[noreturn]] void runChild(const std::string& mode) {
  const char* directory = std::getenv("KORVEL_CRASH_DIR");
  const char* port = std::getenv("KORVEL_CRASH_PORT");
  const char* first = std::getenv("KORVEL_CRASH_FIRST_SEQ");
  if (directory == nullptr || port == nullptr || first == nullptr) _exit(2);
  KVNConfiguration::sharedInstance().update([&](KVNConfiguration::Snapshot& s) {
    s.inid = "CRASH-INID";
    s.configured = true;
    s.deviceModel = "Crash1,1";
    s.beacons.beaconEndpoint =
        std::string("http://127.0.0.1:") + port + "/b/{inid}/{appversion}/{devicemodel}";
  });
  KVRBeacon::registerRequestRestorer();  // before the executor restores anything
  auto executor = std::make_shared<network::internal::DurableRequestExecutor>("crash.backgroundBeacons",
                                                                     childOptions(directory));
  KVRBeacon::setBackgroundSession(executor);

  if (mode == "drain") {
    const bool delivered = executor->flush(std::chrono::seconds(30));
    if (!delivered) {
      // Where it stood, for the test's output.
      const auto s = executor->stats();
      std::fprintf(stderr,
                   "drain: not done after 30 s: restored %llu, delivered %llu, attempts %llu, waiting "
                   "%llu, hosts backing off %zu, senders %zu, syncs %llu, writer idle %d\n",
                   static_cast<unsigned long long>(s.restored), static_cast<unsigned long long>(s.delivered),
                   static_cast<unsigned long long>(s.attempts), static_cast<unsigned long long>(s.waiting),
                   s.hostsBackingOff, s.senders, static_cast<unsigned long long>(s.syncs),
                   s.writerIdle ? 1 : 0);
    }
    KVRBeacon::setBackgroundSession(nullptr);
    executor.reset();
    _exit(delivered ? 0 : 3);
  }
  const auto stopAt = std::chrono::steady_clock::now() + 30s;
  for (long seq = std::atol(first); std::chrono::steady_clock::now() < stopAt; ++seq) {
    auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, KVRParameters{{"seq", seq}});
    const std::string line = uuid.value_or("none") + " " + std::to_string(seq) + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(4);
  }
  _exit(0);
}

const bool kIsChild = [] {
  if (const char* mode = std::getenv("KORVEL_CRASH_CHILD")) runChild(mode);
  return false;
}();

// A child in mode on the store in dir, delivering to the collector's port.
bool startChild(testing::ChildOfThisProgram& child, const std::string& mode, const fs::path& dir,
                int port, long firstSeq, const std::vector<std::string>& extra) {
  std::vector<std::string> variables = {
      "KORVEL_CRASH_CHILD=" + mode, "KORVEL_CRASH_DIR=" + dir.string(),
      "KORVEL_CRASH_PORT=" + std::to_string(port), "KORVEL_CRASH_FIRST_SEQ=" + std::to_string(firstSeq)};
  variables.insert(variables.end(), extra.begin(), extra.end());
  return child.start(variables, "KORVEL_CRASH_");
}

// A reporting child killed after a random number of returned report calls
// (from `least` to `most`), a random few microseconds (up to maxMicros)
// later: anywhere inside a report call, a sync or a compaction. Each
// "uuid seq" line it wrote goes into reported (seq -> uuid); false when it
// had ended by itself.
bool reportUntilKilled(const fs::path& dir, int port, long firstSeq, std::mt19937& random, size_t least,
                       size_t most, int maxMicros, std::map<long, std::string>& reported,
                       const std::vector<std::string>& extra = {}) {
  testing::ChildOfThisProgram reporter;
  EXPECT_TRUE(startChild(reporter, "report", dir, port, firstSeq, extra));
  const auto take = [&reported](const std::string& line) {
    const size_t space = line.find(' ');
    reported[std::stol(line.substr(space + 1))] = line.substr(0, space);
  };
  const size_t killAfter = reported.size() + std::uniform_int_distribution<size_t>(least, most)(random);
  std::string line;
  while (reported.size() < killAfter && reporter.readLine(line)) take(line);
  const int micros = std::uniform_int_distribution<int>(0, maxMicros)(random);
  std::this_thread::sleep_for(std::chrono::microseconds(micros));
  const bool killed = reporter.kill();
  while (reporter.readLine(line)) take(line);  // what it wrote before the kill
  return killed;
}

// A draining child run to its end: its exit code (-1: a signal ended it).
int drain(const fs::path& dir, int port, const std::vector<std::string>& extra = {}) {
  testing::ChildOfThisProgram drainer;
  if (!startChild(drainer, "drain", dir, port, 0, extra)) return -1;
  return drainer.wait();
}

// Every returned uuid arrived, with its own seq; duplicates only with the
// same uuid. Gives the number of reported beacons that never arrived, not
// counting those the server refused more often than a beacon's retries allow
// (those were given up on purpose).
size_t missingBeacons(const tools::BeaconCollector& collector,
                      const std::map<long, std::string>& reported) {
  std::map<std::string, std::string> seqOfUUID;
  for (const auto& b : collector.beacons()) {
    const auto uuid = b.value("clientbeaconuuid").value_or("");
    const auto seq = b.value("seq").value_or("");
    auto [it, inserted] = seqOfUUID.emplace(uuid, seq);
    EXPECT_EQ(it->second, seq) << "uuid " << uuid << " arrived with two different beacons";
  }
  std::map<std::string, std::string> uuidOfSeq;
  for (const auto& [uuid, seq] : seqOfUUID) {
    auto [it, inserted] = uuidOfSeq.emplace(seq, uuid);
    EXPECT_TRUE(inserted) << "seq " << seq << " arrived under two uuids";
  }
  std::map<std::string, int> refusals;
  for (const auto& r : collector.requests()) {
    if (r.status == 204) continue;
    ++refusals[tools::CollectedBeacon::decode(r.target).value("clientbeaconuuid").value_or("")];
  }
  constexpr int kAttemptsOfABeacon = 4;  // the first and three retries
  size_t missing = 0;
  size_t givenUp = 0;
  for (const auto& [seq, uuid] : reported) {
    auto it = seqOfUUID.find(uuid);
    if (it != seqOfUUID.end() && it->second == std::to_string(seq)) continue;
    if (refusals[uuid] >= kAttemptsOfABeacon) {
      ++givenUp;
    } else {
      ++missing;
      if (missing <= 5) ADD_FAILURE() << "seq " << seq << " (" << uuid << ") never arrived";
    }
  }
  if (givenUp > 0) std::printf("%zu beacons given up after refusals\n", givenUp);
  return missing;
}

class CrashRecoveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(kIsChild);
    dir_ = testing::makeTemporaryFolder("korvel-crash");
    ASSERT_FALSE(dir_.empty());
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }

  fs::path dir_;
  std::mt19937 random_{std::random_device{}()};
  std::map<long, std::string> reported_;  // seq -> uuid, over all reporters
};

TEST_F(CrashRecoveryTest, EveryReturnedBeaconArrivesAfterAKillAtAnyInstant) {
  tools::BeaconCollector collector;
  ASSERT_TRUE(collector.start());
  size_t deliveredAfterKills = 0;  // by the restoring processes
  constexpr int kRounds = 4;
  for (int round = 0; round < kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_TRUE(
        reportUntilKilled(dir_, collector.port(), round * 1'000'000L, random_, 50, 2000, 800, reported_))
        << "the reporter ended on its own";
    const size_t beforeDrain = collector.beaconCount();
    ASSERT_EQ(drain(dir_, collector.port()), 0) << "the second process could not deliver everything";
    deliveredAfterKills += collector.beaconCount() - beforeDrain;
  }

  EXPECT_EQ(missingBeacons(collector, reported_), 0u) << "of " << reported_.size() << " reported beacons";
  EXPECT_GT(reported_.size(), size_t{kRounds * 50});
  // The kills left work behind, so restoring was exercised.
  EXPECT_GT(deliveredAfterKills, 0u);
  std::printf("reported %zu beacons in %d killed processes; %zu delivered after restarts\n",
              reported_.size(), kRounds, deliveredAfterKills);
}

// Removal and compaction of segments while reports keep coming: segments of
// 128 KiB, a sync every 5 ms and one answer in eight a 503 (so segments are
// left partly delivered and get compacted), and the reporting process is
// killed over and over, each new one restoring the last one's backlog.
TEST_F(CrashRecoveryTest, KillsDuringCompactionLoseNoReturnedBeacon) {
  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.failEvery = 8;
  collectorOptions.failStatus = 503;
  tools::BeaconCollector collector(collectorOptions);
  ASSERT_TRUE(collector.start());
  const std::vector<std::string> small = {"KORVEL_CRASH_SEGMENT_BYTES=131072",
                                          "KORVEL_CRASH_SYNC_MS=5", "KORVEL_CRASH_SHORT_BACKOFF=1"};
  constexpr int kKills = 30;
  const auto giveUpAt = std::chrono::steady_clock::now() + 60s;
  int kills = 0;
  for (; kills < kKills && std::chrono::steady_clock::now() < giveUpAt; ++kills) {
    EXPECT_TRUE(reportUntilKilled(dir_, collector.port(), kills * 1'000'000L, random_, 100, 1200, 3000,
                                  reported_, small))
        << "kill " << kills << ": the reporter ended on its own";
  }
  // The backlog of all those runs may take more than one drain's deadline
  // (several under emulation, with another test beside it): draining goes
  // on while each drain delivers something, and fails only once one
  // delivers nothing.
  int drained = 1;
  size_t before = SIZE_MAX;
  for (int attempt = 0; attempt < 20 && drained > 0 && collector.beaconCount() != before; ++attempt) {
    before = collector.beaconCount();
    drained = drain(dir_, collector.port(), small);
    ASSERT_GE(drained, 0) << "a draining process crashed";
  }
  ASSERT_EQ(drained, 0) << "the backlog could not be delivered: the last drain delivered nothing";

  EXPECT_EQ(missingBeacons(collector, reported_), 0u) << "of " << reported_.size() << " reported beacons";
  EXPECT_GE(kills, 10);
  std::printf("reported %zu beacons in %d killed processes\n", reported_.size(), kills);
}

}  // namespace
}  // namespace korvel
