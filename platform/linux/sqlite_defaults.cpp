#include "platform/linux/sqlite_defaults.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <sys/stat.h>

#include "platform/files.h"

namespace norvik {
namespace {

// Stored type tags. The numbers are part of the file format: never renumber.
enum class StoredType : int { boolean = 1, integer = 2, real = 3, text = 4, textArray = 5, data = 6 };

Error sqliteError(sqlite3* db, std::string_view what) {
  return Error{"SQLite", db ? sqlite3_extended_errcode(db) : SQLITE_ERROR,
               fmt::format("{}: {}", what, db ? sqlite3_errmsg(db) : "out of memory")};
}

// Resets a statement whatever way the scope is left.
struct StatementScope {
  sqlite3_stmt* statement;
  ~StatementScope() {
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
  }
};

std::optional<std::vector<std::string>> decodeTextArray(std::string_view text) {
  auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_array()) return std::nullopt;
  std::vector<std::string> out;
  out.reserve(json.size());
  for (const auto& element : json) {
    if (!element.is_string()) return std::nullopt;
    out.push_back(element.get<std::string>());
  }
  return out;
}

}  // namespace

std::expected<std::unique_ptr<SqliteDefaults>, Error> SqliteDefaults::open(const std::filesystem::path& file,
                                                                           Log& log) {
  if (auto made = makeDirectories(file.parent_path(), 0700); !made) return std::unexpected(made.error());
  sqlite3* db = nullptr;
  const int rc =
      sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    auto error = sqliteError(db, fmt::format("open {}", file.string()));
    sqlite3_close(db);
    return std::unexpected(error);
  }
  // Settings are the user's own; the journal files SQLite creates next take the same mode.
  ::chmod(file.c_str(), 0600);
  std::unique_ptr<SqliteDefaults> store(new SqliteDefaults(db, file, log));
  if (auto prepared = store->prepare(); !prepared) return std::unexpected(prepared.error());
  return store;
}

SqliteDefaults::SqliteDefaults(sqlite3* db, std::filesystem::path file, Log& log)
    : db_(db), file_(std::move(file)), log_(log) {}

SqliteDefaults::~SqliteDefaults() {
  sqlite3_finalize(select_);
  sqlite3_finalize(upsert_);
  sqlite3_finalize(delete_);
  sqlite3_close(db_);
}

std::expected<void, Error> SqliteDefaults::prepare() {
  sqlite3_busy_timeout(db_, 5000);
  const char* setup =
      "PRAGMA journal_mode=WAL;"
      "PRAGMA synchronous=NORMAL;"
      "CREATE TABLE IF NOT EXISTS defaults ("
      "  key TEXT PRIMARY KEY NOT NULL,"
      "  type INTEGER NOT NULL,"
      "  value BLOB"
      ");";
  if (sqlite3_exec(db_, setup, nullptr, nullptr, nullptr) != SQLITE_OK) {
    return std::unexpected(sqliteError(db_, fmt::format("prepare {}", file_.string())));
  }
  const struct {
    const char* sql;
    sqlite3_stmt** statement;
  } statements[] = {
      {"SELECT type, value FROM defaults WHERE key = ?1", &select_},
      {"INSERT INTO defaults (key, type, value) VALUES (?1, ?2, ?3) "
       "ON CONFLICT(key) DO UPDATE SET type = excluded.type, value = excluded.value",
       &upsert_},
      {"DELETE FROM defaults WHERE key = ?1", &delete_},
  };
  for (const auto& s : statements) {
    if (sqlite3_prepare_v3(db_, s.sql, -1, SQLITE_PREPARE_PERSISTENT, s.statement, nullptr) != SQLITE_OK) {
      return std::unexpected(sqliteError(db_, "prepare statement"));
    }
  }
  return {};
}

std::optional<DefaultsValue> SqliteDefaults::value(std::string_view key) const {
  std::lock_guard lock(mutex_);
  StatementScope scope{select_};
  sqlite3_bind_text(select_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  if (sqlite3_step(select_) != SQLITE_ROW) return std::nullopt;

  const auto type = static_cast<StoredType>(sqlite3_column_int(select_, 0));
  auto text = [&] {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(select_, 1));
    return std::string(p ? p : "", static_cast<std::size_t>(sqlite3_column_bytes(select_, 1)));
  };
  switch (type) {
    case StoredType::boolean:
      return DefaultsValue{sqlite3_column_int64(select_, 1) != 0};
    case StoredType::integer:
      return DefaultsValue{static_cast<std::int64_t>(sqlite3_column_int64(select_, 1))};
    case StoredType::real:
      return DefaultsValue{sqlite3_column_double(select_, 1)};
    case StoredType::text:
      return DefaultsValue{text()};
    case StoredType::textArray: {
      auto array = decodeTextArray(text());
      if (!array) return std::nullopt;  // damaged row: read as absent, like an unreadable value
      return DefaultsValue{std::move(*array)};
    }
    case StoredType::data: {
      const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(select_, 1));
      const auto n = static_cast<std::size_t>(sqlite3_column_bytes(select_, 1));
      return DefaultsValue{Bytes(p, p + n)};
    }
  }
  return std::nullopt;
}

void SqliteDefaults::set(std::string_view key, DefaultsValue value) {
  std::lock_guard lock(mutex_);
  StatementScope scope{upsert_};
  sqlite3_bind_text(upsert_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  std::string arrayText;
  std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        auto bindType = [&](StoredType t) { sqlite3_bind_int(upsert_, 2, static_cast<int>(t)); };
        if constexpr (std::is_same_v<T, bool>) {
          bindType(StoredType::boolean);
          sqlite3_bind_int64(upsert_, 3, v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          bindType(StoredType::integer);
          sqlite3_bind_int64(upsert_, 3, v);
        } else if constexpr (std::is_same_v<T, double>) {
          bindType(StoredType::real);
          sqlite3_bind_double(upsert_, 3, v);
        } else if constexpr (std::is_same_v<T, std::string>) {
          bindType(StoredType::text);
          sqlite3_bind_text(upsert_, 3, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
        } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
          bindType(StoredType::textArray);
          // Invalid UTF-8 is replaced rather than refused, so that a write never throws.
          arrayText = nlohmann::json(v).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
          sqlite3_bind_text(upsert_, 3, arrayText.data(), static_cast<int>(arrayText.size()), SQLITE_STATIC);
        } else {
          bindType(StoredType::data);
          sqlite3_bind_blob(upsert_, 3, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
        }
      },
      value);
  if (sqlite3_step(upsert_) != SQLITE_DONE) reportWriteFailure(key);
}

void SqliteDefaults::remove(std::string_view key) {
  std::lock_guard lock(mutex_);
  StatementScope scope{delete_};
  sqlite3_bind_text(delete_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  if (sqlite3_step(delete_) != SQLITE_DONE) reportWriteFailure(key);
}

void SqliteDefaults::reportWriteFailure(std::string_view key) const {
  log_.format("[Defaults] запись {} в {} не удалась: {}", key, file_.filename().string(), sqlite3_errmsg(db_));
}

}  // namespace norvik
