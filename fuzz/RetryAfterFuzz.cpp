// A Retry-After header as a server may send it: delta-seconds or an HTTP
// date, held against what a wait may be.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include <korvel/network/internal/DeliveryTransport.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using korvel::network::internal::parseRetryAfter;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // 2026-01-01T00:00:00Z: a date before it waits nothing, any other at most
  // until the end of year 9999.
  constexpr double now = 1767225600.0;
  constexpr int64_t latest = 253402300800 - 1767225600;
  const auto wait = parseRetryAfter(text, now);
  if (!wait) return 0;
  // Never negative, never past the last date a header can name (delta-seconds
  // are capped at 2^32 - 1 s, far below it).
  if (wait->count() < 0 || wait->count() > latest * 1000) __builtin_trap();
  // A short run of digits is that many seconds, exactly.
  if (!text.empty() && text.size() <= 9 &&
      text.find_first_not_of("0123456789") == std::string_view::npos) {
    int64_t seconds = 0;
    for (char c : text) seconds = seconds * 10 + (c - '0');
    if (wait->count() != seconds * 1000) __builtin_trap();
  }
  return 0;
}
