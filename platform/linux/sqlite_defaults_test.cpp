#include "platform/linux/sqlite_defaults.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fmt/format.h>

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

// A file that is not a database at all (random bytes where the settings were): set aside beside
// itself, readable only by its user, and the suite starts empty and usable.
TEST_F(SqliteDefaultsTest, AFileThatIsNoDatabaseIsSetAsideAndTheSuiteStartsAfresh) {
  ASSERT_TRUE(makeDirectories(file_.parent_path(), 0700));
  std::string noise(16384, '\0');
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>((i * 7919) % 251);
  ASSERT_TRUE(writeFileAtomically(file_, noise, 0644));

  auto d = open();
  ASSERT_TRUE(d);
  ASSERT_TRUE(d->reset().has_value());
  EXPECT_EQ(d->reset()->store, "settings");
  EXPECT_EQ(d->reset()->recovered, 0u);
  EXPECT_EQ(*readFile(file_.string() + ".damaged"), noise) << "kept as it was found";
  struct stat st {};
  ASSERT_EQ(::stat((file_.string() + ".damaged").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_TRUE(log_.contains("[Defaults] settings повреждены ("));
  EXPECT_TRUE(d->setString("after", "works"));
  EXPECT_EQ(d->stringValue("after"), "works");
}

// A file cut short: whatever rows still read are carried over, and the rest start from nothing.
TEST_F(SqliteDefaultsTest, ATruncatedFileKeepsTheRowsThatStillRead) {
  constexpr int kRows = 300;
  {
    auto d = open();
    for (int i = 0; i < kRows; ++i)
      d->setString(fmt::format("key{:04}", i), std::string(1000, static_cast<char>('a' + i % 26)));
  }
  auto whole = readFile(file_);
  ASSERT_TRUE(whole.has_value());
  ASSERT_GT(whole->size(), 100'000u);
  ASSERT_TRUE(writeFileAtomically(file_, whole->substr(0, whole->size() / 2), 0600));

  auto d = open();
  ASSERT_TRUE(d);
  ASSERT_TRUE(d->reset().has_value());
  const std::size_t recovered = d->reset()->recovered;
  EXPECT_GT(recovered, 0u);
  EXPECT_LT(recovered, static_cast<std::size_t>(kRows));
  EXPECT_EQ(d->stringValue("key0000"), std::string(1000, 'a'));
  EXPECT_TRUE(log_.contains(fmt::format("восстановлено значений: {}", recovered)));
}

// SQLite would wait for ever on a FIFO's header: it is refused and set aside before SQLite sees it.
TEST_F(SqliteDefaultsTest, AFifoInPlaceOfTheFileIsSetAsideWithoutBlocking) {
  ASSERT_TRUE(makeDirectories(file_.parent_path(), 0700));
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  auto d = open();
  ASSERT_TRUE(d);
  ASSERT_TRUE(d->reset().has_value());
  EXPECT_NE(d->reset()->reason.find("not a regular file"), std::string::npos) << d->reset()->reason;
  struct stat st {};
  ASSERT_EQ(::lstat((file_.string() + ".damaged").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

}  // namespace
}  // namespace norvik
