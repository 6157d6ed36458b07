// What the journal's files look like on disk: integers, file names, the
// segment header and the delivered-marks batches.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace korvel::network::internal {

namespace journal {

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

inline constexpr char kSegmentMagic[8] = {'K', 'V', 'R', 'J', 'R', 'N', 'L', '1'};
inline constexpr size_t kSegmentHeaderBytes = 16;  // magic, u32 number, u32 epoch
inline constexpr const char* kSegmentPrefix = "seg-";
inline constexpr const char* kSegmentSuffix = ".log";
inline constexpr const char* kMarksSuffix = ".done";
inline constexpr const char* kAsideFolder = "aside";
inline constexpr const char* kLockFile = "lock";
inline constexpr const char* kEpochFile = "epoch";
// Held while a process picks its epoch, so that processes sharing a data
// folder never pick the same one.
inline constexpr const char* kEpochLockFile = "epoch.lock";
// The journal of a process that found the data folder's own journal in use
// by another live process: "run-<n>", with its own lock.
inline constexpr const char* kRunPrefix = "run-";
// Left by earlier versions, which kept removed segments' files for reuse:
// never read, deleted at start.
inline constexpr const char* kRecycledPrefix = "free-";

// "seg-0000000042.log" and "seg-0000000042.done".
std::string segmentName(uint32_t number);
std::string marksName(uint32_t number);
// The number in "seg-<number><suffix>", or nothing.
std::optional<uint32_t> segmentNumber(std::string_view name, std::string_view suffix);

// A marks file is a sequence of batches: [u32 count][u32 CRC-32C][count x u64].
std::string encodeMarks(const std::vector<uint64_t>& ids);
// Adds the marks in data to into; false when it has a bad batch (the marks
// before it are kept).
bool decodeMarks(std::string_view data, std::unordered_set<uint64_t>& into);

std::string errnoText(int error);

}  // namespace journal

}  // namespace korvel::network::internal
