#pragma once

#include <curl/curl.h>
#include <expected>
#include <filesystem>
#include <string>

#include "platform/error.h"
#include "platform/http_transport.h"

namespace norvik::curl_support {

// libcurl's global set-up, once per process, before the first handle.
void initialiseOnce();

// The PEM text of an extra CA file, refused when it holds no certificate.
[[nodiscard]] std::expected<std::string, Error> loadExtraCaPem(const std::filesystem::path& file);

// Makes `curl` verify peers against the system's certificates and those of `extraPem` (may be
// empty; must outlive the transfer). The system's certificates are looked up in the hashed
// certificate directory one issuer at a time, as a chain needs them, rather than parsing the whole
// bundle into each handle's store: with one handle per worker thread the parsed bundles alone held
// 4 MB of the agent's memory.
void configureTrust(CURL* curl, const std::string& extraPem);

// What a failed transfer means for the user: timed out, cannot connect, host not found, a server
// certificate that could not be verified (and whether only because it is not valid at this
// device's time), or something else.
[[nodiscard]] NetworkError classifyFailure(CURL* curl, CURLcode code, const char* detail);

}  // namespace norvik::curl_support
