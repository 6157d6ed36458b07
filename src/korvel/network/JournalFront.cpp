// The journal front: the directory, its lock and epoch, and the life of the
// segments that callers append to (spare, active, closing, finished).
#include <errno.h>

#include <algorithm>
#include <cstring>

#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/JournalFront.h>
#include <korvel/network/internal/JournalSegmentFiles.h>

using korvel::platform::LogLevel;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

namespace fs = std::filesystem;
using namespace journal;

JournalFront::JournalFront(RequestStoreOptions options)
    : options_(std::move(options)),
      files_(options_.fileSystem != nullptr ? *options_.fileSystem : systemFileSystem()) {
  segmentSize_.store(firstSegmentBytes(), std::memory_order_relaxed);
}

JournalFront::~JournalFront() {
  MutexLock lock(mutex_);
  for (auto& segment : closing_) finish(segment);
  closing_.clear();
  if (active_.fd >= 0) finish(active_);
  for (auto& spare : spares_) {
    // Never written to: it goes, rather than being found empty at the next
    // start. Unmapped first: Windows removes no file that is mapped.
    finish(spare);
    files_.removeAt(folder_, segmentName(spare.number).c_str());
  }
  if (lockFd_ >= 0) files_.close(lockFd_);  // releases the lock
  if (folder_ >= 0) files_.close(folder_);
}

bool JournalFront::openDirectory() {
  const fs::path& dir = options_.directory;
  failure_.clear();
  heldByAnother_ = false;
  const FileHandle folder = openCheckedFolder(files_, utf8Text(dir), failure_);
  if (folder < 0) return false;
  const FileHandle lockFd = files_.openAt(folder, kLockFile, OpenFlags::ReadWrite | OpenFlags::Create);
  if (lockFd < 0) {
    failure_ = "cannot open the lock in " + dir.string() + ": " + errnoText(errno);
    files_.close(folder);
    return false;
  }
  if (files_.lock(lockFd, false) != 0) {
    failure_ = dir.string() + " is in use by another process";
    heldByAnother_ = errno == EWOULDBLOCK;
    files_.close(lockFd);
    files_.close(folder);
    return false;
  }
  MutexLock lock(mutex_);
  folder_ = folder;
  lockFd_ = lockFd;
  return true;
}

bool JournalFront::adoptSegment(FileHandle fromFolder, uint32_t number) {
  const uint32_t renumbered = nextSegment_.fetch_add(1);
  // The marks go first: a crash in between leaves marks without their
  // segment here (removed at the next start) and the segment there without
  // its marks, whose finished requests are then sent again: a resend,
  // never a loss.
  if (files_.renameAt(fromFolder, marksName(number).c_str(), folder_, marksName(renumbered).c_str()) != 0 &&
      errno != ENOENT) {
    return false;
  }
  if (files_.renameAt(fromFolder, segmentName(number).c_str(), folder_,
                      segmentName(renumbered).c_str()) != 0) {
    files_.renameAt(folder_, marksName(renumbered).c_str(), fromFolder, marksName(number).c_str());
    return false;
  }
  earlierSegments_.push_back(renumbered);
  directoryDirty_ = true;
  return true;
}

void JournalFront::removeRecycledLeftovers(const std::vector<std::string>& names) {
  for (const auto& name : names) {
    if (name.starts_with(kRecycledPrefix)) files_.removeAt(folder_, name.c_str());
  }
}

bool JournalFront::open(uint32_t minEpoch) {
  if (!openDirectory()) {
    // Held by another process: the caller moves on to a folder of its own.
    if (!heldByAnother_) logger().log(LogLevel::Error, failure_);
    return false;
  }
  std::vector<std::string> names;
  if (!files_.listFolder(folder_, names)) {
    failure_ = "cannot list " + options_.directory.string() + ": " + errnoText(errno);
    logger().log(LogLevel::Error, failure_);
    return false;
  }
  removeRecycledLeftovers(names);

  // Earlier segments, and the highest epoch any of them was written in. One
  // that cannot be opened now is still an earlier segment: recovery keeps it.
  uint32_t highestEpoch = minEpoch;
  for (const auto& name : names) {
    auto number = segmentNumber(name, kSegmentSuffix);
    if (!number) continue;
    earlierSegments_.push_back(*number);
    const FileHandle fd = files_.openAt(folder_, name.c_str(), OpenFlags::Read);
    if (fd < 0) continue;
    char header[kSegmentHeaderBytes];
    if (files_.readAt(fd, header, sizeof header, 0) == static_cast<int64_t>(sizeof header) &&
        std::memcmp(header, kSegmentMagic, sizeof kSegmentMagic) == 0) {
      highestEpoch = std::max(highestEpoch, get<uint32_t>(header + 12));
    }
    files_.close(fd);
  }
  std::sort(earlierSegments_.begin(), earlierSegments_.end());

  if (auto text = readSmallFile(kEpochFile)) {
    char* end = nullptr;
    const unsigned long long stored = std::strtoull(text->c_str(), &end, 10);
    if (end != text->c_str() && stored < 0xFFFFFFFFull) {
      highestEpoch = std::max(highestEpoch, static_cast<uint32_t>(stored));
    }
  }
  epoch_ = highestEpoch + 1;
  // The epoch file only saves reading every header; segment headers carry
  // the epoch too, so losing this write to a power cut cannot reuse an id.
  writeSmallFile(kEpochFile, std::to_string(epoch_) + "\n");

  nextSegment_ = earlierSegments_.empty() ? 1 : earlierSegments_.back() + 1;
  std::string error;
  auto segment = createSegment(0, UINT64_MAX, error);
  MutexLock lock(mutex_);
  if (!segment) {
    // What is stored is still read and delivered; new requests stay in
    // memory until the writer can make a segment.
    segmentFailed(error);
    return true;
  }
  active_ = *segment;
  return true;
}

void JournalFront::segmentFailed(const std::string& error) {
  ++appendsRefused_;
  if (cannotMakeSegments_) return;
  cannotMakeSegments_ = true;
  logger().log(LogLevel::Error, "cannot start a journal segment in " + options_.directory.string() +
                                    ": " + error + "; new requests are kept in memory until one can be made");
}

std::optional<JournalFront::Segment> JournalFront::createSegment(size_t frameBytes,
                                                                 uint64_t prefaultBytes,
                                                                 std::string& error) {
  // Never past the file size limit: writing there raises SIGXFSZ, which
  // ends the host.
  const uint64_t limit = std::min(files_.fileSizeLimit(), kMaxSegmentBytes);
  if (limit < kSegmentHeaderBytes + frameBytes) {
    error = "the file size limit (" + std::to_string(limit) + " bytes) leaves no room";
    return std::nullopt;
  }
  Segment segment;
  segment.number = nextSegment_.fetch_add(1);
  const std::string name = segmentName(segment.number);
  const FileHandle folder = folder_;
  segment.fd =
      files_.openAt(folder, name.c_str(), OpenFlags::ReadWrite | OpenFlags::Create | OpenFlags::Exclusive);
  if (segment.fd < 0) {
    error = errnoText(errno);
    return std::nullopt;
  }
  const auto discard = [&] {
    error = errnoText(errno);
    files_.close(segment.fd);
    files_.removeAt(folder, name.c_str());
    return std::nullopt;
  };
  std::string header(kSegmentMagic, sizeof kSegmentMagic);
  put<uint32_t>(header, segment.number);
  put<uint32_t>(header, epoch_);
  if (!pwriteAll(files_, segment.fd, header, 0)) return discard();
  segment.bytes = kSegmentHeaderBytes;
  segment.dirty = true;
  directoryDirty_ = true;

  const uint64_t page = pageBytes();
  const uint64_t wanted =
      std::max<uint64_t>(std::min(segmentSize_.load(std::memory_order_relaxed), kMaxSegmentBytes / 2),
                         kSegmentHeaderBytes + frameBytes);
  const uint64_t capacity = std::min((wanted + page - 1) / page * page, limit / page * page);
  if (capacity >= kSegmentHeaderBytes + frameBytes &&
      reserveWithZeros(files_, segment.fd, kSegmentHeaderBytes, capacity, prefaultBytes > 0)) {
    void* map = files_.mapShared(segment.fd, capacity);
    if (map != nullptr) {
      segment.map = static_cast<char*>(map);
      segment.room = capacity;
      segment.reserved = true;
      // Writing every page once here maps the pages, so the appending
      // threads take no page faults; measured, it makes the appends some
      // twenty times cheaper than faulting pages in as they come.
      segment.prefaulted = std::max<uint64_t>(std::min(prefaultBytes, capacity), kSegmentHeaderBytes);
      std::memset(segment.map + kSegmentHeaderBytes, 0, segment.prefaulted - kSegmentHeaderBytes);
      return segment;
    }
  }
  // Unmapped: appends use writeAt; the file must not keep a zero end that
  // a write would leave in the middle.
  if (files_.truncate(segment.fd, kSegmentHeaderBytes) != 0) return discard();
  segment.room = limit;
  return segment;
}

// Unmaps, cuts to the used length, syncs and closes.
void JournalFront::finish(Segment& segment) {
  if (segment.reserved) {
    // Unmapped first: the dirty pages stay in the page cache and the
    // data sync below writes them, but with no mapping left the kernel has
    // no page-table entries to write-protect, so writing them back sends no
    // TLB-flush interrupt to the cores of the threads that report (one per
    // page when syncing through the mapping, a stall on the report path).
    if (segment.map != nullptr) files_.unmap(segment.map, segment.room);
    segment.map = nullptr;
    // The unused end is cut off, so it is never written. The file is this
    // segment's alone: no other segment is ever made of it.
    if (files_.truncate(segment.fd, segment.bytes) == 0 || segment.dirty) {
      files_.syncData(segment.fd);
    }
  } else if (segment.dirty) {
    files_.syncData(segment.fd);
  }
  files_.close(segment.fd);
  segment.fd = -1;
}

uint64_t JournalFront::firstSegmentBytes() const {
  return std::min<uint64_t>(options_.segmentBytes, kFirstSegmentBytes);
}

void JournalFront::growSegments() {
  // Appends filled a segment: a burst. The next ones are larger, and two
  // spares are kept, so that it switches less often.
  const uint64_t grown = std::min<uint64_t>(segmentSize_.load(std::memory_order_relaxed) * 2,
                                            std::max(options_.segmentBytes, firstSegmentBytes()));
  segmentSize_.store(grown, std::memory_order_relaxed);
  if (spareTarget_.load(std::memory_order_relaxed) < kSpareSegments) {
    spareTarget_.store(kSpareSegments, std::memory_order_relaxed);
  }
}

bool JournalFront::switchSegmentLocked(size_t frameBytes) {
  std::optional<Segment> next;
  if (!spares_.empty() && spares_.front().hasRoom(frameBytes)) {
    next = spares_.front();
    spares_.erase(spares_.begin());
  } else {
    // No spare ready (the writer is behind), or a record larger than a
    // segment: the rare slow path makes one here.
    if (spares_.empty()) spareTarget_.store(kMaxSpareSegments, std::memory_order_relaxed);
    std::string error;
    next = createSegment(frameBytes, 0, error);
    if (!next) {
      segmentFailed(error);
      return false;
    }
  }
  if (active_.fd >= 0) {
    // The writer unmaps closed segments as soon as it sees them. Should it
    // be away long (a long sync, or it waits for a core) while a burst
    // closes segment after segment, each would stay resident with every
    // page it was written through: past kClosedMappedBytes of them, the
    // caller lets go of this one's mapping itself, and the writer finishes
    // it unmapped. Not at every one the writer has not taken yet: an unmap
    // costs the caller tens of microseconds, and a writer merely a segment
    // late would have the report calls pay it at every switch.
    const uint64_t mapped = closedMappedBytesLocked();
    if (mapped > 0 && mapped + active_.room > kClosedMappedBytes && active_.map != nullptr) {
      files_.unmap(active_.map, active_.room);
      active_.map = nullptr;
    }
    closing_.push_back(active_);
  }
  active_ = *next;
  return true;
}

std::optional<JournalFront::Appended> JournalFront::appendLocked(std::string_view frame,
                                                                 uint64_t id, bool& switched) {
  if (active_.fd < 0 || active_.broken || !active_.hasRoom(frame.size())) {
    if (cannotMakeSegments_) {
      // Tried again by the writer, not by every report call.
      ++appendsRefused_;
      return std::nullopt;
    }
    if (active_.fd >= 0 && !active_.broken) growSegments();
    if (!switchSegmentLocked(frame.size())) return std::nullopt;
    switched = true;
  }
  Segment& segment = active_;
  if (segment.map != nullptr) {
    std::memcpy(segment.map + segment.bytes, frame.data(), frame.size());
  } else if (!pwriteAll(files_, segment.fd, frame, segment.bytes)) {
    // Nothing may follow a partial frame: cut it off. The segment is left
    // either way (a full disk or a size limit does not go away by trying
    // again); the next append moves on to a new one.
    files_.truncate(segment.fd, segment.bytes);
    segment.broken = true;
    return std::nullopt;
  }
  Appended where{id, segment.number, static_cast<uint32_t>(segment.bytes),
                 static_cast<uint32_t>(frame.size())};
  segment.bytes += frame.size();
  segment.dirty = true;
  return where;
}

bool JournalFront::append(std::string_view frame, uint64_t id) {
  bool switched = false;
  bool appended = false;
  {
    MutexLock lock(mutex_);
    if (auto where = appendLocked(frame, id, switched)) {
      appended_.push_back(*where);
      appended = true;
    }
  }
  if (switched && options_.segmentSwitched) options_.segmentSwitched();
  return appended;
}

std::optional<JournalFront::Appended> JournalFront::appendCarried(std::string_view frame,
                                                                  uint64_t id) {
  // The writer thread itself: it makes the next spares at its next sync.
  bool switched = false;
  MutexLock lock(mutex_);
  return appendLocked(frame, id, switched);
}

JournalFront::Drained JournalFront::drain() {
  Drained out;
  MutexLock lock(mutex_);
  out.appended.swap(appended_);
  out.closed.swap(closed_);
  appended_.reserve(out.appended.size());
  return out;
}

bool JournalFront::directoryReplaced() const {
  FileInfo now;
  if (files_.infoOfPath(utf8Text(options_.directory).c_str(), now) != 0) {
    return errno == ENOENT || errno == ENOTDIR;
  }
  FileInfo held;
  if (files_.info(folder_, held) != 0) return false;
  return now.type != FileType::Folder || now.device != held.device ||
         now.fileNumber != held.fileNumber || held.links == 0;
}

bool JournalFront::rehome() {
  const FileHandle previousFolder = folder_;
  const FileHandle previousLock = lockFd_;
  if (!openDirectory()) {
    // Keeps what it holds; tried again at the next sync.
    return false;
  }
  files_.close(previousLock);  // its file went with the old directory
  std::vector<Segment> spares;
  bool switched;
  {
    MutexLock lock(mutex_);
    spares.swap(spares_);
    cannotMakeSegments_ = false;
    switched = switchSegmentLocked(0);
  }
  for (auto& spare : spares) {
    finish(spare);  // never written
    files_.removeAt(previousFolder, segmentName(spare.number).c_str());
  }
  files_.close(previousFolder);
  directoryDirty_ = true;
  if (switched) topUpSpares();
  return switched;
}

bool JournalFront::readOpen(uint32_t number, uint64_t offset, std::string& out) const {
  MutexLock lock(mutex_);
  const Segment* found = active_.number == number && active_.fd >= 0 ? &active_ : nullptr;
  for (const auto& segment : closing_) {
    if (segment.number == number) found = &segment;
  }
  if (found == nullptr) return false;
  if (found->map != nullptr && offset + out.size() <= found->bytes) {
    std::memcpy(out.data(), found->map + offset, out.size());
    return true;
  }
  return files_.readAt(found->fd, out.data(), out.size(), offset) == static_cast<int64_t>(out.size());
}

uint32_t JournalFront::activeSegment() const {
  MutexLock lock(mutex_);
  return active_.fd >= 0 ? active_.number : 0;
}

uint64_t JournalFront::activeBytes() const {
  MutexLock lock(mutex_);
  return active_.fd >= 0 && !active_.broken ? active_.bytes : UINT64_MAX;
}

bool JournalFront::rotate() {
  MutexLock lock(mutex_);
  if (cannotMakeSegments_) return false;
  return switchSegmentLocked(0);
}

JournalFront::Mappings JournalFront::mappings() const {
  MutexLock lock(mutex_);
  Mappings out;
  for (const Segment& spare : spares_) {
    out.spares.push_back({spare.room, spare.map != nullptr ? spare.prefaulted : 0});
  }
  out.closedMappedBytes = closedMappedBytesLocked();
  return out;
}

uint64_t JournalFront::closedMappedBytesLocked() const {
  uint64_t mapped = 0;
  for (const Segment& closed : closing_) {
    if (closed.map != nullptr) mapped += closed.room;
  }
  return mapped;
}

uint64_t JournalFront::writableBytesWanted(size_t place) const {
  uint64_t before = 0;
  for (size_t i = 0; i < place && i < spares_.size(); ++i) before += spares_[i].room;
  return before >= kWritableSpareBytes ? kSpareHeadBytes
                                       : std::max(kSpareHeadBytes, kWritableSpareBytes - before);
}

void JournalFront::prefaultNextSpares() {
  for (size_t place = 0;; ++place) {
    char* map = nullptr;
    uint64_t from = 0;
    uint64_t to = 0;
    uint32_t number = 0;
    {
      MutexLock lock(mutex_);
      if (spares_.size() <= place) return;
      const Segment& spare = spares_[place];
      const uint64_t wanted = writableBytesWanted(place);
      if (wanted <= kSpareHeadBytes) return;  // made so, and so are the ones after it
      to = std::min(spare.room, wanted);
      if (spare.map == nullptr || spare.prefaulted >= to) continue;
      map = spare.map;
      from = spare.prefaulted / pageBytes() * pageBytes();
      number = spare.number;
    }
    // Without the lock: a caller may move on to it meanwhile and append,
    // which this neither disturbs nor sees (no byte changes). Should a
    // caller also fill it and unmap it (the writer behind) before this is
    // done, the call fails on the range that went, changing nothing.
    if (files_.prefault(map + from, to - from) != 0) {
      // No such call here: from now on spares are written whole when made.
      if (errno == ENOSYS || errno == EINVAL) prefaultWorks_.store(false, std::memory_order_relaxed);
      return;
    }
    MutexLock lock(mutex_);
    if (active_.number == number) active_.prefaulted = to;
    for (auto& spare : spares_) {
      if (spare.number == number) spare.prefaulted = to;
    }
  }
}

void JournalFront::topUpSpares() {
  prefaultNextSpares();
  size_t missing;
  {
    MutexLock lock(mutex_);
    const size_t target = spareTarget_.load(std::memory_order_relaxed);
    missing = target - std::min(target, spares_.size());
  }
  for (; missing > 0; --missing) {
    uint64_t writable = UINT64_MAX;
    if (prefaultWorks_.load(std::memory_order_relaxed)) {
      MutexLock lock(mutex_);
      writable = writableBytesWanted(spares_.size());
    }
    std::string error;
    auto spare = createSegment(0, writable, error);
    // Without a spare a caller makes the next segment itself.
    if (!spare) break;
    {
      MutexLock lock(mutex_);
      if (cannotMakeSegments_) {
        // Segments can be made again: appends go on in this one.
        cannotMakeSegments_ = false;
        logger().log(LogLevel::Info, "journal segments can be made again; " +
                                         std::to_string(appendsRefused_) +
                                         " requests were kept in memory meanwhile");
        appendsRefused_ = 0;
        if (active_.fd >= 0) closing_.push_back(active_);
        active_ = *spare;
      } else {
        spares_.push_back(*spare);
      }
    }
    if (options_.betweenSyncSteps) options_.betweenSyncSteps();
  }
}

void JournalFront::restIfQuiet(bool& quiet) {
  std::vector<Segment> dropped;
  {
    MutexLock lock(mutex_);
    const bool nothingSince =
        active_.fd >= 0 && !active_.dirty && closing_.empty() && !cannotMakeSegments_;
    quietSyncs_ = nothingSince ? quietSyncs_ + 1 : 0;
    quiet = quietSyncs_ >= kQuietSyncsToRest;
    if (!quiet) {
      rested_ = false;
      return;
    }
    // Nothing appended for a few syncs in a row (a pause between bursts is
    // not quiet): small segments and one spare again, so that a few waiting
    // requests hold little of the disk.
    segmentSize_.store(firstSegmentBytes(), std::memory_order_relaxed);
    spareTarget_.store(kQuietSpareSegments, std::memory_order_relaxed);
    const uint64_t smallRoom = roundToPage(firstSegmentBytes());
    size_t kept = 0;
    for (auto it = spares_.begin(); it != spares_.end();) {
      if (it->room <= smallRoom && kept < kQuietSpareSegments) {
        ++kept;
        ++it;
      } else {
        dropped.push_back(*it);
        it = spares_.erase(it);
      }
    }
  }
  for (auto& spare : dropped) {
    // Never written to.
    finish(spare);
    files_.removeAt(folder_, segmentName(spare.number).c_str());
    directoryDirty_ = true;
  }
}

uint64_t JournalFront::roundToPage(uint64_t bytes) {
  const uint64_t page = pageBytes();
  return (bytes + page - 1) / page * page;
}

bool JournalFront::settled() const {
  MutexLock lock(mutex_);
  return rested_ && !active_.dirty && closing_.empty();
}

void JournalFront::syncActive() {
  bool quiet = false;
  restIfQuiet(quiet);
  // Spares first: a caller may be about to need one.
  topUpSpares();

  std::vector<Segment> closing;
  Segment active;
  {
    MutexLock lock(mutex_);
    // Syncing through the mapping write-protects every page it writes, with
    // one TLB-flush interrupt each on the reporting threads' cores and a
    // write fault on the page being filled. A segment that took many pages
    // since its last sync is closed instead (a spare takes over, which costs
    // callers nothing) and synced unmapped with the others; only a short
    // tail is synced in place.
    if (active_.map != nullptr && active_.dirty &&
        active_.bytes - active_.syncedBytes >= kSyncInPlaceBytes && !spares_.empty()) {
      switchSegmentLocked(0);
    }
    // Quiet, with a large segment left from a burst: a small spare takes
    // over, and the large one is cut to what it holds.
    if (quiet && active_.map != nullptr && active_.room > roundToPage(firstSegmentBytes()) &&
        !spares_.empty() && spares_.front().room <= roundToPage(firstSegmentBytes())) {
      switchSegmentLocked(0);
    }
    // At rest once a quiet sync left nothing to do.
    rested_ = quiet && closing_.empty() && !active_.dirty;
    closing.swap(closing_);
    active = active_;
    active_.dirty = false;
    active_.syncedBytes = active_.bytes;
  }
  // Only this thread unmaps or closes, so the copies stay valid after the
  // lock is released; callers keep appending past the synced length.
  if (active.fd >= 0 && active.dirty) {
    if (active.map != nullptr) {
      const uint64_t from = active.syncedBytes / pageBytes() * pageBytes();
      files_.syncMapped(active.fd, active.map + from, active.bytes - from);
    } else {
      files_.syncData(active.fd);
    }
  }
  // All unmapped before any is cut and synced, and the ones a burst closes
  // meanwhile as soon as this thread sees them: each mapped one keeps its
  // megabyte in the process's resident memory until it is unmapped.
  const auto unmapAll = [this](std::vector<Segment>& segments, size_t from) {
    for (size_t i = from; i < segments.size(); ++i) {
      if (segments[i].map == nullptr) continue;
      files_.unmap(segments[i].map, segments[i].room);
      segments[i].map = nullptr;
    }
  };
  unmapAll(closing, 0);
  for (size_t i = 0; i < closing.size(); ++i) {
    finish(closing[i]);
    const size_t known = closing.size();
    {
      // Finished: from now on the store's alone, to read and to remove.
      // Segments closed since are taken into this sync.
      MutexLock lock(mutex_);
      closed_.push_back(closing[i].number);
      closing.insert(closing.end(), closing_.begin(), closing_.end());
      closing_.clear();
    }
    unmapAll(closing, known);
    if (options_.betweenSyncSteps) options_.betweenSyncSteps();
    // A burst of appends may be using up the spares while segments are
    // written back: keep them coming.
    topUpSpares();
  }
  syncDirectory();
}

void JournalFront::syncDirectory() {
  if (!directoryDirty_.exchange(false)) return;
  files_.syncFolder(folder_);
}

}  // namespace korvel::network::internal
