// Keeps the raw material of a recognition attempt (its recorded audio and
// signature data) under the documents directory, one folder per attempt:
//
//   <documents>/DEBUG/<U>/<U>-<E>
//
// for a unique identifier U (the tag id, or a no-match file name) and an
// extension E ("caf" for audio, "sig" for signatures). The names carry a
// hyphen, not a dot, on purpose; e-mail attachments get the dotted form.
//
// Identifiers come from outside (server tag ids), so they are made safe
// before they become path components:
//  - every byte outside [A-Za-z0-9._-] is percent-encoded as %XX (upper-case
//    hex), "%" included, so "a/b" becomes "a%2Fb", "../x" becomes "..%2Fx"
//    and a NUL becomes "%00"; distinct identifiers stay distinct;
//  - "", "." and ".." are refused;
//  - an identifier whose file name "<U>-<E>" would exceed 255 bytes once
//    encoded is refused.
// The extension is encoded the same way. A refused identifier has no path:
// nothing is written and no file exists for it. Files are never written
// through a symbolic link (the file's own name or its attempt folder), so
// nothing is ever written outside the DEBUG folder.
//
// The persister has no state; its operations may run on any thread. Writes
// are serialised process-wide, one at a time.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include <korvel/foundation/Data.h>
#include <korvel/foundation/KVNTaggingDebugResult.h>

namespace korvel {

class KVRTagResultInfo;

class KORVEL_EXPORT KVRDebugDataPersister {
 public:
  static constexpr std::string_view kDebugFolderName = "DEBUG";
  static constexpr std::string_view kAudioExtension = "caf";
  static constexpr std::string_view kSignatureExtension = "sig";

  // Writes data to the debug file of (uniqueId, extension), creating missing
  // folders; not atomically. False when nothing could be written (callers
  // may ignore it).
  bool persistSignatureData(const Data& data, std::string_view uniqueId,
                            std::string_view extension) const;
  // Writes the buffer to the debug file of (uniqueId, "caf") as a WAVE file
  // (the name says caf; the content is WAVE, deliberately), replacing an
  // existing one. False when nothing could be written.
  bool persistAudioFile(const KVNPCMBuffer& buffer, std::string_view uniqueId) const;

  // <documents>/DEBUG; nothing when there is no documents directory.
  static std::optional<std::filesystem::path> debugDirectory();
  // The debug file of (uniqueId, extension); nothing for a refused
  // identifier (see above) or without a documents directory.
  static std::optional<std::filesystem::path> debugFilePathForUniqueId(std::string_view uniqueId,
                                                                        std::string_view extension);
  // The path component an identifier becomes; nothing when it is refused.
  static std::optional<std::string> safePathComponent(std::string_view uniqueId);

  // Makes sure the folder of the file at path exists: true when something
  // already exists there (nothing is created) or the folder and its missing
  // parents were created; false when creating them failed.
  static bool createMissingDirectoriesForPath(const std::filesystem::path& path);

  // Whether the audio ("caf") or signature ("sig") file exists for the
  // result's tag id (false without a tag id).
  static bool audioFileExistsForTagResultInfo(const KVRTagResultInfo& tagResult);
  static bool signatureFileExistsForTagResultInfo(const KVRTagResultInfo& tagResult);
};

}  // namespace korvel
