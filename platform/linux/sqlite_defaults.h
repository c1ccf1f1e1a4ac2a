#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <mutex>

#include "platform/defaults.h"
#include "platform/error.h"
#include "platform/log.h"
#include "platform/store_reset.h"

struct sqlite3;
struct sqlite3_stmt;

namespace norvik {

// A defaults suite kept in one SQLite database. Each write is one statement, so it is atomic;
// write-ahead logging and a busy time-out let the application, the tunnel helper and the command
// line read and write the same suite at once. Values keep their type (see the `type` column).
//
// A file found damaged at open (not a database, failing SQLite's quick check, or not a regular
// file at all) is set aside as "<file>.damaged" and the suite starts afresh with every row that
// could still be read from it; `reset()` tells what happened. Any other failure to open (a full
// disk, no permission) is an error naming the system's reason.
class SqliteDefaults final : public Defaults {
 public:
  // `store` names the suite in log lines and in the reset record ("standard settings").
  [[nodiscard]] static std::expected<std::unique_ptr<SqliteDefaults>, Error> open(const std::filesystem::path& file,
                                                                                  Log& log,
                                                                                  std::string store = "settings");
  ~SqliteDefaults() override;

  [[nodiscard]] std::optional<DefaultsValue> value(std::string_view key) const override;
  WriteResult set(std::string_view key, DefaultsValue value) override;
  WriteResult remove(std::string_view key) override;
  using Defaults::set;

  // What open() had to do to a damaged file, if anything.
  [[nodiscard]] const std::optional<StoreReset>& reset() const { return reset_; }

 private:
  SqliteDefaults(sqlite3* db, std::filesystem::path file, Log& log);
  [[nodiscard]] std::expected<void, Error> prepare();
  [[nodiscard]] Error writeFailure(std::string_view key) const;

  std::optional<StoreReset> reset_;
  mutable std::mutex mutex_;
  sqlite3* db_;
  std::filesystem::path file_;
  Log& log_;
  sqlite3_stmt* select_ = nullptr;
  sqlite3_stmt* upsert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

}  // namespace norvik
