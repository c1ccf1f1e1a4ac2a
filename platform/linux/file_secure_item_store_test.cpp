#include "platform/linux/file_secure_item_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

mode_t modeOf(const std::filesystem::path& p) {
  struct stat st {};
  ::stat(p.c_str(), &st);
  return st.st_mode & 0777;
}

class FileSecureItemStoreTest : public ::testing::Test {
 protected:
  testing::TempDir dir_;
  std::filesystem::path storeDir_ = dir_ / "keychain";
  FileSecureItemStore store_{storeDir_};
};

TEST_F(FileSecureItemStoreTest, BehavesLikeAKeychainForGenericPasswords) {
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecItemNotFound);
  EXPECT_EQ(store_.add({"acct", std::nullopt, std::string(kSecAttrAccessibleWhenUnlocked)}, toBytes("secret")),
            errSecSuccess);
  EXPECT_EQ(store_.add({"acct", std::nullopt, std::nullopt}, toBytes("again")), errSecDuplicateItem);

  auto data = store_.copyData({"acct"});
  ASSERT_EQ(data.status, errSecSuccess);
  EXPECT_EQ(*data.value, toBytes("secret"));

  EXPECT_EQ(store_.update({"acct"}, {std::nullopt, std::string(kSecAttrAccessibleAfterFirstUnlock)}), errSecSuccess);
  auto attributes = store_.copyAttributes({"acct"});
  ASSERT_EQ(attributes.status, errSecSuccess);
  EXPECT_EQ(attributes.value->accessible, std::string(kSecAttrAccessibleAfterFirstUnlock));
  EXPECT_EQ(*store_.copyData({"acct"}).value, toBytes("secret")) << "an attribute update keeps the data";

  EXPECT_EQ(store_.update({"other"}, {toBytes("x"), std::nullopt}), errSecItemNotFound);
  EXPECT_EQ(store_.remove({"acct"}), errSecSuccess);
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecItemNotFound);
}

TEST_F(FileSecureItemStoreTest, ItemsAreReadableOnlyByTheirUser) {
  ASSERT_EQ(store_.add({"acct"}, toBytes("secret")), errSecSuccess);
  EXPECT_EQ(modeOf(storeDir_), 0700u);
  EXPECT_EQ(modeOf(storeDir_ / "items.json"), 0600u);
}

TEST_F(FileSecureItemStoreTest, TheLockMarkerLocksEveryOperation) {
  ASSERT_EQ(store_.add({"acct"}, toBytes("secret")), errSecSuccess);
  ASSERT_TRUE(writeFileAtomically(storeDir_ / "locked", ""));
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecInteractionNotAllowed);
  EXPECT_FALSE(store_.copyData({"acct"}).value.has_value());
  EXPECT_EQ(store_.add({"new"}, toBytes("x")), errSecInteractionNotAllowed);
  std::filesystem::remove(storeDir_ / "locked");
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecSuccess);
}

TEST_F(FileSecureItemStoreTest, ADamagedFileIsReportedAndNeverOverwritten) {
  ASSERT_EQ(store_.add({"acct"}, toBytes("secret")), errSecSuccess);
  ASSERT_TRUE(writeFileAtomically(storeDir_ / "items.json", "{\"items\": [", 0600));
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecDecode);
  EXPECT_EQ(store_.add({"new"}, toBytes("x")), errSecDecode);
  EXPECT_EQ(*readFile(storeDir_ / "items.json"), "{\"items\": [") << "what was there is kept for recovery";
}

// At start-up a damaged file is set aside and the store begins empty, so that the identifier can
// come back from its mirror and new items can be written.
TEST_F(FileSecureItemStoreTest, AtStartADamagedFileIsSetAsideAndTheStoreStartsEmpty) {
  ASSERT_EQ(store_.add({"acct"}, toBytes("secret")), errSecSuccess);
  EXPECT_FALSE(store_.setAsideIfDamaged().has_value()) << "a sound file stays";
  ASSERT_TRUE(writeFileAtomically(storeDir_ / "items.json", "{\"items\": [", 0600));

  auto reset = store_.setAsideIfDamaged();
  ASSERT_TRUE(reset.has_value());
  EXPECT_EQ(reset->store, "secure items");
  EXPECT_EQ(reset->setAside, storeDir_ / "items.json.damaged");
  EXPECT_EQ(*readFile(storeDir_ / "items.json.damaged"), "{\"items\": [");
  EXPECT_EQ(store_.copyData({"acct"}).status, errSecItemNotFound);
  EXPECT_EQ(store_.add({"acct"}, toBytes("again")), errSecSuccess);
}

TEST_F(FileSecureItemStoreTest, TwoProcessesAddingAtOnceKeepBothItems) {
  constexpr int kItems = 40;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    FileSecureItemStore other(storeDir_);
    int failures = 0;
    for (int i = 0; i < kItems; ++i)
      failures += other.add({"child." + std::to_string(i)}, toBytes("c")) != errSecSuccess;
    _exit(failures);
  }
  for (int i = 0; i < kItems; ++i) EXPECT_EQ(store_.add({"parent." + std::to_string(i)}, toBytes("p")), errSecSuccess);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  for (int i = 0; i < kItems; ++i) {
    EXPECT_EQ(store_.copyData({"child." + std::to_string(i)}).status, errSecSuccess);
    EXPECT_EQ(store_.copyData({"parent." + std::to_string(i)}).status, errSecSuccess);
  }
}

}  // namespace
}  // namespace norvik
