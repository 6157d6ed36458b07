// The request stores behind the durable executor: frame format, recovery
// after kills and damage, delivered marks, compaction, and both store kinds
// against the same expectations.
#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include <korvel/network/internal/JournalFront.h>
#include "support/FaultInjectingFileSystem.h"
#include "support/FolderTest.h"
#include "support/Latch.h"
#include "support/TestEnv.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

StoredRequest request(uint64_t id, std::string payload = "payload") {
  StoredRequest r;
  r.id = id;
  r.createdMillis = 1'700'000'000'000 + static_cast<int64_t>(id);
  r.priority = 1;
  r.configurationPolicy = 2;
  r.retryCount = 3;
  r.kind = "KVRBeacon";
  r.payload = std::move(payload);
  return r;
}

std::vector<uint64_t> idsOf(const std::vector<StoredRequest>& requests) {
  std::vector<uint64_t> ids;
  for (const auto& r : requests) ids.push_back(r.id);
  return ids;
}

// MARK: - Frames

// Both implementations (the CPU's instruction where it has one, the tables
// elsewhere) against the standard check value and a bit-by-bit reference.
TEST(RequestFrameTest, Crc32cMatchesTheStandardCheckValueAndABitwiseReference) {
  EXPECT_EQ(crc32c("123456789", 9), 0xE3069283u);
  EXPECT_EQ(crc32cPortable("123456789", 9), 0xE3069283u);
  auto bitwise = [](const unsigned char* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
      c ^= p[i];
      for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
    }
    return ~c;
  };
  std::mt19937 random(7);
  std::vector<unsigned char> bytes(200);
  for (auto& b : bytes) b = static_cast<unsigned char>(random());
  // Every length and alignment, so the eight-byte steps and the tail agree.
  for (size_t start = 0; start < 8; ++start) {
    for (size_t n = 0; start + n <= bytes.size(); n += 3) {
      const uint32_t expected = bitwise(bytes.data() + start, n);
      ASSERT_EQ(crc32c(bytes.data() + start, n), expected) << start << "+" << n;
      ASSERT_EQ(crc32cPortable(bytes.data() + start, n), expected) << start << "+" << n;
    }
  }
  // Continuing a checksum equals checksumming the concatenation.
  EXPECT_EQ(crc32c(bytes.data() + 50, 150, crc32c(bytes.data(), 50)), crc32c(bytes.data(), 200));
  EXPECT_EQ(crc32cPortable(bytes.data() + 50, 150, crc32c(bytes.data(), 50)),
            crc32c(bytes.data(), 200));
}

TEST(RequestFrameTest, RoundTripsEveryFieldIncludingBinaryPayloads) {
  StoredRequest r = request(0x0000000500000007ull, std::string("\0\xff\x01 binary", 10));
  r.priority = -4;
  r.configurationPolicy = 0;
  r.retryCount = 0;
  std::string data = encodeFrame(r) + encodeFrame(request(9));
  size_t offset = 0;
  StoredRequest decoded;
  ASSERT_EQ(decodeFrame(data, offset, decoded), FrameStatus::Ok);
  EXPECT_EQ(decoded, r);
  ASSERT_EQ(decodeFrame(data, offset, decoded), FrameStatus::Ok);
  EXPECT_EQ(decoded, request(9));
  EXPECT_EQ(decodeFrame(data, offset, decoded), FrameStatus::End);
}

TEST(RequestFrameTest, EveryCutIsTruncatedAndEveryFlippedBitIsDetected) {
  const std::string frame = encodeFrame(request(42));
  for (size_t cut = 1; cut < frame.size(); ++cut) {
    size_t offset = 0;
    StoredRequest ignored;
    const auto status = decodeFrame(std::string_view(frame).substr(0, cut), offset, ignored);
    EXPECT_NE(status, FrameStatus::Ok) << "cut at " << cut;
    EXPECT_EQ(offset, 0u);
  }
  for (size_t bit = 0; bit < frame.size() * 8; ++bit) {
    std::string damaged = frame;
    damaged[bit / 8] = static_cast<char>(damaged[bit / 8] ^ (1 << (bit % 8)));
    size_t offset = 0;
    StoredRequest ignored;
    ASSERT_NE(decodeFrame(damaged, offset, ignored), FrameStatus::Ok) << "bit " << bit;
  }
}

TEST(RequestFrameTest, FindsTheNextWholeFrameAfterDamage) {
  const std::string first = encodeFrame(request(1));
  const std::string second = encodeFrame(request(2));
  std::string data = first + "garbage that is not a frame" + second;
  data[20] ^= 0x10;  // inside the first frame's body
  EXPECT_EQ(findNextFrame(data, 1), first.size() + 27);
  EXPECT_EQ(findNextFrame(data.substr(0, data.size() - 1), 1), std::nullopt);
}

// MARK: - Stores

class RequestStoreTest : public testing::FolderTest {
 protected:
  std::unique_ptr<RequestStore> open(uint64_t segmentBytes = 1u << 20) {
    RequestStoreOptions options;
    options.directory = dir_;
    options.segmentBytes = segmentBytes;
    options.fileSystem = files_;
    return openJournalRequestStore(options);
  }

  // A store of small segments whose syncs call steps back between their
  // long steps; recovered, ready for appends.
  std::unique_ptr<RequestStore> openWithSteps(std::function<void()> steps,
                                              FileSystem* files = nullptr) {
    RequestStoreOptions options;
    options.directory = dir_;
    options.segmentBytes = 4096;
    options.fileSystem = files;
    options.betweenSyncSteps = std::move(steps);
    auto store = openJournalRequestStore(options);
    if (store) store->recover();
    return store;
  }

  // Appends requests with ids of the store's epoch (their low halves from
  // first on); returns the ids.
  std::vector<uint64_t> appendSome(RequestStore& store, int count, size_t payloadBytes = 40,
                                   uint32_t first = 0) {
    std::vector<uint64_t> ids;
    for (int i = 0; i < count; ++i) {
      const uint64_t id = (uint64_t{store.epoch()} << 32) | (first + static_cast<uint32_t>(i));
      EXPECT_TRUE(store.append(encodeFrame(request(id, std::string(payloadBytes, 'p'))), id));
      ids.push_back(id);
    }
    return ids;
  }

#ifndef _WIN32
  // A child opens the store (after prepare, when given), appends the
  // payloads in order without a single sync and dies by SIGKILL (a forked child: KilledReporterTest kills
  // reporters on every system); then the
  // store is opened again here. Gives it with what it recovered.
  std::pair<std::unique_ptr<RequestStore>, std::vector<StoredRequest>> reopenedAfterAKill(
      uint64_t segmentBytes, const std::vector<std::string>& payloads, void (*prepare)() = nullptr) {
    const pid_t child = fork();
    if (child == 0) {
      if (prepare != nullptr) prepare();
      auto store = open(segmentBytes);
      if (!store) _exit(3);
      store->recover();
      for (size_t i = 0; i < payloads.size(); ++i) {
        const uint64_t id = (uint64_t{store->epoch()} << 32) | i;
        if (!store->append(encodeFrame(request(id, payloads[i])), id)) _exit(4);
      }
      raise(SIGKILL);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFSIGNALED(status)) {
      ADD_FAILURE() << "the child did not die by a signal: exit " << WEXITSTATUS(status);
      return {};
    }
    auto store = open(segmentBytes);
    if (!store) {
      ADD_FAILURE() << "the store does not open again";
      return {};
    }
    auto recovered = store->recover();
    return {std::move(store), std::move(recovered)};
  }

#endif

  std::vector<fs::path> files(const std::string& suffix, const fs::path& in = {}) const {
    std::vector<fs::path> out;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(in.empty() ? dir_ : in, ec)) {
      if (e.path().string().ends_with(suffix)) out.push_back(e.path());
    }
    std::sort(out.begin(), out.end());
    return out;
  }

  std::vector<fs::path> setAside() const { return files("", dir_ / "aside"); }

  bool logged(const std::string& text) const {
    return env_.logs().messagesContaining(text) > 0;
  }

  FileSystem* files_ = nullptr;  // the plain system calls
};

#ifndef _WIN32
TEST_F(RequestStoreTest, WhatWasAppendedSurvivesWithoutAnySyncAndFinishedRequestsDoNot) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ASSERT_TRUE(store);
    EXPECT_TRUE(store->recover().empty());
    ids = appendSome(*store, 5);
    store->sync(std::vector<uint64_t>{ids[1], ids[3]});
    // Appended after the last sync and never synced: still there (the store
    // object going away is as close to a kill as a test gets in-process).
    const uint64_t late = (uint64_t{store->epoch()} << 32) | 99;
    ASSERT_TRUE(store->append(encodeFrame(request(late)), late));
    ids.push_back(late);
  }
  auto store = open();
  ASSERT_TRUE(store);
  const auto recovered = store->recover();
  EXPECT_THAT(idsOf(recovered), ElementsAre(ids[0], ids[2], ids[4], ids[5]));
  EXPECT_EQ(recovered[0], request(ids[0], std::string(40, 'p')));
}
#endif

TEST_F(RequestStoreTest, EachOpeningTakesANewEpochEvenWithoutTheEpochFile) {
  uint32_t first;
  {
    auto store = open();
    first = store->epoch();
    appendSome(*store, 1);  // leaves a segment
    store->sync({});
  }
  fs::remove(dir_ / "epoch");
  auto store = open();
  EXPECT_GT(store->epoch(), first);
  // Opening once more while this store holds the directory makes a
  // journal of its own, with an epoch of its own.
  auto second = open();
  ASSERT_TRUE(second);
  EXPECT_GT(second->epoch(), store->epoch());
}

TEST_F(RequestStoreTest, ATornLastRecordIsSetAsideAndTheRestKept) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 3);
  }
  // A kill in the middle of the third write(2).
  const auto segment = files(".log").at(0);
  fs::resize_file(segment, fs::file_size(segment) - 10);
  {
    auto store = open();
    EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[0], ids[1]));
    EXPECT_EQ(setAside().size(), 1u);
    EXPECT_TRUE(logged("torn record at its end"));
  }
  // Nothing is lost or set aside again at the next start.
  auto store = open();
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[0], ids[1]));
  EXPECT_EQ(setAside().size(), 1u);
}

TEST_F(RequestStoreTest, ADamagedRecordInTheMiddleLosesOnlyThatRecord) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 3, 100);
  }
  const auto segment = files(".log").at(0);
  {
    std::fstream f(segment, std::ios::in | std::ios::out | std::ios::binary);
    const auto frameBytes = static_cast<std::streamoff>(encodeFrame(request(0, std::string(100, 'p'))).size());
    f.seekp(16 + frameBytes + 60);  // inside the second record's payload
    f.put('X');
  }
  auto store = open();
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[0], ids[2]));
  EXPECT_TRUE(logged("bad record checksum"));
  EXPECT_EQ(setAside().size(), 1u);
}

TEST_F(RequestStoreTest, AGarbageSegmentIsSetAsideAndOthersAreRead) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 2);
    store->sync({});
  }
  {
    std::ofstream garbage(dir_ / "seg-0000000099.log", std::ios::binary);
    garbage << "this was never a journal segment";
  }
  {
    // Empty: killed between creating a segment and writing its header.
    std::ofstream empty(dir_ / "seg-4000000000.log", std::ios::binary);
  }
  auto store = open();
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[0], ids[1]));
  EXPECT_TRUE(logged("not a journal segment"));
  EXPECT_EQ(setAside().size(), 1u) << "an empty segment is removed, not set aside";
  EXPECT_FALSE(fs::exists(dir_ / "seg-4000000000.log"));
}

TEST_F(RequestStoreTest, ClosedSegmentsGoOnceFinishedAndSmallFilesRemain) {
  auto store = open(4096);
  std::vector<uint64_t> all;
  for (int round = 0; round < 6; ++round) {
    const uint32_t epoch = store->epoch();
    for (int i = 0; i < 20; ++i) {
      const uint64_t id = (uint64_t{epoch} << 32) | static_cast<uint32_t>(round * 20 + i);
      ASSERT_TRUE(store->append(encodeFrame(request(id, std::string(200, 'x'))), id));
      all.push_back(id);
    }
    store->sync({});
  }
  const uint64_t full = store->stats().bytesOnDisk;
  // Everything but the last request finishes.
  store->sync(std::span<const uint64_t>(all.data(), all.size() - 1));
  store->compact();
  const auto stats = store->stats();
  EXPECT_EQ(stats.storedRequests, 1u);
  EXPECT_LT(stats.bytesOnDisk, full / 3) << "finished requests still take space";
  store.reset();
  store = open(4096);
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(all.back()));
}

TEST_F(RequestStoreTest, ASyncCallsItsOwnerBackBetweenItsLongStepsWithNoLockHeld) {
  std::unique_ptr<RequestStore> store;
  int calls = 0;
  bool appendedInside = true;
  store = openWithSteps([&] {
    ++calls;
    // The store's locks are free: appending from here must not deadlock.
    if (store) {
      const uint64_t id = (uint64_t{store->epoch()} << 32) | (1000u + static_cast<uint32_t>(calls));
      appendedInside = appendedInside && store->append(encodeFrame(request(id)), id);
    }
  });
  ASSERT_TRUE(store);
  calls = 0;
  appendSome(*store, 240, 200);  // some fifteen segments closed
  store->sync({});
  EXPECT_GE(calls, 15) << "once per segment finished, and per spare made";
  EXPECT_TRUE(appendedInside);
}

// Appends wait as one record each in the journal's front until the index
// takes them: when the writer asks between syncs, and between the steps of
// a long sync (each step sees the ones appended before it).
TEST_F(RequestStoreTest, AppendsReachTheIndexWhenTakenAndBetweenTheStepsOfASync) {
  std::unique_ptr<RequestStore> store;
  std::vector<uint64_t> seenInSteps;
  uint32_t next = 10'000;
  store = openWithSteps([&] {
    if (!store) return;
    seenInSteps.push_back(store->stats().storedRequests);
    const uint64_t id = (uint64_t{store->epoch()} << 32) | next++;
    store->append(encodeFrame(request(id)), id);
  });
  ASSERT_TRUE(store);
  seenInSteps.clear();
  appendSome(*store, 50, 200);
  EXPECT_EQ(store->stats().storedRequests, 0u) << "taken only when asked";
  store->takeAppends();
  EXPECT_EQ(store->stats().storedRequests, 50u);

  appendSome(*store, 100, 200, 1000);  // segments to finish: steps
  store->sync({});
  ASSERT_GE(seenInSteps.size(), 3u);
  EXPECT_EQ(seenInSteps.front(), 150u);
  // Each later step has taken the appends made in the steps before it.
  EXPECT_EQ(seenInSteps.back(), 150u + seenInSteps.size() - 1);
}

// Those steps take the appends only when the index is free: a sender that
// reads a request back holds it, and the writer goes on finishing segments
// and making spares meanwhile rather than wait for the read.
TEST_F(RequestStoreTest, ASyncsStepsDoNotWaitForARequestBeingReadBack) {
  testing::FaultInjectingFileSystem files;
  std::unique_ptr<RequestStore> store;
  testing::Latch reading(1);
  testing::Latch readMayEnd(1);
  std::atomic<bool> readerInside{false};
  std::thread sender;
  int stepsWhileReading = 0;
  bool startReading = false;
  store = openWithSteps([&] {
    if (!startReading) return;
    if (!sender.joinable()) {
      // At the first step: a sender starts reading the first request back.
      sender = std::thread([&] { EXPECT_TRUE(store->load(uint64_t{store->epoch()} << 32)); });
      EXPECT_TRUE(reading.waitFor(std::chrono::seconds(5)));
      return;
    }
    if (readerInside && ++stepsWhileReading == 3) readMayEnd.count_down();
  }, &files);
  ASSERT_TRUE(store);
  appendSome(*store, 20, 200);
  store->sync({});  // their segments finished: read back through their files
  store->takeAppends();
  files.beforeReadOf("seg-", [&] {
    readerInside = true;
    reading.count_down();
    readMayEnd.waitFor(std::chrono::seconds(5));
    readerInside = false;
  });
  appendSome(*store, 100, 200, 1000);  // segments for the sync to finish, in steps
  startReading = true;
  store->sync({});
  readMayEnd.count_down();
  if (sender.joinable()) sender.join();
  EXPECT_GE(stepsWhileReading, 3) << "a step waited for the read to end";
  store->takeAppends();
  EXPECT_EQ(store->stats().storedRequests, 120u);
}

TEST_F(RequestStoreTest, FilesKeptForReuseByEarlierVersionsAreRemovedAndNeverRead) {
  // Left by an earlier version, with a frame that must not come back.
  const uint64_t stale = 99;
  {
    std::ofstream out(dir_ / "free-3", std::ios::binary);
    out << encodeFrame(request(stale));
  }
  auto store = open(4096);
  EXPECT_TRUE(store->recover().empty());
  EXPECT_FALSE(fs::exists(dir_ / "free-3"));

  // Removed segments' files go for good: nothing is kept for reuse.
  const auto ids = appendSome(*store, 60, 200);
  store->sync({});
  store->sync(ids);
  store->compact();
  for (const auto& path : files("", dir_)) {
    EXPECT_FALSE(path.filename().string().starts_with("free-")) << path;
  }
  store.reset();
  store = open(4096);
  EXPECT_TRUE(store->recover().empty());
  EXPECT_TRUE(setAside().empty());
}

TEST_F(RequestStoreTest, ASyncClosesASegmentThatTookManyPagesAndSyncsAShortTailInPlace) {
  RequestStoreOptions options;
  options.directory = dir_;
  JournalFront front(options);
  ASSERT_TRUE(front.open());
  const uint32_t first = front.activeSegment();
  uint32_t next = 0;
  auto appendFrames = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const uint64_t id = (uint64_t{front.epoch()} << 32) | next++;
      ASSERT_TRUE(front.append(encodeFrame(request(id, std::string(1000, 'q'))), id));
    }
  };
  struct Step {
    int frames;
    bool closes;
  };
  // Ten records since the last sync are a short tail; eighty (over 64 KiB)
  // are not, and neither are the next eighty in the segment that follows.
  const Step steps[] = {{10, false}, {10, false}, {80, true}, {5, false}, {80, true}};
  std::vector<uint32_t> closed;
  for (const Step& step : steps) {
    const uint32_t before = front.activeSegment();
    appendFrames(step.frames);
    front.syncActive();
    EXPECT_EQ(front.activeSegment() != before, step.closes) << step.frames << " records";
    if (step.closes) closed.push_back(before);
  }
  ASSERT_EQ(closed.size(), 2u);
  EXPECT_EQ(closed.front(), first);
  EXPECT_THAT(front.drain().closed, ::testing::ElementsAreArray(closed));
  // Closed segments are whole and cut to their used length.
  size_t records = 0;
  for (uint32_t number : closed) {
    const auto contents = front.readSegment(number);
    EXPECT_EQ(contents.tail, FrameStatus::End);
    EXPECT_EQ(contents.physicalBytes, contents.fileBytes);
    for (const auto& r : contents.records) EXPECT_EQ(r.payload, std::string(1000, 'q'));
    records += contents.records.size();
  }
  records += front.readSegment(front.activeSegment()).records.size();
  EXPECT_EQ(records, 185u);
}

TEST_F(RequestStoreTest, StoresATypicalBeaconInFewBytesOverItsPayload) {
  auto store = open();
  const std::string payload(600, 'b');
  for (int i = 0; i < 500; ++i) {
    const uint64_t id = (uint64_t{store->epoch()} << 32) | static_cast<uint32_t>(i);
    ASSERT_TRUE(store->append(encodeFrame(request(id, payload)), id));
  }
  store->sync({});
  store->compact();
  const double perRequest = static_cast<double>(store->stats().bytesOnDisk) / 500.0;
  EXPECT_GT(perRequest, 600);
  EXPECT_LT(perRequest, 600 * 1.35);
}

#ifndef _WIN32
TEST_F(RequestStoreTest, EveryAppendSurvivesAKillWhateverTheSegmentsLookLike) {
  // Across several segments without a sync (so the caller's thread makes
  // each next segment itself), including a record larger than a segment and
  // payloads ending in zero bytes; the child dies with its segments still
  // mapped and their reserved ends unwritten.
  const std::vector<std::string> round = {
      std::string("ends in zeros\0\0\0", 16), std::string(3000, 'a'),
      std::string(9000, 'L'),  // more than a whole segment
      std::string(1, '\0'), std::string(700, 'c') + std::string(20, '\0')};
  std::vector<std::string> payloads;
  for (int n = 0; n < 6; ++n) payloads.insert(payloads.end(), round.begin(), round.end());
  auto [store, recovered] = reopenedAfterAKill(4096, payloads);
  ASSERT_TRUE(store);
  ASSERT_EQ(recovered.size(), payloads.size());
  for (size_t n = 0; n < recovered.size(); ++n) {
    EXPECT_EQ(recovered[n].payload, payloads[n]) << "record " << n;
  }
  EXPECT_TRUE(setAside().empty()) << "an unwritten segment end is not damage";
  // Reserved space is given back, not counted as stored.
  store->sync({});
  store->compact();
  uint64_t payloadBytes = 0;
  for (const auto& r : recovered) payloadBytes += r.payload.size();
  EXPECT_LT(store->stats().bytesOnDisk, payloadBytes * 2);
}
#endif

#ifndef _WIN32
TEST_F(RequestStoreTest, WhereASegmentCannotBeMappedAppendsAreWrittenPlainlyAndSurviveAKill) {
  // No mapping (or no reservation for one): appends are written with
  // pwrite instead, from right after the header, and the reserved zeros
  // are cut off first.
  testing::FaultInjectingFileSystem files;
  files.failAlways(FileCall::Map, ENOMEM);
  files_ = &files;
  const std::vector<std::string> payloads(20, std::string(500, 'r'));
  auto [store, recovered] = reopenedAfterAKill(4096, payloads);
  ASSERT_TRUE(store);
  ASSERT_EQ(recovered.size(), payloads.size());
  for (const auto& r : recovered) EXPECT_EQ(r.payload, payloads[0]);
  EXPECT_TRUE(setAside().empty()) << "a reservation given up leaves no zeros between records";
}
#endif

TEST_F(RequestStoreTest, ADamagedMarksFileResendsInsteadOfLosing) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 4);
    store->sync(std::vector<uint64_t>{ids[0]});
    store->sync(std::vector<uint64_t>{ids[1]});
  }
  const auto marks = files(".done").at(0);
  {
    // Damage the second batch: the first one still counts.
    std::fstream f(marks, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(8 + 8 + 9);
    f.put('\x7f');
  }
  auto store = open();
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[1], ids[2], ids[3]));
  EXPECT_TRUE(logged("bad delivered-marks batch"));
}

// Frame headers that each claim a body running to the end, with a bad
// checksum: every marker is a candidate that costs its whole claim.
// They start at offset start of a file of bytes in all.
std::string craftedCandidates(size_t bytes, size_t start = 0) {
  std::string data;
  while (start + data.size() + kFrameHeaderBytes <= bytes) {
    const uint32_t header[3] = {
        kFrameMarker, static_cast<uint32_t>(bytes - start - data.size() - kFrameHeaderBytes), 0};
    data.append(reinterpret_cast<const char*>(header), sizeof header);
  }
  return data;
}

TEST(RequestFrameTest, LookingForTheNextFrameStopsWhenItsBudgetIsSpent) {
  const std::string crafted = craftedCandidates(64 * 1024);
  const std::string whole = encodeFrame(request(7));
  const std::string data = crafted + whole;
  EXPECT_EQ(findNextFrame(data, 0), crafted.size()) << "without a budget it is found, slowly";
  uint64_t budget = 4 * data.size();
  EXPECT_EQ(findNextFrame(data, 0, budget), std::nullopt);
  EXPECT_LE(budget, 4 * data.size());
  // A budget that covers one damaged stretch finds the frame after it.
  const std::string damaged = std::string("\x4B\x56\x52\x4A\x40\x00\x00\x00junk", 12) + whole;
  budget = 4 * damaged.size();
  EXPECT_EQ(findNextFrame(damaged, 0, budget), 12u);
}

TEST_F(RequestStoreTest, ACraftedSegmentIsSetAsideAndAStopEndsRecoveryLeavingTheRest) {
  {
    auto store = open();
    appendSome(*store, 3);
  }
  // A segment of an earlier run made of candidates.
  std::string segment("KVRJRNL1", 8);
  const uint32_t numberAndEpoch[2] = {100, 1};
  segment.append(reinterpret_cast<const char*>(numberAndEpoch), sizeof numberAndEpoch);
  segment += craftedCandidates(256 * 1024, segment.size());
  std::ofstream(dir_ / "seg-0000000100.log", std::ios::binary) << segment;

  {
    const std::atomic<bool> stop{true};
    auto store = open();
    EXPECT_TRUE(store->recover(&stop).empty());
  }
  EXPECT_TRUE(fs::exists(dir_ / "seg-0000000100.log")) << "nothing is changed by a stopped recovery";
  auto store = open();
  EXPECT_EQ(store->recover().size(), 3u);
  EXPECT_FALSE(fs::exists(dir_ / "seg-0000000100.log"));
  EXPECT_TRUE(logged("bad record checksum at byte 16; 0 pending requests kept"))
      << ::testing::PrintToString(env_.logs().messages());
}

TEST_F(RequestStoreTest, ReadsARequestBackWhereverItIsNowAndOnlyWhileStored) {
  auto store = open(4096);
  std::vector<StoredRequest> written;
  for (uint32_t i = 0; i < 60; ++i) {
    written.push_back(request((uint64_t{store->epoch()} << 32) | i, std::string(150 + i, 'r')));
    ASSERT_TRUE(store->append(encodeFrame(written.back()), written.back().id));
  }
  // Not drained by any sync yet.
  EXPECT_EQ(store->load(written[5].id), written[5]);
  store->sync({});
  // Most finish: their segments are compacted and the rest move on.
  std::vector<uint64_t> finished;
  for (size_t i = 0; i < written.size(); ++i) {
    if (i % 10 != 0) finished.push_back(written[i].id);
  }
  store->sync(finished);
  store->compact();
  for (size_t i = 0; i < written.size(); ++i) {
    if (i % 10 == 0) {
      EXPECT_EQ(store->load(written[i].id), written[i]) << i;
    } else {
      EXPECT_FALSE(store->load(written[i].id).has_value()) << i;
    }
  }
  EXPECT_FALSE(store->load(12345).has_value());
  store.reset();
  store = open(4096);
  ASSERT_EQ(store->recover().size(), 6u);
  EXPECT_EQ(store->load(written[50].id), written[50]);
  // The next run's ids (a higher epoch, the same low halves) beside the
  // earlier run's, through rotation and compaction.
  std::vector<StoredRequest> now;
  for (uint32_t i = 0; i < 60; i += 10) {
    now.push_back(request((uint64_t{store->epoch()} << 32) | i, std::string(300 + i, 'n')));
    ASSERT_TRUE(store->append(encodeFrame(now.back()), now.back().id));
  }
  store->sync({});
  const uint64_t finishedNow[] = {now[0].id, written[0].id};
  store->sync(finishedNow);
  store->compact();
  for (size_t i = 0; i < now.size(); ++i) {
    EXPECT_EQ(store->load(now[i].id).has_value(), i != 0) << i;
    EXPECT_EQ(store->load(written[i * 10].id).has_value(), i != 0) << i;
    if (i != 0) {
      EXPECT_EQ(store->load(now[i].id), now[i]) << i;
      EXPECT_EQ(store->load(written[i * 10].id), written[i * 10]) << i;
    }
  }
}

TEST_F(RequestStoreTest, AFailedMarksWriteIsRetriedAndLoggedOnce) {
  std::vector<uint64_t> ids;
  {
    auto store = open();
    ids = appendSome(*store, 3);
    store->sync({});
    // The marks file cannot be made (as on a full disk).
    const fs::path marks = files(".log").at(0).replace_extension(".done");
    fs::create_directory(marks);
    store->sync(std::vector<uint64_t>{ids[0]});
    store->sync({});
    EXPECT_EQ(env_.logs().messagesContaining("cannot write delivered marks"), 1u);
    fs::remove(marks);
    store->sync({});
    EXPECT_TRUE(logged("delivered marks are written again"));
  }
  auto store = open();
  EXPECT_THAT(idsOf(store->recover()), ElementsAre(ids[1], ids[2]))
      << "a delivered request is not sent again";
}

}  // namespace
}  // namespace korvel::network::internal
