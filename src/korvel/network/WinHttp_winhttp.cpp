// WinHTTP in its synchronous mode. A request in progress is abandoned when
// its cancellation flag turns true: a watcher thread, awake only while
// requests are in flight, closes the request's handle, which ends the
// blocked call on the requesting thread.
#include <korvel/network/internal/WinHttp.h>

#include <windows.h>
#include <winhttp.h>

#include <algorithm>
#include <list>
#include <thread>

#include <korvel/foundation/internal/Mutex.h>
#include <korvel/platform/internal/Threads.h>

namespace korvel::platform {

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

// Closes the handles of requests whose cancellation flag has turned true.
class CancelWatcher {
 public:
  struct Entry {
    const std::atomic<bool>* cancelled;
    HINTERNET request;
    bool closed;
  };

  static CancelWatcher& shared() {
    static auto* watcher = new CancelWatcher;
    return *watcher;
  }

  std::list<Entry>::iterator watch(const std::atomic<bool>* cancelled, HINTERNET request) {
    MutexLock lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
    auto it = entries_.insert(entries_.end(), Entry{cancelled, request, false});
    wake_.signal();
    return it;
  }

  // Whether the watcher closed the handle (the caller must not).
  bool unwatch(std::list<Entry>::iterator it) {
    MutexLock lock(mutex_);
    const bool closed = it->closed;
    entries_.erase(it);
    return closed;
  }

 private:
  void run() KORVEL_EXCLUDES(mutex_) {
    nameThisThread("korvel-http-cancel");
    MutexLock lock(mutex_);
    for (;;) {
      if (entries_.empty()) {
        wake_.wait(mutex_);
        continue;
      }
      wake_.waitFor(mutex_, std::chrono::milliseconds(20));
      for (Entry& e : entries_) {
        if (!e.closed && e.cancelled->load(std::memory_order_relaxed)) {
          e.closed = true;
          WinHttpCloseHandle(e.request);
        }
      }
    }
  }

  Mutex mutex_;
  CondVar wake_;
  std::list<Entry> entries_ KORVEL_GUARDED_BY(mutex_);
  std::thread thread_ KORVEL_GUARDED_BY(mutex_);
};

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

struct WinHttpClient::Impl {
  Handle session;
  Handle connection;
  std::wstring host;
  INTERNET_PORT port = 0;
};

WinHttpClient::WinHttpClient() : impl_(std::make_unique<Impl>()) {
  impl_->session.reset(WinHttpOpen(L"KorvelReporting", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                   WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
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

  std::list<CancelWatcher::Entry>::iterator watched;
  if (options.cancelled != nullptr) watched = CancelWatcher::shared().watch(options.cancelled, request);
  const auto cancelled = [&] {
    return options.cancelled != nullptr && options.cancelled->load(std::memory_order_relaxed);
  };

  bool sent = !cancelled() &&
              WinHttpSendRequest(request, headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.c_str(),
                                 headers.empty() ? 0 : static_cast<DWORD>(-1L), WINHTTP_NO_REQUEST_DATA, 0,
                                 0, 0);
  DWORD failure = sent ? ERROR_SUCCESS : GetLastError();
  if (!sent) {
    // Never connected: refused, unresolvable, or the connection timed out
    // (a GET this small is sent the moment a connection stands).
    response.reachedServer = !(failure == ERROR_WINHTTP_CANNOT_CONNECT ||
                               failure == ERROR_WINHTTP_NAME_NOT_RESOLVED ||
                               failure == ERROR_WINHTTP_TIMEOUT);
  } else if (!WinHttpReceiveResponse(request, nullptr)) {
    failure = GetLastError();
  } else {
    DWORD status = 0;
    DWORD size = sizeof status;
    WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                        WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX);
    response.retryAfter = header(request, WINHTTP_QUERY_RETRY_AFTER);
    response.etag = header(request, WINHTTP_QUERY_ETAG);
    response.lastModified = header(request, WINHTTP_QUERY_LAST_MODIFIED);
    // The body is read to its end, so the connection can carry the next
    // request.
    char buffer[16 * 1024];
    for (;;) {
      DWORD read = 0;
      if (!WinHttpReadData(request, buffer, sizeof buffer, &read)) {
        failure = GetLastError();
        break;
      }
      if (read == 0) break;
      if (options.keepBody) {
        if (response.body.size() + read > options.maxBody) {
          response.tooLarge = true;
          failure = ERROR_WINHTTP_OPERATION_CANCELLED;
          break;
        }
        response.body.append(buffer, read);
      }
    }
    if (failure == ERROR_SUCCESS) response.status = static_cast<long>(status);
  }

  const bool closedByWatcher = options.cancelled != nullptr && CancelWatcher::shared().unwatch(watched);
  if (!closedByWatcher) WinHttpCloseHandle(request);
  if (failure != ERROR_SUCCESS || response.status == 0) {
    response.status = 0;
    response.retryAfter.reset();
    if (cancelled()) {
      response.reachedServer = false;
      response.error = errorText(ERROR_WINHTTP_OPERATION_CANCELLED);
    } else {
      response.error = errorText(failure);
    }
    // A connection in an unknown state is not reused.
    impl_->connection.reset();
  }
  return response;
}

}  // namespace korvel::platform
