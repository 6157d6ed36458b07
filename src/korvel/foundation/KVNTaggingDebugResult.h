// What the foundation library tells about one recognition attempt when its
// debug output is on: the tags found, when the tagging session started, the
// audio it recorded and the signatures it tried.
//
// It posts KVNTaggingDebugResultContextNotification on the process
// notification centre with a std::shared_ptr<const KVNTaggingDebugResultContext>
// as the object; the context is immutable once posted.
#pragma once

#include <korvel/export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <korvel/foundation/KVRParameters.h>
#include <korvel/foundation/Data.h>

namespace korvel {

inline constexpr std::string_view KVNTaggingDebugResultContextNotification =
    "KVNTaggingDebugResultContextNotification";

// How the samples of a PCM buffer are laid out.
struct KORVEL_EXPORT KVNAudioFormat {
  double sampleRate = 0;
  uint32_t channelCount = 0;
  // Bits of one sample of one channel: 8, 16, 24 or 32 for integers, 32 or
  // 64 for floats.
  uint32_t bitsPerSample = 0;
  bool isFloat = false;

  // Bytes of one frame (one sample of every channel).
  uint32_t bytesPerFrame() const { return channelCount * (bitsPerSample / 8); }
  friend bool operator==(const KVNAudioFormat&, const KVNAudioFormat&) = default;
};

// Recorded audio: frameLength interleaved frames in the machine's byte order
// (8-bit integer samples are unsigned, as WAVE has them).
struct KORVEL_EXPORT KVNPCMBuffer {
  KVNAudioFormat format;
  Data frames;
  uint32_t frameLength = 0;
};

struct KORVEL_EXPORT KVNTaggingDebugTag {
  std::string tagID;
};

struct KORVEL_EXPORT KVNSignature {
  Data data;
};

// One try at recognising the recording: the signature it picked, if any.
struct KORVEL_EXPORT KVNRecognitionAttempt {
  std::optional<KVNSignature> pickedSignature;
};

struct KORVEL_EXPORT KVNTaggingDebugResultContext {
  std::vector<KVNTaggingDebugTag> tags;
  std::optional<KVRDate> sessionStartDate;
  std::shared_ptr<const KVNPCMBuffer> audioBuffer;
  std::vector<KVNRecognitionAttempt> recognitionAttempts;
};

}  // namespace korvel
