// Host tern::ICacheService: every store is a slice of one SQLite table
// kv(store, key, value) in one WAL database file shared by all processes.
#include "tern/cache_service.h"
#include "tern/host_config.h"

#include <sqlite3.h>

#include <mutex>
#include <utility>

#include "common/host_env.h"
#include "hilog/log.h"

namespace tern {
namespace {

constexpr char kTag[] = "tern/cache_service";

class Statement {
 public:
  Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* get() const { return stmt_; }
  void bind(int index, const std::string& text) {
    sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// One connection for the process, serialised by a mutex. Opened on first
// use; a failed open is retried on the next operation, so a database that was
// locked or replaced recovers without a restart.
class Database {
 public:
  static Database& instance() {
    static Database* db = new Database();  // used by stores that outlive statics
    return *db;
  }

  void use(const std::string& path, int busyTimeoutMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    close();
    path_ = path;
    busyTimeoutMs_ = busyTimeoutMs;
  }

  std::optional<std::string> get(const std::string& store, const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open())
      return std::nullopt;
    Statement stmt(db_, "SELECT value FROM kv WHERE store = ?1 AND key = ?2");
    if (!stmt.get())
      return fail("read", store, key), std::nullopt;
    stmt.bind(1, store);
    stmt.bind(2, key);
    int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_ROW) {
      const char* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt.get(), 0));
      int size = sqlite3_column_bytes(stmt.get(), 0);
      return std::string(text ? text : "", static_cast<size_t>(size));
    }
    if (rc != SQLITE_DONE)
      fail("read", store, key);
    return std::nullopt;
  }

  bool put(const std::string& store, const std::string& key, const std::string& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open())
      return false;
    Statement stmt(db_, "INSERT OR REPLACE INTO kv (store, key, value) VALUES (?1, ?2, ?3)");
    if (!stmt.get())
      return fail("write", store, key), false;
    stmt.bind(1, store);
    stmt.bind(2, key);
    stmt.bind(3, value);
    if (sqlite3_step(stmt.get()) != SQLITE_DONE)
      return fail("write", store, key), false;
    return true;
  }

  bool remove(const std::string& store, const std::string& key) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!open())
      return false;
    Statement stmt(db_, "DELETE FROM kv WHERE store = ?1 AND key = ?2");
    if (!stmt.get())
      return fail("delete", store, key), false;
    stmt.bind(1, store);
    stmt.bind(2, key);
    if (sqlite3_step(stmt.get()) != SQLITE_DONE)
      return fail("delete", store, key), false;
    return true;
  }

 private:
  Database() = default;

  bool open() {
    if (db_)
      return true;
    if (path_.empty())
      path_ = host::dataDir() + "/store.db";
    host::makeDirs(host::dirName(path_));
    int rc =
        sqlite3_open_v2(path_.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc == SQLITE_OK) {
      sqlite3_busy_timeout(db_, busyTimeoutMs_);
      rc = sqlite3_exec(db_,
                        "PRAGMA journal_mode=WAL;"
                        "PRAGMA synchronous=NORMAL;"
                        "CREATE TABLE IF NOT EXISTS kv (store TEXT NOT NULL, key TEXT NOT NULL,"
                        " value TEXT NOT NULL, PRIMARY KEY (store, key)) WITHOUT ROWID;",
                        nullptr, nullptr, nullptr);
    }
    if (rc != SQLITE_OK) {
      OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag,
                   "cannot open store %{public}s: %{public}s; values read as absent and writes "
                   "fail until the file is usable (remove it if it is corrupt)",
                   path_.c_str(), db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
      close();
      return false;
    }
    return true;
  }

  void close() {
    if (db_)
      sqlite3_close_v2(db_);
    db_ = nullptr;
  }

  void fail(const char* what, const std::string& store, const std::string& key) {
    OH_LOG_Print(LOG_APP, LOG_ERROR, 0, kTag, "%{public}s %{public}s/%{public}s failed: %{public}s",
                 what, store.c_str(), key.c_str(), sqlite3_errmsg(db_));
    // A corrupt or replaced file: reopen next time rather than keep a bad handle.
    int code = sqlite3_errcode(db_);
    if (code == SQLITE_NOTADB || code == SQLITE_CORRUPT || code == SQLITE_IOERR)
      close();
  }

  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  std::string path_;
  int busyTimeoutMs_ = 2000;
};

class SqliteCacheService : public ICacheService {
 public:
  explicit SqliteCacheService(std::string name) : name_(std::move(name)) {}

  std::optional<std::string> get(const std::string& key) override {
    return Database::instance().get(name_, key);
  }
  bool put(const std::string& key, const std::string& value) override {
    return Database::instance().put(name_, key, value);
  }
  bool remove(const std::string& key) override { return Database::instance().remove(name_, key); }

 private:
  std::string name_;
};

}  // namespace

std::shared_ptr<ICacheService> ICacheService::of(const std::string& name) {
  return std::make_shared<SqliteCacheService>(name);
}

void useDatabase(const std::string& path, int busyTimeoutMs) {
  Database::instance().use(path, busyTimeoutMs);
}

}  // namespace tern
