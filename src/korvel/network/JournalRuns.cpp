// The journals of several processes on one data folder.
#include <errno.h>

#include <algorithm>
#include <cstring>

#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/JournalRuns.h>
#include <korvel/network/internal/JournalSegmentFiles.h>

using korvel::platform::LogLevel;

namespace korvel::network::internal {

using namespace journal;

namespace {

// Journals one data folder may hold at once.
constexpr uint32_t kMostRuns = 64;

// The highest epoch in the segment headers of the run folders.
uint32_t highestRunEpoch(FileSystem& files, FileHandle top) {
  uint32_t highest = 0;
  std::vector<std::string> runs;
  if (!files.listFolder(top, runs)) return 0;
  for (const auto& run : runs) {
    if (!run.starts_with(kRunPrefix)) continue;
    const FileHandle folder = files.openAt(top, run.c_str(), OpenFlags::Folder);
    std::vector<std::string> names;
    if (folder >= 0 && files.listFolder(folder, names)) {
      for (const auto& name : names) {
        if (!segmentNumber(name, kSegmentSuffix)) continue;
        const FileHandle fd = files.openAt(folder, name.c_str(), OpenFlags::Read);
        char header[kSegmentHeaderBytes];
        if (fd >= 0 && files.readAt(fd, header, sizeof header, 0) == static_cast<int64_t>(sizeof header) &&
            std::memcmp(header, kSegmentMagic, sizeof kSegmentMagic) == 0) {
          highest = std::max(highest, get<uint32_t>(header + 12));
        }
        if (fd >= 0) files.close(fd);
      }
    }
    if (folder >= 0) files.close(folder);
  }
  return highest;
}

}  // namespace

std::unique_ptr<JournalFront> openOwnJournal(FileSystem& files, const RequestStoreOptions& options,
                                           FileHandle top, std::string& failure) {
  // Processes pick their epochs one at a time, each above every epoch
  // written in the folder so far: identifiers never collide between
  // journals that one process may adopt later.
  const FileHandle epochLock = files.openAt(top, kEpochLockFile, OpenFlags::ReadWrite | OpenFlags::Create);
  if (epochLock >= 0) files.lock(epochLock, true);
  uint32_t minEpoch = highestRunEpoch(files, top);
  if (auto text = readSmallFileIn(files, top, kEpochFile)) {
    char* end = nullptr;
    const unsigned long long stored = std::strtoull(text->c_str(), &end, 10);
    if (end != text->c_str() && stored < 0xFFFFFFFFull) {
      minEpoch = std::max(minEpoch, static_cast<uint32_t>(stored));
    }
  }
  auto front = std::make_unique<JournalFront>(options);
  bool opened = front->open(minEpoch);
  for (uint32_t run = 1; !opened && front->heldByAnotherProcess() && run <= kMostRuns; ++run) {
    RequestStoreOptions own = options;
    own.directory = options.directory / (kRunPrefix + std::to_string(run));
    front = std::make_unique<JournalFront>(own);
    opened = front->open(minEpoch);
  }
  if (opened && front->options().directory != options.directory) {
    writeSmallFileIn(files, top, kEpochFile, std::to_string(front->epoch()) + "\n");
    front->logger().log(LogLevel::Info, options.directory.string() +
                                            " is in use by another process; this one keeps its "
                                            "requests in " + front->options().directory.string());
  }
  if (epochLock >= 0) files.close(epochLock);
  if (!opened) {
    failure = front->failure();
    if (front->heldByAnotherProcess()) front->logger().log(LogLevel::Error, failure);
    return nullptr;
  }
  return front;
}

// Moves the segments of every run folder no live process holds (its lock
// is free) into this journal and removes the folder: what a process that
// ended left is delivered by the next one.
void adoptOrphanedJournals(FileSystem& files, FileHandle top, JournalFront& front) {
  const std::string own = utf8Text(front.options().directory.filename());
  std::vector<std::string> runs;
  if (!files.listFolder(top, runs)) return;
  size_t adopted = 0;
  for (const auto& run : runs) {
    if (!run.starts_with(kRunPrefix) || run == own) continue;
    const FileHandle folder = files.openAt(top, run.c_str(), OpenFlags::Folder);
    if (folder < 0) continue;
    const FileHandle lock = files.openAt(folder, kLockFile, OpenFlags::ReadWrite | OpenFlags::Create);
    if (lock >= 0 && files.lock(lock, false) == 0) {
      std::vector<std::string> names;
      bool all = files.listFolder(folder, names);
      std::vector<uint32_t> numbers;
      for (const auto& name : names) {
        if (auto number = segmentNumber(name, kSegmentSuffix)) numbers.push_back(*number);
      }
      std::sort(numbers.begin(), numbers.end());
      for (uint32_t number : numbers) {
        if (front.adoptSegment(folder, number)) {
          ++adopted;
        } else {
          all = false;
        }
      }
      if (all) {
        for (const auto& name : names) {
          if (!segmentNumber(name, kSegmentSuffix)) files.removeAt(folder, name.c_str());
        }
        files.removeFolderAt(top, run.c_str());
      }
    }
    if (lock >= 0) files.close(lock);  // releases the lock
    files.close(folder);
  }
  if (adopted > 0) {
    front.logger().log(LogLevel::Info, "took over " + std::to_string(adopted) +
                                            " journal segments of processes that ended");
  }
}

}  // namespace korvel::network::internal
