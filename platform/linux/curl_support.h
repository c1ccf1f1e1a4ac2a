#pragma once

#include <curl/curl.h>
#include <expected>
#include <filesystem>
#include <string>

#include "platform/error.h"

namespace norvik::curl_support {

// libcurl's global set-up, once per process, before the first handle.
void initialiseOnce();

// The PEM text of an extra CA file, refused when it holds no certificate.
[[nodiscard]] std::expected<std::string, Error> loadExtraCaPem(const std::filesystem::path& file);

// Makes every TLS context of `curl` trust the certificates of `pem` besides the system's (the
// system store is kept; verification stays on). `pem` must outlive the transfer.
void trustExtraCa(CURL* curl, const std::string& pem);

}  // namespace norvik::curl_support
