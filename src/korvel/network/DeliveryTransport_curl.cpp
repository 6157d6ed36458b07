// The delivery transport over libcurl.
#include <korvel/network/internal/DeliveryTransport.h>

#include <curl/curl.h>
#include <strings.h>

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
  CurlTransport(const std::atomic<bool>& cancelled, TransportOptions options)
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

std::unique_ptr<DeliveryTransport> makeSystemTransport(const std::atomic<bool>& cancelled,
                                                       TransportOptions options) {
  return std::make_unique<CurlTransport>(cancelled, options);
}

}  // namespace korvel::network::internal
