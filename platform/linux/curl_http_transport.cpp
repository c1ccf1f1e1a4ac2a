#include "platform/linux/curl_http_transport.h"

#include <curl/curl.h>
#include <openssl/x509_vfy.h>

#include <fmt/format.h>

#include "platform/linux/curl_support.h"
#include "platform/text.h"

namespace norvik {

struct CurlHttpTransport::Config {
  std::string extraCaPem;  // empty: the system's store alone
  std::size_t maxResponseBytes = 0;
};

namespace {

struct HttpTransfer {
  const CurlHttpTransport::Config* config;
  HttpResponse response;
  bool tooLarge = false;
};

size_t onHttpBody(char* data, size_t size, size_t count, void* userData) {
  auto* transfer = static_cast<HttpTransfer*>(userData);
  const size_t n = size * count;
  if (transfer->response.body.size() + n > transfer->config->maxResponseBytes) {
    transfer->tooLarge = true;
    return 0;  // aborts the transfer
  }
  transfer->response.body.append(data, n);
  return n;
}

size_t onHttpHeader(char* data, size_t size, size_t count, void* userData) {
  auto* transfer = static_cast<HttpTransfer*>(userData);
  const size_t n = size * count;
  std::string_view line(data, n);
  if (line.starts_with("HTTP/")) {
    transfer->response.headers.clear();  // a new response (after a 100 Continue, say)
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    transfer->response.headers.emplace_back(std::string(trimWhitespace(line.substr(0, colon))),
                                            std::string(trimWhitespace(line.substr(colon + 1))));
  }
  return n;
}

// One easy handle per worker thread, reset between requests so that its connection cache stays.
class ThreadHandle {
 public:
  ~ThreadHandle() {
    if (handle_) curl_easy_cleanup(handle_);
  }
  CURL* get() {
    if (!handle_) {
      handle_ = curl_easy_init();
    } else {
      curl_easy_reset(handle_);
    }
    return handle_;
  }

 private:
  CURL* handle_ = nullptr;
};

struct HeaderList {
  curl_slist* list = nullptr;
  ~HeaderList() { curl_slist_free_all(list); }
  void add(const std::string& line) {
    if (auto* next = curl_slist_append(list, line.c_str())) list = next;
  }
};

NetworkError classify(CURL* curl, CURLcode code, const char* detail, bool tooLarge) {
  NetworkError error = curl_support::classifyFailure(curl, code, detail);
  if (tooLarge) error.message = "response too large";
  return error;
}

HttpResult performRequest(const CurlHttpTransport::Config& config, const HttpRequest& request);

}  // namespace

std::expected<std::unique_ptr<CurlHttpTransport>, Error> CurlHttpTransport::create(EventLoop& loop, Options options) {
  curl_support::initialiseOnce();
  auto config = std::make_shared<Config>();
  config->maxResponseBytes = options.maxResponseBytes;
  if (options.extraCaFile) {
    auto pem = curl_support::loadExtraCaPem(*options.extraCaFile);
    if (!pem) return std::unexpected(pem.error());
    config->extraCaPem = std::move(*pem);
  }
  return std::unique_ptr<CurlHttpTransport>(new CurlHttpTransport(loop, std::move(config)));
}

CurlHttpTransport::CurlHttpTransport(EventLoop& loop, std::shared_ptr<const Config> config)
    : loop_(loop), config_(std::move(config)) {}

void CurlHttpTransport::send(HttpRequest request, HttpCompletion completion) {
  // The worker holds the configuration, not the transport: a request in flight survives it.
  runBlockingThenReply(
      loop_, [config = config_, request = std::move(request)] { return performRequest(*config, request); },
      std::move(completion));
}

HttpResult CurlHttpTransport::perform(const HttpRequest& request) const { return performRequest(*config_, request); }

namespace {

// A handle for one request that must not share connections or resolved names with others.
struct OwnHandle {
  CURL* handle = curl_easy_init();
  ~OwnHandle() {
    if (handle) curl_easy_cleanup(handle);
  }
};

bool needsOwnHandle(const HttpRequest& request) {
  return request.freshConnection || request.interfaceName || !request.pinnedAddresses.empty();
}

HttpResult performRequest(const CurlHttpTransport::Config& config, const HttpRequest& request) {
  static thread_local ThreadHandle threadHandle;
  // Pinned names would stay in a shared handle's name cache, and a pooled connection may have
  // been opened through another interface: such requests get a handle of their own.
  std::optional<OwnHandle> own;
  if (needsOwnHandle(request)) own.emplace();
  CURL* curl = own ? own->handle : threadHandle.get();
  if (!curl) return std::unexpected(NetworkError{NetworkErrorKind::other, "curl_easy_init failed", 0, false});

  HttpTransfer transfer{&config, {}, false};
  char errorText[CURL_ERROR_SIZE] = {};
  HeaderList headers;
  for (const auto& [name, value] : request.headers) headers.add(fmt::format("{}: {}", name, value));
  headers.add("Expect:");  // no 100-continue round trip for small bodies

  curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_support::configureTrust(curl, config.extraCaPem);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");
  const long timeoutMs = static_cast<long>(request.timeout.count());
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
  HeaderList pins;
  for (const auto& entry : request.pinnedAddresses) pins.add(entry);
  if (pins.list) curl_easy_setopt(curl, CURLOPT_RESOLVE, pins.list);
  // "if!" binds to the named interface only, never to an address or host of that name.
  const std::string interface = request.interfaceName ? "if!" + *request.interfaceName : std::string();
  if (request.interfaceName) curl_easy_setopt(curl, CURLOPT_INTERFACE, interface.c_str());
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &onHttpBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &onHttpHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
  if (request.method == "GET") {
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
  } else {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    if (request.method != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  const CURLcode code = curl_easy_perform(curl);
  // The handle keeps pointers to this frame's buffers; drop them before the frame ends.
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  if (pins.list) curl_easy_setopt(curl, CURLOPT_RESOLVE, nullptr);
  if (code != CURLE_OK) return std::unexpected(classify(curl, code, errorText, transfer.tooLarge));

  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  transfer.response.status = static_cast<int>(status);
  return std::move(transfer.response);
}

}  // namespace
}  // namespace norvik
