#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/defaults.h"
#include "platform/error.h"
#include "platform/log.h"

struct sqlite3;
struct sqlite3_stmt;

namespace norvik {

// A defaults suite kept in one SQLite database. Each write is one statement, so it is atomic;
// write-ahead logging and a busy time-out let the application, the tunnel helper and the command
// line read and write the same suite at once. Values keep their type (see the `type` column).
class SqliteDefaults final : public Defaults {
 public:
  [[nodiscard]] static std::expected<std::unique_ptr<SqliteDefaults>, Error> open(const std::filesystem::path& file,
                                                                                  Log& log);
  ~SqliteDefaults() override;

  [[nodiscard]] std::optional<DefaultsValue> value(std::string_view key) const override;
  void set(std::string_view key, DefaultsValue value) override;
  void remove(std::string_view key) override;
  using Defaults::set;

 private:
  SqliteDefaults(sqlite3* db, std::filesystem::path file, Log& log);
  [[nodiscard]] std::expected<void, Error> prepare();
  void reportWriteFailure(std::string_view key) const;

  mutable std::mutex mutex_;
  sqlite3* db_;
  std::filesystem::path file_;
  Log& log_;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

}  // namespace norvik
