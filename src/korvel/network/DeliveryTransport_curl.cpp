// The delivery transport over libcurl: its multi interface, many transfers on
// one thread.
#include <korvel/network/internal/DeliveryTransport.h>

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

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

// While requests are on the wire and the feed had nothing more, it is asked
// again this often (new reports), and cancellation is seen this soon.
constexpr int kPollMillis = 100;

// Whether any of these proxy variables is set (and not empty).
bool anySet(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return true;
  }
  return false;
}

// Whether libcurl would send an http request through a proxy it finds in
// the environment; then the full URL goes on the request line.
bool proxyInEnvironment() { return anySet({"http_proxy", "all_proxy", "ALL_PROXY"}); }

// Whether any variable libcurl takes a proxy from is set. When none is,
// libcurl is told there is no proxy, so that it does not read the
// environment again for every transfer.
bool anyProxyInEnvironment() {
  return anySet({"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"});
}

// An http URL split into what libcurl connects to ("http://host:port") and
// the request target ("/path?query"), when libcurl would put the target on
// the request line byte for byte as it is: printable ASCII, no fragment, no
// userinfo and no dot segment (which libcurl would remove). Nothing
// otherwise, and for https (whose HTTP/2 framing is libcurl's to build).
std::optional<std::pair<std::string_view, std::string_view>> splitTarget(std::string_view url) {
  constexpr std::string_view kScheme = "http://";
  if (!url.starts_with(kScheme)) return std::nullopt;
  const size_t slash = url.find_first_of("/?#", kScheme.size());
  if (slash == std::string_view::npos || url[slash] != '/' || slash == kScheme.size()) {
    return std::nullopt;
  }
  const std::string_view authority = url.substr(kScheme.size(), slash - kScheme.size());
  if (authority.find('@') != std::string_view::npos) return std::nullopt;
  const std::string_view target = url.substr(slash);
  for (const char c : target) {
    if (c <= 0x20 || c >= 0x7f || c == '#' || c == '\\') return std::nullopt;
  }
  const std::string_view path = target.substr(0, target.find('?'));
  if (path.find("/./") != std::string_view::npos || path.find("/../") != std::string_view::npos ||
      path.ends_with("/.") || path.ends_with("/..")) {
    return std::nullopt;
  }
  return std::make_pair(url.substr(0, slash), target);
}

DeliveryResponse failedResponse(std::string error) {
  DeliveryResponse response;
  response.error = std::move(error);
  return response;
}

class CurlTransport final : public DeliveryTransport {
 public:
  CurlTransport(const std::atomic<bool>& cancelled, TransportOptions options)
      : cancelled_(cancelled), options_(options) {
    ensureCurlGlobalInit();
    targetsAsIs_ = !proxyInEnvironment();
    noProxy_ = !anyProxyInEnvironment();
    const size_t transfers = std::max<size_t>(1, options.transfers);
    multi_ = curl_multi_init();
    if (multi_ == nullptr) return;
    // At most one connection per transfer is kept open. No more transfers
    // run than there are handles, so no more connections are in use either
    // (a per-host limit would only add a queue inside libcurl).
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(transfers));
    curl_multi_setopt(multi_, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    slots_.reserve(transfers);
    for (size_t i = 0; i < transfers; ++i) {
      auto slot = std::make_unique<Slot>();
      slot->owner = this;
      slot->easy = curl_easy_init();
      if (slot->easy == nullptr) break;
      configure(*slot);
      slots_.push_back(std::move(slot));
    }
  }

  ~CurlTransport() override {
    for (auto& slot : slots_) {
      if (slot->busy) curl_multi_remove_handle(multi_, slot->easy);
      curl_easy_cleanup(slot->easy);
    }
    if (multi_ != nullptr) curl_multi_cleanup(multi_);
  }

  DeliveryResponse get(const std::string& url) override {
    struct One final : DeliveryFeed {
      const std::string* url = nullptr;
      bool given = false;
      DeliveryResponse response;
      bool next(DeliveryJob& job) override {
        if (given) return false;
        given = true;
        job.tag = 0;
        job.url = url;
        return true;
      }
      void done(uint64_t, DeliveryResponse answer) override { response = std::move(answer); }
    } one;
    one.url = &url;
    send(one);
    return std::move(one.response);
  }

  size_t parallelism() const override { return std::max<size_t>(1, slots_.size()); }

  void send(DeliveryFeed& feed) override {
    DeliveryJob job;
    if (multi_ == nullptr || slots_.empty()) {
      while (feed.next(job)) feed.done(job.tag, failedResponse("curl could not be initialised"));
      return;
    }
    size_t running = 0;
    for (;;) {
      // Fills the free slots while the feed has requests.
      bool more = true;
      while (more && running < slots_.size()) {
        if (!feed.next(job)) {
          more = false;
          break;
        }
        Slot& slot = freeSlot();
        slot.tag = job.tag;
        const CURLMcode added = start(slot, *job.url);
        if (added != CURLM_OK) {
          feed.done(job.tag, failedResponse(curl_multi_strerror(added)));
          continue;
        }
        ++running;
      }
      if (running == 0) return;  // the feed had nothing more

      int stillRunning = 0;
      curl_multi_perform(multi_, &stillRunning);
      int left = 0;
      bool answered = false;
      while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        Slot* slot = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, reinterpret_cast<char**>(&slot));
        const CURLcode code = message->data.result;
        // The message belongs to the handle: read it before removing it.
        curl_multi_remove_handle(multi_, slot->easy);
        slot->busy = false;
        if (code == CURLE_OK && followRedirect(*slot)) continue;  // on the wire again
        --running;
        answered = true;
        finish(*slot, code);
        feed.done(slot->tag, std::move(slot->response));
      }
      // Slots were freed: fill them before waiting (returns when the feed
      // has nothing and nothing is on the wire).
      if (answered) continue;
      // Until an answer, or the poll interval when slots are free (the feed
      // is asked again then) or a transfer is to be cancelled; at once when
      // the feed stopped early to let the answers in.
      curl_multi_poll(multi_, nullptr, 0, more || !feed.askAgainSoon() ? kPollMillis : 0, nullptr);
    }
  }

 private:
  struct Slot {
    CurlTransport* owner = nullptr;
    CURL* easy = nullptr;
    uint64_t tag = 0;
    bool busy = false;
    DeliveryResponse response;
    // Sent as (origin, target); both kept while libcurl points at them.
    bool asIs = false;
    std::string origin;
    std::string target;
    std::chrono::steady_clock::time_point started;
  };

  void configure(Slot& slot) {
    CURL* handle = slot.easy;
    curl_easy_setopt(handle, CURLOPT_PRIVATE, &slot);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(options_.connectTimeout.count()));
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    if (noProxy_) {
      curl_easy_setopt(handle, CURLOPT_PROXY, "");
      curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
    }
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, discardBody);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, readHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &slot);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
  }

  // Puts a request on the wire. A URL whose target libcurl would send as it
  // is goes as the pair (where to connect, target): libcurl then copies the
  // target onto the request line instead of parsing the URL and printing it
  // back character by character, the larger part of its work per request.
  // Such a request follows a redirect itself (followRedirect).
  CURLMcode start(Slot& slot, const std::string& url) {
    slot.response = DeliveryResponse{};
    slot.started = std::chrono::steady_clock::now();
    const auto split = targetsAsIs_ ? splitTarget(url) : std::nullopt;
    slot.asIs = split.has_value();
    if (split) {
      slot.origin.assign(split->first);
      slot.target.assign(split->second);
      curl_easy_setopt(slot.easy, CURLOPT_URL, slot.origin.c_str());
      curl_easy_setopt(slot.easy, CURLOPT_REQUEST_TARGET, slot.target.c_str());
      curl_easy_setopt(slot.easy, CURLOPT_FOLLOWLOCATION, 0L);
    } else {
      curl_easy_setopt(slot.easy, CURLOPT_URL, url.c_str());
      curl_easy_setopt(slot.easy, CURLOPT_REQUEST_TARGET, nullptr);
      curl_easy_setopt(slot.easy, CURLOPT_FOLLOWLOCATION, 1L);
      curl_easy_setopt(slot.easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    }
    curl_easy_setopt(slot.easy, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
    const CURLMcode added = curl_multi_add_handle(multi_, slot.easy);
    slot.busy = added == CURLM_OK;
    return added;
  }

  // After an answer to a request sent as (origin, target): a redirect that
  // libcurl would have followed (any 3xx with a Location) is followed the
  // way it would, with the redirects and the time left. False when there is
  // none to follow.
  bool followRedirect(Slot& slot) {
    if (!slot.asIs) return false;
    long status = 0;
    curl_easy_getinfo(slot.easy, CURLINFO_RESPONSE_CODE, &status);
    if (status < 300 || status >= 400) return false;
    char* location = nullptr;
    curl_easy_getinfo(slot.easy, CURLINFO_REDIRECT_URL, &location);
    if (location == nullptr) return false;
    slot.origin = location;  // the handle owns location until its next transfer
    slot.asIs = false;
    curl_easy_setopt(slot.easy, CURLOPT_URL, slot.origin.c_str());
    curl_easy_setopt(slot.easy, CURLOPT_REQUEST_TARGET, nullptr);
    curl_easy_setopt(slot.easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(slot.easy, CURLOPT_MAXREDIRS, kMaxRedirects - 1);
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - slot.started);
    const auto left = std::max(std::chrono::milliseconds(1), options_.timeout - spent);
    curl_easy_setopt(slot.easy, CURLOPT_TIMEOUT_MS, static_cast<long>(left.count()));
    slot.response = DeliveryResponse{};
    if (curl_multi_add_handle(multi_, slot.easy) != CURLM_OK) return false;
    slot.busy = true;
    return true;
  }

  Slot& freeSlot() {
    for (auto& slot : slots_) {
      if (!slot->busy) return *slot;
    }
    return *slots_.front();  // not reached: called only with a slot free
  }

  static void finish(Slot& slot, CURLcode code) {
    DeliveryResponse& response = slot.response;
    if (code != CURLE_OK) {
      response.status = 0;
      response.error = curl_easy_strerror(code);
      curl_off_t connectTime = 0;
      curl_easy_getinfo(slot.easy, CURLINFO_CONNECT_TIME_T, &connectTime);
      // Refused, unresolvable or never connected (a connect timeout): no
      // server saw the request. Cancellation counts the same way.
      response.reachedServer = !(code == CURLE_COULDNT_CONNECT || code == CURLE_COULDNT_RESOLVE_HOST ||
                                 code == CURLE_COULDNT_RESOLVE_PROXY ||
                                 code == CURLE_ABORTED_BY_CALLBACK ||
                                 (code == CURLE_OPERATION_TIMEDOUT && connectTime == 0));
      response.retryAfter.reset();
      return;
    }
    curl_easy_getinfo(slot.easy, CURLINFO_RESPONSE_CODE, &response.status);
    response.reachedServer = true;
  }

  static size_t discardBody(char*, size_t size, size_t count, void*) { return size * count; }

  static size_t readHeader(char* data, size_t size, size_t count, void* user) {
    auto* slot = static_cast<Slot*>(user);
    const size_t length = size * count;
    if (!slot->busy) return length;
    std::string_view line(data, length);
    if (line.starts_with("HTTP/")) {
      slot->response.retryAfter.reset();  // a new response (after a redirect)
      return length;
    }
    constexpr std::string_view kName = "retry-after:";
    if (line.size() > kName.size() && strncasecmp(line.data(), kName.data(), kName.size()) == 0) {
      const auto value = trim(line.substr(kName.size()));
      if (!value.empty()) slot->response.retryAfter = std::string(value);
    }
    return length;
  }

  static int progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<CurlTransport*>(user)->cancelled_.load(std::memory_order_relaxed) ? 1 : 0;
  }

  static constexpr long kMaxRedirects = 5;

  const std::atomic<bool>& cancelled_;
  const TransportOptions options_;
  bool targetsAsIs_ = true;
  bool noProxy_ = false;  // no proxy variable was set when the transport was made
  CURLM* multi_ = nullptr;
  // Stable addresses: the handles' callbacks point at them.
  std::vector<std::unique_ptr<Slot>> slots_;
};

}  // namespace

std::unique_ptr<DeliveryTransport> makeSystemTransport(const std::atomic<bool>& cancelled,
                                                       TransportOptions options) {
  return std::make_unique<CurlTransport>(cancelled, options);
}

}  // namespace korvel::network::internal
