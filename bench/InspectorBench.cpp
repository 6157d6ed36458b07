// The inspector's store: how fast beacons go in while a page watches, and how
// fast the page's paged queries answer with 100,000 beacons stored.
//
//   BM_StoreIngest        add() + sync() of 20,000 beacons straight into the
//                         store, a simulated page reading along (the live
//                         stream's query after each write, and the list and
//                         counts the page asks for on every update)
//   BM_HttpIngest         the same beacons as GETs to the collector over
//                         loopback (4 keep-alive connections), a live page
//                         connected to /api/stream and polling the list
//   BM_Query/<name>       one query of the page's against 100,000 stored
//
// Items per second is beacons per second for the ingest cases.
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "collector/BeaconCollector.h"
#include "collector/BeaconStore.h"

namespace {

using korvel::tools::ArrivedRequest;
using korvel::tools::BeaconCollector;
using korvel::tools::BeaconFilter;
using korvel::tools::BeaconStore;

int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A beacon the size of the library's: the common parameters and a few own.
std::string beaconTarget(int64_t n) {
  static const char* kEvents[] = {"pageview", "userevent", "tagged", "impression", "widget"};
  static const char* kTypes[] = {"scroll", "share", "tap", "open", "close"};
  const int64_t seconds = nowMs() / 1000;
  return std::string("/b/DEMO-INID-4F2A9C/14.2/Laptop14%2C2/") + kEvents[n % 5] +
         "?clientcreationtimestamp=" + std::to_string(seconds) + "&clientbeaconuuid=" +
         "UUID-" + std::to_string(n) + "-0C4B-4E8F-A1D2-9B3C5E7F0A12" +
         "&aa=false&sessionid=SESSION-" + std::to_string(n / 50) +
         "&osversion=12.5&buildnum=23F79&amc=false&live_activities=true&osnoteon=authorized"
         "&micon=authorized&lcton=denied&cameraon=notDetermined&applemusicon=authorized"
         "&ammember=false&devicelanguage=en-GB&cohort=demo&type=" +
         kTypes[(n / 5) % 5] + "&screenname=home&duration=1.25&trackkey=571234567"
         "&provider=messages&src=example";
}

std::shared_ptr<BeaconStore> openStore() {
  std::string error;
  auto store = BeaconStore::open({}, &error);
  if (!store) std::fprintf(stderr, "cannot open the store: %s\n", error.c_str());
  return store;
}

// What an open page does against the store: the stream's read after every
// write, and a refresh (list + counts) at most every 150 ms.
class SimulatedPage {
 public:
  explicit SimulatedPage(std::shared_ptr<BeaconStore> store) : store_(std::move(store)) {
    thread_ = std::thread([this] {
      int64_t last = store_->lastID();
      auto refreshed = std::chrono::steady_clock::now();
      while (!stop_) {
        store_->waitNewerThan(last, std::chrono::milliseconds(50));
        BeaconFilter after;
        after.after = last;
        after.limit = 200;
        const auto batch = store_->list(after);
        if (!batch["beacons"].empty()) last = store_->lastID();
        if (std::chrono::steady_clock::now() - refreshed > std::chrono::milliseconds(150)) {
          store_->list(BeaconFilter{});
          store_->counts();
          refreshed = std::chrono::steady_clock::now();
        }
      }
    });
  }
  ~SimulatedPage() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::shared_ptr<BeaconStore> store_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

constexpr int kIngestBatch = 20'000;

void BM_StoreIngest(benchmark::State& state) {
  auto store = openStore();
  SimulatedPage page(store);
  std::vector<std::string> targets;
  int64_t n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    targets.clear();
    for (int i = 0; i < kIngestBatch; ++i) targets.push_back(beaconTarget(n++));
    state.ResumeTiming();
    const int64_t at = nowMs();
    for (auto& target : targets) store->add(ArrivedRequest{at, 204, std::move(target)});
    store->sync();
  }
  state.SetItemsProcessed(state.iterations() * kIngestBatch);
}
BENCHMARK(BM_StoreIngest)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_HttpIngest(benchmark::State& state) {
  auto store = openStore();
  BeaconCollector::Options options;
  options.keepBeacons = false;
  options.store = store;
  BeaconCollector collector(options);
  if (!collector.start()) {
    state.SkipWithError("the collector cannot listen");
    return;
  }
  // The page: its live stream, and its refresh on every update.
  std::atomic<bool> stop{false};
  std::thread stream([&] {
    httplib::Client client(collector.baseURL());
    client.Get("/api/stream", [&](const char*, size_t) { return !stop.load(); });
  });
  std::thread refresh([&] {
    httplib::Client client(collector.baseURL());
    while (!stop) {
      client.Get("/api/beacons");
      client.Get("/api/counts");
      std::this_thread::sleep_for(std::chrono::milliseconds(150));
    }
  });

  constexpr int kConnections = 4;
  int64_t n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<std::vector<std::string>> targets(kConnections);
    for (int i = 0; i < kIngestBatch; ++i) targets[i % kConnections].push_back(beaconTarget(n++));
    state.ResumeTiming();
    std::vector<std::thread> senders;
    for (int c = 0; c < kConnections; ++c) {
      senders.emplace_back([&, c] {
        httplib::Client client(collector.baseURL());
        client.set_keep_alive(true);
        for (const auto& target : targets[c]) client.Get(target);
      });
    }
    for (auto& sender : senders) sender.join();
    store->sync();
  }
  state.SetItemsProcessed(state.iterations() * kIngestBatch);
  stop = true;
  refresh.join();
  collector.stop();  // ends the stream
  stream.join();
}
BENCHMARK(BM_HttpIngest)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// 100,000 beacons in 2,000 sessions, one in fifty bad.
std::shared_ptr<BeaconStore> fullStore() {
  static std::shared_ptr<BeaconStore> store = [] {
    auto made = openStore();
    const int64_t at = nowMs();
    for (int64_t n = 0; n < 100'000; ++n) {
      std::string target = beaconTarget(n);
      if (n % 50 == 7) target.replace(target.find("/pageview?") + 1, 8, "pagevieX");
      made->add(ArrivedRequest{at + n, 204, std::move(target)});
    }
    made->sync();
    return made;
  }();
  return store;
}

using Query = std::function<void(BeaconStore&)>;

BeaconFilter filterOf(std::multimap<std::string, std::string> items) {
  std::string error;
  return *BeaconFilter::fromQuery(items, &error);
}

void BM_Query(benchmark::State& state, Query query) {
  auto store = fullStore();
  for (auto _ : state) query(*store);
}

BENCHMARK_CAPTURE(BM_Query, newest_page, [](BeaconStore& s) { s.list(BeaconFilter{}); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, page_500_deep,
                  [](BeaconStore& s) { s.list(filterOf({{"before", "50000"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, by_event,
                  [](BeaconStore& s) { s.list(filterOf({{"event", "impression"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, by_type,
                  [](BeaconStore& s) { s.list(filterOf({{"type", "share"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, by_session,
                  [](BeaconStore& s) { s.list(filterOf({{"session", "SESSION-1234"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, by_uuid, [](BeaconStore& s) {
  s.byUUID("UUID-77777-0C4B-4E8F-A1D2-9B3C5E7F0A12");
})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, bad_page,
                  [](BeaconStore& s) { s.list(filterOf({{"good", "false"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, param_page,
                  [](BeaconStore& s) { s.list(filterOf({{"screenname", "home"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, count_bad,
                  [](BeaconStore& s) { s.count(filterOf({{"good", "false"}})); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, counts, [](BeaconStore& s) { s.counts(); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, sessions, [](BeaconStore& s) { s.sessions(100); })
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Query, session_timeline,
                  [](BeaconStore& s) { s.session("SESSION-1234"); })
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
