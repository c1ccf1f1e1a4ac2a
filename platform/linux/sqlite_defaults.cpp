#include "platform/linux/sqlite_defaults.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <sys/stat.h>

#include "platform/files.h"

namespace norvik {
namespace {

// Stored type tags. The numbers are part of the file format: never renumber.
enum class StoredType : int { boolean = 1, integer = 2, real = 3, text = 4, textArray = 5, data = 6 };

// The system's own reason where SQLite failed on one (a full disk, no permission, an I/O error),
// else SQLite's.
Error sqliteError(sqlite3* db, std::string_view what) {
  if (!db) return Error{"SQLite", SQLITE_NOMEM, fmt::format("{}: out of memory", what)};
  const int rc = sqlite3_extended_errcode(db);
  const int primary = rc & 0xff;
  const int err = sqlite3_system_errno(db);
  if (primary == SQLITE_FULL) return Error{"POSIX", ENOSPC, fmt::format("{}: {}", what, std::strerror(ENOSPC))};
  if (err != 0 &&
      (primary == SQLITE_IOERR || primary == SQLITE_CANTOPEN || primary == SQLITE_READONLY || primary == SQLITE_PERM)) {
    return Error{"POSIX", err, fmt::format("{}: {}", what, std::strerror(err))};
  }
  return Error{"SQLite", rc, fmt::format("{}: {}", what, sqlite3_errmsg(db))};
}

bool isDamage(int rc) { return (rc & 0xff) == SQLITE_CORRUPT || (rc & 0xff) == SQLITE_NOTADB; }

// One row of a damaged file, as stored.
struct SalvagedRow {
  std::string key;
  int type = 0;
  sqlite3_value* value = nullptr;  // owned
};

// Every row of `file` that still reads, in table order, until the first one that does not. The
// file is opened as immutable: nothing is written to it, no journal is looked for.
std::vector<SalvagedRow> salvageRows(const std::filesystem::path& file) {
  std::vector<SalvagedRow> rows;
  sqlite3* db = nullptr;
  const std::string uri = "file:" + file.string() + "?immutable=1";
  struct stat st {};
  if (::lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return rows;  // a FIFO would block the read
  if (sqlite3_open_v2(uri.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr) == SQLITE_OK) {
    // A file cut short still names its full length in its header; without this SQLite refuses to
    // read any of it. The connection is read-only, so nothing can be written through it.
    sqlite3_exec(db, "PRAGMA writable_schema=ON", nullptr, nullptr, nullptr);
    sqlite3_stmt* select = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT key, type, value FROM defaults", -1, &select, nullptr) == SQLITE_OK) {
      while (sqlite3_step(select) == SQLITE_ROW) {
        const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(select, 0));
        if (!key) continue;
        rows.push_back(
            SalvagedRow{key, sqlite3_column_int(select, 1), sqlite3_value_dup(sqlite3_column_value(select, 2))});
      }
    }
    sqlite3_finalize(select);
  }
  sqlite3_close(db);
  return rows;
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

namespace {

// One attempt at opening the suite: the store, or why not and whether the file is damaged.
struct OpenAttempt {
  std::unique_ptr<SqliteDefaults> store;
  std::optional<Error> error;
  bool damaged = false;
};

}  // namespace

std::expected<std::unique_ptr<SqliteDefaults>, Error> SqliteDefaults::open(const std::filesystem::path& file, Log& log,
                                                                           std::string store) {
  if (auto made = makeDirectories(file.parent_path(), 0700); !made) return std::unexpected(made.error());
  auto attempt = [&]() -> OpenAttempt {
    // SQLite would block reading a FIFO's header, and cannot use anything but a regular file.
    struct stat st {};
    if (::lstat(file.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
      return {nullptr, Error{"POSIX", EINVAL, fmt::format("open {}: not a regular file", file.string())}, true};
    }
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
      auto error = sqliteError(db, fmt::format("open {}", file.string()));
      sqlite3_close(db);
      return {nullptr, error, isDamage(rc)};
    }
    // Settings are the user's own; the journal files SQLite creates next take the same mode.
    ::chmod(file.c_str(), 0600);
    std::unique_ptr<SqliteDefaults> opened(new SqliteDefaults(db, file, log));
    if (auto prepared = opened->prepare(); !prepared) {
      return {nullptr, prepared.error(), prepared.error().domain == "SQLite" && isDamage(prepared.error().code)};
    }
    return {std::move(opened), std::nullopt, false};
  };

  auto first = attempt();
  if (first.store) return std::move(first.store);
  if (!first.damaged) return std::unexpected(*first.error);

  // Damaged: keep it for a person to look at, start afresh with whatever still reads.
  const std::string reason = first.error->message;
  const auto aside = setDamagedFileAside(file);
  if (aside.empty()) return std::unexpected(*first.error);
  std::error_code ignored;
  auto wal = file;
  wal += "-wal";
  auto walAside = aside;
  walAside += "-wal";
  std::filesystem::rename(wal, walAside, ignored);
  auto shm = file;
  shm += "-shm";
  std::filesystem::remove(shm, ignored);
  std::vector<SalvagedRow> rows = salvageRows(aside);

  auto second = attempt();
  std::size_t recovered = 0;
  if (second.store) {
    SqliteDefaults& fresh = *second.store;
    for (const auto& row : rows) {
      StatementScope scope{fresh.upsert_};
      sqlite3_bind_text(fresh.upsert_, 1, row.key.data(), static_cast<int>(row.key.size()), SQLITE_STATIC);
      sqlite3_bind_int(fresh.upsert_, 2, row.type);
      sqlite3_bind_value(fresh.upsert_, 3, row.value);
      if (sqlite3_step(fresh.upsert_) == SQLITE_DONE) ++recovered;
    }
  }
  for (const auto& row : rows) sqlite3_value_free(row.value);
  if (!second.store) return std::unexpected(*second.error);

  log.format("[Defaults] {} повреждены ({}) — файл сохранён как {}, восстановлено значений: {}", store, reason,
             aside.string(), recovered);
  second.store->reset_ = StoreReset{std::move(store), reason, aside, recovered};
  return std::move(second.store);
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
  // A truncated or overwritten file can open and still fail later at any read; look once now.
  sqlite3_stmt* check = nullptr;
  int rc = sqlite3_prepare_v2(db_, "PRAGMA quick_check(1)", -1, &check, nullptr);
  if (rc == SQLITE_OK) rc = sqlite3_step(check);
  std::string verdict = rc == SQLITE_ROW && sqlite3_column_text(check, 0)
                            ? reinterpret_cast<const char*>(sqlite3_column_text(check, 0))
                            : "";
  sqlite3_finalize(check);
  if (rc != SQLITE_ROW) return std::unexpected(sqliteError(db_, fmt::format("check {}", file_.string())));
  if (verdict != "ok") {
    return std::unexpected(Error{"SQLite", SQLITE_CORRUPT, fmt::format("check {}: {}", file_.string(), verdict)});
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

Defaults::WriteResult SqliteDefaults::set(std::string_view key, DefaultsValue value) {
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
  if (sqlite3_step(upsert_) != SQLITE_DONE) return std::unexpected(writeFailure(key));
  return {};
}

Defaults::WriteResult SqliteDefaults::remove(std::string_view key) {
  std::lock_guard lock(mutex_);
  StatementScope scope{delete_};
  sqlite3_bind_text(delete_, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
  if (sqlite3_step(delete_) != SQLITE_DONE) return std::unexpected(writeFailure(key));
  return {};
}

Error SqliteDefaults::writeFailure(std::string_view key) const {
  Error error = sqliteError(db_, fmt::format("запись {} в {} не удалась", key, file_.filename().string()));
  log_.format("[Defaults] {}", error.message);
  return error;
}

}  // namespace norvik
