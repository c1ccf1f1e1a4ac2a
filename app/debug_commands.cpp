#include "app/debug_commands.h"

#include <memory>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

#include "app/app_context.h"
#include "app/main_summary.h"
#include "platform/files.h"
#include "routing/geoip_payload.h"

namespace norvik::cli {
namespace {

struct ApiOptions {
  std::string endpoint;
  std::vector<std::string> params;
};

CommandResult runApi(const GlobalOptions& global, const ApiOptions& options) {
  const Endpoint* endpoint = endpoints::find(options.endpoint);
  if (!endpoint) {
    std::vector<std::string_view> names;
    for (const auto& e : endpoints::kAll) names.push_back(e.name);
    return failure(ExitCode::usage,
                   fmt::format("unknown endpoint \"{}\"; known: {}", options.endpoint, fmt::join(names, ", ")));
  }
  nlohmann::json params = nlohmann::json::object();
  for (const auto& param : options.params) {
    const auto equals = param.find('=');
    if (equals == std::string::npos || equals == 0) {
      return failure(ExitCode::usage, fmt::format("--param {}: expected KEY=VALUE", param));
    }
    params[param.substr(0, equals)] = param.substr(equals + 1);
  }

  auto context = AppContext::open(global);
  if (!context) return std::unexpected(context.error());
  auto backend = (*context)->backend();
  if (!backend) return std::unexpected(backend.error());

  std::optional<NetworkService::BodyResult> answer;
  (*backend)->send(*endpoint, params, [&](NetworkService::BodyResult body) {
    answer = std::move(body);
    (*context)->loop().stop();
  });
  (*context)->runLoop();

  if (!answer->has_value()) {
    const APIError& error = answer->error();
    return failure(ExitCode::failed, fmt::format("{}: {}", error.code, error.message));
  }
  const std::string& body = **answer;
  fmt::print("{}\n", body);
  // Each answer is read as the product reads it, so a body the product would refuse shows the
  // same error here.
  if (endpoint->name == endpoints::kGeoIP.name) {
    auto list = acceptGeoIPPayload(body);
    if (!list) {
      return failure(ExitCode::failed,
                     fmt::format("GeoIP payload rejected ({} bytes, {})", list.error().bytes,
                                 list.error().reason == GeoIPRejection::tooSmall ? "too small" : "JSON without CIDRs"));
    }
    fmt::print("GeoIP: {} CIDRs\n", list->cidrCount);
    return {};
  }
  if (auto error = endpointDecodeError(endpoint->name, body)) {
    return failure(ExitCode::failed, fmt::format("{}: {}", error->code, error->message));
  }
  if (endpoint->name == endpoints::kMain.name) {
    if (auto decoded = decodeAPIResponse(body)) fmt::print("{}", summarizeMainResponse(*decoded, body));
  }
  return {};
}

CommandResult runVendorId(const GlobalOptions& global) {
  auto context = AppContext::open(global);
  if (!context) return std::unexpected(context.error());
  const VendorID id = (*context)->identity().vendorID();
  fmt::print("vendor-id: {}\ntrusted: {}\n", id.identifier, id.trusted);
  return {};
}

CommandResult runSecureStoreLock(const GlobalOptions& global, bool lock) {
  const auto marker = AppPaths::resolve(global.home).secureStore() / "locked";
  if (lock) {
    if (auto made = makeDirectories(marker.parent_path(), 0700); !made)
      return failure(ExitCode::failed, made.error().message);
    if (auto written = writeFileAtomically(marker, "", 0600); !written) {
      return failure(ExitCode::failed, written.error().message);
    }
  } else {
    std::error_code ec;
    std::filesystem::remove(marker, ec);
    if (ec) return failure(ExitCode::failed, fmt::format("{}: {}", marker.string(), ec.message()));
  }
  fmt::print("secure store {}\n", lock ? "locked" : "unlocked");
  return {};
}

}  // namespace

void addDebugCommands(CLI::App& app, const GlobalOptions& global, CommandResult& result) {
  auto* debug = app.add_subcommand("debug", "Tools for engineers");
  debug->require_subcommand(1);

  auto api = std::make_shared<ApiOptions>();
  auto* apiCommand = debug->add_subcommand("api", "Send one signed request and print the answer");
  apiCommand->add_option("endpoint", api->endpoint, "Endpoint name, for example main or getkey")->required();
  apiCommand->add_option("--param", api->params, "Extra body parameter KEY=VALUE (repeatable)");
  apiCommand->callback([&global, &result, api] { result = runApi(global, *api); });

  debug->add_subcommand("vendor-id", "Print the device identifier and whether it is trusted")
      ->callback([&global, &result] { result = runVendorId(global); });

  auto* store = debug->add_subcommand("secure-store", "Lock or unlock the secure item store, as a locked keychain");
  store->require_subcommand(1);
  store->add_subcommand("lock", "Make the store answer as a locked keychain")->callback([&global, &result] {
    result = runSecureStoreLock(global, true);
  });
  store->add_subcommand("unlock", "Open the store again")->callback([&global, &result] {
    result = runSecureStoreLock(global, false);
  });
}

}  // namespace norvik::cli
