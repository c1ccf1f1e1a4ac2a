#include "tools/devbackend/dev_backend.h"

#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

#include <fmt/format.h>
#include <httplib.h>

#include "platform/files.h"
#include "platform/linux/file_log.h"
#include "platform/linux/openssl_crypto.h"
#include "platform/linux/system_clock.h"
#include "tools/devbackend/dev_material.h"
#include "tools/devbackend/documents.h"

namespace norvik::devbackend {
namespace {

constexpr std::size_t kMaxRequestBytes = 1u << 20;
constexpr int kWorkerThreads = 32;  // answers held back by a delay each keep one

// A start that failed on what it was given (exit status 2 for the command line), or on the system.
Error configError(std::string message) { return Error{std::string(kConfigurationErrorDomain), 0, std::move(message)}; }
Error startError(std::string message) { return Error{"DevBackend", 0, std::move(message)}; }

std::expected<FeedRelease, Error> feedRelease(const DevBackendOptions& options, const FeedSigner& signer,
                                              const Provisioning& provisioning) {
  FeedRelease feed;
  feed.version = options.feedVersion;
  if (options.feedFile) {
    auto bytes = readFile(*options.feedFile, 2u << 30);
    if (!bytes) return std::unexpected(bytes.error());
    feed.file = std::make_shared<const std::string>(std::move(*bytes));
    feed.fileName = options.feedFile->filename().string();
  } else {
    feed.file = std::make_shared<const std::string>(placeholderDiskImage(options.feedVersion));
    feed.fileName = fmt::format("Norvik-{}.dmg", options.feedVersion);
  }
  // Signed only when the client can check it: its provisioning carries this feed key.
  if (provisioning.updateEd25519PublicKey == signer.publicKeyBase64()) {
    auto signature = signer.sign(*feed.file);
    if (!signature) return std::unexpected(signature.error());
    feed.edSignature = std::move(*signature);
  }
  return feed;
}

std::expected<FaultPlan, Error> faultPlanFrom(const DevBackendOptions& o) {
  FaultPlan faults;
  for (const auto& [kind, texts] :
       {std::pair{FaultPlan::Kind::status, &o.statusFaults}, std::pair{FaultPlan::Kind::delay, &o.delayFaults},
        std::pair{FaultPlan::Kind::malformed, &o.malformedFaults}}) {
    for (const auto& text : *texts) {
      if (auto added = faults.add(kind, text); !added) return std::unexpected(configError(added.error()));
    }
  }
  return faults;
}

std::expected<void, Error> checkOptions(const DevBackendOptions& o) {
  if (o.stateDir.empty()) return std::unexpected(configError("a state directory is required"));
  if (!o.apiBase.starts_with('/') || !o.apiBase.ends_with('/') || o.apiBase.starts_with("/admin/") ||
      o.apiBase.starts_with("/mac/")) {
    return std::unexpected(
        configError(fmt::format("the API base must start and end with \"/\" and not lie under "
                                "/admin/ or /mac/, found \"{}\"",
                                o.apiBase)));
  }
  if (o.certificateFile.has_value() != o.keyFile.has_value()) {
    return std::unexpected(configError("a certificate needs its key, and a key its certificate"));
  }
  if (o.certificateFile && (o.writeCa || !o.extraNames.empty())) {
    return std::unexpected(configError(
        "writing the CA and extra names need the certificate made here (leave out the certificate and key)"));
  }
  if (o.port < 0 || o.port > 65535) return std::unexpected(configError(fmt::format("no such port {}", o.port)));
  if (o.geoIPCount < 0 || o.geoIPCount > kMaxGeoIPEntries) {
    return std::unexpected(configError(fmt::format("the GeoIP list holds 0 to {} entries", kMaxGeoIPEntries)));
  }
  if (auto faults = faultPlanFrom(o); !faults) return std::unexpected(faults.error());
  for (const auto& name : o.extraNames) {
    if (!isCertificateName(name))
      return std::unexpected(configError(fmt::format("\"{}\" is no host name or address", name)));
  }
  if (!o.smartStatus.is_object()) return std::unexpected(configError("\"smart_status\" must be a JSON object"));
  if (!o.mainPatch.is_null() && !o.mainPatch.is_object())
    return std::unexpected(configError("the main patch must be a JSON object"));
  if (!o.appUpdate.is_null() && !o.appUpdate.is_object())
    return std::unexpected(configError("the update info must be a JSON object"));
  return {};
}

}  // namespace

struct DevBackend::Impl {
  DevBackendOptions options;
  std::unique_ptr<Log> ownLog;
  SystemClock systemClock;
  OpenSslCrypto crypto;
  Log* log = nullptr;
  Clock* clock = nullptr;

  ProvisioningInUse provisioning;
  std::filesystem::path caFile;
  std::filesystem::path stateFile;
  std::unique_ptr<DevBackendService> service;

  std::unique_ptr<httplib::SSLServer> server;
  std::thread thread;
  int port = 0;

  std::mutex mutex;
  std::condition_variable stopping;
  bool stopRequested = false;

  std::expected<void, Error> prepare();
  std::expected<void, Error> listen(const TlsFiles& tls);
  void serve(const httplib::Request& in, httplib::Response& out);
};

std::expected<void, Error> DevBackend::Impl::prepare() {
  const auto& o = options;
  if (auto made = makeDirectories(o.stateDir, 0700); !made) return std::unexpected(made.error());

  auto signer = FeedSigner::loadOrCreate(o.stateDir / "feed_signing_key.pem");
  if (!signer) return std::unexpected(signer.error());
  auto keys = prepareProvisioning(o.stateDir, o.provisioningFile, signer->publicKeyBase64(), crypto);
  if (!keys) return std::unexpected(keys.error());
  provisioning = std::move(*keys);
  if (o.writeProvisioning) {
    if (auto written = writeProvisioning(*o.writeProvisioning, provisioning.provisioning); !written) {
      return std::unexpected(written.error());
    }
  }

  TlsFiles tls;
  if (o.certificateFile) {
    tls = TlsFiles{*o.certificateFile, *o.keyFile, std::nullopt};
  } else {
    auto made = prepareTls(o.stateDir, o.extraNames);
    if (!made) return std::unexpected(made.error());
    tls = std::move(*made);
    caFile = *tls.ca;
    if (o.writeCa) {
      auto pem = readFile(caFile, 1u << 20);
      if (!pem) return std::unexpected(pem.error());
      if (auto written = writeFileAtomically(*o.writeCa, *pem, 0644); !written) return std::unexpected(written.error());
    }
  }

  DevBackendConfig config;
  config.apiBase = o.apiBase;
  config.apiHmacKey = toBytes(provisioning.provisioning.apiHmacKey);
  config.aesKey = provisioning.aesKey;
  if (o.serversFile) {
    auto text = readFile(*o.serversFile, 1u << 20);
    if (!text) return std::unexpected(text.error());
    auto servers = parseServerList(*text);
    if (!servers)
      return std::unexpected(configError(fmt::format("server list {}: {}", o.serversFile->string(), servers.error())));
    config.servers = std::move(*servers);
  } else {
    config.servers = defaultServers();
  }
  auto faults = faultPlanFrom(o);
  if (!faults) return std::unexpected(faults.error());
  config.newDevicesSubscribed = o.newDevicesSubscribed;
  config.smartStatus = o.smartStatus;
  config.linkDomain = o.linkDomain;
  config.mainPatch = o.mainPatch;
  config.appUpdate = o.appUpdate;
  config.geoIPCount = o.geoIPCount;
  config.geoIPCountry = o.geoIPCountry;
  config.clockOffset = o.clockOffset;
  auto feed = feedRelease(o, *signer, provisioning.provisioning);
  if (!feed) return std::unexpected(feed.error());
  config.feed = std::move(*feed);

  stateFile = o.stateDir / "state.json";
  auto store = DeviceStore::open(stateFile);
  if (!store) return std::unexpected(store.error());
  auto made = DevBackendService::create(std::move(config), std::move(*store), std::move(*faults), *clock, crypto, *log);
  if (!made) return std::unexpected(made.error());
  service = std::move(*made);
  return listen(tls);
}

std::expected<void, Error> DevBackend::Impl::listen(const TlsFiles& tls) {
  server = std::make_unique<httplib::SSLServer>(tls.certificate.c_str(), tls.key.c_str());
  if (!server->is_valid()) {
    return std::unexpected(startError(
        fmt::format("the certificate {} or its key {} cannot be used", tls.certificate.string(), tls.key.string())));
  }
  server->new_task_queue = [] { return new httplib::ThreadPool(kWorkerThreads); };
  server->set_payload_max_length(kMaxRequestBytes);
  // An idle kept-alive connection holds a worker until this runs out, and stopping waits for it.
  server->set_keep_alive_timeout(1);
  auto route = [this](const httplib::Request& in, httplib::Response& out) { serve(in, out); };
  server->Get(".*", route);
  server->Post(".*", route);
  server->Put(".*", route);
  server->Patch(".*", route);
  server->Delete(".*", route);
  server->Options(".*", route);

  const auto& host = options.listenAddress;
  if (options.port == 0) {
    port = server->bind_to_any_port(host);
  } else {
    port = server->bind_to_port(host, options.port) ? options.port : -1;
  }
  if (port <= 0) {
    return std::unexpected(
        startError(fmt::format("cannot listen on {} port {} (in use, or no such address)", host, options.port)));
  }
  thread = std::thread([this] { server->listen_after_bind(); });
  // stop() only reaches a server whose accept loop runs.
  while (!server->is_running()) std::this_thread::yield();
  return {};
}

void DevBackend::Impl::serve(const httplib::Request& in, httplib::Response& out) {
  BackendRequest request{in.method, in.path, {}, in.body, in.remote_addr};
  for (const auto& [name, value] : in.headers) request.headers.emplace_back(name, value);
  BackendReply reply = service->handle(request);
  if (reply.delay.count() > 0) {
    std::unique_lock lock(mutex);
    stopping.wait_for(lock, reply.delay, [this] { return stopRequested; });
  }
  out.status = reply.status;
  for (const auto& [name, value] : reply.headers) out.set_header(name, value);
  if (reply.sharedBody) {
    auto body = reply.sharedBody;
    out.set_content_provider(body->size(), reply.contentType,
                             [body](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                               sink.write(body->data() + offset, std::min(length, body->size() - offset));
                               return true;
                             });
  } else {
    out.set_content(reply.body, reply.contentType);
  }
}

std::expected<std::unique_ptr<DevBackend>, Error> DevBackend::start(DevBackendOptions options) {
  // TLS writes to a client that has hung up (one that gave up on a delayed answer) raise SIGPIPE,
  // which by default ends the process; the failed write is reported to the server anyway.
  struct sigaction current {};
  if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) (void)::signal(SIGPIPE, SIG_IGN);
  if (auto checked = checkOptions(options); !checked) return std::unexpected(checked.error());
  auto impl = std::make_unique<Impl>();
  impl->options = std::move(options);
  impl->clock = impl->options.clock ? impl->options.clock : &impl->systemClock;
  if (impl->options.log) {
    impl->log = impl->options.log;
  } else {
    auto log = FileLog::open({});
    if (!log) return std::unexpected(log.error());
    impl->ownLog = std::move(*log);
    impl->log = impl->ownLog.get();
  }
  if (auto prepared = impl->prepare(); !prepared) {
    auto error = prepared.error();
    if (error.domain == "Provisioning") error.domain = kConfigurationErrorDomain;
    return std::unexpected(std::move(error));
  }
  return std::unique_ptr<DevBackend>(new DevBackend(std::move(impl)));
}

DevBackend::DevBackend(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

DevBackend::~DevBackend() { stop(); }

void DevBackend::stop() {
  if (!impl_->thread.joinable()) return;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
  }
  impl_->stopping.notify_all();
  impl_->server->stop();
  impl_->thread.join();
}

int DevBackend::port() const { return impl_->port; }

std::string DevBackend::url(std::string_view path) const {
  std::string host = impl_->options.listenAddress;
  if (host == "0.0.0.0") host = "127.0.0.1";
  if (host == "::") host = "::1";
  if (host.find(':') != std::string::npos) host = "[" + host + "]";
  return fmt::format("https://{}:{}{}", host, impl_->port, path);
}

std::string DevBackend::apiURL() const { return url(impl_->options.apiBase); }
const std::filesystem::path& DevBackend::caFile() const { return impl_->caFile; }
const std::filesystem::path& DevBackend::provisioningFile() const { return impl_->provisioning.file; }
const Provisioning& DevBackend::provisioning() const { return impl_->provisioning.provisioning; }
const std::filesystem::path& DevBackend::stateFile() const { return impl_->stateFile; }
DevBackendService& DevBackend::service() { return *impl_->service; }

}  // namespace norvik::devbackend
