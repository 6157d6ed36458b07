#include "collector/BeaconSink.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "collector/BeaconCollector.h"

using korvel::foundation::internal::MutexLock;

namespace korvel::tools {

namespace {

bool sendAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

const char* reason(int status) {
  switch (status) {
    case 204: return "No Content";
    case 408: return "Request Timeout";
    case 429: return "Too Many Requests";
    case 500: return "Internal Server Error";
    case 502: return "Bad Gateway";
    case 503: return "Service Unavailable";
    default: return "Status";
  }
}

}  // namespace

BeaconSink::BeaconSink(Options options) : options_(std::move(options)) {}

BeaconSink::~BeaconSink() { stop(); }

bool BeaconSink::start() {
  if (listener_ >= 0) return true;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(options_.port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 128) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    close(fd);
    return false;
  }
  listener_ = fd;
  port_ = ntohs(address.sin_port);
  stopping_ = false;
  acceptor_ = std::thread([this] { acceptLoop(); });
  return true;
}

void BeaconSink::stop() {
  if (listener_ < 0) return;
  stopping_ = true;
  // shutdown() wakes the threads blocked in accept() and recv().
  shutdown(listener_, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  close(listener_);
  listener_ = -1;
  std::vector<std::thread> servers;
  {
    MutexLock lock(mutex_);
    for (int fd : connections_) shutdown(fd, SHUT_RDWR);
    servers.swap(servers_);
  }
  for (auto& t : servers) t.join();
}

void BeaconSink::acceptLoop() {
  while (!stopping_) {
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (stopping_) return;
      // Out of descriptors, say: wait a little rather than spin.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    MutexLock lock(mutex_);
    if (stopping_) {
      close(fd);
      return;
    }
    connections_.push_back(fd);
    servers_.emplace_back([this, fd] { serve(fd); });
  }
}

void BeaconSink::serve(int fd) {
  std::string buffer;
  char chunk[16384];
  while (!stopping_) {
    const size_t end = buffer.find("\r\n\r\n");
    if (end == std::string::npos) {
      const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      buffer.append(chunk, static_cast<size_t>(n));
      continue;
    }
    // "GET <target> HTTP/1.1"; the library's GETs carry no body.
    const size_t lineEnd = buffer.find("\r\n");
    const std::string line = buffer.substr(0, lineEnd);
    buffer.erase(0, end + 4);
    const size_t first = line.find(' ');
    const size_t last = line.rfind(' ');
    if (first == std::string::npos || last <= first) break;
    if (!answer(fd, line.substr(first + 1, last - first - 1))) break;
  }
  MutexLock lock(mutex_);
  connections_.erase(std::remove(connections_.begin(), connections_.end(), fd), connections_.end());
  close(fd);
}

bool BeaconSink::answer(int fd, const std::string& target) {
  if (options_.delay.count() > 0) std::this_thread::sleep_for(options_.delay);
  const std::string uuid = CollectedBeacon::decode(target).value("clientbeaconuuid").value_or("");
  int status = 204;
  int left = dropLeft_.load();
  while (left > 0 && !dropLeft_.compare_exchange_weak(left, left - 1)) {
  }
  if (left > 0) {
    status = 0;
  } else if (options_.failEvery > 0 && ++requests_ % static_cast<uint64_t>(options_.failEvery) == 0) {
    status = options_.failStatus;
  }
  if (options_.onAnswer) {
    MutexLock lock(callbackMutex_);
    options_.onAnswer(uuid, status);
  }
  if (status == 0) return false;
  std::string head = "HTTP/1.1 " + std::to_string(status) + " " + reason(status) + "\r\n";
  head += status == 204 ? "\r\n" : "Content-Length: 0\r\n\r\n";
  return sendAll(fd, head);
}

}  // namespace korvel::tools
