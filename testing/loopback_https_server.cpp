#include "testing/loopback_https_server.h"

#include <httplib.h>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "platform/files.h"
#include "testing/temp_dir.h"

namespace norvik::testing {

struct LoopbackHttpsServer::Impl {
  TempDir dir;
  std::filesystem::path caFile;
  std::unique_ptr<httplib::SSLServer> server;
  std::thread thread;
  int port = 0;

  mutable std::mutex mutex;
  Handler handler;
  std::vector<ServerRequest> requests;

  void serve(const httplib::Request& in, httplib::Response& out) {
    ServerRequest request{in.method, in.path, {}, in.body};
    for (const auto& [name, value] : in.headers) request.headers.emplace_back(name, value);
    Handler current;
    {
      std::lock_guard lock(mutex);
      requests.push_back(request);
      current = handler;
    }
    ServerReply reply = current ? current(request) : ServerReply{404, R"({"message":"no handler"})"};
    if (reply.delay.count() > 0) std::this_thread::sleep_for(reply.delay);
    out.status = reply.status;
    for (const auto& [name, value] : reply.headers) out.set_header(name, value);
    out.set_content(reply.body, reply.contentType);
  }
};

LoopbackHttpsServer::LoopbackHttpsServer(const TestPkiOptions& pkiOptions) : impl_(std::make_unique<Impl>()) {
  const TestPki pki = makeTestPki(pkiOptions);
  impl_->caFile = impl_->dir / "ca.pem";
  const auto certFile = impl_->dir / "server.pem";
  const auto keyFile = impl_->dir / "server.key";
  if (!writeFileAtomically(impl_->caFile, pki.caCertificatePem) ||
      !writeFileAtomically(certFile, pki.serverCertificatePem) ||
      !writeFileAtomically(keyFile, pki.serverKeyPem, 0600)) {
    throw std::runtime_error("LoopbackHttpsServer: cannot write the certificates");
  }
  impl_->server = std::make_unique<httplib::SSLServer>(certFile.c_str(), keyFile.c_str());
  if (!impl_->server->is_valid()) throw std::runtime_error("LoopbackHttpsServer: invalid TLS set-up");
  auto route = [impl = impl_.get()](const httplib::Request& in, httplib::Response& out) { impl->serve(in, out); };
  impl_->server->Get(".*", route);
  impl_->server->Post(".*", route);
  impl_->server->Put(".*", route);
  impl_->server->Delete(".*", route);
  impl_->port = impl_->server->bind_to_any_port("127.0.0.1");
  if (impl_->port <= 0) throw std::runtime_error("LoopbackHttpsServer: cannot bind");
  impl_->thread = std::thread([server = impl_->server.get()] { server->listen_after_bind(); });
  // stop() only reaches a server that runs; wait for the accept loop before handing it out.
  while (!impl_->server->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackHttpsServer::~LoopbackHttpsServer() {
  impl_->server->stop();
  impl_->thread.join();
}

void LoopbackHttpsServer::setHandler(Handler handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->handler = std::move(handler);
}

std::vector<ServerRequest> LoopbackHttpsServer::requests() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->requests;
}

int LoopbackHttpsServer::port() const { return impl_->port; }

std::string LoopbackHttpsServer::url(std::string_view path) const {
  return "https://127.0.0.1:" + std::to_string(impl_->port) + std::string(path);
}

const std::filesystem::path& LoopbackHttpsServer::caFile() const { return impl_->caFile; }

}  // namespace norvik::testing
