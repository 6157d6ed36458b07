// The journal front shared by both request stores, the frame format, and the
// journal-only store.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <ctime>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include <korvel/network/internal/FlatIndex.h>
#include <korvel/network/internal/RequestStore.h>
#include <korvel/platform/Files.h>

namespace korvel::platform {

static_assert(std::endian::native == std::endian::little,
              "the journal's integers are written in the machine's (little-endian) order");

namespace fs = std::filesystem;

// MARK: - CRC-32C

namespace {

// Slice-by-8 tables for the reflected Castagnoli polynomial: eight bytes per
// step, so checksumming a typical 600-byte beacon costs well under the rest
// of an append.
constexpr std::array<std::array<uint32_t, 256>, 8> makeCrcTables() {
  std::array<std::array<uint32_t, 256>, 8> t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
    t[0][i] = c;
  }
  for (uint32_t i = 0; i < 256; ++i) {
    for (size_t s = 1; s < 8; ++s) t[s][i] = (t[s - 1][i] >> 8) ^ t[0][t[s - 1][i] & 0xFF];
  }
  return t;
}
constexpr auto kCrcTables = makeCrcTables();

template <class T>
void put(std::string& out, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, sizeof(T));
}

template <class T>
T get(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof(T));
  return value;
}

}  // namespace

namespace {

uint32_t crc32cTables(const unsigned char* p, size_t size, uint32_t crc) {
  while (size >= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    word ^= crc;
    crc = kCrcTables[7][word & 0xFF] ^ kCrcTables[6][(word >> 8) & 0xFF] ^
          kCrcTables[5][(word >> 16) & 0xFF] ^ kCrcTables[4][(word >> 24) & 0xFF] ^
          kCrcTables[3][(word >> 32) & 0xFF] ^ kCrcTables[2][(word >> 40) & 0xFF] ^
          kCrcTables[1][(word >> 48) & 0xFF] ^ kCrcTables[0][word >> 56];
    p += 8;
    size -= 8;
  }
  while (size-- > 0) crc = (crc >> 8) ^ kCrcTables[0][(crc ^ *p++) & 0xFF];
  return crc;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// The CPU's own CRC32C instruction (SSE 4.2): several times faster than the
// tables, and every report call checksums its frame.
__attribute__((target("sse4.2"))) uint32_t crc32cHardware(const unsigned char* p, size_t size,
                                                          uint32_t crc) {
  uint64_t wide = crc;
  while (size >= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    wide = __builtin_ia32_crc32di(wide, word);
    p += 8;
    size -= 8;
  }
  crc = static_cast<uint32_t>(wide);
  while (size-- > 0) crc = __builtin_ia32_crc32qi(crc, *p++);
  return crc;
}

const bool kHardwareCrc = __builtin_cpu_supports("sse4.2");
#endif

}  // namespace

uint32_t crc32c(const void* data, size_t size, uint32_t crc) {
  const auto* p = static_cast<const unsigned char*>(data);
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
  if (kHardwareCrc) return ~crc32cHardware(p, size, ~crc);
#endif
  return ~crc32cTables(p, size, ~crc);
}

uint32_t crc32cPortable(const void* data, size_t size, uint32_t crc) {
  return ~crc32cTables(static_cast<const unsigned char*>(data), size, ~crc);
}

// MARK: - Frames

size_t beginFrame(std::string& out, uint64_t id, int64_t createdMillis, int32_t priority,
                  int32_t configurationPolicy, int32_t retryCount, std::string_view kind) {
  const size_t kindLength = std::min<size_t>(kind.size(), 0xFFFF);
  const size_t start = out.size();
  put<uint32_t>(out, kFrameMarker);
  put<uint32_t>(out, 0);  // body length, filled in by finishFrame
  put<uint32_t>(out, 0);  // checksum, likewise
  put<uint64_t>(out, id);
  put<int64_t>(out, createdMillis);
  put<int32_t>(out, priority);
  put<int32_t>(out, configurationPolicy);
  put<int32_t>(out, retryCount);
  put<uint16_t>(out, static_cast<uint16_t>(kindLength));
  out.append(kind.data(), kindLength);
  return start;
}

void finishFrame(std::string& out, size_t start) {
  const size_t bodyLength = out.size() - start - kFrameHeaderBytes;
  const auto length = static_cast<uint32_t>(bodyLength);
  std::memcpy(out.data() + start + 4, &length, 4);
  const uint32_t crc = crc32c(out.data() + start + kFrameHeaderBytes, bodyLength);
  std::memcpy(out.data() + start + 8, &crc, 4);
}

void appendFrame(std::string& out, uint64_t id, int64_t createdMillis, int32_t priority,
                 int32_t configurationPolicy, int32_t retryCount, std::string_view kind,
                 std::string_view payload) {
  const size_t start = out.size();
  out.reserve(start + kFrameHeaderBytes + kFrameFixedBodyBytes + kind.size() + payload.size());
  beginFrame(out, id, createdMillis, priority, configurationPolicy, retryCount, kind);
  out.append(payload);
  finishFrame(out, start);
}

std::string encodeFrame(const StoredRequest& r) {
  std::string out;
  appendFrame(out, r.id, r.createdMillis, r.priority, r.configurationPolicy, r.retryCount, r.kind,
              r.payload);
  return out;
}

FrameStatus decodeFrame(std::string_view data, size_t& offset, StoredRequest& out) {
  if (offset >= data.size()) return FrameStatus::End;
  const size_t left = data.size() - offset;
  if (left < kFrameHeaderBytes) return FrameStatus::Truncated;
  const char* at = data.data() + offset;
  if (get<uint32_t>(at) != kFrameMarker) return FrameStatus::Corrupt;
  const uint32_t bodyLength = get<uint32_t>(at + 4);
  if (bodyLength < kFrameFixedBodyBytes || bodyLength > kMaxFrameBodyBytes) {
    return FrameStatus::Corrupt;
  }
  if (left - kFrameHeaderBytes < bodyLength) return FrameStatus::Truncated;
  const char* body = at + kFrameHeaderBytes;
  if (crc32c(body, bodyLength) != get<uint32_t>(at + 8)) return FrameStatus::Corrupt;
  const uint16_t kindLength = get<uint16_t>(body + 28);
  if (kFrameFixedBodyBytes + kindLength > bodyLength) return FrameStatus::Corrupt;
  out.id = get<uint64_t>(body);
  out.createdMillis = get<int64_t>(body + 8);
  out.priority = get<int32_t>(body + 16);
  out.configurationPolicy = get<int32_t>(body + 20);
  out.retryCount = get<int32_t>(body + 24);
  out.kind.assign(body + kFrameFixedBodyBytes, kindLength);
  out.payload.assign(body + kFrameFixedBodyBytes + kindLength,
                     bodyLength - kFrameFixedBodyBytes - kindLength);
  offset += kFrameHeaderBytes + bodyLength;
  return FrameStatus::Ok;
}

std::optional<size_t> findNextFrame(std::string_view data, size_t from, uint64_t& budget) {
  char marker[4];
  std::memcpy(marker, &kFrameMarker, 4);
  const std::string_view needle(marker, 4);
  for (size_t at = data.find(needle, from); at != std::string_view::npos;
       at = data.find(needle, at + 1)) {
    if (data.size() - at >= kFrameHeaderBytes) {
      const uint64_t cost = get<uint32_t>(data.data() + at + 4);
      if (cost <= kMaxFrameBodyBytes && cost <= data.size() - at - kFrameHeaderBytes) {
        if (cost > budget) return std::nullopt;
        budget -= cost;
      }
    }
    size_t offset = at;
    StoredRequest ignored;
    if (decodeFrame(data, offset, ignored) == FrameStatus::Ok) return at;
  }
  return std::nullopt;
}

std::optional<size_t> findNextFrame(std::string_view data, size_t from) {
  uint64_t budget = UINT64_MAX;
  return findNextFrame(data, from, budget);
}

// MARK: - File helpers

namespace {

constexpr char kSegmentMagic[8] = {'K', 'V', 'R', 'J', 'R', 'N', 'L', '1'};
constexpr size_t kSegmentHeaderBytes = 16;  // magic, u32 number, u32 epoch
constexpr const char* kSegmentPrefix = "seg-";
constexpr const char* kSegmentSuffix = ".log";
constexpr const char* kMarksSuffix = ".done";
constexpr const char* kAsideFolder = "aside";
// A removed segment's file kept for reuse; never read, and deleted at start.
constexpr const char* kRecycledPrefix = "free-";

// Mappings and msync work in whole pages.
uint64_t pageBytes() {
  static const uint64_t bytes = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
  return bytes;
}

// Writes all of data; a short write is continued, EINTR retried.
bool writeAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = ::write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Writes zeros over [from, to): the file system reserves the blocks, so a
// full disk shows here and not as a SIGBUS inside a mapped write later.
// Cheaper than posix_fallocate and then writing each page through the
// mapping, where each page fault zeroes a page of an unwritten extent.
//
// In bulk, the page cache takes the range in large folios, and a large folio
// is write-protected whole while the kernel writes it back: the appending
// thread's next write anywhere in it faults. Measured, that cost 1% of report
// calls some 10 us. Page by page (pageSized) the folios are single pages;
// that costs more system calls, so it is for the writer's spares, not for
// a segment a reporting thread has to make itself.
bool reserveWithZeros(int fd, uint64_t from, uint64_t to, bool pageSized) {
  static const char kZeros[64 << 10] = {};
  constexpr int kVectors = 16;
  // One write covers at most this much; page sized, it ends at the next
  // page boundary.
  const uint64_t most = pageSized ? pageBytes() : kVectors * sizeof kZeros;
  iovec vectors[kVectors];
  while (from < to) {
    uint64_t left = std::min(to - from, pageSized ? most - from % most : most);
    int count = 0;
    for (; left > 0 && count < kVectors; ++count) {
      const auto size = static_cast<size_t>(std::min<uint64_t>(sizeof kZeros, left));
      vectors[count] = {const_cast<char*>(kZeros), size};
      left -= size;
    }
    const ssize_t n = ::pwritev(fd, vectors, count, static_cast<off_t>(from));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    from += static_cast<uint64_t>(n);
  }
  return true;
}

bool readFile(const fs::path& path, std::string& out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  out.clear();
  struct stat st {};
  if (::fstat(fd, &st) == 0 && st.st_size > 0) out.reserve(static_cast<size_t>(st.st_size));
  char buffer[1 << 16];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      ok = false;
      break;
    }
    if (n == 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return ok;
}

// The number in "seg-<number><suffix>", or nothing.
std::optional<uint32_t> segmentNumber(const std::string& name, std::string_view suffix) {
  const std::string_view prefix = kSegmentPrefix;
  if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) ||
      !name.ends_with(suffix)) {
    return std::nullopt;
  }
  const std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  if (digits.empty() || digits.size() > 10 ||
      !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  const uint64_t value = std::stoull(digits);
  if (value == 0 || value > 0xFFFFFFFFull) return std::nullopt;
  return static_cast<uint32_t>(value);
}

std::string errnoText() { return std::strerror(errno); }

void fsyncPath(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

// MARK: - JournalFront

JournalFront::~JournalFront() {
  MutexLock lock(mutex_);
  for (auto& segment : closing_) finish(segment);
  closing_.clear();
  if (active_.fd >= 0) finish(active_);
  for (auto& spare : spares_) {
    // Never written to: it goes, rather than being found empty at the next start.
    ::unlink(segmentPath(spare.number).c_str());
    finish(spare);
  }
  {
    MutexLock recycledLock(recycledMutex_);
    for (const auto& path : recycled_) ::unlink(path.c_str());
  }
  if (lockFd_ >= 0) ::close(lockFd_);  // releases the flock
}

fs::path JournalFront::segmentPath(uint32_t number) const {
  char name[32];
  std::snprintf(name, sizeof name, "%s%010u%s", kSegmentPrefix, number, kSegmentSuffix);
  return options_.directory / name;
}

bool JournalFront::lockDirectory() {
  if (lockFd_ >= 0) return true;
  const fs::path& dir = options_.directory;
  std::error_code ec;
  createPrivateDirectories(dir, ec);
  if (ec) {
    logger().log(LogLevel::Error, "cannot create " + dir.string() + ": " + ec.message());
    return false;
  }
  ::chmod(dir.c_str(), 0700);  // the user's own: no one else reads what is queued
  lockFd_ = ::open((dir / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lockFd_ < 0) {
    logger().log(LogLevel::Error, "cannot open the lock in " + dir.string() + ": " + errnoText());
    return false;
  }
  if (::flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    logger().log(LogLevel::Error, dir.string() + " is in use by another process");
    ::close(lockFd_);
    lockFd_ = -1;
    return false;
  }
  return true;
}

bool JournalFront::open(uint32_t minEpoch) {
  if (!lockDirectory()) return false;
  const fs::path& dir = options_.directory;
  std::error_code ec;

  // Earlier segments, and the highest epoch any of them was written in.
  uint32_t highestEpoch = minEpoch;
  for (const auto& entry : fs::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(kRecycledPrefix)) {
      ::unlink(entry.path().c_str());  // kept by an earlier run
      continue;
    }
    auto number = segmentNumber(name, kSegmentSuffix);
    if (!number) continue;
    earlierSegments_.push_back(*number);
    const int fd = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char header[kSegmentHeaderBytes];
    if (::pread(fd, header, sizeof header, 0) == static_cast<ssize_t>(sizeof header) &&
        std::memcmp(header, kSegmentMagic, sizeof kSegmentMagic) == 0) {
      highestEpoch = std::max(highestEpoch, get<uint32_t>(header + 12));
    }
    ::close(fd);
  }
  std::sort(earlierSegments_.begin(), earlierSegments_.end());

  std::string text;
  if (readFile(dir / "epoch", text)) {
    char* end = nullptr;
    const unsigned long long stored = std::strtoull(text.c_str(), &end, 10);
    if (end != text.c_str() && stored < 0xFFFFFFFFull) {
      highestEpoch = std::max(highestEpoch, static_cast<uint32_t>(stored));
    }
  }
  epoch_ = highestEpoch + 1;
  // The epoch file only saves reading every header; segment headers carry
  // the epoch too, so losing this write to a power cut cannot reuse an id.
  {
    const fs::path temporary = dir / "epoch.tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd >= 0) {
      const bool written = writeAll(fd, std::to_string(epoch_) + "\n");
      ::close(fd);
      if (written) ::rename(temporary.c_str(), (dir / "epoch").c_str());
    }
  }

  nextSegment_ = earlierSegments_.empty() ? 1 : earlierSegments_.back() + 1;
  std::string error;
  auto segment = createSegment(0, true, error);
  if (!segment) {
    logger().log(LogLevel::Error, "cannot start a journal segment in " + dir.string() + ": " + error);
    return false;
  }
  {
    MutexLock lock(mutex_);
    active_ = *segment;
  }
  topUpSpares();
  return true;
}

std::optional<JournalFront::Segment> JournalFront::createSegment(size_t frameBytes, bool prefault,
                                                                 std::string& error) {
  Segment segment;
  segment.number = nextSegment_.fetch_add(1);
  const fs::path path = segmentPath(segment.number);
  segment.fd = openRecycled(path);
  if (segment.fd < 0) segment.fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (segment.fd < 0) {
    error = errnoText();
    return std::nullopt;
  }
  std::string header(kSegmentMagic, sizeof kSegmentMagic);
  put<uint32_t>(header, segment.number);
  put<uint32_t>(header, epoch_);
  if (!writeAll(segment.fd, header)) {
    error = errnoText();
    ::close(segment.fd);
    ::unlink(path.c_str());
    return std::nullopt;
  }
  segment.bytes = kSegmentHeaderBytes;
  segment.dirty = true;
  directoryDirty_ = true;

  const uint64_t page = pageBytes();
  const uint64_t wanted = std::max<uint64_t>(std::min(options_.segmentBytes, kMaxSegmentBytes / 2),
                                             kSegmentHeaderBytes + frameBytes);
  const uint64_t capacity = (wanted + page - 1) / page * page;
  if (reserveWithZeros(segment.fd, kSegmentHeaderBytes, capacity, prefault)) {
    void* map = ::mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_SHARED, segment.fd, 0);
    if (map != MAP_FAILED) {
      segment.map = static_cast<char*>(map);
      segment.capacity = capacity;
      // Writing every page once here maps the pages, so the appending
      // threads take no page faults; measured, it makes the appends some
      // twenty times cheaper than faulting pages in as they come.
      if (prefault) {
        std::memset(segment.map + kSegmentHeaderBytes, 0, capacity - kSegmentHeaderBytes);
      }
      return segment;
    }
  }
  // Unmapped: appends use pwrite(2); the file must not keep a zero end that
  // a pwrite would leave in the middle.
  if (::ftruncate(segment.fd, static_cast<off_t>(kSegmentHeaderBytes)) != 0) {
    error = errnoText();
    ::close(segment.fd);
    ::unlink(path.c_str());
    return std::nullopt;
  }
  return segment;
}

// Unmaps, cuts to the used length, syncs and closes.
void JournalFront::finish(Segment& segment) {
  if (segment.map != nullptr) {
    // Unmapped first: the dirty pages stay in the page cache and the
    // fdatasync below writes them, but with no mapping left the kernel has
    // no page-table entries to write-protect, so writing them back sends no
    // TLB-flush interrupt to the cores of the threads that report (one per
    // page when syncing through the mapping, a stall on the report path).
    ::munmap(segment.map, segment.capacity);
    segment.map = nullptr;
    // The unused end is cut off, so it is never written.
    if (::ftruncate(segment.fd, static_cast<off_t>(segment.bytes)) == 0 || segment.dirty) {
      ::fdatasync(segment.fd);
    }
  } else if (segment.dirty) {
    ::fdatasync(segment.fd);
  }
  ::close(segment.fd);
  segment.fd = -1;
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
    next = createSegment(frameBytes, false, error);
    if (!next) {
      logger().log(LogLevel::Error, "cannot start a journal segment: " + error);
      return false;
    }
  }
  if (active_.fd >= 0) {
    closed_.push_back(active_.number);
    closing_.push_back(active_);
  }
  active_ = *next;
  return true;
}

std::optional<JournalFront::Appended> JournalFront::appendLocked(std::string_view frame,
                                                                 uint64_t id, bool& switched) {
  if (active_.fd < 0 || active_.broken || !active_.hasRoom(frame.size())) {
    if (!switchSegmentLocked(frame.size())) return std::nullopt;
    switched = true;
  }
  Segment& segment = active_;
  if (segment.map != nullptr) {
    std::memcpy(segment.map + segment.bytes, frame.data(), frame.size());
  } else {
    size_t done = 0;
    while (done < frame.size()) {
      const ssize_t n = ::pwrite(segment.fd, frame.data() + done, frame.size() - done,
                                 static_cast<off_t>(segment.bytes + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        // Nothing may follow a partial frame: cut it off, or stop using the
        // segment.
        if (::ftruncate(segment.fd, static_cast<off_t>(segment.bytes)) != 0) segment.broken = true;
        return std::nullopt;
      }
      done += static_cast<size_t>(n);
    }
  }
  Appended where{id, segment.number, segment.bytes, static_cast<uint32_t>(frame.size())};
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

bool JournalFront::directoryVanished() const {
  struct stat st {};
  return ::stat(options_.directory.c_str(), &st) != 0 && errno == ENOENT;
}

bool JournalFront::rehome() {
  if (lockFd_ >= 0) ::close(lockFd_);  // its file went with the directory
  lockFd_ = -1;
  if (!lockDirectory()) return false;
  std::vector<Segment> spares;
  {
    MutexLock lock(mutex_);
    spares.swap(spares_);
    if (!switchSegmentLocked(0)) return false;
  }
  for (auto& spare : spares) finish(spare);  // never written; their files are gone
  directoryDirty_ = true;
  topUpSpares();
  return true;
}

bool JournalFront::readOpen(uint32_t number, uint64_t offset, std::string& out) const {
  MutexLock lock(mutex_);
  const Segment* found = active_.number == number && active_.fd >= 0 ? &active_ : nullptr;
  for (const auto& segment : closing_) {
    if (segment.number == number) found = &segment;
  }
  if (found == nullptr) return false;
  return ::pread(found->fd, out.data(), out.size(), static_cast<off_t>(offset)) ==
         static_cast<ssize_t>(out.size());
}

uint32_t JournalFront::activeSegment() const {
  MutexLock lock(mutex_);
  return active_.number;
}

uint64_t JournalFront::activeBytes() const {
  MutexLock lock(mutex_);
  return active_.fd >= 0 && !active_.broken ? active_.bytes : UINT64_MAX;
}

bool JournalFront::rotate() {
  MutexLock lock(mutex_);
  return switchSegmentLocked(0);
}

void JournalFront::topUpSpares() {
  size_t missing;
  {
    MutexLock lock(mutex_);
    const size_t target = spareTarget_.load(std::memory_order_relaxed);
    missing = target - std::min(target, spares_.size());
  }
  for (; missing > 0; --missing) {
    std::string error;
    auto spare = createSegment(0, true, error);
    // Without a spare a caller makes the next segment itself.
    if (!spare) break;
    {
      MutexLock lock(mutex_);
      spares_.push_back(*spare);
    }
    if (options_.betweenSyncSteps) options_.betweenSyncSteps();
  }
}

void JournalFront::syncActive() {
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
      ::msync(active.map + from, active.bytes - from, MS_SYNC);
    } else {
      ::fdatasync(active.fd);
    }
  }
  for (auto& segment : closing) {
    finish(segment);
    if (options_.betweenSyncSteps) options_.betweenSyncSteps();
    // A burst of appends may be using up the spares while segments are
    // written back: keep them coming.
    topUpSpares();
  }
  syncDirectory();
}

void JournalFront::syncDirectory() {
  if (!directoryDirty_.exchange(false)) return;
  fsyncPath(options_.directory);
}

JournalFront::SegmentContents JournalFront::readSegment(uint32_t number,
                                                      const std::atomic<bool>* stop) const {
  SegmentContents contents;
  contents.number = number;
  std::string data;
  if (!readFile(segmentPath(number), data)) return contents;
  contents.fileBytes = contents.physicalBytes = contents.validBytes = data.size();
  if (data.size() < kSegmentHeaderBytes ||
      std::memcmp(data.data(), kSegmentMagic, sizeof kSegmentMagic) != 0) {
    contents.validBytes = 0;
    return contents;
  }
  contents.headerOk = true;
  size_t offset = kSegmentHeaderBytes;
  // Looking for whole frames after damage may check a few times the file's
  // bytes, never more.
  uint64_t budget = 4 * static_cast<uint64_t>(data.size()) + (1u << 20);
  for (size_t frames = 0;; ++frames) {
    if (stop != nullptr && frames % 256 == 0 && stop->load(std::memory_order_relaxed)) {
      contents.stopped = true;
      break;
    }
    // A mapped segment's unwritten end is zeros: where only zeros are left
    // at a frame boundary, the segment ends. (A frame's own bytes may end in
    // zeros, so this is only asked where a frame would start.)
    if (offset < data.size() && data.find_first_not_of('\0', offset) == std::string::npos) {
      data.resize(offset);
    }
    StoredRequest record;
    const size_t at = offset;
    const FrameStatus status = decodeFrame(data, offset, record);
    if (status == FrameStatus::End) break;
    if (status == FrameStatus::Ok) {
      contents.records.push_back(std::move(record));
      contents.offsets.push_back(at);
      continue;
    }
    // Damage: remember the first, then look for whole frames after it (a
    // torn write at the end finds none).
    if (contents.tail == FrameStatus::End) {
      contents.tail = status;
      contents.validBytes = at;
    }
    auto next = findNextFrame(data, at + 1, budget);
    if (!next) break;
    contents.tail = FrameStatus::Corrupt;
    offset = *next;
  }
  contents.fileBytes = data.size();
  if (contents.tail == FrameStatus::End) contents.validBytes = data.size();
  return contents;
}

void JournalFront::trimSegment(uint32_t number, uint64_t usedBytes) {
  if (::truncate(segmentPath(number).c_str(), static_cast<off_t>(usedBytes)) != 0) {
    logger().log(LogLevel::Error, "cannot trim journal segment " + std::to_string(number) +
                                        ": " + errnoText());
  }
}

void JournalFront::setAside(const fs::path& file, const std::string& reason) {
  const fs::path aside = options_.directory / kAsideFolder;
  std::error_code ec;
  createPrivateDirectories(aside, ec);
  static std::atomic<unsigned> counter{0};
  const fs::path target =
      aside / (file.filename().string() + "." + std::to_string(::time(nullptr)) + "-" +
               std::to_string(counter.fetch_add(1)));
  if (!ec && ::rename(file.c_str(), target.c_str()) == 0) {
    logger().log(LogLevel::Error, "moved " + file.filename().string() + " aside to " +
                                      target.string() + ": " + reason);
  } else {
    ::unlink(file.c_str());
    logger().log(LogLevel::Error, "deleted unreadable " + file.filename().string() + ": " + reason);
  }
  // Keep only the newest few set-aside files.
  std::vector<std::pair<fs::file_time_type, fs::path>> kept;
  for (const auto& entry : fs::directory_iterator(aside, ec)) {
    kept.emplace_back(entry.last_write_time(ec), entry.path());
  }
  if (kept.size() > options_.keepAsideFiles) {
    std::sort(kept.begin(), kept.end());
    for (size_t i = 0; i + options_.keepAsideFiles < kept.size(); ++i) fs::remove(kept[i].second, ec);
  }
}

bool JournalFront::recycle(const fs::path& log) {
  {
    MutexLock lock(recycledMutex_);
    if (recycled_.size() >= kRecycledFiles) return false;
  }
  const fs::path kept =
      options_.directory / (kRecycledPrefix + std::to_string(recycledNames_.fetch_add(1)));
  // Renamed before it is emptied: a crash in between leaves a file that is
  // never read, not an empty segment.
  if (::rename(log.c_str(), kept.c_str()) != 0) return false;
  if (::truncate(kept.c_str(), 0) != 0) {
    ::unlink(kept.c_str());
    return true;
  }
  MutexLock lock(recycledMutex_);
  recycled_.push_back(kept);
  return true;
}

int JournalFront::openRecycled(const fs::path& path) {
  for (;;) {
    fs::path kept;
    {
      MutexLock lock(recycledMutex_);
      if (recycled_.empty()) return -1;
      kept = std::move(recycled_.back());
      recycled_.pop_back();
    }
    const int fd = ::open(kept.c_str(), O_RDWR | O_CLOEXEC);
    if (fd >= 0 && ::renameat2(AT_FDCWD, kept.c_str(), AT_FDCWD, path.c_str(),
                               RENAME_NOREPLACE) == 0) {
      return fd;
    }
    if (fd >= 0) ::close(fd);
    ::unlink(kept.c_str());
  }
}

void JournalFront::removeSegmentFiles(uint32_t number) {
  const fs::path log = segmentPath(number);
  if (!recycle(log)) ::unlink(log.c_str());
  fs::path marks = log;
  marks.replace_extension(kMarksSuffix);
  ::unlink(marks.c_str());
}

uint64_t JournalFront::bytesOnDisk() const {
  // Open segments count by what is used, not by what is reserved.
  std::unordered_map<uint32_t, uint64_t> open;
  {
    MutexLock lock(mutex_);
    if (active_.fd >= 0) open[active_.number] = active_.bytes;
    for (const auto& spare : spares_) open[spare.number] = spare.bytes;
    for (const auto& segment : closing_) open[segment.number] = segment.bytes;
  }
  uint64_t total = 0;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(options_.directory, ec)) {
    const std::string name = entry.path().filename().string();
    if (name == "lock" || name == "epoch" || name == kAsideFolder) continue;
    if (!entry.is_regular_file(ec)) continue;
    auto number = segmentNumber(name, kSegmentSuffix);
    auto it = number ? open.find(*number) : open.end();
    total += it != open.end() ? it->second : entry.file_size(ec);
  }
  return total;
}

// MARK: - JournalRequestStore

namespace {

// A marks file is a sequence of batches: [u32 count][u32 CRC-32C][count x u64].
std::string encodeMarks(const std::vector<uint64_t>& ids) {
  std::string out;
  const auto count = static_cast<uint32_t>(ids.size());
  put<uint32_t>(out, count);
  const uint32_t crc = crc32c(ids.data(), ids.size() * 8, crc32c(&count, 4));
  put<uint32_t>(out, crc);
  out.append(reinterpret_cast<const char*>(ids.data()), ids.size() * 8);
  return out;
}

// Adds the marks of a file to into; false when the file has a bad batch
// (marks before it are kept).
bool readMarks(const fs::path& path, std::unordered_set<uint64_t>& into) {
  std::string data;
  if (!readFile(path, data)) return true;  // no marks yet
  size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < 8) return false;
    const uint32_t count = get<uint32_t>(data.data() + at);
    const uint32_t crc = get<uint32_t>(data.data() + at + 4);
    if (count == 0 || (data.size() - at - 8) / 8 < count) return false;
    const char* ids = data.data() + at + 8;
    if (crc32c(ids, size_t{count} * 8, crc32c(&count, 4)) != crc) return false;
    for (uint32_t i = 0; i < count; ++i) into.insert(get<uint64_t>(ids + size_t{i} * 8));
    at += 8 + size_t{count} * 8;
  }
  return true;
}

fs::path marksPath(const fs::path& segment) {
  fs::path p = segment;
  p.replace_extension(kMarksSuffix);
  return p;
}

const char* tailReason(FrameStatus status) {
  return status == FrameStatus::Truncated ? "torn record at its end" : "bad record checksum";
}

class JournalRequestStore final : public RequestStore {
 public:
  explicit JournalRequestStore(const RequestStoreOptions& options) : front_(options) {}
  ~JournalRequestStore() override {
    MutexLock lock(indexMutex_);
    for (auto& [number, segment] : segments_) {
      if (segment.marksFd >= 0) ::close(segment.marksFd);
      if (segment.readFd >= 0) ::close(segment.readFd);
    }
  }

  bool open() { return front_.open(); }

  uint32_t epoch() const override { return front_.epoch(); }

  bool append(std::string_view frame, uint64_t id) override { return front_.append(frame, id); }

  std::vector<StoredRequest> recover(const std::atomic<bool>* stop) override
      KORVEL_EXCLUDES(indexMutex_) {
    MutexLock lock(indexMutex_);
    const auto& log = front_.logger();
    std::unordered_set<uint64_t> finished;
    std::unordered_set<uint32_t> earlier(front_.earlierSegments().begin(),
                                         front_.earlierSegments().end());
    for (uint32_t number : front_.earlierSegments()) {
      const fs::path marks = marksPath(front_.segmentPath(number));
      if (!readMarks(marks, finished)) {
        // Requests marked in the unreadable part are sent again (same uuid).
        front_.setAside(marks, "bad delivered-marks batch");
      }
    }
    // Marks whose segment is gone.
    std::error_code ec;
    std::vector<fs::path> orphans;
    for (const auto& entry : fs::directory_iterator(front_.options().directory, ec)) {
      auto number = segmentNumber(entry.path().filename().string(), kMarksSuffix);
      if (number && !earlier.contains(*number) && *number != front_.activeSegment()) {
        orphans.push_back(entry.path());
      }
    }
    for (const auto& path : orphans) fs::remove(path, ec);

    std::vector<StoredRequest> pending;
    std::unordered_set<uint64_t> seen;
    for (uint32_t number : front_.earlierSegments()) {
      if (stop != nullptr && stop->load()) return {};  // the rest stays for the next start
      auto contents = front_.readSegment(number, stop);
      if (contents.stopped) return {};
      const fs::path path = front_.segmentPath(number);
      if (!contents.headerOk) {
        // Empty: a kill between creating the file and writing its header.
        if (contents.fileBytes == 0) {
          front_.removeSegmentFiles(number);
        } else {
          front_.setAside(path, "not a journal segment");
          ::unlink(marksPath(path).c_str());
        }
        continue;
      }
      std::vector<size_t> live;  // indexes into contents.records
      for (size_t i = 0; i < contents.records.size(); ++i) {
        const uint64_t id = contents.records[i].id;
        if (!finished.contains(id) && seen.insert(id).second) live.push_back(i);
      }
      const bool damaged = contents.tail == FrameStatus::Truncated ||
                           contents.tail == FrameStatus::Corrupt;
      bool carried = damaged;
      if (damaged) {
        // Copy what is readable into the active segment, then set the file
        // aside; new appends never go to an earlier run's segment.
        for (size_t i : live) {
          auto where = front_.appendCarried(encodeFrame(contents.records[i]), contents.records[i].id);
          if (!where) {
            carried = false;
            break;
          }
          track(*where);
        }
        if (carried) {
          front_.syncActive();
          front_.setAside(path, std::string(tailReason(contents.tail)) + " at byte " +
                                    std::to_string(contents.validBytes) + "; " +
                                    std::to_string(live.size()) + " pending requests kept");
          ::unlink(marksPath(path).c_str());
        }
      }
      if (!carried) {
        if (live.empty()) {
          front_.removeSegmentFiles(number);
          continue;
        }
        // A segment that was open when the run ended keeps its reserved,
        // unwritten end until cut here.
        if (contents.physicalBytes > contents.fileBytes) front_.trimSegment(number, contents.fileBytes);
        auto& segment = segments_[number];
        segment.closed = true;  // an earlier run's: nothing is appended to it again
        segment.fileBytes = contents.fileBytes;
        for (size_t i : live) {
          const uint32_t length = static_cast<uint32_t>(kFrameHeaderBytes + kFrameFixedBodyBytes +
                                                        contents.records[i].kind.size() +
                                                        contents.records[i].payload.size());
          track({contents.records[i].id, number, contents.offsets[i], length});
        }
      }
      for (size_t i : live) pending.push_back(std::move(contents.records[i]));
    }
    std::sort(pending.begin(), pending.end(),
              [](const StoredRequest& a, const StoredRequest& b) { return a.id < b.id; });
    if (!pending.empty()) {
      log.log(LogLevel::Info, "restoring " + std::to_string(pending.size()) + " stored requests");
    }
    return pending;
  }

  void sync(std::span<const uint64_t> finished) override KORVEL_EXCLUDES(indexMutex_) {
    if (front_.activeBytes() >= front_.options().segmentBytes) front_.rotate();
    std::vector<int> toSync;
    {
      MutexLock lock(indexMutex_);
      toSync = settle(finished);
    }
    // Workers read requests back meanwhile; only this thread closes a marks
    // file, so the descriptors stay valid.
    front_.syncActive();
    for (int fd : toSync) ::fdatasync(fd);
    MutexLock lock(indexMutex_);
    compactClosed(false);
  }

  bool durable() const override { return !homeless_; }

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
    auto found = segments_.find(where.segment);
    if (found == segments_.end()) return std::nullopt;
    std::string frame(where.loc.length, '\0');
    if (!readFrame(where.segment, found->second, where.loc, frame)) return std::nullopt;
    size_t offset = 0;
    StoredRequest request;
    if (decodeFrame(frame, offset, request) != FrameStatus::Ok || request.id != id) return std::nullopt;
    return request;
  }

 private:
  // Forgets the finished requests and writes their marks; the marks files
  // to sync.
  std::vector<int> settle(std::span<const uint64_t> finished) KORVEL_REQUIRES(indexMutex_) {
    if (front_.directoryVanished()) heal();
    drainFront();

    for (uint64_t id : finished) {
      auto it = stored_.find(id);
      if (it == stored_.end()) continue;
      auto& segment = segments_[it->second.segment];
      segment.forget(it->second.loc);
      segment.marks.push_back(id);
      stored_.erase(it);
    }

    std::vector<int> toSync;
    bool marksFailed = false;
    std::string failure;
    for (auto it = segments_.begin(); it != segments_.end();) {
      auto& [number, segment] = *it;
      if (segment.closed && segment.liveCount == 0) {
        // Nothing left in it: no marks needed, the files go.
        removeSegment(it++);
        continue;
      }
      if (!segment.marks.empty()) {
        if (segment.marksFd < 0) {
          segment.marksFd = ::open(marksPath(front_.segmentPath(number)).c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        }
        // Kept until written: a request without its mark is sent again
        // after a restart.
        if (segment.marksFd >= 0 && writeMarks(segment.marksFd, segment.marks)) {
          toSync.push_back(segment.marksFd);
          segment.marks.clear();
        } else {
          failure = errnoText();
          marksFailed = true;
        }
      }
      ++it;
    }
    const auto& log = front_.logger();
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

 public:
  void compact() override KORVEL_EXCLUDES(indexMutex_) {
    if (front_.activeBytes() > kSegmentHeaderBytes) front_.rotate();
    {
      MutexLock lock(indexMutex_);
      drainFront();
      compactClosed(true);
    }
    front_.syncActive();
  }

  StoreStats stats() const override KORVEL_EXCLUDES(indexMutex_) {
    uint64_t stored;
    {
      MutexLock lock(indexMutex_);
      stored = stored_.size();
    }
    return {front_.bytesOnDisk(), stored};
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
    // Reported closed by a drain: every record appended to it is tracked.
    // Only such a segment may be removed or compacted; the segment that is
    // active now may have been closed since the last drain, with appends
    // nobody has tracked yet.
    bool closed = false;
    uint32_t liveCount = 0;  // requests in it not yet finished
    std::vector<uint64_t> marks;  // finished, not yet written
    int marksFd = -1;
    int readFd = -1;  // for reading requests back

    void forget(const Loc& loc) {
      liveBytes -= loc.length;
      --liveCount;
    }
  };
  // Where a waiting request is stored: twelve bytes, with its id a slot of
  // twenty-four in the index.
  struct Where {
    uint32_t segment = 0;
    Loc loc{};
  };

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

  // Appends one batch of marks; on a failed (or short) write the file is cut
  // back, so no torn batch hides the batches written after it.
  static bool writeMarks(int fd, const std::vector<uint64_t>& marks) {
    const off_t before = ::lseek(fd, 0, SEEK_END);
    if (before < 0) return false;
    if (writeAll(fd, encodeMarks(marks))) return true;
    const int saved = errno;
    if (::ftruncate(fd, before) != 0) {
      // Nothing more can be appended safely after a torn batch.
    }
    errno = saved;
    return false;
  }

  // The bytes of a stored frame: through the segment's own descriptor (kept
  // from when it was first tracked, so it reads even after its file went),
  // else through the front's.
  bool readFrame(uint32_t number, Segment& segment, const Loc& loc, std::string& frame)
      KORVEL_REQUIRES(indexMutex_) {
    if (segment.readFd < 0) {
      segment.readFd = ::open(front_.segmentPath(number).c_str(), O_RDONLY | O_CLOEXEC);
    }
    if (segment.readFd >= 0 &&
        ::pread(segment.readFd, frame.data(), frame.size(), static_cast<off_t>(loc.offset)) ==
            static_cast<ssize_t>(frame.size())) {
      return true;
    }
    return front_.readOpen(number, loc.offset, frame);
  }

  // The directory was deleted under the store: make it again and copy every
  // stored request there, from the files still open.
  void heal() KORVEL_REQUIRES(indexMutex_) {
    const auto& log = front_.logger();
    if (!front_.rehome()) {
      if (!homeless_) {
        log.log(LogLevel::Error, "the store's directory " + front_.options().directory.string() +
                                     " vanished and cannot be made again: requests are not "
                                     "durable until it can");
      }
      homeless_ = true;
      return;
    }
    drainFront();  // every append that went to the old files
    const uint32_t active = front_.activeSegment();
    std::vector<uint32_t> earlier;
    for (const auto& [number, segment] : segments_) {
      if (number != active) earlier.push_back(number);
    }
    auto live = liveIn(earlier);
    std::vector<JournalFront::Appended> moved;
    size_t lost = 0;
    std::string frame;
    for (uint32_t number : earlier) {
      auto it = segments_.find(number);
      for (const auto& [id, loc] : live[number]) {
        frame.resize(loc.length);
        std::optional<JournalFront::Appended> where;
        if (readFrame(number, it->second, loc, frame)) where = front_.appendCarried(frame, id);
        if (where) {
          moved.push_back(*where);
        } else {
          ++lost;
          stored_.erase(id);
        }
      }
      removeSegment(it);
    }
    for (const auto& a : moved) track(a);
    front_.syncActive();
    homeless_ = false;
    log.log(LogLevel::Error, "the store's directory " + front_.options().directory.string() +
                                 " vanished; made it again and stored the " +
                                 std::to_string(moved.size()) + " waiting requests there again" +
                                 (lost > 0 ? " (" + std::to_string(lost) + " could not be read)" : ""));
  }

  void removeSegment(std::map<uint32_t, Segment>::iterator it) KORVEL_REQUIRES(indexMutex_) {
    if (it->second.marksFd >= 0) ::close(it->second.marksFd);
    if (it->second.readFd >= 0) ::close(it->second.readFd);
    front_.removeSegmentFiles(it->first);
    segments_.erase(it);
  }

  void track(const JournalFront::Appended& a) KORVEL_REQUIRES(indexMutex_) {
    auto& segment = segments_[a.segment];
    // Opened while the file is certainly there: reads work even if the
    // directory is deleted later.
    if (segment.readFd < 0) {
      segment.readFd = ::open(front_.segmentPath(a.segment).c_str(), O_RDONLY | O_CLOEXEC);
    }
    segment.fileBytes = std::max(segment.fileBytes, a.offset + a.length);
    const Where where{a.segment, Loc{static_cast<uint32_t>(a.offset), a.length}};
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
    auto drained = front_.drain();
    for (const auto& a : drained.appended) track(a);
    // Known even when nothing was appended to it, so an empty one is removed.
    for (uint32_t number : drained.closed) segments_[number].closed = true;
  }

  // Copies the live records of mostly-finished closed segments forward and
  // deletes the segments; all of them when everything is true.
  void compactClosed(bool everything) KORVEL_REQUIRES(indexMutex_) {
    constexpr uint64_t kMinimumBytes = 64 * 1024;
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
      const int fd = ::open(front_.segmentPath(number).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) continue;
      const auto& live = liveByNumber[number];
      std::vector<JournalFront::Appended> moved;
      bool ok = true;
      std::string frame;
      for (const auto& [id, loc] : live) {
        frame.resize(loc.length);
        if (::pread(fd, frame.data(), loc.length, static_cast<off_t>(loc.offset)) !=
            static_cast<ssize_t>(loc.length)) {
          ok = false;
          break;
        }
        auto where = front_.appendCarried(frame, id);
        if (!where) {
          ok = false;
          break;
        }
        moved.push_back(*where);
      }
      ::close(fd);
      // The copies must be durable before the originals go; on failure the
      // originals stay and any copies are merely duplicates (same id).
      // Workers read requests back meanwhile, from the originals.
      indexMutex_.unlock();
      front_.syncActive();
      indexMutex_.lock();
      if (!ok) continue;
      removeSegment(segments_.find(number));
      for (const auto& a : moved) track(a);
    }
  }

  JournalFront front_;
  // The writer thread holds it while it changes the index; a worker while
  // it reads a request back.
  mutable Mutex indexMutex_;
  std::map<uint32_t, Segment> segments_ KORVEL_GUARDED_BY(indexMutex_);
  // Every waiting request's place, by id.
  FlatIndex<uint64_t, Where> stored_ KORVEL_GUARDED_BY(indexMutex_);
  bool marksFailing_ KORVEL_GUARDED_BY(indexMutex_) = false;
  std::atomic<bool> homeless_{false};
};

}  // namespace

std::unique_ptr<RequestStore> openJournalRequestStore(const RequestStoreOptions& options) {
  auto store = std::make_unique<JournalRequestStore>(options);
  if (!store->open()) return nullptr;
  return store;
}

}  // namespace korvel::platform
