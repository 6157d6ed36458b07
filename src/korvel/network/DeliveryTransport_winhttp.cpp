// The delivery transport over WinHTTP.
#include <korvel/network/internal/DeliveryTransport.h>
#include <korvel/network/internal/WinHttp.h>

namespace korvel::network::internal {

namespace {

class WinHttpTransport final : public DeliveryTransport {
 public:
  WinHttpTransport(const std::atomic<bool>& cancelled, TransportOptions options) {
    request_.timeout = options.timeout;
    request_.connectTimeout = options.connectTimeout;
    request_.maxRedirects = 5;
    request_.cancelled = &cancelled;
  }

  DeliveryResponse get(const std::string& url) override {
    WinHttpResponse answer = client_.get(url, request_);
    DeliveryResponse response;
    response.status = answer.status;
    response.reachedServer = answer.reachedServer;
    response.retryAfter = std::move(answer.retryAfter);
    response.error = std::move(answer.error);
    return response;
  }

 private:
  WinHttpClient client_;
  WinHttpRequest request_;
};

}  // namespace

std::unique_ptr<DeliveryTransport> makeSystemTransport(const std::atomic<bool>& cancelled,
                                                       TransportOptions options) {
  return std::make_unique<WinHttpTransport>(cancelled, options);
}

}  // namespace korvel::network::internal
