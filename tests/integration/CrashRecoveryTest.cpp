// A reporting process killed with SIGKILL at an arbitrary instant loses no
// beacon whose report call had returned: a second process restores and
// delivers them all, and a beacon sent twice keeps its clientbeaconuuid.
//
// The children are this same test program, started again with
// KORVEL_CRASH_CHILD in the environment: it then runs a child's part during
// static initialisation and never reaches the tests.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "collector/BeaconCollector.h"
#include "support/ChildProcess.h"
#include <korvel/beacon/KVRBeacon.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include <korvel/foundation/KVNConfiguration.h>

namespace korvel {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int kUUIDPipe = 3;  // the fd a reporting child writes "uuid seq\n" lines to

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
// itself after 30 s), "drain" restores, delivers and exits 0 when all is sent.
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
    KVRBeacon::setBackgroundSession(nullptr);
    executor.reset();
    _exit(delivered ? 0 : 3);
  }
  const auto stopAt = std::chrono::steady_clock::now() + 30s;
  for (long seq = std::atol(first); std::chrono::steady_clock::now() < stopAt; ++seq) {
    auto uuid = KVRBeacon::sendBeaconOfType(KVRBeaconTypeUserEvent, KVRParameters{{"seq", seq}});
    const std::string line = uuid.value_or("none") + " " + std::to_string(seq) + "\n";
    if (write(kUUIDPipe, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(4);
  }
  _exit(0);
}

const bool kIsChild = [] {
  if (const char* mode = std::getenv("KORVEL_CRASH_CHILD")) runChild(mode);
  return false;
}();

pid_t spawnChild(const std::string& mode, const fs::path& dir, int port, long firstSeq,
                 int pipeWrite, const std::vector<std::string>& extra = {}) {
  std::vector<std::string> variables = {
      "KORVEL_CRASH_CHILD=" + mode, "KORVEL_CRASH_DIR=" + dir.string(),
      "KORVEL_CRASH_PORT=" + std::to_string(port), "KORVEL_CRASH_FIRST_SEQ=" + std::to_string(firstSeq)};
  variables.insert(variables.end(), extra.begin(), extra.end());
  return testing::spawnSelf(variables, "KORVEL_CRASH_", pipeWrite, kUUIDPipe);
}

// Reads "uuid seq" lines until at least count arrived; the rest of a line cut
// by the kill is left in partial.
void readLines(int fd, std::string& partial, std::map<long, std::string>& reported, size_t count) {
  char buffer[4096];
  while (reported.size() < count) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return;
    partial.append(buffer, static_cast<size_t>(n));
    for (size_t nl; (nl = partial.find('\n')) != std::string::npos; partial.erase(0, nl + 1)) {
      const std::string line = partial.substr(0, nl);
      const size_t space = line.find(' ');
      reported[std::stol(line.substr(space + 1))] = line.substr(0, space);
    }
  }
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

TEST(CrashRecoveryTest, EveryReturnedBeaconArrivesAfterAKillAtAnyInstant) {
  ASSERT_FALSE(kIsChild);
  tools::BeaconCollector collector;
  ASSERT_TRUE(collector.start());
  char pattern[] = "/tmp/korvel-crash-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;

  std::mt19937 random(std::random_device{}());
  std::map<long, std::string> reported;  // seq -> uuid, over all rounds
  size_t deliveredAfterKills = 0;         // by the restoring processes
  constexpr int kRounds = 4;
  for (int round = 0; round < kRounds; ++round) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t reporter = spawnChild("report", dir, collector.port(), round * 1'000'000L, fds[1]);
    close(fds[1]);
    ASSERT_GT(reporter, 0);

    // Kill after a random number of returned reports, a random few hundred
    // microseconds later: anywhere inside a report call or a sync.
    std::string partial;
    const size_t before = reported.size();
    readLines(fds[0], partial, reported,
              before + std::uniform_int_distribution<size_t>(50, 2000)(random));
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 800)(random)));
    kill(reporter, SIGKILL);
    int status = 0;
    waitpid(reporter, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "round " << round << ": the reporter ended on its own";
    readLines(fds[0], partial, reported, SIZE_MAX);  // what was written before the kill
    close(fds[0]);

    const size_t beforeDrain = collector.beaconCount();
    const pid_t drainer = spawnChild("drain", dir, collector.port(), 0, -1);
    ASSERT_GT(drainer, 0);
    waitpid(drainer, &status, 0);
    deliveredAfterKills += collector.beaconCount() - beforeDrain;
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "round " << round << ": the second process could not deliver everything";
  }

  EXPECT_EQ(missingBeacons(collector, reported), 0u) << "of " << reported.size() << " reported beacons";
  EXPECT_GT(reported.size(), size_t{kRounds * 50});
  // The kills left work behind, so restoring was exercised.
  EXPECT_GT(deliveredAfterKills, 0u);
  std::printf("reported %zu beacons in %d killed processes; %zu delivered after restarts\n",
              reported.size(), kRounds, deliveredAfterKills);
  std::error_code ec;
  fs::remove_all(dir, ec);
}


// Removal and compaction of segments while reports keep coming: segments of
// 128 KiB, a sync every 5 ms and one answer in eight a 503 (so segments are
// left partly delivered and get compacted), and the reporting process is
// killed over and over, each new one restoring the last one's backlog.
TEST(CrashRecoveryTest, KillsDuringCompactionLoseNoReturnedBeacon) {
  ASSERT_FALSE(kIsChild);
  tools::BeaconCollector::Options collectorOptions;
  collectorOptions.failEvery = 8;
  collectorOptions.failStatus = 503;
  tools::BeaconCollector collector(collectorOptions);
  ASSERT_TRUE(collector.start());
  char pattern[] = "/tmp/korvel-compact-XXXXXX";
  ASSERT_NE(mkdtemp(pattern), nullptr);
  const fs::path dir = pattern;
  const std::vector<std::string> small = {"KORVEL_CRASH_SEGMENT_BYTES=131072",
                                          "KORVEL_CRASH_SYNC_MS=5", "KORVEL_CRASH_SHORT_BACKOFF=1"};

  std::mt19937 random(std::random_device{}());
  std::map<long, std::string> reported;
  constexpr int kKills = 30;
  const auto giveUpAt = std::chrono::steady_clock::now() + 60s;
  int kills = 0;
  for (; kills < kKills && std::chrono::steady_clock::now() < giveUpAt; ++kills) {
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    const pid_t reporter =
        spawnChild("report", dir, collector.port(), kills * 1'000'000L, fds[1], small);
    close(fds[1]);
    ASSERT_GT(reporter, 0);
    std::string partial;
    readLines(fds[0], partial, reported,
              reported.size() + std::uniform_int_distribution<size_t>(100, 1200)(random));
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<int>(0, 3000)(random)));
    kill(reporter, SIGKILL);
    int status = 0;
    waitpid(reporter, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "kill " << kills << ": the reporter ended on its own";
    readLines(fds[0], partial, reported, SIZE_MAX);
    close(fds[0]);
  }
  // The backlog of all those runs may take more than one drain's deadline.
  bool drained = false;
  for (int attempt = 0; attempt < 4 && !drained; ++attempt) {
    const pid_t drainer = spawnChild("drain", dir, collector.port(), 0, -1, small);
    ASSERT_GT(drainer, 0);
    int status = 0;
    waitpid(drainer, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "a draining process crashed";
    drained = WEXITSTATUS(status) == 0;
  }
  ASSERT_TRUE(drained) << "the backlog could not be delivered";

  EXPECT_EQ(missingBeacons(collector, reported), 0u) << "of " << reported.size()
                                                     << " reported beacons";
  EXPECT_GE(kills, 10);
  std::printf("reported %zu beacons in %d killed processes\n", reported.size(), kills);
  std::error_code ec;
  fs::remove_all(dir, ec);
}

}  // namespace
}  // namespace korvel
