// cpp-httplib's server with a connection loop of its own. As packaged,
// httplib waits for a keep-alive connection's next request in a loop of
// 10 ms polls and 1 ms sleeps, makes a fresh stream for every request (the
// bytes of a second request that came with the first are lost), polls the
// socket before every read and twice before every write, and asks the kernel
// for both addresses of the connection at every request: at thousands of
// requests a second, more system calls than the request itself needs.
//
// Here each connection keeps one buffered stream for its whole life: the next
// request is waited for with one poll that stopServing() also wakes, reads
// and writes go straight to the socket and poll only when it would block, and
// the addresses are read once. Requests are parsed, routed and answered by
// httplib as before (Server::process_request), with its timeouts and
// keep-alive limits, except on the quick route (setQuickGet).
#pragma once

#include <httplib.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace korvel::tools {

class HttpServer : public httplib::Server {
 public:
  // The answer to a request on the quick route, written as httplib writes
  // one: the status line, the headers in httplib's order with those every
  // answer gets (Connection: close or Keep-Alive, Content-Length, and a
  // Content-Type of text/plain for a body without one), then the body.
  struct QuickAnswer {
    int status = 204;
    httplib::Headers headers;
    std::string body;
    // When not 0: a body of this many bytes is announced and the connection
    // closes before any of it (a server that breaks off its answer).
    size_t cutOffAfter = 0;
  };
  using QuickTakes = std::function<bool(std::string_view path)>;
  using QuickHandler = std::function<QuickAnswer(std::string_view target)>;

  HttpServer();
  ~HttpServer() override;
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Stops accepting and ends every connection, idle ones at once (a client
  // that keeps its connection open does not hold stop() for the keep-alive
  // timeout), then returns once every connection's thread is done.
  void stopServing();

  // A route answered before httplib parses the request, for the requests a
  // server gets thousands of a second: a request whose head is plain (the
  // line "GET <target> HTTP/1.1" with a target of at most httplib's length
  // limit, then "Name: value" lines without Content-Length,
  // Transfer-Encoding or Expect) and whose path, as in the target, `takes`
  // accepts is answered by `handler`, given the target as it came. Every
  // other request is parsed, checked and routed by httplib. Set before
  // listening; the server has neither an error handler, a post-routing
  // handler nor a logger that such requests would bypass.
  void setQuickGet(QuickTakes takes, QuickHandler handler);

 private:
  bool process_and_close_socket(socket_t sock) override;

  QuickTakes quickTakes_;
  QuickHandler quickHandler_;

  // A pipe whose read end turns readable at stopServing() and stays so:
  // every connection waiting for its next request polls it too.
  int wake_[2] = {-1, -1};
};

}  // namespace korvel::tools
