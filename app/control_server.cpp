#include "app/control_server.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <deque>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"

namespace norvik {

using asio::local::stream_protocol;

// One client connection: reads request lines, hands them to the handler one at a time, and
// writes the answer lines in order.
class ControlSession : public std::enable_shared_from_this<ControlSession> {
 public:
  ControlSession(stream_protocol::socket socket, const ControlServer::RequestHandler& handler, Log& log)
      : socket_(std::move(socket)), buffer_(ControlServer::kMaxLine), handler_(handler), log_(log) {}

  void start() { readLine(); }

  void send(const nlohmann::json& line, bool final) {
    if (closed_) return;
    outbox_.push_back(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    if (!writing_) writeNext();
    if (final) {
      busy_ = false;
      nextRequest();
    }
  }

  [[nodiscard]] bool isOpen() const { return !closed_; }
  void onClosed(std::function<void()> handler) {
    if (closed_) return handler();
    closeHandlers_.push_back(std::move(handler));
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    asio::error_code ignored;
    socket_.close(ignored);
    auto handlers = std::exchange(closeHandlers_, {});
    for (auto& handler : handlers) handler();
  }

 private:
  void readLine() {
    asio::async_read_until(
        socket_, buffer_, '\n',
        [self = shared_from_this()](const asio::error_code& error, std::size_t n) { self->onRead(error, n); });
  }

  void onRead(const asio::error_code& error, std::size_t n) {
    if (closed_) return;
    if (error == asio::error::not_found) return refuse("request line too long");
    if (error) return close();  // the client hung up
    std::string line(asio::buffers_begin(buffer_.data()),
                     asio::buffers_begin(buffer_.data()) + static_cast<std::ptrdiff_t>(n));
    buffer_.consume(n);
    line.pop_back();  // the newline
    pending_.push_back(std::move(line));
    nextRequest();
    readLine();  // keep listening, so that a hang-up is noticed even while a request runs
  }

  void nextRequest() {
    if (busy_ || pending_.empty() || closed_) return;
    std::string line = std::move(pending_.front());
    pending_.pop_front();
    auto request = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!request.is_object() || !request.contains("command") || !request["command"].is_string()) {
      return refuse("a request is one JSON object with a \"command\"");
    }
    busy_ = true;
    handler_(request, ControlReply(weak_from_this()));
  }

  void refuse(std::string_view why) {
    log_.format("[Agent] управляющее соединение закрыто: {}", why);
    send(nlohmann::json{{"ok", false}, {"code", "usage"}, {"error", {{"title", ""}, {"message", why}}}}, false);
    closeAfterWrite_ = true;
    if (!writing_) close();
  }

  void writeNext() {
    if (outbox_.empty() || closed_) {
      writing_ = false;
      if (closeAfterWrite_) close();
      return;
    }
    writing_ = true;
    asio::async_write(socket_, asio::buffer(outbox_.front()),
                      [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                        if (error) return self->close();
                        self->outbox_.pop_front();
                        self->writeNext();
                      });
  }

  stream_protocol::socket socket_;
  asio::streambuf buffer_;
  const ControlServer::RequestHandler& handler_;
  Log& log_;
  std::deque<std::string> pending_;
  std::deque<std::string> outbox_;
  std::vector<std::function<void()>> closeHandlers_;
  bool busy_ = false;
  bool writing_ = false;
  bool closed_ = false;
  bool closeAfterWrite_ = false;
};

void ControlReply::event(const nlohmann::json& line) const {
  if (auto session = session_.lock()) session->send(line, false);
}
void ControlReply::finish(const nlohmann::json& line) const {
  if (auto session = session_.lock()) session->send(line, true);
}
bool ControlReply::isOpen() const {
  auto session = session_.lock();
  return session && session->isOpen();
}
void ControlReply::onClosed(std::function<void()> handler) const {
  if (auto session = session_.lock()) {
    session->onClosed(std::move(handler));
  } else {
    handler();
  }
}

struct ControlServer::Impl {
  Impl(AsioEventLoop& loop, std::filesystem::path path, Log& log, RequestHandler handler)
      : acceptor(loop.context()), path(std::move(path)), log(log), handler(std::move(handler)) {}
  stream_protocol::acceptor acceptor;
  std::filesystem::path path;
  Log& log;
  RequestHandler handler;
};

std::expected<std::unique_ptr<ControlServer>, Error> ControlServer::open(AsioEventLoop& loop,
                                                                         const std::filesystem::path& socketPath,
                                                                         Log& log, RequestHandler handler) {
  if (socketPath.native().size() >= sizeof(sockaddr_un::sun_path)) {
    return std::unexpected(
        Error{"POSIX", ENAMETOOLONG, fmt::format("{}: the socket path is too long", socketPath.string())});
  }
  if (auto made = makeDirectories(socketPath.parent_path(), 0700); !made) return std::unexpected(made.error());
  // The caller holds the agent's lock, so a socket file left here belongs to an agent that died.
  ::unlink(socketPath.c_str());

  auto impl = std::make_unique<Impl>(loop, socketPath, log, std::move(handler));
  asio::error_code error;
  impl->acceptor.open(stream_protocol(), error);
  if (!error) impl->acceptor.bind(stream_protocol::endpoint(socketPath.string()), error);
  if (!error) ::chmod(socketPath.c_str(), 0600);
  if (!error) impl->acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error)
    return std::unexpected(Error{"POSIX", error.value(), fmt::format("{}: {}", socketPath.string(), error.message())});

  std::unique_ptr<ControlServer> server(new ControlServer(std::move(impl)));
  server->accept();
  return server;
}

ControlServer::ControlServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

ControlServer::~ControlServer() {
  asio::error_code ignored;
  impl_->acceptor.close(ignored);
  // Closing a session takes it out of the set; close a copy.
  auto sessions = std::exchange(sessions_, {});
  for (const auto& session : sessions) session->close();
  ::unlink(impl_->path.c_str());
}

void ControlServer::accept() {
  impl_->acceptor.async_accept([this](const asio::error_code& error, stream_protocol::socket socket) {
    if (error == asio::error::operation_aborted) return;  // the server is closing
    if (!error) {
      auto session = std::make_shared<ControlSession>(std::move(socket), impl_->handler, impl_->log);
      sessions_.insert(session);
      session->onClosed([this, weak = std::weak_ptr<ControlSession>(session)] {
        if (auto s = weak.lock()) sessions_.erase(s);
      });
      session->start();
    }
    accept();
  });
}

}  // namespace norvik
