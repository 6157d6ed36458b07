#include <korvel/network/internal/DeliveryTransport.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>

#include <korvel/foundation/internal/CivilTime.h>

namespace korvel::network::internal {

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// Reads what strptime's "%a, %d %b %Y %H:%M:%S GMT" takes: the names of the
// day and the month short or long in any case, space where the format has
// it optional, one- or two-digit fields.
class DateReader {
 public:
  explicit DateReader(std::string_view text) : text_(text) {}

  void skipSpace() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t')) ++at_;
  }
  bool literal(char c) {
    skipSpace();
    if (at_ >= text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool literal(std::string_view word) {
    skipSpace();
    if (!equalIgnoringCase(text_.substr(at_, word.size()), word)) return false;
    at_ += word.size();
    return true;
  }
  // One of names (full), or its first three letters; its index.
  std::optional<int> name(const std::array<std::string_view, 12>& names, size_t count) {
    skipSpace();
    for (size_t i = 0; i < count; ++i) {
      if (equalIgnoringCase(text_.substr(at_, names[i].size()), names[i])) {
        at_ += names[i].size();
        return static_cast<int>(i);
      }
    }
    for (size_t i = 0; i < count; ++i) {
      if (equalIgnoringCase(text_.substr(at_, 3), names[i].substr(0, 3))) {
        at_ += 3;
        return static_cast<int>(i);
      }
    }
    return std::nullopt;
  }
  std::optional<int> number(size_t maxDigits, int low, int high) {
    skipSpace();
    int value = 0;
    size_t digits = 0;
    while (digits < maxDigits && at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') {
      value = value * 10 + (text_[at_] - '0');
      ++at_;
      ++digits;
    }
    if (digits == 0 || value < low || value > high) return std::nullopt;
    return value;
  }
  bool atEnd() const { return at_ == text_.size(); }

 private:
  std::string_view text_;
  size_t at_ = 0;
};

constexpr std::array<std::string_view, 12> kWeekdays = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                                        "Thursday", "Friday", "Saturday"};
constexpr std::array<std::string_view, 12> kMonths = {
    "January", "February", "March",     "April",   "May",      "June",
    "July",    "August",   "September", "October", "November", "December"};

// Seconds since 1970 of an HTTP-date in the IMF-fixdate form.
std::optional<int64_t> parseHTTPDate(std::string_view text) {
  DateReader r(text);
  if (!r.name(kWeekdays, 7) || !r.literal(',')) return std::nullopt;
  const auto day = r.number(2, 1, 31);
  const auto month = day ? r.name(kMonths, 12) : std::nullopt;
  const auto year = month ? r.number(4, 0, 9999) : std::nullopt;
  const auto hour = year ? r.number(2, 0, 23) : std::nullopt;
  if (!hour || !r.literal(':')) return std::nullopt;
  const auto minute = r.number(2, 0, 59);
  if (!minute || !r.literal(':')) return std::nullopt;
  const auto second = r.number(2, 0, 61);
  if (!second || !r.literal(std::string_view("GMT"))) return std::nullopt;
  r.skipSpace();
  if (!r.atEnd()) return std::nullopt;
  return foundation::internal::daysFromCivil(*year, static_cast<unsigned>(*month + 1), static_cast<unsigned>(*day)) *
             86400 +
         *hour * 3600 + *minute * 60 + *second;
}

}  // namespace

DeliveryVerdict classifyDelivery(const DeliveryResponse& response) {
  const long s = response.status;
  if (s == 0) return response.reachedServer ? DeliveryVerdict::Retry : DeliveryVerdict::RetryUncounted;
  if (s >= 200 && s < 300) return DeliveryVerdict::Delivered;
  if (s == 408 || s == 429 || (s >= 500 && s < 600)) return DeliveryVerdict::Retry;
  return DeliveryVerdict::Drop;
}

std::optional<std::chrono::milliseconds> parseRetryAfter(std::string_view value,
                                                         double nowSecondsSince1970) {
  value = trim(value);
  if (value.empty()) return std::nullopt;
  if (std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    uint64_t seconds = 0;
    const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), seconds);
    if (ec == std::errc::result_out_of_range) seconds = UINT32_MAX;
    else if (ec != std::errc() || end != value.data() + value.size()) return std::nullopt;
    seconds = std::min<uint64_t>(seconds, UINT32_MAX);
    return std::chrono::milliseconds(static_cast<int64_t>(seconds) * 1000);
  }
  // IMF-fixdate: "Sun, 06 Nov 1994 08:49:37 GMT".
  const std::optional<int64_t> at = parseHTTPDate(value);
  if (!at) return std::nullopt;
  const double delta = static_cast<double>(*at) - nowSecondsSince1970;
  if (delta <= 0) return std::chrono::milliseconds(0);
  return std::chrono::milliseconds(static_cast<int64_t>(std::ceil(delta * 1000.0)));
}

std::chrono::milliseconds retryDelay(int attempt, std::chrono::milliseconds base,
                                     std::chrono::milliseconds maxDelay, double jitter) {
  const int64_t cap = std::max<int64_t>(0, maxDelay.count());
  int64_t step = std::max<int64_t>(0, base.count());
  for (int i = 1; i < attempt && step < cap; ++i) step *= 2;
  step = std::min(step, cap);
  jitter = std::clamp(jitter, 0.0, 1.0);
  const int64_t half = step / 2;
  return std::chrono::milliseconds(half +
                                   static_cast<int64_t>(static_cast<double>(step - half) * jitter));
}

}  // namespace korvel::network::internal
