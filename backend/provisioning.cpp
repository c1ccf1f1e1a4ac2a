#include "backend/provisioning.h"

#include <array>
#include <cstdlib>
#include <type_traits>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/crypto.h"
#include "platform/files.h"
#include "platform/text.h"

namespace norvik {
namespace {

// The file's required fields, for reading and for writing. Works on a const or a mutable object.
template <typename P>
auto requiredFields(P& p) {
  using Field = std::conditional_t<std::is_const_v<P>, const std::string*, std::string*>;
  return std::to_array<std::pair<const char*, Field>>({
      {"hmac_secret_key", &p.hmacSecretKey},
      {"api_hmac_key", &p.apiHmacKey},
      {"hmac_message", &p.hmacMessage},
      {"secondary_hmac_secret_key", &p.secondaryHmacSecretKey},
      {"secondary_hmac_message", &p.secondaryHmacMessage},
      {"payment_hmac_secret_key", &p.paymentHmacSecretKey},
      {"payment_hmac_message", &p.paymentHmacMessage},
      {"support_hmac_secret", &p.supportHmacSecret},
      {"support_hmac_message", &p.supportHmacMessage},
      {"aes_encryption_key", &p.aesEncryptionKey},
  });
}

constexpr const char* kUpdateKeyField = "update_ed25519_public_key";

}  // namespace

std::expected<Provisioning, Error> loadProvisioning(const std::filesystem::path& file) {
  auto fail = [&](std::string detail) {
    return std::unexpected(Error{"Provisioning", 0, fmt::format("provisioning file {}: {}", file.string(), detail)});
  };
  auto text = readFile(file, 1u << 20);
  if (!text) return fail(text.error().message);

  nlohmann::json json;
  try {
    json = nlohmann::json::parse(*text);
  } catch (const nlohmann::json::parse_error& e) {
    // The parser's own message may quote the text around the error, which may be a secret.
    return fail(fmt::format("not valid JSON (at byte {})", e.byte));
  }
  if (!json.is_object()) return fail("not a JSON object");

  Provisioning p;
  for (const auto& [name, target] : requiredFields(p)) {
    auto it = json.find(name);
    if (it == json.end()) return fail(fmt::format("field \"{}\" is missing", name));
    if (!it->is_string()) return fail(fmt::format("field \"{}\" must be a string", name));
    *target = it->get<std::string>();
  }
  if (auto it = json.find(kUpdateKeyField); it != json.end()) {
    constexpr const char* kKeyError =
        "field \"update_ed25519_public_key\" must be the Base64 of a 32-byte Ed25519 public key";
    if (!it->is_string()) return fail(kKeyError);
    const auto key = base64Decode(trimWhitespace(it->get_ref<const std::string&>()));
    if (!key || key->size() != 32) return fail(kKeyError);
    p.updateEd25519PublicKey = std::string(trimWhitespace(it->get_ref<const std::string&>()));
  }
  return p;
}

std::expected<void, Error> writeProvisioning(const std::filesystem::path& file, const Provisioning& p) {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [name, value] : requiredFields(p)) json[name] = *value;
  if (p.updateEd25519PublicKey) json[kUpdateKeyField] = *p.updateEd25519PublicKey;
  if (!file.parent_path().empty()) {
    if (auto made = makeDirectories(file.parent_path(), 0700); !made) return std::unexpected(made.error());
  }
  return writeFileAtomically(file, json.dump(2) + "\n", 0600);
}

std::optional<std::filesystem::path> provisioningPath(const std::optional<std::filesystem::path>& explicitPath) {
  if (explicitPath) return explicitPath;
  if (const char* env = std::getenv("NORVIK_PROVISIONING"); env && *env) return std::filesystem::path(env);
  return std::nullopt;
}

}  // namespace norvik
