// The configuration document's conditional GET over libcurl.
#include <korvel/network/internal/ConfigurationFetch.h>

#include <curl/curl.h>
#include <strings.h>

#include <mutex>

namespace korvel::network::internal {

namespace {

size_t appendBody(char* data, size_t size, size_t count, void* user) {
  auto* result = static_cast<FetchResult*>(user);
  const size_t length = size * count;
  if (result->body.size() + length > kMaxConfigurationBytes) {
    result->tooLarge = true;
    return 0;  // aborts the transfer
  }
  result->body.append(data, length);
  return length;
}

std::optional<std::string> headerValue(std::string_view line, std::string_view name) {
  if (line.size() <= name.size() || strncasecmp(line.data(), name.data(), name.size()) != 0 ||
      line[name.size()] != ':') {
    return std::nullopt;
  }
  line.remove_prefix(name.size() + 1);
  const auto first = line.find_first_not_of(" \t");
  const auto last = line.find_last_not_of(" \t\r\n");
  if (first == std::string_view::npos) return std::nullopt;
  return std::string(line.substr(first, last - first + 1));
}

size_t readHeader(char* data, size_t size, size_t count, void* user) {
  auto* result = static_cast<FetchResult*>(user);
  const std::string_view line(data, size * count);
  if (auto v = headerValue(line, "etag")) result->etag = std::move(v);
  if (auto v = headerValue(line, "last-modified")) result->lastModified = std::move(v);
  return size * count;
}

void ensureCurlInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

FetchResult fetchConfiguration(const std::string& url, const std::optional<CachedURLResponse>& cached,
                  std::chrono::milliseconds timeout) {
  ensureCurlInit();
  FetchResult result;
  CURL* h = curl_easy_init();
  if (h == nullptr) {
    result.error = "curl_easy_init failed";
    return result;
  }
  curl_slist* headers = nullptr;
  if (cached && cached->etag) {
    headers = curl_slist_append(headers, ("If-None-Match: " + *cached->etag).c_str());
  }
  if (cached && cached->lastModified) {
    headers = curl_slist_append(headers, ("If-Modified-Since: " + *cached->lastModified).c_str());
  }
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &result);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, readHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &result);
  if (headers != nullptr) curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
  const CURLcode code = curl_easy_perform(h);
  if (code == CURLE_OK) {
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &result.status);
  } else {
    result.error = result.tooLarge ? "the response is larger than 1 MiB" : curl_easy_strerror(code);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(h);
  return result;
}

}  // namespace korvel::network::internal
