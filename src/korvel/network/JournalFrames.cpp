// The journal's frame codec: CRC-32C and the framing of one stored request.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/RequestStore.h>
#include <korvel/platform/internal/Cpu.h>

namespace korvel::network::internal {

using journal::get;
using journal::put;

static_assert(std::endian::native == std::endian::little,
              "the journal's integers are written in the machine's (little-endian) order");

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
#define KORVEL_HARDWARE_CRC 1
#elif defined(__aarch64__) && defined(__GNUC__)
// The ARMv8 CRC32C instructions, optional before ARMv8.1: used when the
// system says the processor has them.
__attribute__((target("+crc"))) uint32_t crc32cHardware(const unsigned char* p, size_t size,
                                                       uint32_t crc) {
  while (size >= 8) {
    uint64_t word;
    std::memcpy(&word, p, 8);
    crc = __builtin_aarch64_crc32cx(crc, word);
    p += 8;
    size -= 8;
  }
  while (size-- > 0) crc = __builtin_aarch64_crc32cb(crc, *p++);
  return crc;
}

const bool kHardwareCrc = platform::internal::armCrc32Available();
#define KORVEL_HARDWARE_CRC 1
#endif

}  // namespace

uint32_t crc32c(const void* data, size_t size, uint32_t crc) {
  const auto* p = static_cast<const unsigned char*>(data);
#if defined(KORVEL_HARDWARE_CRC)
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
  out.reserve(start + frameBytes(kind, payload));
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
}  // namespace korvel::network::internal
