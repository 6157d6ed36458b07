// A journal segment's life under the store: closed, fully delivered, removed
// while the front still holds it, and what the next segments are made of.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

#include <filesystem>

#include <korvel/network/internal/RequestStore.h>
#include "support/FolderTest.h"
#include "support/TestEnv.h"

namespace korvel::platform {
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

}  // namespace
}  // namespace korvel::platform
