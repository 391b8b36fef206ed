// The exporter's HTTP server, on Boost.Beast: every connection is handled
// asynchronously on the I/O thread, so a slow or idle client holds a socket
// and a few KiB, never a thread; each request must arrive whole within a
// deadline of its own, however it trickles in. The limits and their reasons
// are in docs/exporter.md, "HTTP limits".
#ifndef TOOLS_TOVEXPORTER_HTTP_H
#define TOOLS_TOVEXPORTER_HTTP_H

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace tovexporter {

struct HttpRequest {
  std::string method;  // GET or HEAD: no other reaches the handler
  std::string path;    // decoded
  std::multimap<std::string, std::string> params;  // the query, decoded
  std::string scrapeTimeout;  // X-Prometheus-Scrape-Timeout-Seconds
};

struct HttpReply {
  unsigned status = 200;
  std::string contentType;
  std::string body;
};

// Answers a request by calling `reply` once, on the I/O thread, at once or
// later; it must not block.
using HttpHandler = std::function<void(const HttpRequest& request,
                                       std::function<void(HttpReply)> reply)>;

struct HttpLimits {
  // From the moment the server waits for a request (the connection
  // accepted, or the answer before it sent) to its last byte.
  std::chrono::milliseconds request{5000};
  std::chrono::milliseconds write{10000};  // to send a whole answer
  std::size_t headers = 8192;              // request line and headers
  std::size_t body = 4096;
  // Connections held at once; one more is closed as soon as it is accepted.
  std::size_t connections = 512;
};

class HttpServer {
 public:
  HttpServer(boost::asio::io_context& io, HttpHandler handler,
             HttpLimits limits = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on `address` (a name or an address; "::" takes IPv4 too) and
  // `port` (0: one the kernel picks), and starts accepting. Never shares
  // the port with another socket. False, with the reason.
  bool listen(const std::string& address, int port, std::string& why);
  int port() const;
  // Stops accepting and closes every connection.
  void stop();

  struct State;  // shared with the connections, which may outlive it

 private:
  std::shared_ptr<State> state_;
};

// The parameters of a query ("a=1&b=x%20y"), decoded, '+' as a space.
std::multimap<std::string, std::string> queryParams(const std::string& query);

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_HTTP_H
