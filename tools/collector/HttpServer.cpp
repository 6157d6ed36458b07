#include "collector/HttpServer.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

namespace korvel::tools {

namespace {

int milliseconds(time_t seconds, time_t microseconds) {
  const long long ms = static_cast<long long>(seconds) * 1000 + microseconds / 1000;
  return static_cast<int>(std::min<long long>(ms, std::numeric_limits<int>::max()));
}

// The connection's socket as httplib reads and writes it, for every request
// on the connection. The socket is non-blocking; a read or write that would
// block waits in poll for at most its timeout.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int fd, int wake, int readTimeoutMs, int writeTimeoutMs)
      : fd_(fd), wake_(wake), readTimeoutMs_(readTimeoutMs), writeTimeoutMs_(writeTimeoutMs),
        buffer_(16 * 1024) {}

  // True when the next request (or the end of the connection) is there
  // within timeoutMs; false at the timeout and once the server stops.
  bool waitForRequest(int timeoutMs) {
    return begin_ < end_ || waitFor(POLLIN, timeoutMs);
  }

  bool is_readable() const override { return begin_ < end_ || waitFor(POLLIN, readTimeoutMs_); }
  // As httplib's own: the socket takes bytes and the peer has not closed
  // the connection (a content provider polls it to notice a page that went
  // away while it had nothing to send).
  bool is_writable() const override {
    if (!waitFor(POLLOUT, writeTimeoutMs_)) return false;
    pollfd in{fd_, POLLIN, 0};
    if (::poll(&in, 1, 0) <= 0) return true;
    char byte;
    return ::recv(fd_, &byte, 1, MSG_PEEK) > 0;
  }

  // httplib reads the request line and headers a byte at a time: each
  // read comes from the buffer, which takes from the socket only once empty.
  ssize_t read(char* ptr, size_t size) override {
    if (begin_ == end_) {
      const ssize_t got = receive();
      if (got <= 0) return got;
      begin_ = 0;
      end_ = static_cast<size_t>(got);
    }
    const size_t n = std::min(size, end_ - begin_);
    std::memcpy(ptr, buffer_.data() + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    while (true) {
      const ssize_t n = ::send(fd_, ptr, size, MSG_NOSIGNAL);
      if (n >= 0) return n;
      if (errno == EINTR) continue;
      if ((errno != EAGAIN && errno != EWOULDBLOCK) || !waitFor(POLLOUT, writeTimeoutMs_)) {
        return -1;
      }
    }
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    if (!remote_.known) remote_ = address(::getpeername);
    ip = remote_.ip;
    port = remote_.port;
  }

  void get_local_ip_and_port(std::string& ip, int& port) const override {
    if (!local_.known) local_ = address(::getsockname);
    ip = local_.ip;
    port = local_.port;
  }

  socket_t socket() const override { return fd_; }

 private:
  struct Address {
    bool known = false;
    std::string ip;
    int port = 0;
  };

  Address address(int (*get)(int, sockaddr*, socklen_t*)) const {
    Address out;
    out.known = true;
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    if (get(fd_, reinterpret_cast<sockaddr*>(&storage), &length) != 0) return out;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> service{};
    if (getnameinfo(reinterpret_cast<sockaddr*>(&storage), length, host.data(), host.size(),
                    service.data(), service.size(), NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
      out.ip = host.data();
      out.port = std::atoi(service.data());
    }
    return out;
  }

  // Into the buffer: the byte count, 0 at the end of the connection, -1 on
  // an error, at the read timeout or once the server stops.
  ssize_t receive() {
    while (true) {
      const ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
      if (n >= 0) return n;
      if (errno == EINTR) continue;
      if ((errno != EAGAIN && errno != EWOULDBLOCK) || !waitFor(POLLIN, readTimeoutMs_)) return -1;
    }
  }

  // True when the socket is ready for `events` (or has an error or hang-up
  // to report) within timeoutMs; false at the timeout and once the server
  // stops.
  bool waitFor(short events, int timeoutMs) const {
    pollfd fds[2] = {{fd_, events, 0}, {wake_, POLLIN, 0}};
    while (true) {
      const int ready = ::poll(fds, 2, timeoutMs);
      if (ready < 0 && errno == EINTR) continue;
      return ready > 0 && fds[1].revents == 0 && fds[0].revents != 0;
    }
  }

  int fd_;
  int wake_;
  int readTimeoutMs_;
  int writeTimeoutMs_;
  std::vector<char> buffer_;
  size_t begin_ = 0;
  size_t end_ = 0;
  mutable Address remote_;
  mutable Address local_;
};

}  // namespace

HttpServer::HttpServer() {
  if (::pipe2(wake_, O_CLOEXEC) != 0) wake_[0] = wake_[1] = -1;
}

HttpServer::~HttpServer() {
  stopServing();
  for (int fd : wake_) {
    if (fd >= 0) ::close(fd);
  }
}

void HttpServer::stopServing() {
  if (wake_[1] >= 0) {
    const char byte = 1;
    // Once is enough (the byte is never read), and a full pipe is awake too.
    while (::write(wake_[1], &byte, 1) < 0 && errno == EINTR) {
    }
  }
  stop();
}

bool HttpServer::process_and_close_socket(socket_t sock) {
  const int flags = ::fcntl(sock, F_GETFL, 0);
  ::fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  ConnectionStream stream(sock, wake_[0], milliseconds(read_timeout_sec_, read_timeout_usec_),
                          milliseconds(write_timeout_sec_, write_timeout_usec_));
  const int keepAliveMs = milliseconds(keep_alive_timeout_sec_, 0);
  bool served = false;
  for (size_t left = keep_alive_max_count_; left > 0 && svr_sock_ != INVALID_SOCKET; --left) {
    if (!stream.waitForRequest(keepAliveMs)) break;
    bool closed = false;
    served = process_request(stream, left == 1, closed, nullptr);
    if (!served || closed) break;
  }
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return served;
}

}  // namespace korvel::tools
