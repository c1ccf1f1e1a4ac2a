#include "app/control_server.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/read_until.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <deque>
#include <malloc.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fmt/format.h>

#include "platform/files.h"

namespace norvik {

using asio::local::stream_protocol;

namespace {

// True when the client has closed its end for good (not a half-close: a client that shut down
// only its writing side still reads the answer).
bool peerHasHungUp(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) == 1 && (p.revents & (POLLHUP | POLLERR)) != 0;
}

std::string answerLine(const nlohmann::json& line) {
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

// One client connection: reads request lines, hands them to the handler one at a time, and
// writes the answer lines in order, within the server's limits.
class ControlSession : public std::enable_shared_from_this<ControlSession> {
 public:
  ControlSession(stream_protocol::socket socket, const ControlServer::RequestHandler& handler, Log& log,
                 const ControlLimits& limits, EventLoop& timers)
      : socket_(std::move(socket)),
        buffer_(ControlServer::kMaxLine),
        handler_(handler),
        log_(log),
        limits_(limits),
        timers_(timers) {}

  void start() {
    becomeIdle();
    readLine();
  }

  void send(const nlohmann::json& line, bool final) {
    if (closed_ || dropping_) return;
    std::string text = answerLine(line);
    unreadBytes_ += text.size();
    if (unreadBytes_ > limits_.maxUnreadOutput) return dropForNotReading();
    outbox_.push_back(std::move(text));
    if (!writing_) writeNext();
    if (final) {
      busy_ = false;
      nextRequest();
    }
  }

  [[nodiscard]] bool isOpen() const { return !closed_ && !dropping_; }
  // No request in progress or waiting: the connection only holds a descriptor.
  [[nodiscard]] bool isIdle() const { return !closed_ && !dropping_ && !busy_ && pending_.empty(); }
  [[nodiscard]] EventLoop::TimePoint idleSince() const { return idleSince_; }

  void onClosed(std::function<void()> handler) {
    if (closed_) return handler();
    closeHandlers_.push_back(std::move(handler));
  }

  void close() {
    if (closed_) return;
    closed_ = true;
    idleTimer_.stop();
    asio::error_code ignored;
    socket_.close(ignored);
    outbox_.clear();
    pending_.clear();
    buffer_.consume(buffer_.size());
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
    if (closed_ || dropping_) return;
    if (error == asio::error::not_found) return refuse("request line too long");
    if (error) return close();  // the client hung up
    if (pending_.size() >= limits_.maxQueuedRequests) return refuse("too many requests waiting on one connection");
    std::string line(asio::buffers_begin(buffer_.data()),
                     asio::buffers_begin(buffer_.data()) + static_cast<std::ptrdiff_t>(n));
    buffer_.consume(n);
    line.pop_back();  // the newline
    pending_.push_back(std::move(line));
    nextRequest();
    readLine();  // keep listening, so that a hang-up is noticed even while a request runs
  }

  void nextRequest() {
    if (busy_ || closed_ || dropping_) return;
    if (pending_.empty()) return becomeIdle();
    std::string line = std::move(pending_.front());
    pending_.pop_front();
    auto request = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!request.is_object() || !request.contains("command") || !request["command"].is_string()) {
      return refuse("a request is one JSON object with a \"command\"");
    }
    // A client that gave up before its request began (it timed out, or was interrupted while the
    // agent was busy or stopped) must not have it carried out now.
    if (peerHasHungUp(socket_.native_handle())) {
      log_.format("[Agent] клиент ушёл раньше, чем начался запрос «{}», — запрос не выполняется",
                  request["command"].get<std::string>());
      return close();
    }
    busy_ = true;
    idleTimer_.stop();
    handler_(request, ControlReply(weak_from_this()));
  }

  void becomeIdle() {
    idleSince_ = timers_.now();
    idleTimer_.start(timers_, limits_.idleTimeout, [weak = weak_from_this()] {
      auto self = weak.lock();
      if (!self || !self->isIdle()) return;
      self->log_.format("[Agent] управляющее соединение закрыто: клиент молчит {} с",
                        std::chrono::duration_cast<std::chrono::seconds>(self->limits_.idleTimeout).count());
      self->close();
    });
  }

  void refuse(std::string_view why) {
    log_.format("[Agent] управляющее соединение закрыто: {}", why);
    send(nlohmann::json{{"ok", false}, {"code", "usage"}, {"error", {{"title", ""}, {"message", why}}}}, false);
    closeAfterWrite_ = true;
    if (!writing_) close();
  }

  // The answers already queued are thrown away at once; the connection closes on the next turn of
  // the loop, so that the handler whose answer crossed the limit is not re-entered.
  void dropForNotReading() {
    log_.format("[Agent] клиент не читает ответы ({} КиБ не прочитано) — соединение закрыто", unreadBytes_ / 1024);
    dropping_ = true;
    outbox_.clear();
    outbox_.shrink_to_fit();
    pending_.clear();
    asio::post(socket_.get_executor(), [self = shared_from_this()] {
      self->close();
      // Thousands of small answers were freed; give the pages back rather than keep them.
      ::malloc_trim(0);
    });
  }

  void writeNext() {
    if (outbox_.empty() || closed_ || dropping_) {
      writing_ = false;
      if (closeAfterWrite_ && !dropping_) close();
      return;
    }
    writing_ = true;
    asio::async_write(socket_, asio::buffer(outbox_.front()),
                      [self = shared_from_this()](const asio::error_code& error, std::size_t) {
                        if (self->closed_ || self->dropping_) return;
                        if (error) return self->close();
                        self->unreadBytes_ -= self->outbox_.front().size();
                        self->outbox_.pop_front();
                        self->writeNext();
                      });
  }

  stream_protocol::socket socket_;
  asio::streambuf buffer_;
  const ControlServer::RequestHandler& handler_;
  Log& log_;
  const ControlLimits& limits_;
  EventLoop& timers_;
  std::deque<std::string> pending_;
  std::deque<std::string> outbox_;
  std::size_t unreadBytes_ = 0;  // queued here and not yet taken by the kernel
  std::vector<std::function<void()>> closeHandlers_;
  OneShotTimer idleTimer_;
  EventLoop::TimePoint idleSince_{};
  bool busy_ = false;
  bool writing_ = false;
  bool closed_ = false;
  bool dropping_ = false;
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
  Impl(AsioEventLoop& loop, std::filesystem::path path, Log& log, RequestHandler handler, ControlLimits limits)
      : acceptor(loop.context()),
        path(std::move(path)),
        log(log),
        handler(std::move(handler)),
        limits(limits),
        timers(limits.timers ? *limits.timers : loop) {}
  stream_protocol::acceptor acceptor;
  std::filesystem::path path;
  Log& log;
  RequestHandler handler;
  ControlLimits limits;
  EventLoop& timers;
  OneShotTimer acceptPause;
  bool outOfDescriptors = false;  // logged once per episode
};

std::expected<std::unique_ptr<ControlServer>, Error> ControlServer::open(AsioEventLoop& loop,
                                                                         const std::filesystem::path& socketPath,
                                                                         Log& log, RequestHandler handler,
                                                                         ControlLimits limits) {
  if (socketPath.native().size() >= sizeof(sockaddr_un::sun_path)) {
    return std::unexpected(
        Error{"POSIX", ENAMETOOLONG, fmt::format("{}: the socket path is too long", socketPath.string())});
  }
  if (auto made = makeDirectories(socketPath.parent_path(), 0700); !made) return std::unexpected(made.error());
  // The caller holds the agent's lock, so a socket file left here belongs to an agent that died.
  ::unlink(socketPath.c_str());

  auto impl = std::make_unique<Impl>(loop, socketPath, log, std::move(handler), limits);
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
  impl_->acceptPause.stop();
  asio::error_code ignored;
  impl_->acceptor.close(ignored);
  // Closing a session takes it out of the set; close a copy.
  auto sessions = std::exchange(sessions_, {});
  for (const auto& session : sessions) session->close();
  ::unlink(impl_->path.c_str());
}

bool ControlServer::closeLongestIdle(std::string_view why) {
  std::shared_ptr<ControlSession> longest;
  for (const auto& session : sessions_) {
    if (session->isIdle() && (!longest || session->idleSince() < longest->idleSince())) longest = session;
  }
  if (!longest) return false;
  impl_->log.format("[Agent] управляющее соединение закрыто: {}", why);
  longest->close();
  return true;
}

void ControlServer::accept() {
  impl_->acceptor.async_accept([this](const asio::error_code& error, stream_protocol::socket socket) {
    if (error == asio::error::operation_aborted) return;  // the server is closing
    const int err = error.value();
    if (error && (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM)) {
      // Out of descriptors or memory: the waiting client stays in the backlog. Free an idle
      // connection's descriptor for it, or wait a moment; never retry at once, which would spin.
      if (!impl_->outOfDescriptors) {
        impl_->log.format("[Agent] управляющий сокет не принимает соединения: {} — ждём", error.message());
        impl_->outOfDescriptors = true;
      }
      if (closeLongestIdle("нужен дескриптор для нового клиента")) return accept();
      impl_->acceptPause.start(impl_->timers, impl_->limits.acceptBackoff, [this] { accept(); });
      return;
    }
    if (!error) {
      impl_->outOfDescriptors = false;
      if (sessions_.size() >= impl_->limits.maxConnections &&
          !closeLongestIdle("слишком много соединений, место уступлено новому клиенту")) {
        // Every connection has a request in progress: refuse the newcomer with one line.
        impl_->log.format("[Agent] новое управляющее соединение отклонено: их уже {}", sessions_.size());
        const std::string line = answerLine(nlohmann::json{
            {"ok", false},
            {"code", "failed"},
            {"error",
             {{"title", ""}, {"message", "Агент Norvik занят: слишком много подключений. Повторите позже."}}}});
        (void)::send(socket.native_handle(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return accept();  // the socket closes as it goes out of scope
      }
      auto session =
          std::make_shared<ControlSession>(std::move(socket), impl_->handler, impl_->log, impl_->limits, impl_->timers);
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
