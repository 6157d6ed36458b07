// Where the durable executor keeps requests that are not delivered yet.
//
// Two stores share one front: an append-only journal in the store's
// directory. A caller's thread makes a request durable by copying one framed
// record into the active journal segment, which is memory-mapped; once the
// copy is done the record is in the page cache and survives a kill of the
// process at any instant. No fsync and no transaction happen on the caller's
// thread: the executor's writer thread syncs in groups (a power loss loses at
// most the last sync interval) and tells the store which requests are
// finished.
//
//   JournalRequestStore  the journal is the store: closed segments stay until
//                        every record in them is finished; finished ids go to
//                        a small marks file beside each segment; a segment
//                        that is mostly finished is compacted by copying its
//                        live records forward.
//
// An SQLite store was built beside it and measured: the journal kept each
// beacon in fewer bytes, delivered faster and synced once per interval where
// SQLite wrote every record twice; it was removed (DurableRequestExecutor.h).
//
// Record identifiers are (epoch << 32) | counter. The epoch is larger than
// any epoch of an earlier run found in the directory, so an identifier is
// never reused while a record carrying it may still exist.
//
// Anything unreadable (a torn or corrupt journal tail, a garbage segment) is
// moved to the directory's "aside" folder with a log line, what could be read
// is kept, and a fresh file is started. A file that cannot be opened or read
// (no descriptor left, no permission, an I/O error) is not damage: it stays
// where it is for the next start. A store never throws and never crashes its
// host over its files, and touches nothing outside its directory: every file
// is opened relative to the directory's descriptor and no link is followed.
#pragma once

#include <algorithm>
#include <atomic>
#include <iterator>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Logging.h>

namespace korvel::network::internal {

// One stored request: how to restore it and how to send it.
struct StoredRequest {
  uint64_t id = 0;
  int64_t createdMillis = 0;  // wall clock, milliseconds since 1970
  int32_t priority = 1;
  int32_t configurationPolicy = 0;
  int32_t retryCount = 0;
  std::string kind;     // the restoration kind
  std::string payload;  // the restoration payload

  friend bool operator==(const StoredRequest&, const StoredRequest&) = default;
};

// CRC-32C (Castagnoli), as used by the journal's frames and marks.
uint32_t crc32c(const void* data, size_t size, uint32_t crc = 0);
// The same checksum from the lookup tables alone (what crc32c uses where the
// CPU has no CRC32C instruction); the tests hold the two against each other.
uint32_t crc32cPortable(const void* data, size_t size, uint32_t crc = 0);

// A frame is [u32 marker][u32 body length][u32 CRC-32C of the body][body],
// little-endian; the body is u64 id, i64 created, i32 priority, i32 policy,
// i32 retry count, u16 kind length, the kind, then the payload up to the end
// of the body. The marker lets a reader find the next frame after a damaged
// one instead of losing the rest of the file.
inline constexpr uint32_t kFrameMarker = 0x4A52564B;  // "KVRJ"
inline constexpr size_t kFrameHeaderBytes = 12;
inline constexpr size_t kFrameFixedBodyBytes = 30;
// The bytes the frame of a request with this kind and payload takes.
inline constexpr size_t frameBytes(std::string_view kind, std::string_view payload) {
  return kFrameHeaderBytes + kFrameFixedBodyBytes + kind.size() + payload.size();
}
// A body longer than this is taken for corruption, not allocated.
inline constexpr size_t kMaxFrameBodyBytes = 16u << 20;

// A frame written in place, payload included: beginFrame writes the header
// and the kind and gives the frame's start; the caller appends the payload
// to out; finishFrame fills in the body's length and checksum. Nothing else
// may be appended to out in between.
size_t beginFrame(std::string& out, uint64_t id, int64_t createdMillis, int32_t priority,
                  int32_t configurationPolicy, int32_t retryCount, std::string_view kind);
void finishFrame(std::string& out, size_t start);

// Appends the frame of a request to out (out is not cleared).
void appendFrame(std::string& out, uint64_t id, int64_t createdMillis, int32_t priority,
                 int32_t configurationPolicy, int32_t retryCount, std::string_view kind,
                 std::string_view payload);
std::string encodeFrame(const StoredRequest& request);

enum class FrameStatus {
  Ok,
  End,        // no bytes left
  Truncated,  // the bytes end inside a frame (a torn write)
  Corrupt,    // bad length or checksum
};

// Decodes the frame at data[offset]; on Ok, fills out and moves offset past it.
FrameStatus decodeFrame(std::string_view data, size_t& offset, StoredRequest& out);

// The offset of the next frame that decodes, at or after from; nothing when
// there is none. Checking a candidate costs its claimed body length, taken
// from budget; nothing, too, once the budget is spent (a file made of
// candidates that each claim a long body would otherwise take time
// quadratic in its size).
std::optional<size_t> findNextFrame(std::string_view data, size_t from, uint64_t& budget);
std::optional<size_t> findNextFrame(std::string_view data, size_t from);

struct StoreStats {
  uint64_t bytesOnDisk = 0;    // files of the store, not counting set-aside ones
  uint64_t storedRequests = 0;  // records the store holds (writer's view)
};

class RequestStore {
 public:
  virtual ~RequestStore() = default;

  // The epoch of this run (the high half of identifiers made now).
  virtual uint32_t epoch() const = 0;

  // Any thread. Appends one frame (made by appendFrame) to the journal;
  // false when it could not be written, the request then lives in memory.
  virtual bool append(std::string_view frame, uint64_t id) = 0;

  // Any thread. The stored request with this id, read back from the
  // journal; nothing when it is not stored (finished, never stored, or
  // unreadable).
  virtual std::optional<StoredRequest> load(uint64_t id) = 0;

  // The rest is for the writer thread only.

  // Requests stored by earlier runs and not finished, oldest first, after
  // setting aside what cannot be read. Called once, before the first sync.
  // Takes time linear in the files' size; when stop turns true it ends
  // early, leaving the segments it has not read for the next start.
  virtual std::vector<StoredRequest> recover(const std::atomic<bool>* stop = nullptr) = 0;

  // Streams the requests earlier runs stored and did not finish, oldest first, in batches of at most
  // batchSize; batch returns false to stop early (the rest stays stored for the next start).
  virtual void recoverInBatches(const std::atomic<bool>* stop, size_t batchSize,
                                const std::function<bool(std::vector<StoredRequest>&)>& batch) {
    std::vector<StoredRequest> all = recover(stop);
    std::vector<StoredRequest> part;
    const size_t step = std::max<size_t>(batchSize, 1);
    for (size_t at = 0; at < all.size(); at += step) {
      const size_t end = std::min(all.size(), at + step);
      part.assign(std::make_move_iterator(all.begin() + static_cast<std::ptrdiff_t>(at)),
                  std::make_move_iterator(all.begin() + static_cast<std::ptrdiff_t>(end)));
      if (!batch(part)) return;
    }
  }

  // Forgets the finished requests (delivered or dropped) and makes every
  // append and every forget so far survive a power loss.
  virtual void sync(std::span<const uint64_t> finished) = 0;

  // Whether a sync now would find nothing to do: every append and move so
  // far synced and the files at rest. Until then the owner syncs again.
  virtual bool settled() const { return true; }
  // Takes what was appended since the last call into the store's own
  // bookkeeping now rather than at the next sync (the writer, while a
  // burst outruns its syncs). Nothing is made durable by it.
  virtual void takeAppends() {}

  // Moves whatever can be moved so the files hold only what is stored
  // (measurements and tests; sync() does this gradually).
  virtual void compact() = 0;

  virtual StoreStats stats() const = 0;

  // False while the store cannot write where it survives a restart (its
  // directory vanished and could not be made again). Any thread.
  virtual bool durable() const = 0;

  // Small files of the store's owner (a few lines each) in the store's
  // directory, through its descriptor: written whole (a temporary renamed
  // over the old one), read whole, removed. Name is a plain file name.
  // False (or nothing) when it cannot be done. Writer thread.
  virtual bool writeSmallFile(const std::string& /*name*/, std::string_view /*contents*/) { return false; }
  virtual std::optional<std::string> readSmallFile(const std::string& /*name*/) { return std::nullopt; }
  virtual void removeSmallFile(const std::string& /*name*/) {}
};

class FileSystem;

struct RequestStoreOptions {
  std::filesystem::path directory;
  // The largest journal segment. The first ones are smaller
  // (kFirstSegmentBytes); each that appends fill up makes the next twice as
  // large, up to this, and a quiet sync starts small again.
  uint64_t segmentBytes = 1u << 20;
  // Set-aside files kept in "aside" (the newest).
  size_t keepAsideFiles = 4;
  platform::Logger logger{"Unknown bundle", "Delivery"};
  // Called on the appending thread, outside the store's locks, when an
  // append moved on to a new segment: the next sync() should come soon, so
  // new spares are ready before the caller's thread has to make one.
  std::function<void()> segmentSwitched;
  // Called on the syncing thread, with none of the store's locks held,
  // between the long steps of a sync (making a spare segment, finishing a
  // closed one): work its owner would otherwise leave waiting for the whole
  // sync can be done in between.
  std::function<void()> betweenSyncSteps;
  // Every file operation goes through it; null for the plain system calls.
  // The tests put a FaultInjectingFileSystem here.
  FileSystem* fileSystem = nullptr;
};

// A store, or why there is none (the directory cannot be made, is another
// user's, is open to others and cannot be made private, ...).
struct OpenedRequestStore {
  std::unique_ptr<RequestStore> store;
  std::string failure;
};
OpenedRequestStore openJournalRequestStoreWithReason(const RequestStoreOptions& options);

// Null, after logging why, when the directory cannot be used.
std::unique_ptr<RequestStore> openJournalRequestStore(const RequestStoreOptions& options);

}  // namespace korvel::network::internal
