#include <korvel/debug/KVRDebugDataPersister.h>

#include <cstdlib>
#include <system_error>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/Env.h>
#include <korvel/platform/Files.h>
#include <korvel/debug/WaveWriter.h>
#include <korvel/foundation/URLComponents.h>
#include <korvel/reporters/KVRTaggingReporter.h>

using korvel::foundation::internal::Mutex;
using korvel::foundation::internal::MutexLock;

namespace korvel {

namespace {

// The longest file name the file systems we run on accept.
constexpr size_t kMaxFileNameBytes = 255;

// Serialises the writers of debug files, so two saves of one tag cannot
// interleave their folder checks and writes.
Mutex& writeMutex() {
  static Mutex* mutex = new Mutex;
  return *mutex;
}

bool isSafeByte(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

std::filesystem::path expandTilde(const std::string& path) {
  if (path == "~" || path.starts_with("~/")) {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != 0) {
      return std::filesystem::path(home) / path.substr(path.size() > 1 ? 2 : 1);
    }
  }
  return path;
}

// The folder of a debug file must be a real folder, not a link to elsewhere.
bool folderIsLink(const std::filesystem::path& file) {
  std::error_code ec;
  return std::filesystem::is_symlink(file.parent_path(), ec);
}

bool fileExistsForTag(const KVRTagResultInfo& tagResult, std::string_view extension) {
  const auto tagID = tagResult.tagID();
  if (!tagID) return false;
  const auto path = KVRDebugDataPersister::debugFilePathForUniqueId(*tagID, extension);
  if (!path) return false;
  std::error_code ec;
  return std::filesystem::exists(*path, ec);
}

}  // namespace

std::optional<std::string> KVRDebugDataPersister::safePathComponent(std::string_view uniqueId) {
  if (uniqueId.empty() || uniqueId == "." || uniqueId == "..") return std::nullopt;
  // Cheap early refusal before encoding a huge identifier.
  if (uniqueId.size() > kMaxFileNameBytes) return std::nullopt;
  std::string encoded = percentEncode(uniqueId, isSafeByte);
  if (encoded.size() > kMaxFileNameBytes) return std::nullopt;
  return encoded;
}

std::optional<std::filesystem::path> KVRDebugDataPersister::debugDirectory() {
  const std::string documents = platform::env().documentsDirectory();
  if (documents.empty()) return std::nullopt;
  return expandTilde(documents) / kDebugFolderName;
}

std::optional<std::filesystem::path> KVRDebugDataPersister::debugFilePathForUniqueId(
    std::string_view uniqueId, std::string_view extension) {
  auto folder = safePathComponent(uniqueId);
  if (!folder) return std::nullopt;
  std::string fileName = *folder + "-" + percentEncode(extension, isSafeByte);
  if (fileName.size() > kMaxFileNameBytes) return std::nullopt;
  auto root = debugDirectory();
  if (!root) return std::nullopt;
  return *root / *folder / fileName;
}

bool KVRDebugDataPersister::createMissingDirectoriesForPath(const std::filesystem::path& path) {
  const auto folder = path.parent_path();
  if (folder.empty()) return true;
  std::error_code ec;
  if (std::filesystem::symlink_status(folder, ec).type() !=
      std::filesystem::file_type::not_found) {
    return true;
  }
  platform::createPrivateDirectories(folder, ec);
  return !ec;
}

bool KVRDebugDataPersister::persistSignatureData(const Data& data,
                                                 std::string_view uniqueId,
                                                 std::string_view extension) const {
  const auto path = debugFilePathForUniqueId(uniqueId, extension);
  if (!path) return false;
  MutexLock lock(writeMutex());
  if (!createMissingDirectoriesForPath(*path) || folderIsLink(*path)) return false;
  std::error_code ignored;
  return platform::writeFileReplacing(*path, data, ignored);
}

bool KVRDebugDataPersister::persistAudioFile(const KVNPCMBuffer& buffer,
                                             std::string_view uniqueId) const {
  const auto path = debugFilePathForUniqueId(uniqueId, kAudioExtension);
  if (!path) return false;
  MutexLock lock(writeMutex());
  if (!createMissingDirectoriesForPath(*path) || folderIsLink(*path)) return false;
  return writeWaveFile(*path, buffer) == WaveWriteStatus::Written;
}

bool KVRDebugDataPersister::audioFileExistsForTagResultInfo(const KVRTagResultInfo& tagResult) {
  return fileExistsForTag(tagResult, kAudioExtension);
}

bool KVRDebugDataPersister::signatureFileExistsForTagResultInfo(
    const KVRTagResultInfo& tagResult) {
  return fileExistsForTag(tagResult, kSignatureExtension);
}

}  // namespace korvel
