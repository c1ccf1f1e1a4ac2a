#include "platform/linux/sqlite_defaults.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/files.h"
#include "testing/fakes.h"
#include "testing/temp_dir.h"

namespace norvik {
namespace {

class SqliteDefaultsTest : public ::testing::Test {
 protected:
  std::unique_ptr<SqliteDefaults> open() {
    auto store = SqliteDefaults::open(file_, log_);
    EXPECT_TRUE(store.has_value()) << (store ? "" : store.error().message);
    return store ? std::move(*store) : nullptr;
  }

  testing::TempDir dir_;
  std::filesystem::path file_ = dir_ / "defaults" / "suite.sqlite3";
  testing::CapturingLog log_;
};

TEST_F(SqliteDefaultsTest, EveryTypeSurvivesAReopenWithItsType) {
  {
    auto d = open();
    d->setBool("b", false);
    d->setInteger("i", -9'000'000'000'123);
    d->setDouble("d", 1.5);
    d->setString("s", "Умный режим");
    d->setStringArray("a", {"youtube", "", "пример.рф"});
    d->setData("data", Bytes{0, 1, 255});
    d->setString("gone", "x");
    d->remove("gone");
  }
  auto d = open();
  EXPECT_EQ(d->boolValue("b"), false);
  EXPECT_EQ(d->integerValue("i"), -9'000'000'000'123);
  EXPECT_EQ(d->doubleValue("d"), 1.5);
  EXPECT_EQ(d->stringValue("s"), "Умный режим");
  EXPECT_EQ(d->stringArrayValue("a"), (std::vector<std::string>{"youtube", "", "пример.рф"}));
  EXPECT_EQ(std::get<Bytes>(*d->value("data")), (Bytes{0, 1, 255}));
  EXPECT_FALSE(d->contains("gone"));
  EXPECT_FALSE(d->integerValue("b").has_value()) << "a Boolean stays a Boolean";
}

TEST_F(SqliteDefaultsTest, AnOverwriteChangesTheType) {
  auto d = open();
  d->setInteger("k", 1);
  d->setString("k", "now text");
  EXPECT_EQ(d->stringValue("k"), "now text");
  EXPECT_FALSE(d->integerValue("k").has_value());
}

TEST_F(SqliteDefaultsTest, TwoProcessesWritingAtOnceLoseNothing) {
  constexpr int kWrites = 150;
  open();  // create the file before both sides start
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    testing::CapturingLog childLog;
    auto store = SqliteDefaults::open(file_, childLog);
    if (!store) _exit(2);
    for (int i = 0; i < kWrites; ++i) (*store)->setInteger("child." + std::to_string(i), i);
    _exit(childLog.lines().empty() ? 0 : 3);
  }
  auto d = open();
  for (int i = 0; i < kWrites; ++i) d->setInteger("parent." + std::to_string(i), i);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the child saw a failed write";
  for (int i = 0; i < kWrites; ++i) {
    EXPECT_EQ(d->integerValue("child." + std::to_string(i)), i);
    EXPECT_EQ(d->integerValue("parent." + std::to_string(i)), i);
  }
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(SqliteDefaultsTest, ADamagedRowReadsAsAbsent) {
  auto d = open();
  d->setStringArray("list", {"a"});
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(file_.c_str(), &raw), SQLITE_OK);
  sqlite3_exec(raw, "UPDATE defaults SET value = '[1, 2' WHERE key = 'list'", nullptr, nullptr, nullptr);
  sqlite3_close(raw);
  EXPECT_FALSE(d->value("list").has_value());
}

TEST_F(SqliteDefaultsTest, AHomeThatCannotHoldTheStoreIsAClearErrorAtOpen) {
  // A file where the directory should be stops root as well as an ordinary user.
  ASSERT_TRUE(writeFileAtomically(dir_ / "blocked", "x"));
  auto store = SqliteDefaults::open(dir_ / "blocked" / "defaults" / "x.sqlite3", log_);
  ASSERT_FALSE(store.has_value());
  EXPECT_NE(store.error().message.find("blocked"), std::string::npos) << store.error().message;
}

}  // namespace
}  // namespace norvik
