#include "backend/provisioning.h"

#include <gtest/gtest.h>

#include <fmt/format.h>

#include "platform/files.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

constexpr const char* kComplete = R"({
  "hmac_secret_key": "k1", "api_hmac_key": "k2", "hmac_message": "m1",
  "secondary_hmac_secret_key": "k3", "secondary_hmac_message": "m2",
  "payment_hmac_secret_key": "k4", "payment_hmac_message": "m3",
  "support_hmac_secret": "k5", "support_hmac_message": "m4",
  "aes_encryption_key": "c2VjcmV0LXRoYXQtbXVzdC1uZXZlci1iZS1wcmludGVk"
})";

class ProvisioningTest : public ::testing::Test {
 protected:
  std::expected<Provisioning, Error> load(std::string_view text) {
    EXPECT_TRUE(writeFileAtomically(file_, text, 0600));
    return loadProvisioning(file_);
  }
  testing::TempDir dir_;
  std::filesystem::path file_ = dir_ / "provisioning.json";
};

TEST_F(ProvisioningTest, ReadsEveryField) {
  auto p = load(kComplete);
  ASSERT_TRUE(p.has_value()) << p.error().message;
  EXPECT_EQ(p->apiHmacKey, "k2");
  EXPECT_EQ(p->supportHmacMessage, "m4");
  EXPECT_EQ(p->aesEncryptionKey, "c2VjcmV0LXRoYXQtbXVzdC1uZXZlci1iZS1wcmludGVk");
}

TEST_F(ProvisioningTest, ErrorsNameTheFileAndTheFieldButNeverAValue) {
  std::string missing = kComplete;
  missing.replace(missing.find("\"api_hmac_key\""), 14, "\"api_key_typo\"");
  auto error = load(missing).error().message;
  EXPECT_NE(error.find(file_.string()), std::string::npos) << error;
  EXPECT_NE(error.find("\"api_hmac_key\" is missing"), std::string::npos) << error;

  std::string wrongType = kComplete;
  wrongType.replace(wrongType.find("\"k2\""), 4, "42");
  EXPECT_NE(load(wrongType).error().message.find("\"api_hmac_key\" must be a string"), std::string::npos);

  std::string broken = kComplete;
  broken.replace(broken.find("\"k5\""), 4, "k5-secret-value");
  error = load(broken).error().message;
  EXPECT_NE(error.find("not valid JSON"), std::string::npos) << error;
  EXPECT_EQ(error.find("secret"), std::string::npos) << "the parser's snippet must not leak: " << error;
}

TEST_F(ProvisioningTest, TheUpdateKeyIsOptionalButMustBeAnEd25519Key) {
  EXPECT_FALSE(load(kComplete)->updateEd25519PublicKey.has_value());

  auto withKey = [](std::string_view value) {
    std::string text = kComplete;
    text.insert(text.rfind('}'), fmt::format(", \"update_ed25519_public_key\": {}", value));
    return text;
  };
  const std::string key = "11qYAYKxCrfVS/7TyWQHOg7hcvPapiMlrwIaaPcHURo=";
  EXPECT_EQ(load(withKey("\"" + key + "\"")).value().updateEd25519PublicKey, key);
  for (std::string_view bad : {"\"c2hvcnQ=\"", "\"not base64\"", "42"}) {
    auto error = load(withKey(bad)).error().message;
    EXPECT_NE(error.find("\"update_ed25519_public_key\" must be the Base64 of a 32-byte Ed25519 public key"),
              std::string::npos)
        << error;
  }
}

TEST_F(ProvisioningTest, AMissingFileIsNamed) {
  auto p = loadProvisioning(dir_ / "absent.json");
  ASSERT_FALSE(p.has_value());
  EXPECT_NE(p.error().message.find("absent.json"), std::string::npos);
}

}  // namespace
}  // namespace norvik
