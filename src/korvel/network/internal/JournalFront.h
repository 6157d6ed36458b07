// The journal front: the store's directory (held by a descriptor), its lock
// and epoch, the active segment that callers append to, and reading and
// setting aside of segments.
//
// Segments are memory-mapped: a segment file is created with its full size
// reserved on disk (written with zeros, so a full disk shows up then and
// never as a fault inside a mapped write) and mapped shared. Segments start
// small (a few requests waiting hold little of the disk) and grow while
// appends fill them, up to the configured size; a few quiet syncs in a row
// make them small again and keep one spare. An append is a
// memcpy into the mapping under a short lock: once it returns, the bytes
// belong to the kernel's page cache and survive a kill of the process, with
// no system call on the caller's thread. The writer thread makes them
// survive a power loss and keeps spare segments ready, so a caller whose
// record does not fit only swaps pointers. It never syncs many pages through
// the mapping: that write-protects each page, which costs the appending
// threads one TLB-flush interrupt per page and a write fault on the page
// they fill. A closed segment is unmapped first and then synced through its
// descriptor; an active segment that took many pages since the last sync is
// closed (the spare takes over) rather than synced in place. The unused end
// of a mapped segment reads as zeros, which readers take for the end of the
// segment; a closed segment is cut to its used length.
//
// A segment's life, all of it owned by the front until it is finished:
//   spare -> active -> closing (closed by a switch, still open and mapped)
//         -> finished (unmapped, cut, synced, closed; reported by drain()).
// Only a finished segment is ever handed to the store, which alone removes
// it once every record in it is finished. A segment's file is never reused
// for another segment, so nothing is cut or removed under a mapping.
//
// Where a segment cannot be mapped (or reserved) the front falls back to
// writeAt appends on that segment, within the room the file size limit
// leaves. Where no segment can be made at all (full disk, read-only folder)
// appends fail at once, with one log line, until the writer's next sync
// makes one again.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/network/internal/FileSystem.h>
#include <korvel/network/internal/RequestStore.h>

namespace korvel::network::internal {

class JournalFront {
 public:
  // Twenty-four bytes: a burst that outruns the writer keeps one per
  // request until the next drain.
  struct Appended {
    uint64_t id;
    uint32_t segment;
    uint32_t offset;  // a segment never reaches 4 GiB (kMaxSegmentBytes)
    uint32_t length;
  };

  // What callers appended since the last drain, and which segments were
  // finished. Every append to a finished segment is in the same drain or an
  // earlier one.
  struct Drained {
    std::vector<Appended> appended;  // in file order per segment
    std::vector<uint32_t> closed;
  };

  struct SegmentContents {
    uint32_t number = 0;
    // The file could not be opened or read (no descriptor, no permission,
    // an I/O error): nothing is known about it, it is not empty.
    bool unreadable = false;
    std::string readError;
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

  explicit JournalFront(RequestStoreOptions options);
  ~JournalFront();
  JournalFront(const JournalFront&) = delete;
  JournalFront& operator=(const JournalFront&) = delete;

  // Opens the directory (making it when missing), checks that it is ours
  // and private, takes its lock, picks the epoch (above minEpoch and above
  // every segment's) and starts a new active segment when it can (a full
  // disk still opens what is stored). False, with the reason in failure()
  // and logged, when the directory cannot be used.
  bool open(uint32_t minEpoch = 0);
  const std::string& failure() const { return failure_; }
  // open() failed only because another live process holds the directory.
  bool heldByAnotherProcess() const { return heldByAnother_; }

  // Moves an earlier segment (and its marks) of another journal's folder
  // into this one, under a new number, as one more earlier segment for
  // recover(). Before recover(); false when it could not be moved.
  bool adoptSegment(FileHandle fromFolder, uint32_t number);

  uint32_t epoch() const { return epoch_; }
  const RequestStoreOptions& options() const { return options_; }
  const platform::Logger& logger() const { return options_.logger; }
  FileSystem& files() const { return files_; }
  // The directory's handle; changes only on the writer thread (rehome).
  FileHandle folder() const { return folder_; }

  // Any thread.
  bool append(std::string_view frame, uint64_t id) KORVEL_EXCLUDES(mutex_);
  // Appends on the writer thread (records carried forward); not reported by
  // drain(). The frame's location, or nothing when it failed.
  std::optional<Appended> appendCarried(std::string_view frame, uint64_t id)
      KORVEL_EXCLUDES(mutex_);

  Drained drain() KORVEL_EXCLUDES(mutex_);

  // True when the directory's path no longer names the directory the front
  // holds (deleted, or deleted and made again, or replaced by a file).
  bool directoryReplaced() const;
  // Opens the directory at its path again (making it when missing), takes
  // its lock and moves appends on to a new segment there; the old active
  // segment is closed (finished by the next syncActive()). False, with the
  // reason logged, when it cannot.
  bool rehome() KORVEL_EXCLUDES(mutex_);
  // Reads bytes of a segment the front still has open (active, closing).
  bool readOpen(uint32_t number, uint64_t offset, std::string& out) const KORVEL_EXCLUDES(mutex_);

  // Segments of earlier runs found by open(), oldest first.
  const std::vector<uint32_t>& earlierSegments() const { return earlierSegments_; }
  // 0 when there is none.
  uint32_t activeSegment() const KORVEL_EXCLUDES(mutex_);
  // Used bytes of the active segment; UINT64_MAX when it cannot take more.
  uint64_t activeBytes() const KORVEL_EXCLUDES(mutex_);

  // Closes the active segment (finished by the next syncActive()) and
  // starts the next one. False when no new segment could be made.
  bool rotate() KORVEL_EXCLUDES(mutex_);
  // Tops up the spare segments (and makes an active one when there was
  // none), makes every append so far survive a power loss, and finishes
  // the segments closed since the last call. Writer thread.
  void syncActive() KORVEL_EXCLUDES(mutex_);
  void syncDirectory();
  // The last syncActive() found nothing appended for a few syncs and left
  // the segments at rest (small, one spare), and nothing was appended
  // since: another sync would do nothing.
  bool settled() const KORVEL_EXCLUDES(mutex_);

  // Reading stops early (tail Truncated at the point reached, stopped set)
  // when stop turns true.
  SegmentContents readSegment(uint32_t number, const std::atomic<bool>* stop = nullptr) const;
  // Cuts a closed segment of an earlier run to its used length.
  void trimSegment(uint32_t number, uint64_t usedBytes);
  // Moves a file of the directory to "aside" and logs why; deletes it when
  // that fails.
  void setAside(const std::string& name, const std::string& reason);
  // Removes a finished segment and its marks. Only for segments the front
  // reported finished, or earlier runs' segments.
  void removeSegmentFiles(uint32_t number);
  // Removes marks files whose segment is gone. Before recover().
  void removeOrphanMarks();
  // The whole content of a small file of the directory; nothing when it
  // cannot be read (and notFound set when it is not there).
  std::optional<std::string> readSmallFile(const std::string& name, bool* notFound = nullptr) const;
  // Writes a small file whole: a temporary, synced, renamed over it.
  bool writeSmallFile(const std::string& name, std::string_view contents);

  // Bytes of the store's files (not "aside", not the lock), counting open
  // segments by their used length.
  uint64_t bytesOnDisk() const KORVEL_EXCLUDES(mutex_);

  // Offsets in a segment fit 32 bits (the store's index keeps them so).
  static constexpr uint64_t kMaxSegmentBytes = 1ull << 30;
  // The first segments' size (or segmentBytes when smaller): about eighty
  // beacons. Segments grow from it only while appends fill them.
  static constexpr uint64_t kFirstSegmentBytes = 64u << 10;
  // Every page of a mapped segment that was made writable counts in the
  // process's resident memory until the segment is unmapped. The spares
  // have their pages made writable in the order callers take them, up to
  // kWritableSpareBytes in all (more than one of the largest segments), and
  // the others only their first kSpareHeadBytes until they move up, which
  // the writer sees at the sync a switch brings forward. A writer that waits
  // for a core or for a sync has the time callers take to fill the next
  // segment to make more of the one after it writable: with only the next
  // one whole, a burst outran it and took a page fault every few calls.
  // Where pages cannot be made writable without writing them (prefaultWorks_
  // false) every spare is written whole when it is made.
  static constexpr uint64_t kWritableSpareBytes = 2u << 20;
  static constexpr uint64_t kSpareHeadBytes = 64u << 10;
  // The room of the closed segments that may stay mapped until the writer
  // takes them (one of the largest, four of the smaller ones a burst starts
  // with; always one, however large); a caller that closes one more unmaps
  // it itself.
  static constexpr uint64_t kClosedMappedBytes = 1u << 20;

  // The spares, next first, and the closed segments not yet finished, as
  // their mappings stand (tests, figures).
  struct Mappings {
    struct Spare {
      uint64_t room = 0;
      uint64_t writable = 0;  // its first bytes whose pages were made writable
    };
    std::vector<Spare> spares;
    uint64_t closedMappedBytes = 0;  // the room of closed segments still mapped
  };
  Mappings mappings() const KORVEL_EXCLUDES(mutex_);

 private:
  struct Segment {
    FileHandle fd = kNoFile;
    uint32_t number = 0;
    char* map = nullptr;    // null: appended with writeAt
    uint64_t room = 0;      // the most bytes it may hold
    uint64_t bytes = 0;     // used
    uint64_t syncedBytes = 0;  // used bytes at the last sync
    bool dirty = false;     // appended to since the last sync
    bool broken = false;    // a failed write left it unusable
    bool reserved = false;  // made with a zero end (mapped), to be cut when finished
    // Bytes from its start whose pages are mapped writable (prefaulted).
    uint64_t prefaulted = 0;

    bool hasRoom(size_t size) const { return bytes + size <= room; }
  };

  // Opens and checks the directory and takes its lock; sets failure_.
  bool openDirectory() KORVEL_EXCLUDES(mutex_);
  // Creates, reserves and maps a new segment with room for at least
  // frameBytes; the pages of its first prefaultBytes are made writable now
  // so the appends into them take no page faults. Any thread; takes no
  // lock of the front's.
  std::optional<Segment> createSegment(size_t frameBytes, uint64_t prefaultBytes, std::string& error);
  // Makes the pages of the next spares writable, up to
  // kWritableSpareBytes in all (writer thread).
  void prefaultNextSpares() KORVEL_EXCLUDES(mutex_);
  // How many of the first bytes of the spare at place (or of one made to
  // join the spares there) are to be writable.
  uint64_t writableBytesWanted(size_t place) const KORVEL_REQUIRES(mutex_);
  // The room of the closed segments still mapped (not yet taken by the
  // writer, nor unmapped by a caller).
  uint64_t closedMappedBytesLocked() const KORVEL_REQUIRES(mutex_);
  // Closes the active segment and installs the spare or a new one; with the
  // lock held. False when no segment could be made.
  bool switchSegmentLocked(size_t frameBytes) KORVEL_REQUIRES(mutex_);
  std::optional<Appended> appendLocked(std::string_view frame, uint64_t id, bool& switched)
      KORVEL_REQUIRES(mutex_);
  // Logs the first failure to make a segment, counts the rest.
  void segmentFailed(const std::string& error) KORVEL_REQUIRES(mutex_);
  void topUpSpares() KORVEL_EXCLUDES(mutex_);
  // At the start of a sync: when nothing was appended for the last few
  // syncs (quiet), segments start small again and spares past one, or
  // larger than a small segment, are let go.
  void restIfQuiet(bool& quiet) KORVEL_EXCLUDES(mutex_);
  // Appends filled the active segment: the next ones are larger.
  void growSegments() KORVEL_REQUIRES(mutex_);
  uint64_t firstSegmentBytes() const;
  static uint64_t roundToPage(uint64_t bytes);
  void finish(Segment& segment);
  void removeRecycledLeftovers(const std::vector<std::string>& names);

  RequestStoreOptions options_;
  FileSystem& files_;
  std::string failure_;
  bool heldByAnother_ = false;
  std::atomic<FileHandle> folder_{kNoFile};
  FileHandle lockFd_ = kNoFile;
  uint32_t epoch_ = 0;
  std::vector<uint32_t> earlierSegments_;
  std::atomic<uint32_t> nextSegment_{1};
  std::atomic<bool> directoryDirty_{false};

  // One spare while requests come one by one. Two carry a burst of appends
  // (once appends filled a segment) over the time the writer takes to
  // notice that one was taken and to make the next. Once appends outran
  // them (a caller had to make a segment itself), four are kept: making a
  // segment costs the writer a file creation and a page fault per page,
  // which a sustained burst of small segments can outpace. A quiet sync
  // goes back to one.
  static constexpr size_t kQuietSpareSegments = 1;
  static constexpr size_t kSpareSegments = 2;
  static constexpr size_t kMaxSpareSegments = 4;
  std::atomic<bool> prefaultWorks_{true};
  std::atomic<size_t> spareTarget_{kQuietSpareSegments};
  // The size of the segments made next: kFirstSegmentBytes, doubled by
  // each segment appends fill, up to segmentBytes.
  std::atomic<uint64_t> segmentSize_{kFirstSegmentBytes};

  // An active segment that took more than this since its last sync is
  // closed and synced unmapped rather than synced in place (syncActive).
  static constexpr uint64_t kSyncInPlaceBytes = 64u << 10;

  mutable foundation::internal::Mutex mutex_;
  Segment active_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Segment> spares_ KORVEL_GUARDED_BY(mutex_);
  // Closed, not yet finished by syncActive().
  std::vector<Segment> closing_ KORVEL_GUARDED_BY(mutex_);
  std::vector<Appended> appended_ KORVEL_GUARDED_BY(mutex_);
  std::vector<uint32_t> closed_ KORVEL_GUARDED_BY(mutex_);
  // No segment could be made: appends fail at once until the writer makes
  // one (syncActive), with one log line for the spell and a count after it.
  bool cannotMakeSegments_ KORVEL_GUARDED_BY(mutex_) = false;
  // See settled().
  bool rested_ KORVEL_GUARDED_BY(mutex_) = false;
  // Syncs in a row that found nothing appended since the one before; at
  // kQuietSyncsToRest the segments rest (restIfQuiet).
  int quietSyncs_ KORVEL_GUARDED_BY(mutex_) = 0;
  static constexpr int kQuietSyncsToRest = 5;
  uint64_t appendsRefused_ KORVEL_GUARDED_BY(mutex_) = 0;
};

}  // namespace korvel::network::internal
