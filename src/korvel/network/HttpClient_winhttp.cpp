// httpGet over WinHTTP, one session per thread.
#include <korvel/network/internal/HttpClient.h>
#include <korvel/network/internal/WinHttp.h>

namespace korvel::network::internal {

HttpResponse httpGet(const std::string& url, std::chrono::milliseconds timeout) {
  thread_local WinHttpClient client;
  WinHttpResponse answer = client.get(url, documentRequest(timeout));
  HttpResponse response;
  response.status = answer.status;
  response.body = std::move(answer.body);
  response.retryAfter = std::move(answer.retryAfter);
  response.error = std::move(answer.error);
  return response;
}

}  // namespace korvel::network::internal
