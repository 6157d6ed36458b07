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
// keep-alive limits.
#pragma once

#include <httplib.h>

namespace korvel::tools {

class HttpServer : public httplib::Server {
 public:
  HttpServer();
  ~HttpServer() override;
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Stops accepting and ends every connection, idle ones at once (a client
  // that keeps its connection open does not hold stop() for the keep-alive
  // timeout), then returns once every connection's thread is done.
  void stopServing();

 private:
  bool process_and_close_socket(socket_t sock) override;

  // A pipe whose read end turns readable at stopServing() and stays so:
  // every connection waiting for its next request polls it too.
  int wake_[2] = {-1, -1};
};

}  // namespace korvel::tools
