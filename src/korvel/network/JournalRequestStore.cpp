// The journal request store: the index of waiting requests over the journal's
// segments, recovery of earlier runs' segments, delivered marks, compaction,
// and healing when the directory is replaced under it.
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include <korvel/network/internal/FlatIndex.h>
#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/JournalFront.h>
#include <korvel/network/internal/JournalRuns.h>
#include <korvel/network/internal/JournalSegmentFiles.h>
#include <korvel/network/internal/ReadDescriptors.h>

using korvel::platform::LogLevel;
using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

using namespace journal;

namespace {

const char* tailReason(FrameStatus status) {
  return status == FrameStatus::Truncated ? "torn record at its end" : "bad record checksum";
}

class JournalRequestStore final : public RequestStore {
 public:
  explicit JournalRequestStore(const RequestStoreOptions& options)
      : options_(options),
        files_(options.fileSystem != nullptr ? *options.fileSystem : systemFileSystem()),
        descriptors_(files_) {
    // A sync that finishes many segments takes what callers appended
    // meanwhile into the index between its steps: each waiting append is a
    // record in the front's list until then, besides its place here. Only
    // when the index is free: a sender reading requests back holds it, and
    // the spares the front makes after this step matter more to the report
    // calls (waiting here, the writer left a burst without spares, and the
    // report calls made their own segments).
    options_.betweenSyncSteps = [this, outer = options.betweenSyncSteps] {
      if (drainBetweenSteps_.load(std::memory_order_relaxed) && indexMutex_.tryLock()) {
        drainFront();
        indexMutex_.unlock();
      }
      if (outer) outer();
    };
  }
  ~JournalRequestStore() override {
    MutexLock lock(indexMutex_);
    descriptors_.clear();
  }

  // The data folder's own journal, or, while another live process holds
  // that, a journal of this process's own in a "run-<n>" folder inside it;
  // then the journals no live process holds are adopted.
  bool open() {
    const FileHandle top = openCheckedFolder(files_, utf8Text(options_.directory), failure_);
    if (top < 0) {
      options_.logger.log(LogLevel::Error, failure_);
      return false;
    }
    front_ = openOwnJournal(files_, options_, top, failure_);
    if (front_ != nullptr) adoptOrphanedJournals(files_, top, *front_);
    files_.close(top);
    return front_ != nullptr;
  }
  const std::string& failure() const { return failure_; }

  uint32_t epoch() const override { return front_->epoch(); }

  bool append(std::string_view frame, uint64_t id) override { return front_->append(frame, id); }

  std::vector<StoredRequest> recover(const std::atomic<bool>* stop) override
      KORVEL_EXCLUDES(indexMutex_) {
    std::vector<StoredRequest> pending;
    bool stopped = false;
    recoverInBatches(stop, 4096, [&](std::vector<StoredRequest>& batch) {
      std::move(batch.begin(), batch.end(), std::back_inserter(pending));
      return true;
    });
    if (stop != nullptr && stop->load()) stopped = true;
    if (stopped) return {};  // the rest stays for the next start
    std::sort(pending.begin(), pending.end(),
              [](const StoredRequest& a, const StoredRequest& b) { return a.id < b.id; });
    return pending;
  }

  // One segment's records at a time: what is held in memory is that
  // segment's live records, whatever the backlog.
  void recoverInBatches(const std::atomic<bool>* stop, size_t batchSize,
                        const std::function<bool(std::vector<StoredRequest>&)>& batch) override
      KORVEL_EXCLUDES(indexMutex_) {
    const auto& log = front_->logger();
    front_->removeOrphanMarks();
    size_t restored = 0;
    size_t unreadable = 0;
    std::string unreadableReason;
    std::vector<StoredRequest> live;
    for (uint32_t number : front_->earlierSegments()) {
      if (stop != nullptr && stop->load()) break;  // the rest stays for the next start
      live.clear();
      bool kept = true;
      {
        MutexLock lock(indexMutex_);
        kept = recoverSegment(number, stop, live, unreadableReason);
      }
      if (!kept) {
        ++unreadable;
        continue;
      }
      restored += live.size();
      const size_t step = std::max<size_t>(batchSize, 1);
      for (size_t at = 0; at < live.size(); at += step) {
        std::vector<StoredRequest> part(
            std::make_move_iterator(live.begin() + static_cast<std::ptrdiff_t>(at)),
            std::make_move_iterator(live.begin() +
                                    static_cast<std::ptrdiff_t>(std::min(live.size(), at + step))));
        if (!batch(part)) return;
      }
    }
    if (unreadable > 0) {
      log.log(LogLevel::Error, "cannot read " + std::to_string(unreadable) +
                                   " journal segments (" + unreadableReason +
                                   "); they stay where they are for the next start");
    }
    if (restored > 0) {
      log.log(LogLevel::Info, "restoring " + std::to_string(restored) + " stored requests");
    }
  }

  void sync(std::span<const uint64_t> finished) override KORVEL_EXCLUDES(indexMutex_) {
    if (front_->activeBytes() >= front_->options().segmentBytes &&
        front_->activeBytes() != UINT64_MAX) {
      front_->rotate();
    }
    std::vector<FileHandle> toSync;
    {
      MutexLock lock(indexMutex_);
      toSync = settle(finished);
    }
    drainBetweenSteps_.store(true, std::memory_order_relaxed);
    front_->syncActive();
    drainBetweenSteps_.store(false, std::memory_order_relaxed);
    for (FileHandle fd : toSync) {
      front_->files().syncData(fd);
      front_->files().close(fd);
    }
    MutexLock lock(indexMutex_);
    compactClosed(false);
  }

  bool durable() const override { return !homeless_; }

  bool settled() const override { return front_->settled(); }

  // Each append waits in the front's list, a record per request, until the
  // index takes it.
  void takeAppends() override KORVEL_EXCLUDES(indexMutex_) {
    MutexLock lock(indexMutex_);
    drainFront();
  }

  std::optional<StoredRequest> load(uint64_t id) override KORVEL_EXCLUDES(indexMutex_) {
    MutexLock lock(indexMutex_);
    auto at = stored_.find(id);
    if (at == stored_.end()) {
      // Appended since the writer last looked.
      drainFront();
      at = stored_.find(id);
      if (at == stored_.end()) return std::nullopt;
    }
    const Where where = at->second;
    std::string frame;
    if (auto kept = homelessFrames_.find(id); kept != homelessFrames_.end()) {
      frame = kept->second;
    } else {
      auto found = segments_.find(where.segment);
      if (found == segments_.end()) return std::nullopt;
      frame.assign(where.loc.length, '\0');
      if (!readFrame(where.segment, found->second, where.loc, frame)) return std::nullopt;
    }
    size_t offset = 0;
    StoredRequest request;
    if (decodeFrame(frame, offset, request) != FrameStatus::Ok || request.id != id) return std::nullopt;
    return request;
  }

  void compact() override KORVEL_EXCLUDES(indexMutex_) {
    if (front_->activeBytes() > kSegmentHeaderBytes && front_->activeBytes() != UINT64_MAX) {
      front_->rotate();
    }
    front_->syncActive();  // finishes what was closed, so it can be compacted
    {
      MutexLock lock(indexMutex_);
      drainFront();
      removeFinishedSegments();
      compactClosed(true);
    }
    front_->syncActive();
  }

  StoreStats stats() const override KORVEL_EXCLUDES(indexMutex_) {
    uint64_t stored;
    {
      MutexLock lock(indexMutex_);
      stored = stored_.size();
    }
    return {front_->bytesOnDisk(), stored};
  }

  bool writeSmallFile(const std::string& name, std::string_view contents) override {
    return front_->writeSmallFile(name, contents);
  }
  std::optional<std::string> readSmallFile(const std::string& name) override {
    return front_->readSmallFile(name);
  }
  void removeSmallFile(const std::string& name) override {
    front_->files().removeAt(front_->folder(), name.c_str());
  }

  // Descriptors held for reading requests back (tests).
  size_t readDescriptors() const KORVEL_EXCLUDES(indexMutex_) {
    MutexLock lock(indexMutex_);
    return descriptors_.size();
  }

 private:
  // Eight bytes: one per waiting request adds up. A segment never reaches
  // 4 GiB (its size is bounded, and so is a record).
  struct Loc {
    uint32_t offset;
    uint32_t length;
  };
  struct Segment {
    uint64_t fileBytes = kSegmentHeaderBytes;
    uint64_t liveBytes = 0;
    // Finished by the front (reported by a drain), or an earlier run's:
    // every record appended to it is tracked and the front holds it no
    // more. Only such a segment may be removed or compacted.
    bool closed = false;
    uint32_t liveCount = 0;  // requests in it not yet finished
    std::vector<uint64_t> marks;  // finished, not yet written

    void forget(const Loc& loc) {
      liveBytes -= loc.length;
      --liveCount;
    }
  };
  // Where a waiting request is stored: twelve bytes, with its id a slot of
  // twenty in the index.
  struct Where {
    uint32_t segment = 0;
    Loc loc{};
  };

  // Reads one earlier segment, tracks its live records and gives them in
  // live. False when it could not be read: it stays as it is.
  bool recoverSegment(uint32_t number, const std::atomic<bool>* stop,
                      std::vector<StoredRequest>& live, std::string& unreadableReason)
      KORVEL_REQUIRES(indexMutex_) {
    const std::string name = segmentName(number);
    std::unordered_set<uint64_t> finished;
    bool marksMissing = false;
    if (auto marks = front_->readSmallFile(marksName(number), &marksMissing)) {
      if (!decodeMarks(*marks, finished)) {
        // Requests marked in the unreadable part are sent again (same uuid).
        front_->setAside(marksName(number), "bad delivered-marks batch");
      }
    } else if (errno == ELOOP) {
      // A link where the marks file belongs was not made by the store: it
      // goes (never followed), and the segment's requests are sent again.
      front_->files().removeAt(front_->folder(), marksName(number).c_str());
    } else if (!marksMissing) {
      unreadableReason = "marks: " + errnoText(errno);
      return false;
    }
    auto contents = front_->readSegment(number, stop);
    if (contents.unreadable) {
      unreadableReason = contents.readError;
      return false;
    }
    if (contents.stopped) return true;
    if (!contents.headerOk) {
      // Empty: a kill between creating the file and writing its header.
      if (contents.fileBytes == 0) {
        front_->removeSegmentFiles(number);
      } else {
        front_->setAside(name, "not a journal segment");
        front_->files().removeAt(front_->folder(), marksName(number).c_str());
      }
      return true;
    }
    std::vector<size_t> indexes;  // into contents.records
    for (size_t i = 0; i < contents.records.size(); ++i) {
      const uint64_t id = contents.records[i].id;
      if (!finished.contains(id) && stored_.find(id) == stored_.end()) indexes.push_back(i);
    }
    const bool damaged = contents.tail == FrameStatus::Truncated || contents.tail == FrameStatus::Corrupt;
    bool carried = false;
    if (damaged) {
      // Copy what is readable into the active segment, then set the file
      // aside; new appends never go to an earlier run's segment.
      std::vector<JournalFront::Appended> moved;
      carried = true;
      for (size_t i : indexes) {
        auto where = front_->appendCarried(encodeFrame(contents.records[i]), contents.records[i].id);
        if (!where) {
          carried = false;
          break;
        }
        moved.push_back(*where);
      }
      if (carried) {
        indexMutex_.unlock();
        front_->syncActive();
        indexMutex_.lock();
        for (const auto& a : moved) track(a);
        front_->setAside(name, std::string(tailReason(contents.tail)) + " at byte " +
                                  std::to_string(contents.validBytes) + "; " +
                                  std::to_string(indexes.size()) + " pending requests kept");
        front_->files().removeAt(front_->folder(), marksName(number).c_str());
      }
    }
    if (!carried) {
      if (indexes.empty()) {
        front_->removeSegmentFiles(number);
        return true;
      }
      // A segment that was open when the run ended keeps its reserved,
      // unwritten end until cut here.
      if (contents.physicalBytes > contents.fileBytes) front_->trimSegment(number, contents.fileBytes);
      auto& segment = segments_[number];
      segment.closed = true;  // an earlier run's: nothing is appended to it again
      segment.fileBytes = contents.fileBytes;
      for (size_t i : indexes) {
        const uint32_t length =
            static_cast<uint32_t>(frameBytes(contents.records[i].kind, contents.records[i].payload));
        track({contents.records[i].id, number, static_cast<uint32_t>(contents.offsets[i]), length});
      }
    }
    live.reserve(indexes.size());
    for (size_t i : indexes) live.push_back(std::move(contents.records[i]));
    return true;
  }

  // Forgets the finished requests and writes their marks; the marks files
  // to sync and close.
  std::vector<FileHandle> settle(std::span<const uint64_t> finished) KORVEL_REQUIRES(indexMutex_) {
    if (front_->directoryReplaced()) heal();
    drainFront();

    for (uint64_t id : finished) {
      homelessFrames_.erase(id);
      auto it = stored_.find(id);
      if (it == stored_.end()) continue;
      auto& segment = segments_[it->second.segment];
      segment.forget(it->second.loc);
      segment.marks.push_back(id);
      stored_.erase(it);
    }

    removeFinishedSegments();
    std::vector<FileHandle> toSync;
    bool marksFailed = false;
    std::string failure;
    for (auto& [number, segment] : segments_) {
      if (segment.marks.empty()) continue;
      // Kept until written: a request without its mark is sent again after
      // a restart.
      const std::string name = marksName(number);
      FileSystem& files = front_->files();
      constexpr OpenFlags kAppend = OpenFlags::Write | OpenFlags::Create | OpenFlags::Append;
      FileHandle fd = files.openAt(front_->folder(), name.c_str(), kAppend);
      if (fd < 0 && errno == ELOOP && files.removeAt(front_->folder(), name.c_str()) == 0) {
        // A planted link is removed, never followed.
        fd = files.openAt(front_->folder(), name.c_str(), kAppend);
      }
      if (fd >= 0 && appendMarks(front_->files(), fd, segment.marks)) {
        toSync.push_back(fd);
        segment.marks.clear();
        continue;
      }
      failure = errnoText(errno);
      marksFailed = true;
      if (fd >= 0) front_->files().close(fd);
    }
    const auto& log = front_->logger();
    if (marksFailed && !marksFailing_) {
      log.log(LogLevel::Error, "cannot write delivered marks (" + failure +
                                   "); retrying at every sync, delivered requests may be sent "
                                   "again after a restart until it works");
    } else if (!marksFailed && marksFailing_) {
      log.log(LogLevel::Info, "delivered marks are written again");
    }
    marksFailing_ = marksFailed;
    return toSync;
  }

  // Finished segments with nothing left in them: no marks needed, the
  // files go.
  void removeFinishedSegments() KORVEL_REQUIRES(indexMutex_) {
    for (auto it = segments_.begin(); it != segments_.end();) {
      if (it->second.closed && it->second.liveCount == 0) {
        removeSegment(it++);
      } else {
        ++it;
      }
    }
  }

  // The live records of the given segments, by segment, in file order: one
  // pass over the index.
  std::map<uint32_t, std::vector<std::pair<uint64_t, Loc>>> liveIn(
      const std::vector<uint32_t>& numbers) KORVEL_REQUIRES(indexMutex_) {
    std::map<uint32_t, std::vector<std::pair<uint64_t, Loc>>> live;
    for (uint32_t number : numbers) live[number];
    for (const auto& slot : stored_) {
      auto it = live.find(slot.second.segment);
      if (it != live.end()) it->second.emplace_back(slot.first, slot.second.loc);
    }
    for (auto& [number, records] : live) {
      std::sort(records.begin(), records.end(),
                [](const auto& a, const auto& b) { return a.second.offset < b.second.offset; });
    }
    return live;
  }

  // The bytes of a stored frame: from the front while it still holds the
  // segment, else through a read descriptor.
  bool readFrame(uint32_t number, const Segment& segment, const Loc& loc, std::string& frame)
      KORVEL_REQUIRES(indexMutex_) {
    if (!segment.closed && front_->readOpen(number, loc.offset, frame)) return true;
    const FileHandle fd = descriptors_.get(front_->folder(), number);
    if (fd >= 0 && front_->files().readAt(fd, frame.data(), frame.size(), loc.offset) ==
                       static_cast<int64_t>(frame.size())) {
      return true;
    }
    return front_->readOpen(number, loc.offset, frame);
  }

  // The directory's path names another directory now, or nothing, or a
  // file: make it again and copy every stored request there, from the files
  // still reachable (the front's open segments, the held directory).
  void heal() KORVEL_REQUIRES(indexMutex_) {
    const auto& log = front_->logger();
    // Read through the old directory first: the front lets it go once it
    // moved on. (Its open segments stay readable until the next sync.)
    drainFront();
    // What an earlier attempt read is kept: the files it came from were let
    // go since.
    std::unordered_map<uint64_t, std::string> frames = std::move(homelessFrames_);
    homelessFrames_.clear();
    for (const auto& slot : stored_) {
      if (frames.contains(slot.first)) continue;
      const Where& where = slot.second;
      std::string frame(where.loc.length, '\0');
      auto segment = segments_.find(where.segment);
      if (segment != segments_.end() && readFrame(where.segment, segment->second, where.loc, frame)) {
        frames.emplace(slot.first, std::move(frame));
      }
    }
    if (!front_->rehome()) {
      if (!homeless_) {
        log.log(LogLevel::Error, "the store's directory " + front_->options().directory.string() +
                                     " vanished or was replaced and cannot be made again: "
                                     "requests are not durable until it can");
      }
      // The segments of the lost directory are finished at this sync and
      // cannot be read again: their requests wait in memory, for delivery
      // and for the next attempt.
      homelessFrames_ = std::move(frames);
      homeless_ = true;
      return;
    }
    drainFront();  // appends that went to the old active segment meanwhile
    descriptors_.clear();
    const uint32_t active = front_->activeSegment();
    std::vector<std::pair<uint64_t, Where>> old;
    for (const auto& slot : stored_) {
      if (slot.second.segment != active) old.emplace_back(slot.first, slot.second);
    }
    std::vector<JournalFront::Appended> moved;
    size_t lost = 0;
    std::string frame;
    for (const auto& [id, where] : old) {
      auto found = frames.find(id);
      if (found != frames.end()) {
        frame = std::move(found->second);
      } else {
        frame.assign(where.loc.length, '\0');
        if (!front_->readOpen(where.segment, where.loc.offset, frame)) frame.clear();
      }
      std::optional<JournalFront::Appended> to;
      if (!frame.empty()) to = front_->appendCarried(frame, id);
      if (to) {
        moved.push_back(*to);
      } else {
        ++lost;
      }
      stored_.erase(id);
    }
    // The old segments were the old directory's: the index forgets them
    // (the front finishes the old active one at its next sync).
    for (auto it = segments_.begin(); it != segments_.end();) {
      it = it->first != active ? segments_.erase(it) : std::next(it);
    }
    for (const auto& a : moved) track(a);
    front_->syncActive();
    drainFront();
    for (auto it = segments_.begin(); it != segments_.end();) {
      // Finished old segments reported now: nothing of them is tracked.
      it = it->second.closed && it->second.liveCount == 0 ? segments_.erase(it) : std::next(it);
    }
    homeless_ = false;
    log.log(LogLevel::Error, "the store's directory " + front_->options().directory.string() +
                                 " vanished or was replaced; made it again and stored the " +
                                 std::to_string(moved.size()) + " waiting requests there again" +
                                 (lost > 0 ? " (" + std::to_string(lost) + " could not be read)" : ""));
  }

  void removeSegment(std::map<uint32_t, Segment>::iterator it) KORVEL_REQUIRES(indexMutex_) {
    descriptors_.forget(it->first);
    front_->removeSegmentFiles(it->first);
    segments_.erase(it);
  }

  void track(const JournalFront::Appended& a) KORVEL_REQUIRES(indexMutex_) {
    auto [found, added] = segments_.try_emplace(a.segment);
    auto& segment = found->second;
    // Opened while the file is certainly there: the newest segments stay
    // readable even if the directory is deleted under the store.
    if (added) descriptors_.get(front_->folder(), a.segment);
    segment.fileBytes = std::max(segment.fileBytes, uint64_t{a.offset} + a.length);
    const Where where{a.segment, Loc{a.offset, a.length}};
    auto [it, inserted] = stored_.insert(a.id, where);
    if (!inserted) {
      // A copy of a request already tracked (carried forward): the copy is
      // the one kept; the segment of the original no longer counts it.
      if (it->second.segment == a.segment) return;
      auto previous = segments_.find(it->second.segment);
      if (previous != segments_.end()) previous->second.forget(it->second.loc);
      it->second = where;
    }
    segment.liveBytes += a.length;
    ++segment.liveCount;
  }

  void drainFront() KORVEL_REQUIRES(indexMutex_) {
    auto drained = front_->drain();
    for (const auto& a : drained.appended) track(a);
    // Known even when nothing was appended to it, so an empty one is removed.
    for (uint32_t number : drained.closed) segments_[number].closed = true;
  }

  // Copies the live records of mostly-finished closed segments forward and
  // deletes the segments; all of them when everything is true.
  void compactClosed(bool everything) KORVEL_REQUIRES(indexMutex_) {
    constexpr uint64_t kMinimumBytes = 64 * 1024;
    if (homeless_) return;  // nowhere to carry records to
    std::vector<uint32_t> candidates;
    for (const auto& [number, segment] : segments_) {
      if (!segment.closed || segment.liveCount == 0) continue;
      const bool mostlyFinished =
          segment.fileBytes >= kMinimumBytes && segment.liveBytes * 4 < segment.fileBytes;
      if (everything ? segment.liveBytes + kSegmentHeaderBytes < segment.fileBytes
                     : mostlyFinished) {
        candidates.push_back(number);
      }
    }
    if (candidates.empty()) return;
    auto liveByNumber = liveIn(candidates);
    for (uint32_t number : candidates) {
      auto segment = segments_.find(number);
      if (segment == segments_.end()) continue;
      const auto& live = liveByNumber[number];
      std::vector<JournalFront::Appended> moved;
      bool ok = true;
      std::string frame;
      for (const auto& [id, loc] : live) {
        frame.resize(loc.length);
        if (!readFrame(number, segment->second, loc, frame)) {
          ok = false;
          break;
        }
        auto where = front_->appendCarried(frame, id);
        if (!where) {
          ok = false;
          break;
        }
        moved.push_back(*where);
      }
      // The copies must be durable before the originals go; on failure the
      // originals stay and any copies are merely duplicates (same id).
      // Workers read requests back meanwhile, from the originals.
      indexMutex_.unlock();
      front_->syncActive();
      indexMutex_.lock();
      if (!ok) continue;
      segment = segments_.find(number);
      if (segment != segments_.end()) removeSegment(segment);
      for (const auto& a : moved) track(a);
    }
  }

  RequestStoreOptions options_;
  FileSystem& files_;
  std::string failure_;
  std::unique_ptr<JournalFront> front_;
  // The writer thread holds it while it changes the index; a worker while
  // it reads a request back.
  mutable Mutex indexMutex_;
  std::map<uint32_t, Segment> segments_ KORVEL_GUARDED_BY(indexMutex_);
  // Every waiting request's place, by id.
  FlatIndex<PackedId, Where> stored_ KORVEL_GUARDED_BY(indexMutex_);
  ReadDescriptors descriptors_ KORVEL_GUARDED_BY(indexMutex_);
  bool marksFailing_ KORVEL_GUARDED_BY(indexMutex_) = false;
  std::atomic<bool> homeless_{false};
  // Set while sync() has the front sync without indexMutex_ held: its steps
  // may take the lock to drain the front.
  std::atomic<bool> drainBetweenSteps_{false};
  // While homeless: the frames of every stored request, read before the
  // lost directory's files were let go.
  std::unordered_map<uint64_t, std::string> homelessFrames_ KORVEL_GUARDED_BY(indexMutex_);
};

}  // namespace

OpenedRequestStore openJournalRequestStoreWithReason(const RequestStoreOptions& options) {
  auto store = std::make_unique<JournalRequestStore>(options);
  if (!store->open()) return {nullptr, store->failure()};
  return {std::move(store), {}};
}

std::unique_ptr<RequestStore> openJournalRequestStore(const RequestStoreOptions& options) {
  return openJournalRequestStoreWithReason(options).store;
}

}  // namespace korvel::network::internal
