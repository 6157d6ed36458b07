// File names and delivered-marks batches of the journal.
#include <algorithm>
#include <cstdio>
#include <system_error>

#include <korvel/network/internal/JournalFormat.h>
#include <korvel/network/internal/RequestStore.h>

namespace korvel::network::internal::journal {

namespace {

std::string numbered(uint32_t number, const char* suffix) {
  char name[32];
  std::snprintf(name, sizeof name, "%s%010u%s", kSegmentPrefix, number, suffix);
  return name;
}

}  // namespace

std::string segmentName(uint32_t number) { return numbered(number, kSegmentSuffix); }
std::string marksName(uint32_t number) { return numbered(number, kMarksSuffix); }

std::optional<uint32_t> segmentNumber(std::string_view name, std::string_view suffix) {
  const std::string_view prefix = kSegmentPrefix;
  if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) ||
      !name.ends_with(suffix)) {
    return std::nullopt;
  }
  const std::string_view digits =
      name.substr(prefix.size(), name.size() - prefix.size() - suffix.size());
  if (digits.empty() || digits.size() > 10 ||
      !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  uint64_t value = 0;
  for (char c : digits) value = value * 10 + static_cast<uint64_t>(c - '0');
  if (value == 0 || value > 0xFFFFFFFFull) return std::nullopt;
  return static_cast<uint32_t>(value);
}

std::string encodeMarks(const std::vector<uint64_t>& ids) {
  std::string out;
  const auto count = static_cast<uint32_t>(ids.size());
  put<uint32_t>(out, count);
  const uint32_t crc = crc32c(ids.data(), ids.size() * 8, crc32c(&count, 4));
  put<uint32_t>(out, crc);
  out.append(reinterpret_cast<const char*>(ids.data()), ids.size() * 8);
  return out;
}

bool decodeMarks(std::string_view data, std::unordered_set<uint64_t>& into) {
  size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < 8) return false;
    const uint32_t count = get<uint32_t>(data.data() + at);
    const uint32_t crc = get<uint32_t>(data.data() + at + 4);
    if (count == 0 || (data.size() - at - 8) / 8 < count) return false;
    const char* ids = data.data() + at + 8;
    if (crc32c(ids, size_t{count} * 8, crc32c(&count, 4)) != crc) return false;
    for (uint32_t i = 0; i < count; ++i) into.insert(get<uint64_t>(ids + size_t{i} * 8));
    at += 8 + size_t{count} * 8;
  }
  return true;
}

std::string errnoText(int error) { return std::generic_category().message(error); }

}  // namespace korvel::network::internal::journal
