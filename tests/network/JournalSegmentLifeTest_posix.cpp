// A journal segment's life under the store: closed, fully delivered, removed
// while the front still holds it, what the next segments are made of, and
// how large they are made. POSIX only: a forked child is killed, and the
// disk blocks a segment takes are read with stat.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include <korvel/network/internal/RequestStore.h>
#include "support/FolderTest.h"
#include "support/TestEnv.h"

namespace korvel::network::internal {
namespace {

namespace fs = std::filesystem;

std::string frameOf(uint64_t id, size_t payloadBytes) {
  StoredRequest r;
  r.id = id;
  r.kind = "KVRBeacon";
  r.payload.assign(payloadBytes, 'v');
  return encodeFrame(r);
}

class JournalSegmentLifeTest : public testing::FolderTest {};

// A small record, then a large one that does not fit after it: the segment
// holding only the small one is closed by the report call and a spare takes
// over. The sync that finishes the small record removes the closed segment
// while the front has not finished it yet, and tops the spares up in the
// same pass. Whatever the next segments are made of, appending into them
// must neither fault nor lose a record.
TEST_F(JournalSegmentLifeTest, ASegmentRemovedBeforeItIsFinishedIsNeverHandedOutAgain) {
  constexpr uint64_t kSegmentBytes = 16u << 10;
  const pid_t child = fork();
  if (child == 0) {
    RequestStoreOptions options;
    options.directory = dir_;
    options.segmentBytes = kSegmentBytes;
    auto store = openJournalRequestStore(options);
    if (!store) _exit(3);
    store->recover();
    const uint64_t epoch = uint64_t{store->epoch()} << 32;
    uint32_t next = 0;
    const uint64_t small = epoch | next++;
    if (!store->append(frameOf(small, 900), small)) _exit(4);
    const uint64_t large = epoch | next++;
    if (!store->append(frameOf(large, 16000), large)) _exit(4);
    const uint64_t finished[] = {small};
    store->sync(finished);
    // Through the next few segments, each of which the writer made.
    for (int i = 0; i < 40; ++i) {
      const uint64_t id = epoch | next++;
      if (!store->append(frameOf(id, 1800), id)) _exit(5);
    }
    store.reset();
    // Everything but the finished record is still there.
    store = openJournalRequestStore(options);
    if (!store) _exit(6);
    const auto recovered = store->recover();
    _exit(recovered.size() == next - 1 ? 0 : 7);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_FALSE(WIFSIGNALED(status)) << "the child died of signal " << WTERMSIG(status) << " ("
                                    << strsignal(WTERMSIG(status)) << ")";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

struct SegmentFiles {
  size_t count = 0;
  uint64_t bytes = 0;    // allocated on the disk
  uint64_t largest = 0;  // file size
};

SegmentFiles segmentFiles(const fs::path& dir) {
  SegmentFiles files;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().extension() != ".log") continue;
    struct stat st {};
    if (stat(entry.path().c_str(), &st) != 0) continue;
    ++files.count;
    files.bytes += static_cast<uint64_t>(st.st_blocks) * 512;
    files.largest = std::max<uint64_t>(files.largest, static_cast<uint64_t>(st.st_size));
  }
  return files;
}

// A few waiting requests hold a small segment and one small spare; a burst
// makes segments grow up to the configured size; a pause of one sync keeps
// them, a few quiet syncs in a row bring back
// small segments and one spare, and the records stay readable throughout.
TEST_F(JournalSegmentLifeTest, SegmentsStartSmallGrowUnderABurstAndShrinkWhenQuiet) {
  constexpr uint64_t kSegmentBytes = 1u << 20;
  RequestStoreOptions options;
  options.directory = dir_;
  options.segmentBytes = kSegmentBytes;
  auto store = openJournalRequestStore(options);
  ASSERT_NE(store, nullptr);
  store->recover();
  const uint64_t epoch = uint64_t{store->epoch()} << 32;
  uint32_t next = 0;
  std::vector<uint64_t> ids;
  auto appendSome = [&](int count) {
    for (int i = 0; i < count; ++i) {
      const uint64_t id = epoch | next++;
      ASSERT_TRUE(store->append(frameOf(id, 700), id));
      ids.push_back(id);
    }
  };

  appendSome(5);
  store->sync({});
  SegmentFiles few = segmentFiles(dir_);
  EXPECT_EQ(few.count, 2u) << "the active segment and one spare";
  EXPECT_LE(few.bytes, 256u << 10);
  EXPECT_FALSE(store->settled()) << "appended since the last sync";

  // About 2 MiB at once: every full segment makes the next one larger.
  appendSome(3000);
  store->sync({});
  appendSome(3000);
  store->sync({});
  EXPECT_EQ(segmentFiles(dir_).largest, kSegmentBytes);

  // A pause between bursts is not rest.
  store->sync({});
  EXPECT_FALSE(store->settled());
  EXPECT_GE(segmentFiles(dir_).count, 3u) << "the large segments and their spares are kept";

  // Quiet: nothing appended for a few syncs.
  for (int i = 0; i < 10 && !store->settled(); ++i) store->sync(ids);
  ASSERT_TRUE(store->settled());
  const SegmentFiles quiet = segmentFiles(dir_);
  EXPECT_EQ(quiet.count, 2u) << "a small active segment and one small spare";
  EXPECT_LE(quiet.bytes, 256u << 10);

  // Small again: a handful more takes no large segment.
  ids.clear();
  appendSome(5);
  store->sync({});
  EXPECT_LE(segmentFiles(dir_).bytes, 256u << 10);
  for (uint64_t id : ids) EXPECT_TRUE(store->load(id).has_value()) << id;
}

}  // namespace
}  // namespace korvel::network::internal
