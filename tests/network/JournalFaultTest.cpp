// The journal under storage faults, made deterministic through a file
// system that fails chosen calls: nothing stored is deleted over an error,
// nothing outside the data folder is touched, descriptors stay bounded,
// a replaced folder heals, a file size limit and a full disk are survived.
#ifndef _WIN32
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include <korvel/network/internal/FileSystem.h>
#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/JournalFront.h>
#include <korvel/network/internal/RequestStore.h>
#include "support/FaultInjectingFileSystem.h"
#include "support/FolderTest.h"
#include "support/TestEnv.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;
using testing::FaultInjectingFileSystem;
using ::testing::HasSubstr;

std::string frameOf(uint64_t id, size_t payloadBytes = 100) {
  StoredRequest r;
  r.id = id;
  r.kind = "KVRBeacon";
  r.payload.assign(payloadBytes, static_cast<char>('a' + id % 26));
  return encodeFrame(r);
}

// Appends frames of payloadBytes (ids of the front's epoch from next on)
// until the active segment is closed; the one that was.
uint32_t fillActive(JournalFront& front, uint32_t& next, size_t payloadBytes) {
  const uint64_t epoch = uint64_t{front.epoch()} << 32;
  const uint32_t filling = front.activeSegment();
  while (front.activeSegment() == filling) {
    const uint64_t id = epoch | next++;
    if (!front.append(frameOf(id, payloadBytes), id)) {
      ADD_FAILURE() << "append " << next;
      break;
    }
  }
  return filling;
}

std::string readText(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class JournalFaultTest : public testing::FolderTest {
 protected:
  void SetUp() override {
    FolderTest::SetUp();
    root_ = dir_;
    dir_ = root_ / "store";
  }

  RequestStoreOptions options(uint64_t segmentBytes = 64u << 10, FileSystem* files = nullptr) {
    RequestStoreOptions o;
    o.directory = dir_;
    o.segmentBytes = segmentBytes;
    o.fileSystem = files;
    return o;
  }
  std::unique_ptr<RequestStore> open(uint64_t segmentBytes = 64u << 10, FileSystem* files = nullptr) {
    return openJournalRequestStore(options(segmentBytes, files));
  }

  std::vector<uint64_t> appendSome(RequestStore& store, int count, size_t payloadBytes = 100,
                                   uint32_t first = 0) {
    std::vector<uint64_t> ids;
    for (int i = 0; i < count; ++i) {
      const uint64_t id = (uint64_t{store.epoch()} << 32) | (first + static_cast<uint32_t>(i));
      EXPECT_TRUE(store.append(frameOf(id, payloadBytes), id)) << i;
      ids.push_back(id);
    }
    return ids;
  }

  static std::vector<uint64_t> idsOf(const std::vector<StoredRequest>& requests) {
    std::vector<uint64_t> ids;
    for (const auto& r : requests) ids.push_back(r.id);
    return ids;
  }

  size_t loggedCount(const std::string& text) const {
    return env_.logs().messagesContaining(text);
  }

  fs::path root_;
};

// MARK: - A storage error never deletes what is stored

struct UnreadableCase {
  const char* name;
  FileCall call;
  int error;
};

TEST_F(JournalFaultTest, ASegmentThatCannotBeOpenedOrReadStaysForTheNextStart) {
  const UnreadableCase cases[] = {
      {"no descriptor left", FileCall::Open, EMFILE},
      {"no permission", FileCall::Open, EACCES},
      {"an I/O error", FileCall::Read, EIO},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::error_code ec;
    fs::remove_all(dir_, ec);
    std::vector<uint64_t> ids;
    {
      auto store = open(4096);
      ASSERT_TRUE(store);
      ids = appendSome(*store, 30, 300);  // several segments
    }
    FaultInjectingFileSystem files;
    files.failAlways(c.call, c.error, ".log");
    {
      auto store = open(4096, &files);
      ASSERT_TRUE(store) << "what is stored is still there to be read later";
      EXPECT_TRUE(store->recover().empty());
      store->sync({});
    }
    EXPECT_GE(loggedCount("they stay where they are for the next start"), 1u);
    auto store = open(4096);
    EXPECT_EQ(idsOf(store->recover()), ids) << "nothing was deleted over an error";
  }
}

// MARK: - Full disk

TEST_F(JournalFaultTest, AFullDiskAtStartStillDeliversWhatIsStoredAndLogsOnceUntilItRecovers) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 20);
  }
  FaultInjectingFileSystem files;
  files.failAlways(FileCall::Write, ENOSPC, ".log");  // no new segment can be made
  auto store = open(64u << 10, &files);
  ASSERT_TRUE(store) << "a full disk still opens what is stored";
  auto recovered = store->recover();
  EXPECT_EQ(idsOf(recovered), ids);
  const auto loaded = store->load(ids[3]);
  ASSERT_TRUE(loaded) << "stored requests are read back for delivery";
  EXPECT_EQ(loaded->id, ids[3]);

  // New requests stay in memory, with one line for the whole spell.
  for (uint32_t i = 0; i < 200; ++i) {
    const uint64_t id = (uint64_t{store->epoch()} << 32) | i;
    EXPECT_FALSE(store->append(frameOf(id), id));
    if (i % 50 == 0) store->sync({});
  }
  EXPECT_EQ(loggedCount("cannot start a journal segment"), 1u);

  // Space again: the next sync makes a segment and appends are durable.
  files.clear();
  store->sync(ids);
  const uint64_t id = (uint64_t{store->epoch()} << 32) | 1000;
  EXPECT_TRUE(store->append(frameOf(id), id));
  EXPECT_EQ(loggedCount("journal segments can be made again"), 1u);
  EXPECT_EQ(loggedCount("cannot start a journal segment"), 1u);
  store.reset();
  EXPECT_EQ(idsOf(open()->recover()), std::vector<uint64_t>{id});
}

// MARK: - The folder is checked

TEST_F(JournalFaultTest, AFolderOfAnotherUserOrOpenToOthersIsRefusedWithAReason) {
  struct Case {
    const char* name;
    bool ownedByAnother;
    unsigned mode;
    bool chmodFails;
    const char* reason;  // null: accepted
  };
  const Case cases[] = {
      {"another user's", true, 0700, false, "belongs to another user"},
      {"open to others, cannot be fixed", false, 0777, true, "open to other users (mode 0777)"},
      {"group-writable, cannot be fixed", false, 0770, true, "cannot be made private"},
      {"open to others, fixable", false, 0777, false, nullptr},
      {"private", false, 0700, false, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FaultInjectingFileSystem files;
    files.showFolderAs(c.ownedByAnother ? "another user" : files.user(), c.mode);
    if (c.chmodFails) files.failAlways(FileCall::Chmod, EPERM);
    auto opened = openJournalRequestStoreWithReason(options(64u << 10, &files));
    if (c.reason == nullptr) {
      EXPECT_TRUE(opened.store);
      EXPECT_EQ(opened.failure, "");
    } else {
      EXPECT_FALSE(opened.store);
      EXPECT_THAT(opened.failure, HasSubstr(c.reason));
      EXPECT_THAT(opened.failure, HasSubstr(dir_.string()));
    }
  }
}

TEST_F(JournalFaultTest, LinksPlantedInTheFolderAreNeverFollowed) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows makes symbolic links only with a privilege; FileSystemTest covers reparse points";
#endif
  const fs::path outside = root_ / "outside";
  fs::create_directories(outside);
  fs::create_directories(dir_);
  const std::vector<std::string> victims = {"epoch-victim", "marks-victim", "free-victim", "tmp-victim"};
  for (const auto& v : victims) std::ofstream(outside / v) << "precious " << v;
  // A stored segment whose marks file is a link, a garbage segment to be
  // set aside into a linked "aside", and links where temporary files go.
  uint64_t kept;
  {
    auto store = open();
    kept = appendSome(*store, 1)[0];
  }
  fs::create_symlink(outside / "epoch-victim", dir_ / "epoch.tmp");
  fs::create_symlink(outside / "tmp-victim", dir_ / "hosts.tmp");
  fs::create_symlink(outside / "marks-victim", dir_ / "seg-0000000001.done");
  fs::create_symlink(outside / "free-victim", dir_ / "free-7");
  fs::create_directory_symlink(outside, dir_ / "aside");
  std::ofstream(dir_ / "seg-0000000009.log") << "not a segment at all";
  {
    auto store = open();
    ASSERT_TRUE(store);
    EXPECT_EQ(idsOf(store->recover()), std::vector<uint64_t>{kept});
    store->sync(std::vector<uint64_t>{kept});  // marks for segment 1
    EXPECT_TRUE(store->writeSmallFile("hosts", "example.com 1\n"));
    EXPECT_EQ(store->readSmallFile("hosts"), "example.com 1\n");
    store->compact();
  }
  for (const auto& v : victims) EXPECT_EQ(readText(outside / v), "precious " + v) << v;
  size_t inOutside = 0;
  for (const auto& entry : fs::directory_iterator(outside)) inOutside += !entry.path().filename().string().ends_with("-victim");
  EXPECT_EQ(inOutside, 0u) << "nothing was set aside through the link";
  EXPECT_TRUE(fs::is_symlink(fs::symlink_status(dir_ / "epoch.tmp")) == false);
}

TEST_F(JournalFaultTest, ADataFolderReachedThroughALinkIsCheckedWhereItLeads) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows makes symbolic links only with a privilege; FileSystemTest covers reparse points";
#endif
  // The host's own path may pass through a link (a moved home folder); the
  // folder it leads to is what is checked and used.
  const fs::path real = root_ / "real";
  fs::create_directories(real);
  fs::create_directory_symlink(real, dir_);
  uint64_t id;
  {
    auto store = open();
    ASSERT_TRUE(store);
    id = appendSome(*store, 1)[0];
  }
  EXPECT_FALSE(fs::is_empty(real));
  EXPECT_EQ(idsOf(open()->recover()), std::vector<uint64_t>{id});
}

// MARK: - Descriptors

TEST_F(JournalFaultTest, ABacklogInManySmallSegmentsIsReadThroughAFewDescriptors) {
  FaultInjectingFileSystem files;
  std::vector<uint64_t> ids;
  {
    auto store = open(4096, &files);
    ids = appendSome(*store, 800, 900);  // some two hundred segments
    store->sync({});
    store->sync({});
    for (uint64_t id : ids) ASSERT_TRUE(store->load(id)) << id;
    EXPECT_LE(files.openDescriptors(), 48) << "the folder, the lock, the open segments and a few readers";
  }
  EXPECT_EQ(files.openDescriptors(), 0);
  auto store = open(4096, &files);
  EXPECT_EQ(store->recover().size(), ids.size());
  store->sync({});
  for (uint64_t id : ids) ASSERT_TRUE(store->load(id)) << id;
  EXPECT_LE(files.openDescriptors(), 48);
}

// MARK: - The folder replaced while in use

TEST_F(JournalFaultTest, AFolderMovedAwayAndMadeAgainGetsEveryWaitingRequest) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows does not let a folder whose files are open be moved or removed";
#endif
  auto store = open(4096);
  ASSERT_TRUE(store);
  const auto before = appendSome(*store, 40, 300);
  store->sync({});
  const auto unsynced = appendSome(*store, 5, 300, 1000);  // still in the mapped segment
  fs::rename(dir_, root_ / "moved");
  fs::create_directory(dir_);
  store->sync({});
  EXPECT_TRUE(store->durable());
  const auto after = appendSome(*store, 5, 300, 2000);
  for (uint64_t id : before) EXPECT_TRUE(store->load(id)) << id;
  store.reset();
  auto reopened = open(4096);
  std::vector<uint64_t> expected = before;
  expected.insert(expected.end(), unsynced.begin(), unsynced.end());
  expected.insert(expected.end(), after.begin(), after.end());
  EXPECT_EQ(idsOf(reopened->recover()), expected);
}

TEST_F(JournalFaultTest, AFolderReplacedByAFileIsNotDurableUntilItCanBeMadeAgain) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows does not let a folder whose files are open be moved or removed";
#endif
  auto store = open(4096);
  const auto ids = appendSome(*store, 10, 300);
  store->sync({});
  fs::remove_all(dir_);
  std::ofstream(dir_) << "a file now";
  store->sync({});
  EXPECT_FALSE(store->durable());
  for (uint64_t id : ids) EXPECT_TRUE(store->load(id)) << "still read from the files held open";
  // More go to the segments still open until they are full; syncs let
  // those files go, and what they held is kept for delivery and the move.
  std::vector<uint64_t> all = ids;
  for (uint32_t i = 100; i < 130; ++i) {
    const uint64_t id = (uint64_t{store->epoch()} << 32) | i;
    if (store->append(frameOf(id, 300), id)) all.push_back(id);
    if (i % 3 == 0) store->sync({});
  }
  ASSERT_GT(all.size(), ids.size() + 3) << "the segments held open take a few";
  store->sync({});
  store->sync({});
  for (uint64_t id : all) EXPECT_TRUE(store->load(id)) << "kept while homeless";
  fs::remove(dir_);
  store->sync({});
  EXPECT_TRUE(store->durable());
  store.reset();
  EXPECT_EQ(idsOf(open(4096)->recover()), all);
}

// MARK: - File size limit

#ifndef _WIN32
// POSIX only: Windows has no file size limit per process.
TEST_F(JournalFaultTest, AFileSizeLimitBelowTheSegmentSizeNeitherKillsTheHostNorLosesARequest) {
  const int count = 600;
  const pid_t child = fork();
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_DFL);
    const rlimit limit{256u << 10, 256u << 10};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(5);
    auto store = open(1u << 20);
    if (!store) _exit(3);
    store->recover();
    for (int i = 0; i < count; ++i) {
      const uint64_t id = (uint64_t{store->epoch()} << 32) | static_cast<uint32_t>(i);
      if (!store->append(frameOf(id, 1000), id)) _exit(4);
      if (i % 100 == 0) store->sync({});
    }
    store.reset();
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_FALSE(WIFSIGNALED(status)) << "died of " << strsignal(WTERMSIG(status));
  ASSERT_EQ(WEXITSTATUS(status), 0) << "3: no store, 4: an append failed, 5: no limit";
  EXPECT_EQ(open(1u << 20)->recover().size(), static_cast<size_t>(count));
}
#endif

TEST_F(JournalFaultTest, AWriteThatFailsOnAnUnmappedSegmentMovesOnToANewOne) {
  for (int error : {EFBIG, ENOSPC}) {
    SCOPED_TRACE(error);
    std::error_code ec;
    fs::remove_all(dir_, ec);
    FaultInjectingFileSystem files;
    files.failAlways(FileCall::Map, ENOMEM);  // every segment written with pwrite
    auto store = open(64u << 10, &files);
    ASSERT_TRUE(store);
    auto ids = appendSome(*store, 3);
    const int writes = files.calls(FileCall::Write);
    files.failAt(FileCall::Write, 1, error);
    const uint64_t failed = (uint64_t{store->epoch()} << 32) | 100;
    EXPECT_FALSE(store->append(frameOf(failed), failed));
    EXPECT_GT(files.calls(FileCall::Write), writes);
    const auto more = appendSome(*store, 3, 100, 200);
    ids.insert(ids.end(), more.begin(), more.end());
    store.reset();
    EXPECT_EQ(idsOf(open(64u << 10)->recover()), ids);
  }
}

// MARK: - Streaming recovery

TEST_F(JournalFaultTest, RecoveryStreamsInBoundedBatchesOldestFirstAndAStopLeavesTheRest) {
  std::vector<uint64_t> ids;
  {
    auto store = open(8192);
    ids = appendSome(*store, 100, 400);
  }
  {
    auto store = open(8192);
    std::vector<uint64_t> seen;
    size_t batches = 0;
    store->recoverInBatches(nullptr, 7, [&](std::vector<StoredRequest>& batch) {
      EXPECT_LE(batch.size(), 7u);
      EXPECT_FALSE(batch.empty());
      for (const auto& r : batch) seen.push_back(r.id);
      return ++batches < 3;
    });
    EXPECT_EQ(batches, 3u);
    EXPECT_EQ(seen, std::vector<uint64_t>(ids.begin(), ids.begin() + static_cast<std::ptrdiff_t>(seen.size())));
  }
  // Stopped early: everything is still there.
  auto store = open(8192);
  std::vector<uint64_t> all;
  store->recoverInBatches(nullptr, 1000, [&](std::vector<StoredRequest>& batch) {
    for (const auto& r : batch) all.push_back(r.id);
    return true;
  });
  EXPECT_EQ(all, ids);
  store->sync({});
  for (uint64_t id : ids) EXPECT_TRUE(store->load(id));
}

// MARK: - A closed segment leaves memory as soon as the writer sees it

// A burst that closes segments while the writer finishes an earlier one
// (here, during that one's data sync) has them unmapped at once, before the
// writer cuts and syncs the next: until it is unmapped, every page a closed
// segment was written through stays in the process's resident memory.
TEST_F(JournalFaultTest, SegmentsClosedWhileTheWriterSyncsAreUnmappedBeforeItFinishesTheNext) {
  FaultInjectingFileSystem files;
  JournalFront front(options(16u << 10, &files));
  ASSERT_TRUE(front.open());
  uint32_t next = 0;
  const uint32_t first = fillActive(front, next, 1000);
  std::vector<uint32_t> closedMeanwhile;
  files.beforeSyncOf(journal::segmentName(first), [&] {
    closedMeanwhile.push_back(fillActive(front, next, 1000));
    closedMeanwhile.push_back(fillActive(front, next, 1000));
  });
  files.startRecording();
  front.syncActive();
  ASSERT_EQ(closedMeanwhile.size(), 2u);

  const auto events = files.recorded();
  std::string story;
  for (const auto& event : events) story += event + "\n";
  const auto at = [&](const std::string& event) {
    return static_cast<size_t>(std::find(events.begin(), events.end(), event) - events.begin());
  };
  const std::string second = journal::segmentName(closedMeanwhile[0]);
  const std::string third = journal::segmentName(closedMeanwhile[1]);
  // Both were finished by the same sync...
  ASSERT_LT(at("sync " + second), events.size()) << story;
  ASSERT_LT(at("sync " + third), events.size()) << story;
  // ...and both were unmapped before the first of them was cut.
  EXPECT_LT(at("unmap " + second), at("cut " + second)) << story;
  EXPECT_LT(at("unmap " + third), at("cut " + second)) << story;
  const auto drained = front.drain();
  EXPECT_EQ(drained.closed, (std::vector<uint32_t>{first, closedMeanwhile[0], closedMeanwhile[1]}));
}

// A burst that fills segment after segment while the writer is away (a long
// sync elsewhere, no core for it) keeps closed segments mapped up to their
// budget only: past it, the caller that closes the next one lets go of its
// mapping. Nothing of it is lost: the writer finishes it from its descriptor.
TEST_F(JournalFaultTest, WhileTheWriterIsAwayClosedSegmentsStayMappedUpToTheirBudget) {
  FaultInjectingFileSystem files;
  std::vector<uint64_t> ids;
  std::vector<uint32_t> closed;
  {
    // Segments grow to 256 KiB: four fit the budget.
    JournalFront front(options(256u << 10, &files));
    ASSERT_TRUE(front.open());
    files.startRecording();
    uint32_t next = 0;
    uint64_t mostMapped = 0;
    for (int segment = 0; segment < 10; ++segment) {
      closed.push_back(fillActive(front, next, 1000));
      mostMapped = std::max(mostMapped, front.mappings().closedMappedBytes);
    }
    for (uint32_t i = 0; i < next; ++i) ids.push_back((uint64_t{front.epoch()} << 32) | i);
    EXPECT_LE(mostMapped, JournalFront::kClosedMappedBytes);
    // The first ones are the writer's to unmap; callers unmapped the later.
    const auto events = files.recorded();
    const auto unmapped = [&](uint32_t number) {
      return std::find(events.begin(), events.end(), "unmap " + journal::segmentName(number)) !=
             events.end();
    };
    EXPECT_FALSE(unmapped(closed[0]));
    EXPECT_TRUE(unmapped(closed.back()));
    EXPECT_GE(mostMapped, JournalFront::kClosedMappedBytes / 2) << "a late writer costs callers no unmap";
    front.syncActive();
    EXPECT_EQ(front.mappings().closedMappedBytes, 0u);
    EXPECT_EQ(front.drain().closed, closed);
  }
  auto store = open(256u << 10);
  EXPECT_EQ(idsOf(store->recover()), ids);
}

// Spares wait with only their first pages writable (each such page is
// resident), except the next ones up to the spares' writable budget: a
// caller that moves on finds those whole, and the writer has the time it
// takes to fill them to make the ones after writable, at the sync a switch
// brings forward.
TEST_F(JournalFaultTest, TheSparesAppendsGoToNextAreWritableUpToTheirBudget) {
  FaultInjectingFileSystem files;
  // Where the system has no call to make pages writable without writing
  // them (Windows, older kernels) spares are written whole when made.
  if (files.prefault(nullptr, 0) != 0) GTEST_SKIP() << "the system cannot prefault a mapping";
  JournalFront front(options(1u << 20, &files));
  ASSERT_TRUE(front.open());
  uint32_t next = 0;
  front.syncActive();
  bool beyondBudget = false;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    // A burst that outruns the writer by three segments: more spares.
    for (int segment = 0; segment < 3; ++segment) fillActive(front, next, 2000);
    front.syncActive();
    const auto spares = front.mappings().spares;
    ASSERT_FALSE(spares.empty());
    uint64_t before = 0;  // the room of the spares ahead of this one
    for (size_t i = 0; i < spares.size(); ++i) {
      const uint64_t wanted =
          before >= JournalFront::kWritableSpareBytes ? 0 : JournalFront::kWritableSpareBytes - before;
      // Writable as far as the budget reaches, and no further than its head
      // past it.
      EXPECT_GE(spares[i].writable, std::min(spares[i].room, wanted)) << "spare " << i;
      EXPECT_LE(spares[i].writable, std::max(wanted, JournalFront::kSpareHeadBytes)) << "spare " << i;
      before += spares[i].room;
    }
    beyondBudget = beyondBudget || before > JournalFront::kWritableSpareBytes;
  }
  EXPECT_TRUE(beyondBudget) << "the spares never held more than their writable budget";
}

}  // namespace
}  // namespace korvel::network::internal
