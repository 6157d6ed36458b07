// WinHTTP in its asynchronous mode, driven step by step from the requesting
// thread: each call returns at once and the status callback signals when its
// step is done. The thread waits for that in short slices, looking at the
// cancellation flag between them; when it has turned true the request's
// handle is closed, which ends the exchange wherever it stands.
#include <korvel/network/internal/WinHttp.h>

#include <windows.h>
#include <winhttp.h>

#include <algorithm>


namespace korvel::network::internal {

namespace {

std::wstring widen(std::string_view text) {
  if (text.empty()) return {};
  const int size = MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(std::max(size, 0)), L'\0');
  if (size > 0) {
    MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
  }
  return out;
}

std::string narrow(std::wstring_view text) {
  if (text.empty()) return {};
  const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr,
                                       0, nullptr, nullptr);
  std::string out(static_cast<size_t>(std::max(size, 0)), '\0');
  if (size > 0) {
    WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size,
                        nullptr, nullptr);
  }
  return out;
}

std::string errorText(DWORD code) {
  switch (code) {
    case ERROR_WINHTTP_TIMEOUT: return "Timeout was reached";
    case ERROR_WINHTTP_NAME_NOT_RESOLVED: return "Couldn't resolve host name";
    case ERROR_WINHTTP_CANNOT_CONNECT: return "Couldn't connect to server";
    case ERROR_WINHTTP_CONNECTION_ERROR: return "Connection reset";
    case ERROR_WINHTTP_OPERATION_CANCELLED: return "Operation was cancelled";
    case ERROR_WINHTTP_REDIRECT_FAILED: return "Number of redirects hit maximum amount";
    case ERROR_WINHTTP_UNRECOGNIZED_SCHEME: return "Unsupported protocol";
    case ERROR_WINHTTP_INVALID_URL: return "URL using bad/illegal format or missing URL";
    case ERROR_WINHTTP_SECURE_FAILURE: return "SSL connect error";
    case ERROR_WINHTTP_INVALID_SERVER_RESPONSE: return "Weird server reply";
    default: return "WinHTTP error " + std::to_string(code);
  }
}

// What the status callback tells the thread waiting for an exchange: one
// step done (signalled), or the request failed. It lives until the
// request's handle is gone (the callback deletes it then), with the buffer
// a read fills: an abandoned exchange may still complete after the waiting
// thread has left.
struct Exchange {
  HANDLE step = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  std::atomic<bool> failed{false};
  std::atomic<DWORD> error{0};
  std::atomic<DWORD_PTR> failedCall{0};
  std::atomic<DWORD> count{0};  // bytes available or read
  char buffer[16 * 1024];
  ~Exchange() { CloseHandle(step); }
};

void CALLBACK onStatus(HINTERNET, DWORD_PTR context, DWORD status, LPVOID info, DWORD length) {
  auto* x = reinterpret_cast<Exchange*>(context);
  if (x == nullptr) return;
  switch (status) {
    case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
    case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE: SetEvent(x->step); break;
    case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
      x->count = *static_cast<DWORD*>(info);
      SetEvent(x->step);
      break;
    case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
      x->count = length;
      SetEvent(x->step);
      break;
    case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR: {
      const auto* result = static_cast<WINHTTP_ASYNC_RESULT*>(info);
      x->error = result->dwError;
      x->failedCall = result->dwResult;
      x->failed = true;
      SetEvent(x->step);
      break;
    }
    case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING: delete x; break;
    default: break;
  }
}

struct Handle {
  HINTERNET h = nullptr;
  ~Handle() { reset(); }
  void reset(HINTERNET next = nullptr) {
    if (h != nullptr) WinHttpCloseHandle(h);
    h = next;
  }
};

std::optional<std::string> header(HINTERNET request, DWORD query) {
  wchar_t buffer[512];
  DWORD size = sizeof buffer;
  if (!WinHttpQueryHeaders(request, query, WINHTTP_HEADER_NAME_BY_INDEX, buffer, &size,
                           WINHTTP_NO_HEADER_INDEX)) {
    return std::nullopt;
  }
  std::wstring_view value(buffer, size / sizeof(wchar_t));
  while (!value.empty() && (value.front() == L' ' || value.front() == L'\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == L' ' || value.back() == L'\t' || value.back() == L'\r' ||
                            value.back() == L'\n')) {
    value.remove_suffix(1);
  }
  if (value.empty()) return std::nullopt;
  return narrow(value);
}

}  // namespace

WinHttpRequest documentRequest(std::chrono::milliseconds timeout) {
  WinHttpRequest request;
  request.timeout = timeout;
  request.connectTimeout = timeout;
  request.maxRedirects = 0;
  request.keepBody = true;
  return request;
}

struct WinHttpClient::Impl {
  Handle session;
  Handle connection;
  std::wstring host;
  INTERNET_PORT port = 0;
};

WinHttpClient::WinHttpClient() : impl_(std::make_unique<Impl>()) {
  impl_->session.reset(WinHttpOpen(L"KorvelReporting", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                   WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC));
  if (impl_->session.h != nullptr) {
    WinHttpSetStatusCallback(impl_->session.h, onStatus,
                             WINHTTP_CALLBACK_FLAG_ALL_COMPLETIONS | WINHTTP_CALLBACK_FLAG_HANDLES, 0);
  }
}

WinHttpClient::~WinHttpClient() = default;

WinHttpResponse WinHttpClient::get(const std::string& url, const WinHttpRequest& options) {
  WinHttpResponse response;
  response.reachedServer = true;  // unless no connection is made below
  if (impl_->session.h == nullptr) {
    response.error = "WinHttpOpen failed: " + errorText(GetLastError());
    response.reachedServer = false;
    return response;
  }
  const std::wstring wideURL = widen(url);
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof parts;
  parts.dwHostNameLength = static_cast<DWORD>(-1);
  parts.dwUrlPathLength = static_cast<DWORD>(-1);
  parts.dwExtraInfoLength = static_cast<DWORD>(-1);
  parts.dwSchemeLength = static_cast<DWORD>(-1);
  if (!WinHttpCrackUrl(wideURL.c_str(), static_cast<DWORD>(wideURL.size()), 0, &parts) ||
      (parts.nScheme != INTERNET_SCHEME_HTTP && parts.nScheme != INTERNET_SCHEME_HTTPS)) {
    response.error = errorText(ERROR_WINHTTP_UNRECOGNIZED_SCHEME);
    return response;
  }
  const std::wstring host(parts.lpszHostName, parts.dwHostNameLength);
  std::wstring object(parts.lpszUrlPath, parts.dwUrlPathLength);
  object.append(parts.lpszExtraInfo, parts.dwExtraInfoLength);
  if (object.empty()) object = L"/";

  if (impl_->connection.h == nullptr || impl_->host != host || impl_->port != parts.nPort) {
    impl_->connection.reset(WinHttpConnect(impl_->session.h, host.c_str(), parts.nPort, 0));
    impl_->host = host;
    impl_->port = parts.nPort;
    if (impl_->connection.h == nullptr) {
      response.error = errorText(GetLastError());
      response.reachedServer = false;
      return response;
    }
  }

  // The URL goes out as it is: beacon URLs are already escaped.
  const DWORD flags = WINHTTP_FLAG_ESCAPE_DISABLE | WINHTTP_FLAG_ESCAPE_DISABLE_QUERY |
                      (parts.nScheme == INTERNET_SCHEME_HTTPS ? WINHTTP_FLAG_SECURE : 0);
  HINTERNET request = WinHttpOpenRequest(impl_->connection.h, L"GET", object.c_str(), nullptr,
                                         WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags);
  if (request == nullptr) {
    response.error = errorText(GetLastError());
    return response;
  }
  const auto connectMs = static_cast<int>(std::min<int64_t>(options.connectTimeout.count(), INT32_MAX));
  const auto timeoutMs = static_cast<int>(std::min<int64_t>(options.timeout.count(), INT32_MAX));
  WinHttpSetTimeouts(request, connectMs, connectMs, timeoutMs, timeoutMs);
  if (options.maxRedirects <= 0) {
    DWORD disable = WINHTTP_DISABLE_REDIRECTS;
    WinHttpSetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, &disable, sizeof disable);
  } else {
    // Like the other platforms: https may lead to http too.
    DWORD policy = WINHTTP_OPTION_REDIRECT_POLICY_ALWAYS;
    WinHttpSetOption(request, WINHTTP_OPTION_REDIRECT_POLICY, &policy, sizeof policy);
    DWORD most = static_cast<DWORD>(options.maxRedirects);
    WinHttpSetOption(request, WINHTTP_OPTION_MAX_HTTP_AUTOMATIC_REDIRECTS, &most, sizeof most);
  }
  std::wstring headers;
  for (const std::string& h : options.headers) headers += widen(h) + L"\r\n";

  auto* owned = new Exchange;
  Exchange& exchange = *owned;
  DWORD_PTR context = reinterpret_cast<DWORD_PTR>(owned);
  if (!WinHttpSetOption(request, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context)) {
    // Without its context the callback could not free it: the handle is
    // closed before anything is under way.
    WinHttpCloseHandle(request);
    delete owned;
    response.error = errorText(GetLastError());
    return response;
  }
  const auto cancelled = [&] {
    return options.cancelled != nullptr && options.cancelled->load(std::memory_order_relaxed);
  };
  // Waits for the step under way: false when it failed or the exchange was
  // cancelled meanwhile.
  const auto stepDone = [&]() -> bool {
    for (;;) {
      if (WaitForSingleObject(exchange.step, 20) == WAIT_OBJECT_0) return !exchange.failed;
      if (cancelled()) return false;
    }
  };
  DWORD failure = ERROR_SUCCESS;
  DWORD_PTR failedCall = 0;
  const auto fail = [&](DWORD_PTR call) {
    failedCall = call;
    failure = exchange.failed ? exchange.error.load() : cancelled() ? ERROR_WINHTTP_OPERATION_CANCELLED
                                                                  : GetLastError();
    if (exchange.failed) failedCall = exchange.failedCall;
    return false;
  };

  DWORD status = 0;
  const bool answered = [&] {
    if (cancelled()) return fail(API_SEND_REQUEST);
    if (!WinHttpSendRequest(request, headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.c_str(),
                            headers.empty() ? 0 : static_cast<DWORD>(-1L), WINHTTP_NO_REQUEST_DATA,
                            0, 0, context) ||
        !stepDone()) {
      return fail(API_SEND_REQUEST);
    }
    if (!WinHttpReceiveResponse(request, nullptr) || !stepDone()) return fail(API_RECEIVE_RESPONSE);
    DWORD size = sizeof status;
    WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                        WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX);
    response.retryAfter = header(request, WINHTTP_QUERY_RETRY_AFTER);
    response.etag = header(request, WINHTTP_QUERY_ETAG);
    response.lastModified = header(request, WINHTTP_QUERY_LAST_MODIFIED);
    // The body is read to its end, so the connection can carry the next
    // request.
    char* buffer = exchange.buffer;
    for (;;) {
      if (!WinHttpQueryDataAvailable(request, nullptr) || !stepDone()) {
        return fail(API_QUERY_DATA_AVAILABLE);
      }
      if (exchange.count == 0) return true;
      const DWORD want = std::min<DWORD>(exchange.count, sizeof exchange.buffer);
      if (!WinHttpReadData(request, buffer, want, nullptr) || !stepDone()) return fail(API_READ_DATA);
      const DWORD read = exchange.count;
      if (read == 0) return true;
      if (options.keepBody) {
        if (response.body.size() + read > options.maxBody) {
          response.tooLarge = true;
          failure = ERROR_WINHTTP_OPERATION_CANCELLED;
          return false;
        }
        response.body.append(buffer, read);
      }
    }
  }();

  // Closing ends whatever is under way (or lets it finish unattended); the
  // exchange is not touched after this.
  const bool wasCancelled = !answered && cancelled();
  WinHttpCloseHandle(request);

  if (answered) {
    response.status = static_cast<long>(status);
  } else {
    response.status = 0;
    response.retryAfter.reset();
    if (wasCancelled) {
      // Like a request that never connected: it does not count as an attempt.
      response.reachedServer = false;
      response.error = errorText(ERROR_WINHTTP_OPERATION_CANCELLED);
    } else {
      response.error = errorText(failure);
      // Refused, unresolvable, or a connection that timed out (a GET this
      // small is sent the moment a connection stands): no server saw it.
      response.reachedServer =
          !(failedCall == API_SEND_REQUEST &&
            (failure == ERROR_WINHTTP_CANNOT_CONNECT || failure == ERROR_WINHTTP_NAME_NOT_RESOLVED ||
             failure == ERROR_WINHTTP_TIMEOUT));
    }
    // A connection in an unknown state is not reused.
    impl_->connection.reset();
  }
  return response;
}

}  // namespace korvel::network::internal
