// Several processes on one data folder: each writes a journal of its own,
// and what a process that ended left is taken over by the next start.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include <korvel/network/internal/RequestStore.h>
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

class JournalProcessesTest : public testing::FolderTest {
 protected:
  void TearDown() override {
    for (pid_t child : children_) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
    FolderTest::TearDown();
  }

  std::unique_ptr<RequestStore> open() {
    RequestStoreOptions options;
    options.directory = dir_;
    options.segmentBytes = 8192;
    return openJournalRequestStore(options);
  }

  // A child that opens the store, appends count requests, writes their ids
  // to the parent and waits to be killed. Nothing when it failed.
  std::optional<std::vector<uint64_t>> reporter(int count) {
    int fds[2];
    if (pipe(fds) != 0) return std::nullopt;
    const pid_t child = fork();
    if (child == 0) {
      ::close(fds[0]);
      auto store = open();
      if (!store) _exit(3);
      store->recover();
      for (int i = 0; i < count; ++i) {
        const uint64_t id = (uint64_t{store->epoch()} << 32) | static_cast<uint32_t>(i);
        if (!store->append(frameOf(id), id)) _exit(4);
        if (::write(fds[1], &id, sizeof id) != sizeof id) _exit(5);
      }
      ::close(fds[1]);
      for (;;) ::pause();
    }
    ::close(fds[1]);
    children_.push_back(child);
    std::vector<uint64_t> ids;
    uint64_t id;
    while (::read(fds[0], &id, sizeof id) == sizeof id) ids.push_back(id);
    ::close(fds[0]);
    if (ids.size() != static_cast<size_t>(count)) return std::nullopt;
    return ids;
  }

  void killAll() {
    for (pid_t child : children_) {
      ::kill(child, SIGKILL);
      ::waitpid(child, nullptr, 0);
    }
    children_.clear();
  }

  std::vector<pid_t> children_;
};

TEST_F(JournalProcessesTest, EveryProcessOnOneFolderIsDurableAndTheNextStartTakesOverWhatTheyLeft) {
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
  std::set<uint64_t> recovered;
  for (const auto& r : store->recover()) recovered.insert(r.id);
  EXPECT_EQ(recovered, all);
  // Delivered, they are gone for good: the next start finds nothing.
  store->sync(std::vector<uint64_t>(all.begin(), all.end()));
  store->compact();
  store.reset();
  EXPECT_TRUE(open()->recover().empty());
}

TEST_F(JournalProcessesTest, AProcessStartingBesideALiveOneTakesOverOnlyJournalsNoOneHolds) {
  auto live = reporter(10);
  ASSERT_TRUE(live);
  auto ended = reporter(10);
  ASSERT_TRUE(ended);
  // The second one ends; the first stays.
  ::kill(children_[1], SIGKILL);
  ::waitpid(children_[1], nullptr, 0);
  children_.pop_back();

  auto store = open();
  ASSERT_TRUE(store);
  std::set<uint64_t> recovered;
  for (const auto& r : store->recover()) recovered.insert(r.id);
  EXPECT_EQ(recovered, std::set<uint64_t>(ended->begin(), ended->end()))
      << "the live process's journal is its own";
  store->sync(*ended);  // delivered
  store.reset();
  killAll();
  recovered.clear();
  for (const auto& r : open()->recover()) recovered.insert(r.id);
  EXPECT_EQ(recovered, std::set<uint64_t>(live->begin(), live->end()));
}

}  // namespace
}  // namespace korvel::network::internal
