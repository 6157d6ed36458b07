// Random (version 4) UUIDs.
//
// The bytes come from the system's random source (SystemRandom.h). Each
// thread keeps its own buffer and refills it one block at a time, so a UUID
// normally costs a 16-byte copy and a little formatting, and threads never
// contend. A forked child throws away the buffer it inherited,
// so parent and child never hand out the same identifiers.
#include <korvel/platform/Env.h>
#include <korvel/platform/internal/SystemRandom.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <thread>

using korvel::platform::internal::callInForkedChildren;
using korvel::platform::internal::systemRandomBytes;

namespace korvel::platform {

namespace {

constexpr size_t kBufferSize = 4096;
constexpr size_t kUUIDBytes = 16;

// Last resort when the system gives nothing: a splitmix64 stream seeded from
// the clock, the thread and a process-wide counter. Not cryptographic, but it
// keeps identifiers distinct rather than failing.
void fillFromClock(unsigned char* out, size_t size) {
  static std::atomic<std::uint64_t> counter{0};
  std::uint64_t state =
      static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
      (static_cast<std::uint64_t>(std::hash<std::thread::id>{}(std::this_thread::get_id())) << 1) ^
      (counter.fetch_add(1, std::memory_order_relaxed) * 0x9E3779B97F4A7C15ULL);
  for (size_t i = 0; i < size; i += 8) {
    state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    std::memcpy(out + i, &z, std::min<size_t>(8, size - i));
  }
}

// Bumped in every forked child; a buffer filled under an older value is stale.
std::atomic<std::uint64_t> forkGeneration{0};

void registerForkHandler() {
  callInForkedChildren([] { forkGeneration.fetch_add(1, std::memory_order_relaxed); });
}

struct RandomBuffer {
  std::array<unsigned char, kBufferSize> bytes;
  size_t position = kBufferSize;  // empty until first use
  std::uint64_t generation = 0;

  const unsigned char* take(size_t count) {
    const std::uint64_t current = forkGeneration.load(std::memory_order_relaxed);
    if (kBufferSize - position < count || generation != current) {
      registerForkHandler();
      if (!systemRandomBytes(bytes.data(), kBufferSize)) fillFromClock(bytes.data(), kBufferSize);
      position = 0;
      generation = current;
    }
    const unsigned char* out = bytes.data() + position;
    position += count;
    return out;
  }
};

}  // namespace

std::string makeRandomUUIDString() {
  static_assert(kBufferSize % kUUIDBytes == 0);
  thread_local RandomBuffer buffer;

  unsigned char uuid[kUUIDBytes];
  std::memcpy(uuid, buffer.take(kUUIDBytes), kUUIDBytes);
  uuid[6] = static_cast<unsigned char>((uuid[6] & 0x0F) | 0x40);  // version 4
  uuid[8] = static_cast<unsigned char>((uuid[8] & 0x3F) | 0x80);  // variant 10xx

  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string text(36, '-');
  size_t out = 0;
  for (size_t i = 0; i < kUUIDBytes; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) ++out;  // skip the hyphen
    text[out++] = kHex[uuid[i] >> 4];
    text[out++] = kHex[uuid[i] & 0x0F];
  }
  return text;
}

}  // namespace korvel::platform
