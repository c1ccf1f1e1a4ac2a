#include "backend/endpoints.h"

namespace norvik::endpoints {

const Endpoint* find(std::string_view name) {
  for (const auto& endpoint : kAll) {
    if (endpoint.name == name) return &endpoint;
  }
  return nullptr;
}

}  // namespace norvik::endpoints
