// Writes recorded PCM audio as a RIFF/WAVE file.
//
// The file has a "fmt " chunk (format tag 1, integer PCM, or 3, IEEE float,
// as the buffer's format says), for floats the "fact" chunk WAVE asks of
// non-PCM data, and a "data" chunk with the buffer's frameLength frames in
// little-endian byte order. The plain (not extensible) format header is used
// for every channel count and sample size; common readers accept it.
#pragma once

#include <korvel/export.h>

#include <filesystem>
#include <string_view>

#include <korvel/foundation/KVNTaggingDebugResult.h>

namespace korvel {

enum class WaveWriteStatus {
  Written = 0,
  // No channels, a sample rate that is not a positive number of at most
  // 2^32 - 1 Hz, or a sample size WAVE has no tag for (integers 8, 16, 24,
  // 32 bits; floats 32, 64 bits).
  UnsupportedFormat,
  // The buffer holds fewer bytes than frameLength frames need.
  ShortBuffer,
  // More audio than a RIFF file's 32-bit sizes can describe.
  TooLarge,
  // The file could not be created or written (see the error code).
  WriteFailed,
};

KORVEL_EXPORT std::string_view describe(WaveWriteStatus status);

// Writes buffer to path, replacing an existing file (a symbolic link in the
// last component is refused, not followed). Nothing is written unless the
// format is valid. Callers may ignore the result.
KORVEL_EXPORT WaveWriteStatus writeWaveFile(const std::filesystem::path& path, const KVNPCMBuffer& buffer);
KORVEL_EXPORT WaveWriteStatus writeWaveFile(const std::filesystem::path& path, const KVNPCMBuffer& buffer,
                              std::error_code& error);

}  // namespace korvel
