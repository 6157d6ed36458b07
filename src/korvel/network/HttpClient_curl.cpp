#include <korvel/network/internal/HttpClient.h>

#include <curl/curl.h>

#include <cstring>
#include <mutex>

namespace korvel::network::internal {

namespace {

void ensureGlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct EasyHandle {
  CURL* handle = nullptr;
  EasyHandle() {
    ensureGlobalInit();
    handle = curl_easy_init();
  }
  ~EasyHandle() {
    if (handle != nullptr) curl_easy_cleanup(handle);
  }
};

size_t appendBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

size_t readHeader(char* data, size_t size, size_t count, void* user) {
  const size_t length = size * count;
  constexpr char kName[] = "retry-after:";
  constexpr size_t kNameLength = sizeof kName - 1;
  if (length > kNameLength && strncasecmp(data, kName, kNameLength) == 0) {
    std::string value(data + kNameLength, length - kNameLength);
    const auto first = value.find_first_not_of(" \t");
    const auto last = value.find_last_not_of(" \t\r\n");
    if (first != std::string::npos) {
      static_cast<HttpResponse*>(user)->retryAfter = value.substr(first, last - first + 1);
    }
  }
  return length;
}

}  // namespace

HttpResponse httpGet(const std::string& url, std::chrono::milliseconds timeout) {
  thread_local EasyHandle easy;
  HttpResponse response;
  if (easy.handle == nullptr) {
    response.error = "curl_easy_init failed";
    return response;
  }
  CURL* h = easy.handle;
  curl_easy_reset(h);
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &response.body);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, readHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &response);
  const CURLcode code = curl_easy_perform(h);
  if (code != CURLE_OK) {
    response.error = curl_easy_strerror(code);
    return response;
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
  return response;
}

}  // namespace korvel::network::internal
