#include "http.h"

#include <fcntl.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <map>
#include <optional>

namespace tovexporter {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace {

// An accept that fails for want of descriptors is tried again after this,
// so that the loop does not spin while none is free.
constexpr auto kAcceptPause = std::chrono::milliseconds(100);

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// %XX decoded; a '%' not followed by two hex digits is kept as it is.
std::string decoded(const std::string& text, bool plusIsSpace) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 &&
        hexDigit(text[i + 2]) >= 0) {
      out +=
          static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2]));
      i += 2;
    } else {
      out += plusIsSpace && c == '+' ? ' ' : c;
    }
  }
  return out;
}

}  // namespace

std::multimap<std::string, std::string> queryParams(const std::string& query) {
  std::multimap<std::string, std::string> params;
  std::size_t at = 0;
  while (at <= query.size()) {
    std::size_t end = query.find('&', at);
    if (end == std::string::npos) end = query.size();
    const std::string part = query.substr(at, end - at);
    const std::size_t eq = part.find('=');
    const std::string key = decoded(part.substr(0, eq), true);
    if (!key.empty()) {
      params.emplace(key, eq == std::string::npos
                              ? ""
                              : decoded(part.substr(eq + 1), true));
    }
    at = end + 1;
  }
  return params;
}

class HttpSession;

struct HttpServer::State : std::enable_shared_from_this<HttpServer::State> {
  State(asio::io_context& io, HttpHandler h, HttpLimits l)
      : acceptor(io), pause(io), handler(std::move(h)), limits(l) {}
  void accept();

  tcp::acceptor acceptor;
  asio::steady_timer pause;
  HttpHandler handler;
  HttpLimits limits;
  std::map<HttpSession*, std::weak_ptr<HttpSession>> sessions;
  bool stopped = false;
};

// One connection: one request read at a time, answered before the next is
// read, so pipelined requests are answered in their order.
class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket socket, std::shared_ptr<HttpServer::State> server)
      : stream_(std::move(socket)),
        server_(std::move(server)),
        buffer_(server_->limits.headers + server_->limits.body) {}
  ~HttpSession() { server_->sessions.erase(this); }

  void start() {
    server_->sessions[this] = weak_from_this();
    readRequest();
  }

  void close() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.close();
  }

 private:
  void readRequest() {
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(server_->limits.headers));
    parser_->body_limit(server_->limits.body);
    // One deadline for the whole request, not renewed by each byte.
    stream_.expires_after(server_->limits.request);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) {
          self->onRead(ec);
        });
  }

  void onRead(beast::error_code ec) {
    static const auto& parseErrors =
        http::make_error_code(http::error::bad_method).category();
    if (ec == http::error::header_limit) {
      return refuse(431, "request headers larger than " +
                             std::to_string(server_->limits.headers) +
                             " bytes");
    }
    if (ec == http::error::body_limit) {
      return refuse(413, "request body larger than " +
                             std::to_string(server_->limits.body) + " bytes");
    }
    if (ec && &ec.category() == &parseErrors &&
        ec != http::error::end_of_stream &&
        ec != http::error::partial_message) {
      return refuse(400, "malformed request");
    }
    // End of input, the request's deadline, a reset: nothing to answer.
    if (ec) return close();
    const auto& req = parser_->get();
    version_ = req.version();
    keepAlive_ = req.keep_alive();
    head_ = req.method() == http::verb::head;
    if (req.method() != http::verb::get && !head_) {
      return send({405, "text/plain; charset=utf-8", "only GET and HEAD\n"},
                  false);
    }
    HttpRequest r;
    r.method = head_ ? "HEAD" : "GET";
    const std::string target(req.target());
    const std::size_t q = target.find('?');
    r.path = decoded(target.substr(0, q), false);
    if (q != std::string::npos) r.params = queryParams(target.substr(q + 1));
    r.scrapeTimeout = std::string(req["X-Prometheus-Scrape-Timeout-Seconds"]);
    // The answer comes back on this connection's executor, whenever it is
    // ready; nothing is read meanwhile.
    server_->handler(r, [self = shared_from_this()](HttpReply reply) {
      asio::post(self->stream_.get_executor(),
                 [self, reply = std::move(reply)]() mutable {
                   self->send(std::move(reply), false);
                 });
    });
  }

  void refuse(unsigned status, const std::string& why) {
    keepAlive_ = head_ = false;
    send({status, "text/plain; charset=utf-8", why + "\n"}, true);
  }

  void send(HttpReply reply, bool last) {
    res_ = {static_cast<http::status>(reply.status), version_};
    res_.set(http::field::server, "tovexporter");
    res_.set(http::field::content_type, reply.contentType);
    if (reply.status == 405) res_.set(http::field::allow, "GET, HEAD");
    res_.keep_alive(keepAlive_ && !last && !server_->stopped);
    res_.body() = std::move(reply.body);
    res_.prepare_payload();
    if (head_) {
      const std::size_t length = res_.body().size();
      res_.body().clear();
      res_.content_length(length);
    }
    stream_.expires_after(server_->limits.write);
    http::async_write(
        stream_, res_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) {
          if (ec || !self->res_.keep_alive()) return self->end();
          self->readRequest();
        });
  }

  // After an answer that closes: the client reads it to its end.
  void end() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
  }

  beast::tcp_stream stream_;
  std::shared_ptr<HttpServer::State> server_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> res_;
  unsigned version_ = 11;
  bool keepAlive_ = false;
  bool head_ = false;
};

void HttpServer::State::accept() {
  acceptor.async_accept(
      [self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
        if (self->stopped || !self->acceptor.is_open()) return;
        if (ec) {
          self->pause.expires_after(kAcceptPause);
          self->pause.async_wait([self](beast::error_code e) {
            if (!e) self->accept();
          });
          return;
        }
        if (self->sessions.size() < self->limits.connections) {
          std::make_shared<HttpSession>(std::move(socket), self)->start();
        }
        // Beyond the limit the socket is closed here, at once.
        self->accept();
      });
}

HttpServer::HttpServer(asio::io_context& io, HttpHandler handler,
                       HttpLimits limits)
    : state_(std::make_shared<State>(io, std::move(handler), limits)) {}

HttpServer::~HttpServer() { stop(); }

bool HttpServer::listen(const std::string& address, int port,
                        std::string& why) {
  beast::error_code ec;
  tcp::resolver resolver(state_->acceptor.get_executor());
  const auto found = resolver.resolve(
      address, std::to_string(port),
      tcp::resolver::passive | tcp::resolver::numeric_service, ec);
  if (ec || found.empty()) {
    why = ec ? ec.message() : "no such address";
    return false;
  }
  const tcp::endpoint at = found.begin()->endpoint();
  tcp::acceptor& a = state_->acceptor;
  a.open(at.protocol(), ec);
  if (!ec) {
    fcntl(a.native_handle(), F_SETFD, FD_CLOEXEC);
    // Leftover connections of an exporter just stopped do not keep a new
    // one out; a listening socket still does (no SO_REUSEPORT: a second
    // exporter on the port is refused, never given half the scrapes).
    a.set_option(asio::socket_base::reuse_address(true), ec);
  }
  if (!ec && at.address().is_v6() && at.address().is_unspecified()) {
    a.set_option(asio::ip::v6_only(false), ec);
  }
  if (!ec) a.bind(at, ec);
  if (!ec) a.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    why = ec.message();
    a.close(ec);
    return false;
  }
  state_->accept();
  return true;
}

int HttpServer::port() const {
  beast::error_code ec;
  const tcp::endpoint at = state_->acceptor.local_endpoint(ec);
  return ec ? 0 : at.port();
}

void HttpServer::stop() {
  state_->stopped = true;
  beast::error_code ignored;
  state_->acceptor.close(ignored);
  state_->pause.cancel();
  const auto sessions = state_->sessions;
  for (const auto& s : sessions) {
    if (const auto session = s.second.lock()) session->close();
  }
}

}  // namespace tovexporter
