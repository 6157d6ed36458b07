// The journal's segment files as files: reading a segment whole, setting
// one aside, removing one, the small files of the directory, and what the
// files take on disk.
#include <errno.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unordered_map>
#include <unordered_set>

#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/JournalFront.h>
#include <korvel/network/internal/JournalSegmentFiles.h>
#include <korvel/platform/Files.h>

using korvel::platform::LogLevel;
using korvel::platform::createPrivateDirectories;
using korvel::foundation::internal::MutexLock;

namespace korvel::network::internal {

namespace fs = std::filesystem;
using namespace journal;

namespace journal {

uint64_t pageBytes() { return memoryPageBytes(); }

std::string utf8Text(const fs::path& path) {
  const std::u8string text = path.u8string();
  return std::string(text.begin(), text.end());
}

fs::path pathOfUTF8(std::string_view text) { return fs::path(std::u8string(text.begin(), text.end())); }

bool pwriteAll(FileSystem& files, FileHandle fd, std::string_view data, uint64_t offset) {
  while (!data.empty()) {
    const int64_t n = files.writeAt(fd, data.data(), data.size(), offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(n));
    offset += static_cast<uint64_t>(n);
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
bool reserveWithZeros(FileSystem& files, FileHandle fd, uint64_t from, uint64_t to, bool pageSized) {
  static const char kZeros[64 << 10] = {};
  constexpr int kVectors = 16;
  // One write covers at most this much; page sized, it ends at the next
  // page boundary.
  const uint64_t most = pageSized ? pageBytes() : kVectors * sizeof kZeros;
  WriteRun vectors[kVectors];
  while (from < to) {
    uint64_t left = std::min(to - from, pageSized ? most - from % most : most);
    int count = 0;
    for (; left > 0 && count < kVectors; ++count) {
      const auto size = static_cast<size_t>(std::min<uint64_t>(sizeof kZeros, left));
      vectors[count] = {kZeros, size};
      left -= size;
    }
    const int64_t n = files.writeRunsAt(fd, vectors, count, from);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    from += static_cast<uint64_t>(n);
  }
  return true;
}

bool readAll(FileSystem& files, FileHandle fd, std::string& out) {
  out.clear();
  FileInfo st;
  if (files.info(fd, st) == 0 && st.size > 0) out.reserve(static_cast<size_t>(st.size));
  char buffer[1 << 16];
  for (;;) {
    const int64_t n = files.readAt(fd, buffer, sizeof buffer, out.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out.append(buffer, static_cast<size_t>(n));
  }
}

std::optional<std::string> readSmallFileIn(FileSystem& files, FileHandle folder, const std::string& name) {
  const FileHandle fd = files.openAt(folder, name.c_str(), OpenFlags::Read);
  if (fd < 0) return std::nullopt;
  std::string text;
  const bool ok = readAll(files, fd, text);
  const int error = errno;
  files.close(fd);
  errno = error;
  if (!ok) return std::nullopt;
  return text;
}

bool writeSmallFileIn(FileSystem& files, FileHandle folder, const std::string& name, std::string_view contents) {
  const std::string temporary = name + ".tmp";
  // Whatever is there (a link planted in the folder) goes; the new file is
  // made afresh and never opened through a link.
  files.removeAt(folder, temporary.c_str());
  const FileHandle fd =
      files.openAt(folder, temporary.c_str(), OpenFlags::Write | OpenFlags::Create | OpenFlags::Exclusive);
  if (fd < 0) return false;
  const bool written = pwriteAll(files, fd, contents, 0) && files.syncData(fd) == 0;
  files.close(fd);
  if (written && files.renameAt(folder, temporary.c_str(), folder, name.c_str()) == 0) return true;
  files.removeAt(folder, temporary.c_str());
  return false;
}

bool appendMarks(FileSystem& files, FileHandle fd, const std::vector<uint64_t>& marks) {
  const int64_t before = files.endOf(fd);
  if (before < 0) return false;
  const std::string batch = encodeMarks(marks);
  if (static_cast<uint64_t>(before) + batch.size() > files.fileSizeLimit()) {
    errno = EFBIG;
    return false;
  }
  if (pwriteAll(files, fd, batch, static_cast<uint64_t>(before))) return true;
  const int saved = errno;
  files.truncate(fd, static_cast<uint64_t>(before));  // nothing more can be appended safely after a torn batch
  errno = saved;
  return false;
}

FileHandle openCheckedFolder(FileSystem& files, const std::string& path, std::string& failure) {
  std::error_code ec;
  const fs::path dir = pathOfUTF8(path);
  if (dir.has_parent_path()) createPrivateDirectories(dir.parent_path(), ec);
  if (files.makeFolder(path.c_str()) != 0 && errno != EEXIST) {
    failure = "cannot create " + path + ": " + errnoText(errno);
    return kNoFile;
  }
  const FileHandle folder = files.openFolder(path.c_str());
  if (folder < 0) {
    failure = "cannot open " + path + ": " + errnoText(errno);
    return kNoFile;
  }
  // Another user's folder, or one others may write to, could have files
  // planted in it or be emptied by them: refused unless it can be made ours.
  FileInfo st;
  if (files.info(folder, st) != 0) {
    failure = "cannot inspect " + path + ": " + errnoText(errno);
  } else if (st.type != FileType::Folder) {
    failure = path + " is not a directory";
  } else if (st.owner != files.user()) {
    failure = path + " belongs to another user (" + st.owner + "); requests are not stored there";
  } else if (st.openToOthers && files.makePrivate(folder) != 0) {
    failure = path + " is open to other users (" + st.access + ") and cannot be made private: " +
              errnoText(errno);
  } else {
    return folder;
  }
  files.close(folder);
  return kNoFile;
}

}  // namespace journal

JournalFront::SegmentContents JournalFront::readSegment(uint32_t number,
                                                      const std::atomic<bool>* stop) const {
  SegmentContents contents;
  contents.number = number;
  std::string data;
  const FileHandle fd = files_.openAt(folder_, segmentName(number).c_str(), OpenFlags::Read);
  const bool read = fd >= 0 && readAll(files_, fd, data);
  if (!read) {
    contents.unreadable = true;
    contents.readError = errnoText(errno);
    if (fd >= 0) files_.close(fd);
    return contents;
  }
  files_.close(fd);
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
  const FileHandle fd = files_.openAt(folder_, segmentName(number).c_str(), OpenFlags::Write);
  if (fd < 0 || files_.truncate(fd, usedBytes) != 0) {
    logger().log(LogLevel::Error, "cannot trim journal segment " + std::to_string(number) + ": " +
                                      errnoText(errno));
  }
  if (fd >= 0) files_.close(fd);
}

void JournalFront::setAside(const std::string& name, const std::string& reason) {
  static std::atomic<unsigned> counter{0};
  const std::string target = name + "." + std::to_string(::time(nullptr)) + "-" +
                             std::to_string(counter.fetch_add(1));
  files_.makeFolderAt(folder_, kAsideFolder);
  const FileHandle aside = files_.openAt(folder_, kAsideFolder, OpenFlags::Folder);
  if (aside >= 0 && files_.renameAt(folder_, name.c_str(), aside, target.c_str()) == 0) {
    logger().log(LogLevel::Error, "moved " + name + " aside to " +
                                      (options_.directory / kAsideFolder / target).string() + ": " +
                                      reason);
  } else {
    files_.removeAt(folder_, name.c_str());
    logger().log(LogLevel::Error, "deleted unreadable " + name + ": " + reason);
  }
  if (aside < 0) return;
  // Keep only the newest few set-aside files.
  std::vector<std::string> names;
  if (files_.listFolder(aside, names) && names.size() > options_.keepAsideFiles) {
    std::vector<std::pair<int64_t, std::string>> kept;
    for (auto& entry : names) {
      FileInfo st;
      if (files_.infoAt(aside, entry.c_str(), st) != 0) continue;
      kept.emplace_back(st.modifiedNanos, std::move(entry));
    }
    std::sort(kept.begin(), kept.end());
    for (size_t i = 0; i + options_.keepAsideFiles < kept.size(); ++i) {
      files_.removeAt(aside, kept[i].second.c_str());
    }
  }
  files_.close(aside);
}

void JournalFront::removeOrphanMarks() {
  std::unordered_set<uint32_t> earlier(earlierSegments_.begin(), earlierSegments_.end());
  const uint32_t active = activeSegment();
  std::vector<std::string> names;
  if (!files_.listFolder(folder_, names)) return;
  for (const auto& name : names) {
    auto number = segmentNumber(name, kMarksSuffix);
    if (number && !earlier.contains(*number) && *number != active) {
      files_.removeAt(folder_, name.c_str());
    }
  }
}

void JournalFront::removeSegmentFiles(uint32_t number) {
  files_.removeAt(folder_, segmentName(number).c_str());
  files_.removeAt(folder_, marksName(number).c_str());
}

std::optional<std::string> JournalFront::readSmallFile(const std::string& name, bool* notFound) const {
  auto text = readSmallFileIn(files_, folder_, name);
  if (notFound != nullptr) *notFound = !text && errno == ENOENT;
  return text;
}

bool JournalFront::writeSmallFile(const std::string& name, std::string_view contents) {
  if (!writeSmallFileIn(files_, folder_, name, contents)) return false;
  directoryDirty_ = true;
  return true;
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
  std::vector<std::string> names;
  if (!files_.listFolder(folder_, names)) return 0;
  for (const auto& name : names) {
    if (name == kLockFile || name == kEpochFile || name == kAsideFolder || name == kEpochLockFile) continue;
    FileInfo st;
    if (files_.infoAt(folder_, name.c_str(), st) != 0 || st.type != FileType::Regular) continue;
    auto number = segmentNumber(name, kSegmentSuffix);
    auto it = number ? open.find(*number) : open.end();
    total += it != open.end() ? it->second : st.size;
  }
  return total;
}

}  // namespace korvel::network::internal
