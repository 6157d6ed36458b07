#include <korvel/network/internal/DeliveryTransport.h>

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <mutex>

namespace korvel::network::internal {

namespace {

void ensureCurlGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n')) {
    s.remove_suffix(1);
  }
  return s;
}

class CurlTransport final : public DeliveryTransport {
 public:
  CurlTransport(const std::atomic<bool>& cancelled, CurlTransportOptions options)
      : cancelled_(cancelled) {
    ensureCurlGlobalInit();
    handle_ = curl_easy_init();
    if (handle_ == nullptr) return;
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(handle_, CURLOPT_TIMEOUT_MS, static_cast<long>(options.timeout.count()));
    curl_easy_setopt(handle_, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(options.connectTimeout.count()));
    curl_easy_setopt(handle_, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle_, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(handle_, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle_, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle_, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, discardBody);
    curl_easy_setopt(handle_, CURLOPT_HEADERFUNCTION, readHeader);
    curl_easy_setopt(handle_, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle_, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(handle_, CURLOPT_XFERINFODATA, this);
  }

  ~CurlTransport() override {
    if (handle_ != nullptr) curl_easy_cleanup(handle_);
  }

  DeliveryResponse get(const std::string& url) override {
    DeliveryResponse response;
    if (handle_ == nullptr) {
      response.error = "curl_easy_init failed";
      return response;
    }
    current_ = &response;
    curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
    const CURLcode code = curl_easy_perform(handle_);
    current_ = nullptr;
    if (code != CURLE_OK) {
      response.status = 0;
      response.error = curl_easy_strerror(code);
      curl_off_t connectTime = 0;
      curl_easy_getinfo(handle_, CURLINFO_CONNECT_TIME_T, &connectTime);
      // Refused, unresolvable or never connected (a connect timeout): no
      // server saw the request. Cancellation counts the same way.
      response.reachedServer = !(code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
                                 code == CURLE_COULDNT_RESOLVE_PROXY ||
                                 code == CURLE_ABORTED_BY_CALLBACK ||
                                 (code == CURLE_OPERATION_TIMEDOUT && connectTime == 0));
      response.retryAfter.reset();
      return response;
    }
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &response.status);
    response.reachedServer = true;
    return response;
  }

 private:
  static size_t discardBody(char*, size_t size, size_t count, void*) { return size * count; }

  static size_t readHeader(char* data, size_t size, size_t count, void* user) {
    auto* self = static_cast<CurlTransport*>(user);
    const size_t length = size * count;
    if (self->current_ == nullptr) return length;
    std::string_view line(data, length);
    if (line.starts_with("HTTP/")) {
      self->current_->retryAfter.reset();  // a new response (after a redirect)
      return length;
    }
    constexpr std::string_view kName = "retry-after:";
    if (line.size() > kName.size() && strncasecmp(line.data(), kName.data(), kName.size()) == 0) {
      const auto value = trim(line.substr(kName.size()));
      if (!value.empty()) self->current_->retryAfter = std::string(value);
    }
    return length;
  }

  static int progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<CurlTransport*>(user)->cancelled_.load(std::memory_order_relaxed) ? 1 : 0;
  }

  const std::atomic<bool>& cancelled_;
  CURL* handle_ = nullptr;
  DeliveryResponse* current_ = nullptr;
};

}  // namespace

std::unique_ptr<DeliveryTransport> makeCurlTransport(const std::atomic<bool>& cancelled,
                                                     CurlTransportOptions options) {
  return std::make_unique<CurlTransport>(cancelled, options);
}

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
  std::tm tm{};
  const std::string text(value);
  const char* end = strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &tm);
  if (end == nullptr || *end != '\0') return std::nullopt;
  const time_t at = timegm(&tm);
  const double delta = static_cast<double>(at) - nowSecondsSince1970;
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
