#include <korvel/debug/WaveWriter.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include <korvel/platform/Files.h>

using korvel::platform::writeFileReplacing;

namespace korvel {

namespace {

constexpr uint16_t kFormatPCM = 1;
constexpr uint16_t kFormatIEEEFloat = 3;

class LittleEndianWriter {
 public:
  void tag(const char (&fourCC)[5]) {
    for (int i = 0; i < 4; ++i) bytes_.push_back(static_cast<uint8_t>(fourCC[i]));
  }
  void u16(uint16_t v) {
    bytes_.push_back(static_cast<uint8_t>(v));
    bytes_.push_back(static_cast<uint8_t>(v >> 8));
  }
  void u32(uint32_t v) {
    for (int shift = 0; shift < 32; shift += 8) bytes_.push_back(static_cast<uint8_t>(v >> shift));
  }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
};

bool supportedSampleSize(const KVNAudioFormat& format) {
  if (format.isFloat) return format.bitsPerSample == 32 || format.bitsPerSample == 64;
  switch (format.bitsPerSample) {
    case 8:
    case 16:
    case 24:
    case 32: return true;
    default: return false;
  }
}

}  // namespace

std::string_view describe(WaveWriteStatus status) {
  switch (status) {
    case WaveWriteStatus::Written: return "written";
    case WaveWriteStatus::UnsupportedFormat: return "unsupported audio format";
    case WaveWriteStatus::ShortBuffer: return "buffer shorter than its frame length";
    case WaveWriteStatus::TooLarge: return "audio too large for a WAVE file";
    case WaveWriteStatus::WriteFailed: return "file could not be written";
  }
  return "unknown status";
}

WaveWriteStatus writeWaveFile(const std::filesystem::path& path, const KVNPCMBuffer& buffer) {
  std::error_code ignored;
  return writeWaveFile(path, buffer, ignored);
}

WaveWriteStatus writeWaveFile(const std::filesystem::path& path, const KVNPCMBuffer& buffer,
                              std::error_code& error) {
  error.clear();
  const KVNAudioFormat& format = buffer.format;
  if (format.channelCount == 0 || format.channelCount > std::numeric_limits<uint16_t>::max() ||
      !supportedSampleSize(format)) {
    return WaveWriteStatus::UnsupportedFormat;
  }
  const double rate = std::round(format.sampleRate);
  if (!std::isfinite(rate) || rate < 1 || rate > std::numeric_limits<uint32_t>::max()) {
    return WaveWriteStatus::UnsupportedFormat;
  }
  const uint64_t bytesPerSample = format.bitsPerSample / 8;
  const uint64_t blockAlign = bytesPerSample * format.channelCount;
  if (blockAlign > std::numeric_limits<uint16_t>::max()) return WaveWriteStatus::UnsupportedFormat;
  const uint64_t sampleRate = static_cast<uint64_t>(rate);
  const uint64_t byteRate = sampleRate * blockAlign;
  const uint64_t dataSize = uint64_t{buffer.frameLength} * blockAlign;
  if (buffer.frames.size() < dataSize) return WaveWriteStatus::ShortBuffer;

  const bool isFloat = format.isFloat;
  const uint32_t fmtSize = isFloat ? 18 : 16;
  const uint32_t factSize = isFloat ? 8 + 4 : 0;
  const uint64_t pad = dataSize % 2;
  const uint64_t riffSize = 4 + (8 + fmtSize) + factSize + (8 + dataSize + pad);
  if (riffSize > std::numeric_limits<uint32_t>::max() ||
      byteRate > std::numeric_limits<uint32_t>::max()) {
    return WaveWriteStatus::TooLarge;
  }

  LittleEndianWriter header;
  header.tag("RIFF");
  header.u32(static_cast<uint32_t>(riffSize));
  header.tag("WAVE");
  header.tag("fmt ");
  header.u32(fmtSize);
  header.u16(isFloat ? kFormatIEEEFloat : kFormatPCM);
  header.u16(static_cast<uint16_t>(format.channelCount));
  header.u32(static_cast<uint32_t>(sampleRate));
  header.u32(static_cast<uint32_t>(byteRate));
  header.u16(static_cast<uint16_t>(blockAlign));
  header.u16(static_cast<uint16_t>(format.bitsPerSample));
  if (isFloat) {
    header.u16(0);  // no extra format bytes
    header.tag("fact");
    header.u32(4);
    header.u32(buffer.frameLength);
  }
  header.tag("data");
  header.u32(static_cast<uint32_t>(dataSize));

  std::span<const uint8_t> samples(buffer.frames.data(), static_cast<size_t>(dataSize));
  std::vector<uint8_t> swapped;
  if constexpr (std::endian::native == std::endian::big) {
    // WAVE samples are little-endian; reverse each sample's bytes.
    swapped.assign(samples.begin(), samples.end());
    for (size_t at = 0; at + bytesPerSample <= swapped.size(); at += bytesPerSample) {
      std::reverse(swapped.begin() + static_cast<std::ptrdiff_t>(at),
                   swapped.begin() + static_cast<std::ptrdiff_t>(at + bytesPerSample));
    }
    samples = swapped;
  }
  static constexpr uint8_t kPadByte[1] = {0};
  const std::span<const uint8_t> pieces[] = {
      header.bytes(), samples, std::span<const uint8_t>(kPadByte, static_cast<size_t>(pad))};
  if (!writeFileReplacing(path, pieces, error)) return WaveWriteStatus::WriteFailed;
  return WaveWriteStatus::Written;
}

}  // namespace korvel
