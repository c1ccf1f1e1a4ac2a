#include "tools/devbackend/device_store.h"

#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "testing/temp_dir.h"
#include "tools/devbackend/server_list.h"

namespace norvik::devbackend {
namespace {

IssuedKey key(std::string server, std::string publicKey, std::string address) {
  return IssuedKey{std::move(server), std::move(publicKey), "psk", std::move(address), 1};
}

class DeviceStoreTest : public ::testing::Test {
 protected:
  testing::TempDir dir_;
  std::filesystem::path file_ = dir_ / "state" / "state.json";
};

TEST_F(DeviceStoreTest, ARoundTripKeepsDevicesAndTheFileIsPrivate) {
  auto store = DeviceStore::open(file_).value();
  Device& device = store.insert("A1B2C3D4-0000-4000-8000-000000000001", Device{10, false, 20, "nl-ams-1", {}, {}, {}});
  store.recordKey(device, "[Interface]\n", key("nl-ams-1", "pub-1", "10.66.1.2"));
  store.serverKeys()["nl-ams-1"] = GeneratedServerKey{"priv", "pub"};
  ASSERT_TRUE(store.save().has_value());

  struct stat info {};
  ASSERT_EQ(::stat(file_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u) << "the file holds the devices' keys";

  auto again = DeviceStore::open(file_).value();
  const Device* read = again.find("A1B2C3D4-0000-4000-8000-000000000001");
  ASSERT_NE(read, nullptr);
  EXPECT_FALSE(read->subscriptionActive);
  EXPECT_EQ(read->subExpireTs, 20);
  EXPECT_EQ(read->keyText, "[Interface]\n");
  EXPECT_EQ(read->currentKey->publicKey, "pub-1");
  EXPECT_EQ(again.serverKeys()["nl-ams-1"].publicKey, "pub");
  EXPECT_EQ(again.peers()["nl-ams-1"][0]["device"], "A1B2C3D4");
}

TEST_F(DeviceStoreTest, AnUnreadableFileIsRefusedByNameAndLeftAlone) {
  ASSERT_TRUE(makeDirectories(file_.parent_path()).has_value());
  const std::string damaged = R"({"format": 1, "devices": {"A1B2C3D4-X": {"created_at": "yesterday"}}})";
  ASSERT_TRUE(writeFileAtomically(file_, damaged).has_value());
  auto store = DeviceStore::open(file_);
  ASSERT_FALSE(store.has_value());
  EXPECT_NE(store.error().message.find(file_.string()), std::string::npos);
  EXPECT_NE(store.error().message.find("devices.A1B2C3D4….created_at"), std::string::npos) << store.error().message;
  EXPECT_EQ(readFile(file_).value(), damaged);

  ASSERT_TRUE(writeFileAtomically(file_, "{\"format\": 1").has_value());
  EXPECT_FALSE(DeviceStore::open(file_).has_value());
  ASSERT_TRUE(writeFileAtomically(file_, R"({"format": 2})").has_value());
  EXPECT_FALSE(DeviceStore::open(file_).has_value()) << "a newer format is not guessed at";
}

TEST_F(DeviceStoreTest, APrefixFindsADeviceOnlyWhenItIsLongAndUnique) {
  auto store = DeviceStore::open(file_).value();
  store.insert("A1B2C3D4-0000-4000-8000-000000000001", {});
  store.insert("A1B2C3D4-1111-4000-8000-000000000002", {});
  store.insert("FFFF0000-0000-4000-8000-000000000003", {});
  EXPECT_EQ(store.resolve("FFFF0000"), "FFFF0000-0000-4000-8000-000000000003");
  EXPECT_EQ(store.resolve("FFFF"), std::nullopt) << "too short";
  EXPECT_EQ(store.resolve("A1B2C3D4"), std::nullopt) << "ambiguous";
  EXPECT_EQ(store.resolve("A1B2C3D4-1"), "A1B2C3D4-1111-4000-8000-000000000002");
}

TEST(ServerListTest, AListIsReadWithDefaultsAndItsErrorsNameTheEntry) {
  auto servers = parseServerList(R"({"servers": [
      {"name": "lab", "endpoint": "10.200.0.1:51820", "address_pool": "10.200.0.0/24"},
      {"name": "lab-2", "endpoint": "[fd00::1]:51820", "location": "Стенд"}]})");
  ASSERT_TRUE(servers.has_value()) << servers.error();
  EXPECT_EQ((*servers)[0].host(), "10.200.0.1");
  EXPECT_EQ((*servers)[0].location, "lab");
  EXPECT_EQ((*servers)[0].allowedIPs, "0.0.0.0/0, ::/0");
  EXPECT_EQ((*servers)[1].location, "Стенд");

  const std::pair<const char*, const char*> bad[] = {
      {R"([{"name": "a"}])", "server 1: \"endpoint\" is missing"},
      {R"([{"name": "a", "endpoint": "host"}])", "found \"host\""},
      {R"([{"name": "a", "endpoint": "h:1"}, {"name": "a", "endpoint": "h:2"}])",
       "server 2: the name \"a\" is used twice"},
      {R"([{"name": "a", "endpoint": "h:1", "public_key": "short"}])", "found \"short\""},
      {R"([{"name": "a", "endpoint": "h:1", "address_pool": "10.0.0.0/31"}])", "found \"10.0.0.0/31\""},
      {R"([{"name": 7, "endpoint": "h:1"}])", "\"name\" must be a string, found 7"},
      {R"([])", "empty"},
  };
  for (const auto& [text, fragment] : bad) {
    auto parsed = parseServerList(text);
    ASSERT_FALSE(parsed.has_value()) << text;
    EXPECT_NE(parsed.error().find(fragment), std::string::npos) << parsed.error();
  }
}

TEST(ServerListTest, APoolHandsOutItsHostsAfterTheServersOwnAddress) {
  auto pool = AddressPool::parse("10.66.1.7/30").value();
  EXPECT_EQ(pool.capacity(), 1u);
  EXPECT_EQ(pool.clientAddress(0), "10.66.1.6") << "the network is 10.66.1.4; .5 is the server's";
  EXPECT_EQ(pool.clientAddress(1), std::nullopt);
  EXPECT_EQ(pool.indexOf("10.66.1.6"), 0u);
  EXPECT_EQ(pool.indexOf("10.66.1.5"), std::nullopt);
}

}  // namespace
}  // namespace norvik::devbackend
