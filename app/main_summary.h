#pragma once

#include <string>
#include <string_view>

#include "backend/api_response.h"

namespace norvik::cli {

// A few lines that let a support engineer read a main configuration at a glance: which sections
// came (and where), the key's server, the subscription, the routing codes, GeoIP and the flags.
// `body` is the document as received, to tell where each section was found.
[[nodiscard]] std::string summarizeMainResponse(const APIResponse& response, std::string_view body);

}  // namespace norvik::cli
