// The configuration document's conditional GET over WinHTTP.
#include <korvel/network/internal/ConfigurationFetch.h>
#include <korvel/network/internal/WinHttp.h>

namespace korvel::network::internal {

FetchResult fetchConfiguration(const std::string& url, const std::optional<CachedURLResponse>& cached,
                               std::chrono::milliseconds timeout) {
  WinHttpRequest request = documentRequest(timeout);
  request.maxBody = kMaxConfigurationBytes;
  if (cached && cached->etag) request.headers.push_back("If-None-Match: " + *cached->etag);
  if (cached && cached->lastModified) {
    request.headers.push_back("If-Modified-Since: " + *cached->lastModified);
  }
  WinHttpClient client;
  WinHttpResponse answer = client.get(url, request);
  FetchResult result;
  result.status = answer.status;
  result.body = std::move(answer.body);
  result.etag = std::move(answer.etag);
  result.lastModified = std::move(answer.lastModified);
  result.tooLarge = answer.tooLarge;
  result.error = answer.tooLarge ? "the response is larger than 1 MiB" : std::move(answer.error);
  return result;
}

}  // namespace korvel::network::internal
