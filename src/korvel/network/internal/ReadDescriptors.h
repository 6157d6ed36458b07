// Read handles of a journal's finished segments.
#pragma once

#include <cstdint>
#include <list>
#include <utility>

#include <korvel/network/internal/FileSystem.h>
#include <korvel/network/internal/JournalFormat.h>

namespace korvel::network::internal {

// Read descriptors of finished segments, the most recently used kept open:
// a backlog spread over thousands of segments holds a few descriptors, not
// one per segment, and delivery keeps descriptors for its sockets.
class ReadDescriptors {
 public:
  static constexpr size_t kKept = 32;

  explicit ReadDescriptors(FileSystem& files) : files_(files) {}
  ~ReadDescriptors() { clear(); }

  // kNoFile (errno set) when the segment cannot be opened.
  FileHandle get(FileHandle folder, uint32_t number) {
    for (auto it = open_.begin(); it != open_.end(); ++it) {
      if (it->first == number) {
        open_.splice(open_.begin(), open_, it);
        return it->second;
      }
    }
    const FileHandle fd = files_.openAt(folder, journal::segmentName(number).c_str(), OpenFlags::Read);
    if (fd < 0) return kNoFile;
    if (open_.size() >= kKept) {
      files_.close(open_.back().second);
      open_.pop_back();
    }
    open_.emplace_front(number, fd);
    return fd;
  }
  void forget(uint32_t number) {
    for (auto it = open_.begin(); it != open_.end(); ++it) {
      if (it->first == number) {
        files_.close(it->second);
        open_.erase(it);
        return;
      }
    }
  }
  void clear() {
    for (const auto& entry : open_) files_.close(entry.second);
    open_.clear();
  }
  size_t size() const { return open_.size(); }

 private:
  FileSystem& files_;
  std::list<std::pair<uint32_t, FileHandle>> open_;
};

}  // namespace korvel::network::internal
