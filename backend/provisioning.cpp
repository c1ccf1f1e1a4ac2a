#include "backend/provisioning.h"

#include <cstdlib>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/crypto.h"
#include "platform/files.h"
#include "platform/text.h"

namespace norvik {

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
  const std::pair<const char*, std::string*> fields[] = {
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
  };
  for (const auto& [name, target] : fields) {
    auto it = json.find(name);
    if (it == json.end()) return fail(fmt::format("field \"{}\" is missing", name));
    if (!it->is_string()) return fail(fmt::format("field \"{}\" must be a string", name));
    *target = it->get<std::string>();
  }
  if (auto it = json.find("update_ed25519_public_key"); it != json.end()) {
    constexpr const char* kKeyError =
        "field \"update_ed25519_public_key\" must be the Base64 of a 32-byte Ed25519 public key";
    if (!it->is_string()) return fail(kKeyError);
    const auto key = base64Decode(trimWhitespace(it->get_ref<const std::string&>()));
    if (!key || key->size() != 32) return fail(kKeyError);
    p.updateEd25519PublicKey = std::string(trimWhitespace(it->get_ref<const std::string&>()));
  }
  return p;
}

std::optional<std::filesystem::path> provisioningPath(const std::optional<std::filesystem::path>& explicitPath) {
  if (explicitPath) return explicitPath;
  if (const char* env = std::getenv("NORVIK_PROVISIONING"); env && *env) return std::filesystem::path(env);
  return std::nullopt;
}

}  // namespace norvik
