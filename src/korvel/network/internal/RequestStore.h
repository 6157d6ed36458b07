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
// Anything unreadable (a torn or corrupt journal tail, a garbage segment) is moved to the directory's "aside" folder with
// a log line, what could be read is kept, and a fresh file is started. A store
// never throws and never crashes its host over its files.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/Mutex.h>
#include <korvel/platform/Logging.h>

namespace korvel::platform {

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
    // On top of recover(): everything is read first, then handed out batch by
    // batch, each batch's payloads let go as it goes.
    std::vector<StoredRequest> all = recover(stop);
    const size_t step = batchSize == 0 ? 1 : batchSize;
    std::vector<StoredRequest> chunk;
    for (size_t begin = 0; begin < all.size(); begin += step) {
      const size_t end = std::min(all.size(), begin + step);
      chunk.clear();
      chunk.reserve(end - begin);
      for (size_t i = begin; i < end; ++i) chunk.push_back(std::move(all[i]));
      // Moved-from strings may keep nothing, but make sure of it.
      for (size_t i = begin; i < end; ++i) all[i] = StoredRequest{};
      if (!batch(chunk)) return;
    }
  }

  // Forgets the finished requests (delivered or dropped) and makes every
  // append and every forget so far survive a power loss.
  virtual void sync(std::span<const uint64_t> finished) = 0;

  // Moves whatever can be moved so the files hold only what is stored
  // (measurements and tests; sync() does this gradually).
  virtual void compact() = 0;

  virtual StoreStats stats() const = 0;

  // False while the store cannot write where it survives a restart (its
  // directory vanished and could not be made again). Any thread.
  virtual bool durable() const = 0;
};

struct RequestStoreOptions {
  std::filesystem::path directory;
  // A journal segment is closed and a new one started past this size.
  uint64_t segmentBytes = 1u << 20;
  // Set-aside files kept in "aside" (the newest).
  size_t keepAsideFiles = 4;
  Logger logger{"Unknown bundle", "Delivery"};
  // Called on the appending thread, outside the store's locks, when an
  // append moved on to a new segment: the next sync() should come soon, so
  // new spares are ready before the caller's thread has to make one.
  std::function<void()> segmentSwitched;
  // Called on the syncing thread, with none of the store's locks held,
  // between the long steps of a sync (making a spare segment, finishing a
  // closed one): work its owner would otherwise leave waiting for the whole
  // sync can be done in between.
  std::function<void()> betweenSyncSteps;
};

// Null, after logging why, when the directory cannot be used.
std::unique_ptr<RequestStore> openJournalRequestStore(const RequestStoreOptions& options);

// The journal shared by both stores: directory, lock, epoch, the active
// segment that callers append to, and reading and setting aside of segments.
//
// Segments are memory-mapped: a segment file is created with its full size
// reserved on disk (written with zeros, so a full disk shows up then and
// never as a fault inside a mapped write) and mapped shared. An append is a memcpy
// into the mapping under a short lock: once it returns, the bytes belong to
// the kernel's page cache and survive a kill of the process, with no system
// call on the caller's thread. The writer thread makes them survive a power
// loss and keeps spare segments ready, so a caller whose record does not
// fit only swaps pointers. It never syncs many pages through the mapping:
// that write-protects each page, which costs the appending threads one
// TLB-flush interrupt per page and a write fault on the page they fill. A
// closed segment is unmapped first and then synced through its descriptor;
// an active segment that took many pages since the last sync is closed
// (the spare takes over) rather than synced in place. The unused end of a mapped segment reads as
// zeros, which readers take for the end of the segment; a closed segment is
// cut to its used length.
//
// Where a segment cannot be mapped (or reserved) the front falls back to
// pwrite(2) appends on that segment; nothing else changes.
class JournalFront {
 public:
  struct Appended {
    uint64_t id;
    uint32_t segment;
    uint64_t offset;
    uint32_t length;
  };

  // What callers appended, and which segments were closed, since the last
  // drain. Every append to a closed segment is in the same drain or an
  // earlier one.
  struct Drained {
    std::vector<Appended> appended;  // in file order per segment
    std::vector<uint32_t> closed;
  };

  struct SegmentContents {
    uint32_t number = 0;
    bool headerOk = false;
    // End when every byte up to the used length was a frame; otherwise the
    // first damage found (frames after it that still decode are kept).
    FrameStatus tail = FrameStatus::End;
    uint64_t validBytes = 0;  // where the first damage starts
    // The used length: the file's size without an unwritten (zero) end.
    uint64_t fileBytes = 0;
    uint64_t physicalBytes = 0;  // the file's size
    std::vector<StoredRequest> records;
    std::vector<uint64_t> offsets;  // of each record's frame
    bool stopped = false;
  };

  explicit JournalFront(RequestStoreOptions options) : options_(std::move(options)) {}
  ~JournalFront();
  JournalFront(const JournalFront&) = delete;
  JournalFront& operator=(const JournalFront&) = delete;

  // Creates the directory, takes its lock, picks the epoch (above minEpoch
  // and above every segment's) and starts a new active segment. False, with
  // the reason logged, when the directory cannot be used.
  bool open(uint32_t minEpoch = 0);
  // The directory lock alone (open() takes it when not yet taken): no two
  // processes ever use one directory at once.
  bool lockDirectory();

  uint32_t epoch() const { return epoch_; }
  const RequestStoreOptions& options() const { return options_; }
  const Logger& logger() const { return options_.logger; }

  // Any thread.
  bool append(std::string_view frame, uint64_t id) KORVEL_EXCLUDES(mutex_);
  // Appends on the writer thread (records carried forward); not reported by
  // drain(). The frame's location, or nothing when it failed.
  std::optional<Appended> appendCarried(std::string_view frame, uint64_t id)
      KORVEL_EXCLUDES(mutex_);

  Drained drain() KORVEL_EXCLUDES(mutex_);

  // True when the directory is gone (deleted while in use).
  bool directoryVanished() const;
  // Makes the directory again, takes its lock and moves appends on to a new
  // segment there; the old active segment is closed (reported by the next
  // drain) and stays readable through readOpen() until the next
  // syncActive(). False, with the reason logged, when it cannot.
  bool rehome() KORVEL_EXCLUDES(mutex_);
  // Reads bytes of a segment the front still has open (active, closing).
  bool readOpen(uint32_t number, uint64_t offset, std::string& out) const KORVEL_EXCLUDES(mutex_);

  // Segments of earlier runs found by open(), oldest first.
  const std::vector<uint32_t>& earlierSegments() const { return earlierSegments_; }
  uint32_t activeSegment() const KORVEL_EXCLUDES(mutex_);
  // Used bytes of the active segment; UINT64_MAX when it cannot take more.
  uint64_t activeBytes() const KORVEL_EXCLUDES(mutex_);

  // Closes the active segment (reported by the next drain(), finished by the
  // next syncActive()) and starts the next one. False when no new segment
  // could be made.
  bool rotate() KORVEL_EXCLUDES(mutex_);
  // Tops up the spare segments, makes every append so far survive a power
  // loss, and finishes the segments closed since the last call (synced, cut
  // to their used length, unmapped). Writer thread.
  void syncActive() KORVEL_EXCLUDES(mutex_);
  void syncDirectory();

  std::filesystem::path segmentPath(uint32_t number) const;
  // Reading stops early (tail Truncated at the point reached, stopped set)
  // when stop turns true.
  SegmentContents readSegment(uint32_t number, const std::atomic<bool>* stop = nullptr) const;
  // Cuts a closed segment of an earlier run to its used length.
  void trimSegment(uint32_t number, uint64_t usedBytes);
  // Moves a file to "aside" and logs why; deletes it when that fails.
  void setAside(const std::filesystem::path& file, const std::string& reason);
  void removeSegmentFiles(uint32_t number);

  // Bytes of the store's files (not "aside", not the lock), counting open
  // segments by their used length.
  uint64_t bytesOnDisk() const KORVEL_EXCLUDES(mutex_);

 private:
  struct Segment {
    int fd = -1;
    uint32_t number = 0;
    char* map = nullptr;  // null: appended with pwrite(2)
    uint64_t capacity = 0;  // of the mapping
    uint64_t bytes = 0;     // used
    uint64_t syncedBytes = 0;  // used bytes at the last sync
    bool dirty = false;     // appended to since the last sync
    bool broken = false;    // a failed pwrite left it unusable

    bool hasRoom(size_t size) const {
      return bytes + size <= (map == nullptr ? kMaxSegmentBytes : capacity);
    }
  };

  // Creates, reserves and maps a new segment with room for at least
  // frameBytes; with prefault, its pages are made writable now so the
  // appends into it take no page faults. Any thread; takes no lock of the
  // front's.
  std::optional<Segment> createSegment(size_t frameBytes, bool prefault, std::string& error);
  // Closes the active segment and installs the spare or a new one; with the
  // lock held. False when no segment could be made.
  bool switchSegmentLocked(size_t frameBytes) KORVEL_REQUIRES(mutex_);
  std::optional<Appended> appendLocked(std::string_view frame, uint64_t id, bool& switched)
      KORVEL_REQUIRES(mutex_);
  void topUpSpares() KORVEL_EXCLUDES(mutex_);
  void finish(Segment& segment);
  // Keeps a removed segment's file, emptied and renamed, for a later
  // segment; false when enough are kept already or it cannot be.
  bool recycle(const std::filesystem::path& log) KORVEL_EXCLUDES(recycledMutex_);
  // Opens a kept file under the new segment's path; -1 when none is kept.
  int openRecycled(const std::filesystem::path& path) KORVEL_EXCLUDES(recycledMutex_);

  RequestStoreOptions options_;
  int lockFd_ = -1;
  uint32_t epoch_ = 0;
  std::vector<uint32_t> earlierSegments_;
  std::atomic<uint32_t> nextSegment_{1};
  std::atomic<bool> directoryDirty_{false};

  // Offsets in a segment fit 32 bits (the store's index keeps them so).
  static constexpr uint64_t kMaxSegmentBytes = 1ull << 30;

  // Two spares carry a burst of appends over the time the writer takes to
  // notice that one was taken and to make the next. Once appends outran
  // them (a caller had to make a segment itself), four are kept: making a
  // segment costs the writer a file creation and a page fault per page,
  // which a sustained burst of small segments can outpace.
  static constexpr size_t kSpareSegments = 2;
  static constexpr size_t kMaxSpareSegments = 4;
  std::atomic<size_t> spareTarget_{kSpareSegments};

  // An active segment that took more than this since its last sync is
  // closed and synced unmapped rather than synced in place (syncActive).
  static constexpr uint64_t kSyncInPlaceBytes = 64u << 10;

  // Files of removed segments, empty, for the next segments to take over:
  // creating a file costs ext4 a search for a free inode that a steady
  // stream of deletions makes long (most of the writer's time, measured,
  // when segments turn over hundreds of times a second). Any thread.
  static constexpr size_t kRecycledFiles = 4;
  Mutex recycledMutex_;
  std::vector<std::filesystem::path> recycled_ KORVEL_GUARDED_BY(recycledMutex_);
  std::atomic<uint64_t> recycledNames_{0};

  mutable Mutex mutex_;
  Segment active_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Segment> spares_ KORVEL_GUARDED_BY(mutex_);
  // Closed, not yet finished by syncActive().
  std::vector<Segment> closing_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Appended> appended_ KORVEL_GUARDED_BY(mutex_);
  std::vector<uint32_t> closed_ KORVEL_GUARDED_BY(mutex_);
};

}  // namespace korvel::platform
