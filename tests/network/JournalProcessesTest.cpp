// Several processes on one data folder: each writes a journal of its own,
// and what a process that ended left is taken over by the next start.
//
// The other processes are this test program started again with
// KORVEL_JOURNAL_CHILD_DIR in its environment: it then opens the store there,
// appends, writes the ids to its standard output and waits to be killed,
// during static initialisation.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <thread>

#include <korvel/network/internal/RequestStore.h>
#include "support/ChildOfThisProgram.h"
#include "support/FolderTest.h"
#include "support/TestEnv.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;

std::string frameOf(uint64_t id) {
  StoredRequest r;
  r.id = id;
  r.kind = "KVRBeacon";
  r.payload.assign(200, 'p');
  return encodeFrame(r);
}

// The ids a store recovers.
std::set<uint64_t> recoveredIds(RequestStore& store) {
  std::set<uint64_t> ids;
  for (const auto& r : store.recover()) ids.insert(r.id);
  return ids;
}

std::unique_ptr<RequestStore> openStore(const fs::path& dir) {
  RequestStoreOptions options;
  options.directory = dir;
  options.segmentBytes = 8192;
  return openJournalRequestStore(options);
}

// The child's part: opens the store, appends, writes each id on a line,
// then "done", and waits to be killed.
[[noreturn]] void runChild(const char* dir, int count) {
  auto store = openStore(dir);
  if (!store) std::_Exit(3);
  store->recover();
  for (int i = 0; i < count; ++i) {
    const uint64_t id = (uint64_t{store->epoch()} << 32) | static_cast<uint32_t>(i);
    if (!store->append(frameOf(id), id)) std::_Exit(4);
    std::printf("%llu\n", static_cast<unsigned long long>(id));
  }
  std::printf("done\n");
  std::fflush(stdout);
  for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
}

const bool kIsChild = [] {
  const char* dir = std::getenv("KORVEL_JOURNAL_CHILD_DIR");
  const char* count = std::getenv("KORVEL_JOURNAL_CHILD_COUNT");
  if (dir != nullptr && count != nullptr) runChild(dir, std::atoi(count));
  return false;
}();

class JournalProcessesTest : public testing::FolderTest {
 protected:
  void TearDown() override {
    killAll();  // before their folder goes
    FolderTest::TearDown();
  }

  std::unique_ptr<RequestStore> open() { return openStore(dir_); }

  // A child that opens the store, appends count requests, tells their ids
  // and waits to be killed. Nothing when it failed.
  std::optional<std::vector<uint64_t>> reporter(int count) {
    auto child = std::make_unique<testing::ChildOfThisProgram>();
    if (!child->start({"KORVEL_JOURNAL_CHILD_DIR=" + dir_.string(),
                       "KORVEL_JOURNAL_CHILD_COUNT=" + std::to_string(count)},
                      "KORVEL_JOURNAL_CHILD_")) {
      return std::nullopt;
    }
    std::vector<uint64_t> ids;
    std::string line;
    while (child->readLine(line) && line != "done") ids.push_back(std::stoull(line));
    children_.push_back(std::move(child));
    if (ids.size() != static_cast<size_t>(count)) return std::nullopt;
    return ids;
  }

  void killAll() {
    for (auto& child : children_) child->kill();
    children_.clear();
  }

  std::vector<std::unique_ptr<testing::ChildOfThisProgram>> children_;
};

TEST_F(JournalProcessesTest, EveryProcessOnOneFolderIsDurableAndTheNextStartTakesOverWhatTheyLeft) {
  ASSERT_FALSE(kIsChild);
  auto first = reporter(50);
  ASSERT_TRUE(first) << "the first process stores";
  auto second = reporter(30);
  ASSERT_TRUE(second) << "a second process on the same folder stores too, not only in memory";
  auto third = reporter(20);
  ASSERT_TRUE(third);
  std::set<uint64_t> all(first->begin(), first->end());
  all.insert(second->begin(), second->end());
  all.insert(third->begin(), third->end());
  EXPECT_EQ(all.size(), 100u) << "no identifier is shared between processes";
  killAll();

  auto store = open();
  ASSERT_TRUE(store);
  EXPECT_EQ(recoveredIds(*store), all);
  // Delivered, they are gone for good: the next start finds nothing.
  store->sync(std::vector<uint64_t>(all.begin(), all.end()));
  store->compact();
  store.reset();
  EXPECT_TRUE(recoveredIds(*open()).empty());
}

TEST_F(JournalProcessesTest, AProcessStartingBesideALiveOneTakesOverOnlyJournalsNoOneHolds) {
  auto live = reporter(10);
  ASSERT_TRUE(live);
  auto ended = reporter(10);
  ASSERT_TRUE(ended);
  // The second one ends; the first stays.
  children_[1]->kill();
  children_.pop_back();

  auto store = open();
  ASSERT_TRUE(store);
  EXPECT_EQ(recoveredIds(*store), std::set<uint64_t>(ended->begin(), ended->end()))
      << "the live process's journal is its own";
  store->sync(*ended);  // delivered
  store.reset();
  killAll();
  EXPECT_EQ(recoveredIds(*open()), std::set<uint64_t>(live->begin(), live->end()));
}

}  // namespace
}  // namespace korvel::network::internal
