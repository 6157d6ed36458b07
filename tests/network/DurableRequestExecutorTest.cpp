// The durable executor's queue, retry, cap and restart rules, against a
// scripted in-process transport (no network, millisecond backoff).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

#include <korvel/network/internal/DeliveryShared.h>
#include <korvel/network/internal/DurableRequestExecutor.h>
#include "support/TestEnv.h"

using korvel::platform::ScopedEnv;

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kKind = "test.request";

// Answers from a script (204 once it runs out) and records every URL asked.
class FakeServer {
 public:
  void script(std::vector<DeliveryResponse> responses) {
    std::lock_guard lock(mutex_);
    script_.assign(responses.begin(), responses.end());
  }
  // Holds every request until release(), which answers the held ones; one
  // cancelled while held is abandoned (no connection).
  void closeGate() {
    std::lock_guard lock(mutex_);
    gated_ = true;
  }
  void release(DeliveryResponse answer) {
    std::lock_guard lock(mutex_);
    gated_ = false;
    script_.push_front(std::move(answer));
    changed_.notify_all();
  }
  void reset() {
    std::lock_guard lock(mutex_);
    script_.clear();
    urls_.clear();
    gated_ = false;
  }
  std::vector<std::string> urls() const {
    std::lock_guard lock(mutex_);
    return urls_;
  }
  bool waitForAttempts(size_t n, std::chrono::milliseconds deadline) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return urls_.size() >= n; });
  }

  DeliveryResponse handle(const std::string& url, const std::atomic<bool>& cancelled) {
    std::unique_lock lock(mutex_);
    urls_.push_back(url);
    changed_.notify_all();
    while (gated_ && !cancelled) changed_.wait_for(lock, 5ms);
    if (gated_) return DeliveryResponse{};
    if (script_.empty()) return status(204);
    DeliveryResponse r = script_.front();
    script_.pop_front();
    return r;
  }

  static DeliveryResponse status(long s) {
    DeliveryResponse r;
    r.status = s;
    r.reachedServer = true;
    return r;
  }
  static DeliveryResponse offline() {
    DeliveryResponse r;
    r.error = "Couldn't connect to server";
    return r;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<DeliveryResponse> script_;
  std::vector<std::string> urls_;
  bool gated_ = false;
};

class FakeTransport : public DeliveryTransport {
 public:
  FakeTransport(FakeServer& server, const std::atomic<bool>& cancelled)
      : server_(server), cancelled_(cancelled) {}
  DeliveryResponse get(const std::string& url) override { return server_.handle(url, cancelled_); }

 private:
  FakeServer& server_;
  const std::atomic<bool>& cancelled_;
};

// Carries up to `width` requests at once: takes that many from the feed,
// then answers them, and keeps the widest batch in widest. Its hook runs
// once, when a send() that sent something found nothing more.
class BatchTransport : public FakeTransport {
 public:
  BatchTransport(FakeServer& server, const std::atomic<bool>& cancelled, size_t width,
                 std::atomic<size_t>& widest, std::function<void()> hook = {})
      : FakeTransport(server, cancelled), width_(width), widest_(widest), hook_(std::move(hook)) {}
  size_t parallelism() const override { return width_; }
  void send(DeliveryFeed& feed) override {
    bool sent = false;
    for (;;) {
      std::vector<DeliveryJob> batch;
      DeliveryJob job;
      while (batch.size() < width_ && feed.next(job)) batch.push_back(job);
      if (batch.empty()) break;
      sent = true;
      if (batch.size() > widest_) widest_ = batch.size();
      for (const DeliveryJob& each : batch) feed.done(each.tag, get(*each.url));
    }
    if (sent && hook_) std::exchange(hook_, nullptr)();
  }

 private:
  size_t width_;
  std::atomic<size_t>& widest_;
  std::function<void()> hook_;
};

// URLs built so far by the requests below (each one read back, held or sent).
std::atomic<size_t> urlsBuilt{0};

// A request named "slow/<name>" (read back too) takes 3 ms to build its URL,
// http://fake/<name>, as on a slow machine.
KVNNetworkRequest makeRequest(const std::string& name, int priority = 1, int policy = 0,
                              int retries = 3, bool durable = true) {
  KVNNetworkRequest r;
  r.setPriority(priority);
  r.setConfigurationPolicy(policy);
  r.setBackgroundSessionRetryCount(retries);
  r.setEndpointBuilderBlock([name] {
    ++urlsBuilt;
    constexpr std::string_view kSlow = "slow/";
    if (!name.starts_with(kSlow)) return KVNEndpoint("http://fake/" + name);
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    return KVNEndpoint("http://fake/" + name.substr(kSlow.size()));
  });
  if (durable) r.setRestorationPayload(kKind, [name](std::string& out) { out += name; });
  return r;
}

// What most tests change of the executor's options. noProbe: a host that
// failed is not tried again within the test (its backoff is an hour).
struct Settings {
  bool paused = false;
  int concurrency = 2;
  bool noProbe = false;
  std::string folder = {};  // under the test's folder; empty: that folder
};

class DurableRequestExecutorTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    KVNRequestRestorers::registerRestorer(kKind, [](std::string_view payload) {
      return std::optional<KVNNetworkRequest>(makeRequest(std::string(payload)));
    });
  }

  void SetUp() override {
    scope_.emplace(env_);
    savedConfiguration_ = *KVNConfiguration::sharedInstance().snapshot();
    dir_ = testing::makeTemporaryFolder("korvel-executor");
    ASSERT_FALSE(dir_.empty());
  }

  void TearDown() override {
    std::error_code ec;
    fs::remove_all(dir_, ec);
    KVNConfiguration::sharedInstance().replace(savedConfiguration_);
    scope_.reset();
  }

  DurableRequestExecutor::Options options(const Settings& s = {}) {
    DurableRequestExecutor::Options o;
    o.directory = s.folder.empty() ? dir_ : dir_ / s.folder;
    o.startPaused = s.paused;
    o.retryBaseDelay = s.noProbe ? 1h : 1ms;
    o.maxRetryDelay = s.noProbe ? 1h : 4ms;
    o.syncInterval = 20ms;
    o.concurrency = s.concurrency;
    o.transport = [this](const std::atomic<bool>& cancelled) {
      return std::make_unique<FakeTransport>(server_, cancelled);
    };
    return o;
  }

  std::unique_ptr<DurableRequestExecutor> start(DurableRequestExecutor::Options o) {
    return std::make_unique<DurableRequestExecutor>("test.backgroundBeacons", std::move(o));
  }
  std::unique_ptr<DurableRequestExecutor> start() { return start(options()); }

  bool logged(const std::string& text) {
    return env_.logs().messagesContaining(text) > 0;
  }

  // Starts the executor again and checks that it sends count requests, each
  // once; their URLs.
  std::set<std::string> aLaterRunSendsEachOnce(size_t count) {
    auto executor = start();
    EXPECT_TRUE(executor->flush(5s));
    const auto urls = server_.urls();
    EXPECT_EQ(urls.size(), count);
    std::set<std::string> distinct(urls.begin(), urls.end());
    EXPECT_EQ(distinct.size(), count);
    return distinct;
  }

  testing::TestEnv env_;
  std::optional<ScopedEnv> scope_;
  KVNConfiguration::Snapshot savedConfiguration_;
  fs::path dir_;
  FakeServer server_;
};

TEST_F(DurableRequestExecutorTest, SendsHigherPrioritiesFirstThenInSubmissionOrder) {
  auto executor = start(options({.paused = true, .concurrency = 1}));
  executor->executeRequest(makeRequest("a", 1));
  executor->executeRequest(makeRequest("b", 5));
  executor->executeRequest(makeRequest("c", 1));
  executor->executeRequest(makeRequest("d", 5));
  executor->executeRequest(makeRequest("e", 0));
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/b", "http://fake/d", "http://fake/a",
                                          "http://fake/c", "http://fake/e"));
}

TEST_F(DurableRequestExecutorTest, HoldsRequestsUntilTheirConfigurationPolicyIsMet) {
  auto& configuration = KVNConfiguration::sharedInstance();
  configuration.update([](auto& s) {
    s.beacons.beaconEndpoint.reset();
    s.inid = "INID";
    s.configured = false;
  });
  auto executor = start();
  executor->executeRequest(makeRequest("needs-endpoint", 1, 2));
  executor->executeRequest(makeRequest("needs-configured", 1, 1));
  executor->executeRequest(makeRequest("anytime", 1, 0));
  EXPECT_FALSE(executor->flush(200ms));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/anytime"));

  configuration.setBeaconEndpoint("http://fake/{inid}");
  ASSERT_TRUE(server_.waitForAttempts(2, 5s));
  EXPECT_EQ(server_.urls().back(), "http://fake/needs-endpoint");
  configuration.setConfigured(true);
  EXPECT_TRUE(executor->flush(5s));
  EXPECT_EQ(server_.urls().size(), 3u);
}

// Server errors are retried up to the retry count, a refusal drops the
// request at once, and waiting for the network uses up no retry.
TEST_F(DurableRequestExecutorTest, RetriesServerErrorsUpToTheRetryCountAndDropsRefusals) {
  const auto offline = FakeServer::offline();
  const auto status = FakeServer::status;
  struct Case {
    const char* name;  // the request's too
    std::vector<DeliveryResponse> answers;
    int retries;
    size_t attempts;
    uint64_t delivered;
    const char* log;  // nullptr: none asked for
  };
  const Case cases[] = {
      {"flaky", {status(500), status(503), status(200)}, 3, 3, 1, nullptr},
      {"down", {status(500), status(429), status(408), status(502)}, 2, 3, 0,
       "after 3 failed attempts, the last HTTP 408: GET http://fake/down"},
      {"bad", {status(400)}, 3, 1, 0, "refused with HTTP 400"},
      {"patient", {offline, offline, offline, offline, offline, status(204)}, 1, 6, 1, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.reset();
    env_.logs().clear();
    auto executor = start(options({.folder = c.name}));
    server_.script(c.answers);
    executor->executeRequest(makeRequest(c.name, 1, 0, c.retries));
    ASSERT_TRUE(executor->flush(5s));
    EXPECT_EQ(server_.urls().size(), c.attempts);
    EXPECT_EQ(executor->stats().delivered, c.delivered);
    EXPECT_EQ(executor->stats().droppedByServer, 1 - c.delivered);
    if (c.log != nullptr) {
      EXPECT_TRUE(logged(c.log));
    }
  }
}

TEST_F(DurableRequestExecutorTest, BuildsTheEndpointWhenSendingNotWhenQueued) {
  auto executor = start(options({.paused = true}));
  auto target = std::make_shared<std::atomic<int>>(1);
  KVNNetworkRequest r;
  r.setEndpointBuilderBlock(
      [target] { return KVNEndpoint("http://fake/v" + std::to_string(target->load())); });
  executor->executeRequest(r);
  *target = 2;
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/v2"));
}

TEST_F(DurableRequestExecutorTest, PastTheCapTheOldestAreDroppedAndCounted) {
  auto o = options({.paused = true, .concurrency = 1});
  o.maxStoredRequests = 3;
  auto executor = start(o);
  for (const char* name : {"1", "2", "3", "4", "5"}) executor->executeRequest(makeRequest(name));
  ASSERT_TRUE(executor->syncStore(5s));
  EXPECT_TRUE(logged("dropped the 2 oldest requests: more than 3 were waiting"));
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/3", "http://fake/4", "http://fake/5"));
  EXPECT_EQ(executor->stats().droppedOverCap, 2u);
}

TEST_F(DurableRequestExecutorTest, RequestsOlderThanTheAgeCapAreDropped) {
  auto o = options({.paused = true});
  o.maxAge = 60s;
  {
    auto executor = start(o);
    executor->executeRequest(makeRequest("old"));
    env_.setNow(env_.now() + 45);
    executor->executeRequest(makeRequest("younger"));
  }
  // Both are stored; by the next start the first has passed the cap.
  env_.setNow(env_.now() + 30);
  o.startPaused = false;
  auto executor = start(o);
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/younger"));
  EXPECT_EQ(executor->stats().droppedTooOld, 1u);
  EXPECT_TRUE(logged("dropped 1 requests older than 60 s"));
}

// Stored requests come back with their own priority; memory-only ones are
// gone, and those no restorer knows stay stored, unsent, run after run.
TEST_F(DurableRequestExecutorTest, ARestartSendsWhatWasNotDeliveredAndOnlyThat) {
  {
    auto executor = start();
    executor->executeRequest(makeRequest("delivered"));
    ASSERT_TRUE(executor->flush(5s));
    executor->setPaused(true);
    executor->executeRequest(makeRequest("pending-1"));
    executor->executeRequest(makeRequest("pending-2", 3));
    executor->executeRequest(makeRequest("memory-only", 1, 0, 3, false));
    KVNNetworkRequest unknown = makeRequest("unknown");
    unknown.setRestorationPayload("kind.nobody.registered", [](std::string& out) { out += "x"; });
    executor->executeRequest(unknown);
  }
  for (int run = 0; run < 2; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    // One sender: two may finish out of the order they picked in.
    auto executor = start(options({.concurrency = 1}));
    EXPECT_TRUE(executor->flush(5s));
    EXPECT_EQ(executor->stats().restored, run == 0 ? 2u : 0u);
    auto stored = executor->syncStore(5s);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->storedRequests, 1u);
  }
  EXPECT_THAT(server_.urls(),
              ElementsAre("http://fake/delivered", "http://fake/pending-2", "http://fake/pending-1"));
  EXPECT_TRUE(logged("1 stored requests could not be restored"));
}

// A request that cannot be stored, as its payload cannot be encoded or no
// folder can be used, is kept in memory and sent all the same.
TEST_F(DurableRequestExecutorTest, ARequestThatCannotBeStoredIsKeptInMemoryAndSent) {
  const fs::path file = dir_ / "not-a-directory";
  std::ofstream(file) << "x";
  struct Case {
    const char* name;
    KVNNetworkRequest::PayloadEncoder encoder;  // empty: the store's folder is a file
    const char* log;  // nullptr: none asked for
  };
  const Case cases[] = {
      {"throws", [](std::string&) { throw std::runtime_error("cannot encode"); }, nullptr},
      {"cuts", [](std::string& out) { out.clear(); }, nullptr},  // must only append
      {"no-folder", {}, "kept in memory only"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    server_.reset();
    env_.logs().clear();
    auto o = options({.paused = true});
    if (!c.encoder) o.directory = file;
    auto executor = start(o);
    KVNNetworkRequest r = makeRequest(c.name);
    if (c.encoder) r.setRestorationPayload(kKind, c.encoder);
    executor->executeRequest(r);
    // Without a folder there is no store to sync.
    const auto stored = executor->syncStore(5s);
    ASSERT_EQ(stored.has_value(), bool(c.encoder));
    EXPECT_EQ(stored ? stored->storedRequests : 0u, 0u);
    EXPECT_FALSE(executor->stats().durable);
    executor->setPaused(false);
    ASSERT_TRUE(executor->flush(5s));
    EXPECT_THAT(server_.urls(), ElementsAre(std::string("http://fake/") + c.name));
    if (c.log != nullptr) {
      EXPECT_TRUE(logged(c.log));
    }
  }
}

// A transfer that does not end: flush gives up at its deadline, and
// shutdown abandons it.
TEST_F(DurableRequestExecutorTest, ShutdownAbandonsATransferInProgressAndKeepsTheRequest) {
  server_.closeGate();
  {
    auto executor = start();
    executor->executeRequest(makeRequest("slow"));
    ASSERT_TRUE(server_.waitForAttempts(1, 5s));
    auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(executor->flush(100ms));
    EXPECT_GE(std::chrono::steady_clock::now() - before, 100ms);
    before = std::chrono::steady_clock::now();
    executor.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
  }
  server_.release(FakeServer::status(204));
  auto executor = start();
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/slow", "http://fake/slow"));
}

TEST_F(DurableRequestExecutorTest, FlushWhilePausedDoesNotWaitForHeldRequests) {
  auto executor = start(options({.paused = true}));
  EXPECT_TRUE(executor->flush(5s)) << "nothing held: the store's sync is waited for";
  executor->executeRequest(makeRequest("held"));
  // A held request cannot leave before the deadline, so the answer is at once.
  EXPECT_FALSE(executor->flush(1h));
  executor->setPaused(false);
  EXPECT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/held"));
}

// MARK: - Storage faults

TEST_F(DurableRequestExecutorTest, AVanishedDirectoryIsMadeAgainWithEverythingWaitingInIt) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows does not let a folder whose files are open be removed";
#endif
  {
    auto o = options({.paused = true});
    o.segmentBytes = 4096;  // several segments, some closed, one open
    auto executor = start(o);
    for (int i = 0; i < 30; ++i) executor->executeRequest(makeRequest("before-" + std::to_string(i)));
    ASSERT_TRUE(executor->syncStore(5s));
    fs::remove_all(dir_);
    executor->executeRequest(makeRequest("after"));
    ASSERT_TRUE(executor->syncStore(5s));
    ASSERT_TRUE(executor->syncStore(5s));
    EXPECT_TRUE(fs::is_directory(dir_));
    EXPECT_TRUE(executor->stats().durable);
    EXPECT_EQ(env_.logs().messagesContaining("vanished"), 1u);
    EXPECT_TRUE(logged("stored the 31 waiting requests there again"));
  }
  // A later run finds all of them there.
  EXPECT_TRUE(aLaterRunSendsEachOnce(31).contains("http://fake/after"));
}

TEST_F(DurableRequestExecutorTest, RequestsTheStoreRefusedAreStoredOnceItTakesAppendsAgain) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows does not let a folder whose files are open be removed";
#endif
  {
    auto o = options({.paused = true});
    o.segmentBytes = 4096;
    auto executor = start(o);
    ASSERT_TRUE(executor->syncStore(5s));
    fs::remove_all(dir_);
    std::ofstream(dir_) << "a file where the folder was";
    // Past the open segment's room: the first go to the files still held
    // open (read back into memory when they are let go), the rest are
    // refused, as no segment can be made.
    const std::string large(900, 'x');
    for (int i = 0; i < 40; ++i) {
      executor->executeRequest(makeRequest("during-" + std::to_string(i) + large));
      if (i % 4 == 3) {
        ASSERT_TRUE(executor->syncStore(5s));
      }
    }
    EXPECT_FALSE(executor->stats().durable);
    fs::remove(dir_);  // the folder can be made again
    ASSERT_TRUE(executor->syncStore(5s));
    ASSERT_TRUE(executor->syncStore(5s));
    EXPECT_TRUE(executor->stats().durable);
    EXPECT_TRUE(logged("requests kept in memory while the store could not take them"));
    // Ended as a kill would: nothing was sent.
  }
  aLaterRunSendsEachOnce(40);  // every request returned during the outage is stored
}

// MARK: - One backoff per host

TEST_F(DurableRequestExecutorTest, AnOfflineHostGetsOneProbeAtATimeAndNewReportsWaitQuietly) {
  auto executor = start(options({.noProbe = true}));
  server_.script({FakeServer::offline()});
  executor->executeRequest(makeRequest("first"));
  ASSERT_TRUE(server_.waitForAttempts(1, 5s));
  EXPECT_FALSE(executor->flush(100ms));
  ASSERT_EQ(executor->stats().hostsBackingOff, 1u);

  for (int i = 0; i < 100; ++i) executor->executeRequest(makeRequest("later-" + std::to_string(i)));
  EXPECT_FALSE(executor->flush(200ms));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/first"));
  const auto stats = executor->stats();
  EXPECT_EQ(stats.attempts, 1u);
  EXPECT_EQ(stats.waiting, 101u);
  EXPECT_TRUE(logged("backing off from http://fake after Couldn't connect to server"));
}

TEST_F(DurableRequestExecutorTest, OnlyTheProbeGoesUntilTheHostAnswersThenAllGoAtOnce) {
  auto o = options({.paused = true, .concurrency = 4});
  // A probe is due a millisecond or two after each failure, and the backlog
  // builds its URLs slowly (as on a slow machine): a probe falls due while
  // a sender builds one that has not learnt its host backs off.
  o.retryBaseDelay = 1ms;
  o.maxRetryDelay = 2ms;
  auto executor = start(o);
  for (int i = 0; i < 200; ++i) {
    executor->executeRequest(makeRequest((i < 4 ? "" : "slow/") + std::to_string(1000 + i)));
  }
  // Every answer until the host is back is a refused connection or a 503.
  std::vector<DeliveryResponse> failures(4, FakeServer::offline());
  failures.push_back(FakeServer::status(503));
  failures.resize(30, FakeServer::offline());
  server_.script(failures);
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(10s));
  const auto urls = server_.urls();
  ASSERT_EQ(urls.size(), 200u + failures.size()) << "one attempt per request and per failed probe";
  // Only the four taken at once went out before the host answered: they
  // failed and waited, and from then on one of them at a time was the probe.
  // None of the backlog went out early as a probe of its own.
  for (size_t i = 0; i < failures.size(); ++i) {
    EXPECT_THAT(urls[i], ::testing::AnyOf("http://fake/1000", "http://fake/1001", "http://fake/1002",
                                        "http://fake/1003"))
        << "attempt " << i << " went out while its host backed off";
  }
  EXPECT_EQ(executor->stats().delivered, 200u);
  EXPECT_EQ(executor->stats().hostsBackingOff, 0u);
  EXPECT_TRUE(logged("http://fake answers again"));
}

// Polls the executor's figures until until() holds; false at the deadline.
template <typename Until>
bool eventually(DurableRequestExecutor& executor, Until until, std::chrono::milliseconds deadline = 5s) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!until(executor.stats())) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

// With nothing unsynced and nothing left to do the writer has no timer,
// whether nothing is pending or everything waits for a host that backs
// off; a report wakes it to sync that report (no flush asks), and it
// sleeps again after.
TEST_F(DurableRequestExecutorTest, TheWriterSleepsWithoutATimerUntilWorkArrives) {
  struct Case {
    const char* name;
    bool hostDown;
  };
  for (const Case& c : {Case{"nothing pending", false}, Case{"host backing off", true}}) {
    SCOPED_TRACE(c.name);
    server_.reset();
    // One sender: the one refused attempt is the first request's.
    auto o = options({.concurrency = 1, .noProbe = true, .folder = c.hostDown ? "down" : "idle"});
    o.syncInterval = 1ms;  // many timer wake-ups in no time, if there were a timer
    auto executor = start(o);
    if (c.hostDown) server_.script({FakeServer::offline()});
    for (int i = 0; i < 3; ++i) executor->executeRequest(makeRequest("r" + std::to_string(i)));
    if (c.hostDown) {
      ASSERT_TRUE(eventually(*executor, [](const auto& s) { return s.hostsBackingOff == 1; }));
    } else {
      ASSERT_TRUE(executor->flush(5s));
    }
    ASSERT_TRUE(eventually(*executor, [](const auto& s) { return s.writerIdle; }));

    // Paused, so that no sender takes it: the writer alone must sync it.
    executor->setPaused(true);
    const uint64_t syncs = executor->stats().syncs;
    executor->executeRequest(makeRequest("after"));
    EXPECT_TRUE(eventually(*executor, [syncs](const auto& s) { return s.syncs > syncs; }));
    EXPECT_TRUE(eventually(*executor, [](const auto& s) { return s.writerIdle; }));
    EXPECT_EQ(executor->stats().waiting, c.hostDown ? 4u : 1u);
    EXPECT_EQ(server_.urls().size(), c.hostDown ? 1u : 3u);
  }
}

// One sender while little is sent; a backlog starts more, up to the
// concurrency, and the extra ones end once there is nothing to send.
TEST_F(DurableRequestExecutorTest, ABacklogStartsMoreSendersAndTheyEndAfterAnIdleSpell) {
  auto o = options({.concurrency = 3});
  o.idleSenderTimeout = 1ms;
  auto executor = start(o);
  EXPECT_EQ(executor->stats().senders, 1u);

  // Answered one by one: one sender is enough.
  for (int i = 0; i < 5; ++i) {
    executor->executeRequest(makeRequest("single-" + std::to_string(i)));
    ASSERT_TRUE(executor->flush(5s));
  }
  EXPECT_EQ(executor->stats().senders, 1u);

  // Every transfer hangs until released: the backlog starts a sender per
  // transfer, up to three, also when it arrives while the one sender is
  // already on the wire (no report wakes a busy sender).
  server_.closeGate();
  executor->executeRequest(makeRequest("burst-0"));
  ASSERT_TRUE(server_.waitForAttempts(5 + 1, 5s));
  for (int i = 1; i < 20; ++i) executor->executeRequest(makeRequest("burst-" + std::to_string(i)));
  ASSERT_TRUE(server_.waitForAttempts(5 + 3, 5s));
  EXPECT_EQ(executor->stats().senders, 3u);
  server_.release(FakeServer::status(204));
  ASSERT_TRUE(executor->flush(10s));
  EXPECT_EQ(executor->stats().delivered, 25u);
  EXPECT_EQ(server_.urls().size(), 25u);

  EXPECT_TRUE(eventually(*executor, [](const auto& s) { return s.senders == 1; }));
  // The one left still sends, and a new backlog starts senders again.
  server_.closeGate();
  for (int i = 0; i < 10; ++i) executor->executeRequest(makeRequest("again-" + std::to_string(i)));
  ASSERT_TRUE(server_.waitForAttempts(25 + 3, 5s));
  EXPECT_EQ(executor->stats().senders, 3u);
  server_.release(FakeServer::status(204));
  ASSERT_TRUE(executor->flush(10s));
  EXPECT_EQ(executor->stats().delivered, 35u);
}

// A transport that carries several requests at once takes the whole
// concurrency on one sender: a backlog starts no other, and the requests
// still go out in order with every answer settled.
TEST_F(DurableRequestExecutorTest, ATransportThatCarriesSeveralSendsABacklogOnOneSender) {
  auto o = options({.paused = true, .concurrency = 4});
  std::atomic<int> made{0};
  std::atomic<size_t> widest{0};
  o.transport = [&](const std::atomic<bool>& cancelled) {
    ++made;
    return std::make_unique<BatchTransport>(server_, cancelled, 4, widest);
  };
  auto executor = start(o);
  server_.script({FakeServer::status(503)});  // the first of a batch: retried
  for (int i = 0; i < 40; ++i) executor->executeRequest(makeRequest("r" + std::to_string(i)));
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(10s));
  const auto stats = executor->stats();
  EXPECT_EQ(stats.delivered, 40u);
  EXPECT_EQ(stats.attempts, 41u);
  EXPECT_EQ(stats.senders, 1u);
  EXPECT_EQ(made, 1);
  EXPECT_EQ(widest, 4u);
  const auto urls = server_.urls();
  ASSERT_EQ(urls.size(), 41u);
  EXPECT_EQ(urls[0], "http://fake/r0");
  EXPECT_EQ(urls[1], "http://fake/r1");
}

// A report handed over while the only sender is between its last look at
// the queue and its sleep (it wakes nobody then: no sender sleeps), and
// queued by another thread before the sender sleeps (the writer's sync,
// or a figures call, takes the hand-offs): the sender must not sleep on it.
TEST_F(DurableRequestExecutorTest, AReportQueuedAsTheSenderFinishesIsSentWithoutAnotherReport) {
  // One sender either way: one that carries one with a concurrency of one,
  // and one that carries the whole concurrency.
  for (const size_t width : {1u, 4u}) {
    SCOPED_TRACE(width);
    server_.reset();
    auto o = options({.concurrency = static_cast<int>(width), .folder = std::to_string(width)});
    std::function<void()> hook;  // the transport's, run as the sender finishes
    std::atomic<size_t> widest{0};
    o.transport = [&](const std::atomic<bool>& cancelled) {
      return std::make_unique<BatchTransport>(server_, cancelled, width, widest, hook);
    };
    std::unique_ptr<DurableRequestExecutor> executor;
    hook = [&] {
      executor->executeRequest(makeRequest("late"));
      (void)executor->stats();  // takes the hand-off into the queue
    };
    executor = start(o);
    executor->executeRequest(makeRequest("first"));
    EXPECT_TRUE(server_.waitForAttempts(2, 3s)) << "the late report waits for another one";
    EXPECT_TRUE(executor->flush(3s));
    EXPECT_THAT(server_.urls(), ElementsAre("http://fake/first", "http://fake/late"));
  }
}

// A sender with answers on the wire does not spend its look at the queue
// settling a whole backlog whose host backs off (each read back to learn
// its host): it stops early, lets the answers in, and is asked again at
// once. Before, a restored backlog of thousands kept a probe's answer
// waiting until every one of them had been looked at.
TEST_F(DurableRequestExecutorTest, ALookAtTheQueueStopsEarlyWhileAnswersWait) {
  // Sends two, answers the first with a 503 (its host backs off), then
  // looks at the queue once with the second still on the wire.
  class TwoOnTheWire final : public DeliveryTransport {
   public:
    explicit TwoOnTheWire(FakeServer& server) : server_(server) {}
    DeliveryResponse get(const std::string&) override { return DeliveryResponse{}; }
    size_t parallelism() const override { return 4; }
    void send(DeliveryFeed& feed) override {
      if (!looked_) {
        DeliveryJob first;
        DeliveryJob second;
        if (!feed.next(first)) return;  // still paused
        looked_ = true;
        ASSERT_TRUE(feed.next(second));
        const std::string secondURL = *second.url;
        feed.done(first.tag, FakeServer::status(503));
        const size_t before = urlsBuilt;
        DeliveryJob none;
        tookDuringLook = feed.next(none);
        builtDuringLook = urlsBuilt - before;
        askedAgainSoon = feed.askAgainSoon();
        server_.handle(secondURL, cancelled_);
        feed.done(second.tag, FakeServer::status(204));  // the host answers again
      }
      DeliveryJob job;
      while (feed.next(job)) feed.done(job.tag, server_.handle(*job.url, cancelled_));
    }
    bool tookDuringLook = true;
    size_t builtDuringLook = 0;
    bool askedAgainSoon = false;

   private:
    FakeServer& server_;
    std::atomic<bool> cancelled_{false};
    bool looked_ = false;
  };
  auto o = options({.paused = true, .concurrency = 4, .noProbe = true});  // no probe during the look
  TwoOnTheWire* transport = nullptr;
  o.transport = [&](const std::atomic<bool>&) {
    auto made = std::make_unique<TwoOnTheWire>(server_);
    transport = made.get();
    return made;
  };
  auto executor = start(o);
  constexpr int kBacklog = 300;
  for (int i = 0; i < kBacklog; ++i) executor->executeRequest(makeRequest("r" + std::to_string(i)));
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(10s));
  EXPECT_FALSE(transport->tookDuringLook) << "its host backs off";
  EXPECT_TRUE(transport->askedAgainSoon);
  EXPECT_LE(transport->builtDuringLook, 32u) << "of " << kBacklog - 2 << " waiting";
  EXPECT_GT(transport->builtDuringLook, 0u);
  // Every one goes out once the host answers again, the first twice.
  EXPECT_EQ(executor->stats().delivered, size_t{kBacklog});
  EXPECT_EQ(server_.urls().size(), size_t{kBacklog});
}

TEST_F(DurableRequestExecutorTest, RetryAfterHoldsTheHostAndSurvivesARestart) {
  {
    auto executor = start();
    DeliveryResponse busy = FakeServer::status(503);
    busy.retryAfter = "3600";
    server_.script({busy});
    executor->executeRequest(makeRequest("asked-to-wait"));
    ASSERT_TRUE(server_.waitForAttempts(1, 5s));
    EXPECT_FALSE(executor->flush(100ms));
    executor->executeRequest(makeRequest("new-while-waiting"));
    EXPECT_FALSE(executor->flush(100ms));
    EXPECT_EQ(server_.urls().size(), 1u) << "a new request is not let through";
  }
  EXPECT_TRUE(fs::exists(dir_ / "hosts"));
  auto executor = start();
  EXPECT_FALSE(executor->flush(200ms));
  EXPECT_EQ(server_.urls().size(), 1u);
  EXPECT_EQ(executor->stats().hostsBackingOff, 1u);
  EXPECT_TRUE(logged("http://fake asked for no requests before"));
}

TEST_F(DurableRequestExecutorTest, HostsAreSchemeHostAndPort) {
  auto executor = start(options({.concurrency = 1, .noProbe = true}));
  server_.script({FakeServer::offline()});
  auto to = [](std::string url) {
    KVNNetworkRequest r;
    r.setEndpointBuilderBlock([url] { return KVNEndpoint(url); });
    return r;
  };
  executor->executeRequest(to("http://down:8080/a?x=1"));
  ASSERT_TRUE(server_.waitForAttempts(1, 5s));
  EXPECT_FALSE(executor->flush(100ms));
  executor->executeRequest(to("http://down:8080/b"));
  executor->executeRequest(to("http://down:8081/c"));
  executor->executeRequest(to("https://down:8080/d"));
  executor->executeRequest(to("http://user@down:8080/e"));
  // Other hosts' requests go out at the next look at the queue.
  ASSERT_TRUE(server_.waitForAttempts(3, 5s));
  EXPECT_FALSE(executor->flush(100ms));
  EXPECT_THAT(server_.urls(), ElementsAre("http://down:8080/a?x=1", "http://down:8081/c",
                                          "https://down:8080/d"));
}

// MARK: - Bounds and log lines

TEST_F(DurableRequestExecutorTest, AnOversizeRequestIsDroppedAtOnceWithOneLogLine) {
  auto o = options();
  o.maxRequestBytes = 1000;
  auto executor = start(o);
  KVNNetworkRequest big = makeRequest(std::string(1001, 'x'));
  executor->executeRequest(big);
  executor->executeRequest(big);
  KVNNetworkRequest longURL = makeRequest("short", 1, 0, 3, false);
  longURL.setEndpointBuilderBlock([] { return KVNEndpoint("http://fake/" + std::string(1000, 'u')); });
  executor->executeRequest(longURL);
  executor->executeRequest(makeRequest("fits"));
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/fits"));
  EXPECT_EQ(executor->stats().droppedOversize, 3u);
  EXPECT_EQ(env_.logs().messagesContaining("dropped a request"), 2u)
      << "one for the payloads, one for the URL";
  EXPECT_TRUE(logged("dropped a request of 1001 bytes: more than 1000 bytes are never sent"));
}

// Past the byte bound the oldest are dropped; purged requests give their
// bytes back to it.
TEST_F(DurableRequestExecutorTest, TheByteBoundDropsTheOldestAndPurgedOnesGiveTheirBytesBack) {
  struct Case {
    std::string purged;  // reported and purged first
    std::string reported;
    std::string sent;
    uint64_t droppedOverCap;
  };
  for (const Case& c : {Case{"", "abc", "bc", 1}, Case{"ab", "cd", "cd", 0}}) {
    SCOPED_TRACE(std::string("purged: ") + c.purged);
    server_.reset();
    auto o = options({.paused = true, .concurrency = 1, .folder = c.reported});
    // Room for two of these records, not three.
    o.maxStoredBytes = 2 * (12 + 30 + std::string(kKind).size() + 100) + 50;
    auto executor = start(o);
    for (char name : c.purged) executor->executeRequest(makeRequest(std::string(100, name)));
    EXPECT_EQ(executor->purge(), c.purged.size());
    for (char name : c.reported) executor->executeRequest(makeRequest(std::string(100, name)));
    executor->setPaused(false);
    ASSERT_TRUE(executor->flush(5s));
    EXPECT_THAT(server_.urls(), ElementsAre("http://fake/" + std::string(100, c.sent[0]),
                                            "http://fake/" + std::string(100, c.sent[1])));
    EXPECT_EQ(executor->stats().droppedOverCap, c.droppedOverCap);
  }
}

TEST_F(DurableRequestExecutorTest, RepeatedLogLinesAreCollapsedWithACount) {
  auto executor = start();
  std::vector<DeliveryResponse> refusals(40, FakeServer::status(400));
  server_.script(refusals);
  for (int i = 0; i < 40; ++i) executor->executeRequest(makeRequest("refused"));
  ASSERT_TRUE(executor->flush(5s));
  executor.reset();  // the last sync writes what was collapsed
  std::vector<std::string> lines;
  for (const auto& m : env_.logs().messages()) {
    if (m.find("refused with HTTP 400") != std::string::npos) lines.push_back(m);
  }
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[1], ::testing::HasSubstr("(and 39 more like it)"));
}

// MARK: - Waiting requests are read back from the store

TEST_F(DurableRequestExecutorTest, StoredRequestsAreReadBackWhenSentAndOthersKeptWhole) {
  static std::atomic<int> restored;
  restored = 0;  // again when the test is repeated
  KVNRequestRestorers::registerRestorer("test.counted", [](std::string_view payload) {
    ++restored;
    return std::optional<KVNNetworkRequest>(makeRequest(std::string(payload)));
  });
  auto executor = start(options({.paused = true, .concurrency = 1}));  // in order
  for (const char* name : {"one", "two", "three"}) {
    KVNNetworkRequest r = makeRequest(name);
    // The request's own builder would give another URL than its payload.
    r.setEndpointBuilderBlock([] { return KVNEndpoint("http://fake/not-the-stored-one"); });
    r.setRestorationPayload("test.counted", [name](std::string& out) { out += name; });
    executor->executeRequest(r);
  }
  executor->executeRequest(makeRequest("memory-only", 1, 0, 3, false));
  executor->setPaused(false);
  ASSERT_TRUE(executor->flush(5s));
  EXPECT_THAT(server_.urls(), ElementsAre("http://fake/one", "http://fake/two",
                                          "http://fake/three", "http://fake/memory-only"));
  EXPECT_EQ(restored.load(), 3);
}

// A burst reported while the sender is busy: its first requests go out
// from memory, as many as their stored frames come to kKeptWholeBytes, and
// the rest are read back from the store, in order all the same.
TEST_F(DurableRequestExecutorTest, TheFirstOfABurstGoOutFromMemoryUpToTheirBytes) {
  static std::atomic<size_t> restored;
  restored = 0;
  KVNRequestRestorers::registerRestorer("test.keptBytes", [](std::string_view payload) {
    ++restored;
    return std::optional<KVNNetworkRequest>(makeRequest(std::string(payload)));
  });
  constexpr size_t kPayload = 4000;
  constexpr size_t kCount = 120;
  server_.closeGate();
  auto executor = start(options({.concurrency = 1}));
  std::vector<std::string> urls;
  for (size_t i = 0; i < kCount; ++i) {
    std::string name = std::to_string(1000 + i);
    name.resize(kPayload, 'x');
    urls.push_back("http://fake/" + name);
    KVNNetworkRequest r = makeRequest(name);
    r.setRestorationPayload("test.keptBytes", [name](std::string& out) { out += name; });
    executor->executeRequest(r);
    // The first is on the wire (whole, nothing was waiting); the others wait.
    if (i == 0) {
      ASSERT_TRUE(server_.waitForAttempts(1, 5s));
    }
  }
  server_.release(FakeServer::status(204));
  ASSERT_TRUE(executor->flush(10s));
  EXPECT_EQ(server_.urls(), urls);
  const size_t keptOfTheWaiting = kCount - 1 - restored.load();
  // Never more than the bound: each frame holds more than its payload.
  EXPECT_LE(keptOfTheWaiting, delivery::kKeptWholeBytes / kPayload);
  // And not fewer than it allows (a frame's head and checksum are small).
  EXPECT_GE(keptOfTheWaiting, delivery::kKeptWholeBytes / (kPayload + 256));
}

// MARK: - Purge

TEST_F(DurableRequestExecutorTest, APurgedRequestOnTheWireIsNeverQueuedAgain) {
  struct Case {
    const char* name;
    DeliveryResponse answer;
    uint64_t delivered;
  };
  const Case cases[] = {
      {"no connection", FakeServer::offline(), 0},
      {"server error", FakeServer::status(503), 0},
      {"delivered all the same", FakeServer::status(204), 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    server_.reset();
    server_.closeGate();
    const auto o = options({.concurrency = 1, .folder = c.name});
    {
      auto executor = start(o);
      executor->executeRequest(makeRequest("purged"));
      ASSERT_TRUE(server_.waitForAttempts(1, 5s));
      EXPECT_EQ(executor->purge(), 1u);
      server_.release(c.answer);
      ASSERT_TRUE(executor->flush(5s));
      EXPECT_EQ(server_.urls().size(), 1u);
      const auto stats = executor->stats();
      EXPECT_EQ(stats.waiting, 0u);
      EXPECT_EQ(stats.delivered, c.delivered);
    }
    // Nor does a restart send it.
    auto executor = start(o);
    ASSERT_TRUE(executor->flush(5s));
    EXPECT_EQ(server_.urls().size(), 1u);
    EXPECT_EQ(executor->stats().restored, 0u);
  }
}

// MARK: - Age

constexpr double kDaySeconds = 86'400;
constexpr uint64_t kDayNanos = 86'400ull * 1'000'000'000ull;

// Within a run requests age with the monotonic clock, whatever the wall
// clock is set to; across restarts with a clock that never runs backwards.
TEST_F(DurableRequestExecutorTest, AgeComesFromAClockThatNeverRunsBackwards) {
  struct Case {
    const char* name;
    bool restart;             // checked by the next run, or by the one that stored them
    double wallWhenReported;  // days from the first run
    double wallAtCheck;
    uint64_t kept;
  };
  const Case cases[] = {
      {"set 8 days forward", false, 0, 8, 3},
      {"made while 30 days behind, then corrected", false, -30, 0, 3},
      // Stamped no earlier than the first run's clock, not 30 days back.
      {"made while 30 days behind, restored once corrected", true, -30, 1.0 / 24, 3},
      // Taken for just made; they age from there, not kept for good.
      {"restored while the clock is 30 days behind", true, 0, -30, 3},
      // A device off for longer than the cap: they are too old.
      {"restored 8 days later", true, 0, 8, 0},
  };
  const double t0 = env_.now();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto o = options({.paused = true, .folder = c.name});
    env_.setNow(t0);
    if (c.restart) start(o).reset();  // a first run keeps the store's clock
    env_.setNow(t0 + c.wallWhenReported * kDaySeconds);
    auto executor = start(o);
    for (const char* name : {"a", "b", "c"}) executor->executeRequest(makeRequest(name));
    if (c.restart) executor.reset();
    env_.setNow(t0 + c.wallAtCheck * kDaySeconds);
    if (c.restart) executor = start(o);
    ASSERT_TRUE(executor->syncStore(5s));
    EXPECT_EQ(executor->stats().restored, c.restart ? c.kept : 0u);
    EXPECT_EQ(executor->stats().droppedTooOld, 3 - c.kept);
    EXPECT_EQ(executor->stats().waiting, c.kept);
    // They still age with the time that really passes.
    env_.advanceMonotonic(8 * kDayNanos);
    ASSERT_TRUE(executor->syncStore(5s));
    EXPECT_EQ(executor->stats().droppedTooOld, 3u);
    EXPECT_EQ(executor->stats().waiting, 0u);
  }
}

// MARK: - The observer

std::string describeEvent(const DurableRequestExecutor::Event& e) {
  using Outcome = DurableRequestExecutor::Event::Outcome;
  const char* outcome = e.outcome == Outcome::Delivered   ? "delivered"
                        : e.outcome == Outcome::WillRetry ? "will retry"
                                                          : "dropped";
  return std::string(outcome) + " [" + e.uuid + "] " + e.reason + " x" + std::to_string(e.count);
}

TEST_F(DurableRequestExecutorTest, TheObserverIsToldWhatBecameOfEachRequest) {
  std::mutex mutex;
  std::vector<std::string> seen;
  auto o = options({.concurrency = 1});  // in order
  o.observer = [&](const DurableRequestExecutor::Event& e) {
    std::lock_guard lock(mutex);
    seen.push_back(describeEvent(e));
  };
  {
    auto executor = start(o);
    server_.script({FakeServer::status(204), FakeServer::status(404), FakeServer::status(503),
                    FakeServer::status(204), FakeServer::status(500)});
    executor->executeRequest(makeRequest("a?clientbeaconuuid=U1"));
    ASSERT_TRUE(executor->flush(5s));
    executor->executeRequest(makeRequest("b?clientbeaconuuid=U2&k=v"));
    ASSERT_TRUE(executor->flush(5s));
    executor->executeRequest(makeRequest("c?k=v&clientbeaconuuid=U3"));
    ASSERT_TRUE(executor->flush(5s));
    executor->executeRequest(makeRequest("d?clientbeaconuuid=U4", 1, 0, 0));
    ASSERT_TRUE(executor->flush(5s));
  }
  EXPECT_THAT(seen, ElementsAre("delivered [U1] HTTP 204 x1", "dropped [U2] refused with HTTP 404 x1",
                                "will retry [U3] HTTP 503 x1", "delivered [U3] HTTP 204 x1",
                                "dropped [U4] retries used up, the last HTTP 500 x1"));

  // The caps' drops come summed, without a uuid.
  seen.clear();
  o.directory = dir_ / "capped";
  o.startPaused = true;
  o.maxStoredRequests = 2;
  auto executor = start(o);
  for (const char* name : {"1", "2", "3", "4", "5"}) executor->executeRequest(makeRequest(name));
  ASSERT_TRUE(executor->syncStore(5s));
  std::lock_guard lock(mutex);
  EXPECT_THAT(seen, ElementsAre("dropped [] over the stored requests' count or bytes x3"));
}

TEST_F(DurableRequestExecutorTest, RequestsHeldByTheConfigurationAreLoggedOncePerStretch) {
  auto& configuration = KVNConfiguration::sharedInstance();
  configuration.update([](auto& s) {
    s.beacons.beaconEndpoint.reset();
    s.inid = "INID";
  });
  auto holds = [this] { return env_.logs().messagesContaining("requests wait: the configuration"); };
  // All three queued before a sender looks, so that the first line counts
  // them all.
  auto executor = start(options({.paused = true}));
  for (const char* name : {"a", "b", "c"}) executor->executeRequest(makeRequest(name, 1, 2));
  executor->setPaused(false);
  EXPECT_FALSE(executor->flush(300ms));  // workers look again and again meanwhile
  EXPECT_EQ(holds(), 1u);
  EXPECT_TRUE(logged("3 requests wait: the configuration has no beacon endpoint or no inid"));

  configuration.setBeaconEndpoint("http://fake/{inid}");
  ASSERT_TRUE(executor->flush(5s));
  // Taken away again: a new stretch, a new line.
  configuration.update([](auto& s) { s.beacons.beaconEndpoint.reset(); });
  executor->executeRequest(makeRequest("d", 1, 2));
  EXPECT_FALSE(executor->flush(300ms));
  EXPECT_EQ(holds(), 2u);
}

}  // namespace
}  // namespace korvel::network::internal
