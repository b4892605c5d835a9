#include "SqliteDb.h"

namespace hxruntime::detail {

SqliteStmt::SqliteStmt(SqliteDb& db, const char* sql) {
    if (!db.isOpen() || sqlite3_prepare_v2(db.handle(), sql, -1, &stmt_, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt_);
        stmt_ = nullptr;
        failed_ = true;
    }
}

SqliteStmt::~SqliteStmt() { sqlite3_finalize(stmt_); }

SqliteStmt& SqliteStmt::bind(int i, std::int64_t v) {
    if (stmt_ && sqlite3_bind_int64(stmt_, i, v) != SQLITE_OK) failed_ = true;
    return *this;
}

SqliteStmt& SqliteStmt::bind(int i, const std::string& v) {
    if (stmt_ && sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT) != SQLITE_OK)
        failed_ = true;
    return *this;
}

SqliteStmt& SqliteStmt::bindNull(int i) {
    if (stmt_ && sqlite3_bind_null(stmt_, i) != SQLITE_OK) failed_ = true;
    return *this;
}

bool SqliteStmt::row() {
    if (!stmt_ || failed_) return false;
    int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) failed_ = true;
    return false;
}

bool SqliteStmt::exec() {
    if (!stmt_ || failed_) return false;
    int rc = sqlite3_step(stmt_);
    if (rc != SQLITE_DONE) failed_ = true;
    return rc == SQLITE_DONE;
}

std::int64_t SqliteStmt::i64(int col) const { return stmt_ ? sqlite3_column_int64(stmt_, col) : 0; }

std::string SqliteStmt::text(int col) const {
    if (!stmt_) return {};
    const unsigned char* p = sqlite3_column_text(stmt_, col);
    int n = sqlite3_column_bytes(stmt_, col);
    return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

bool SqliteStmt::isNull(int col) const { return !stmt_ || sqlite3_column_type(stmt_, col) == SQLITE_NULL; }

bool SqliteDb::open(const std::string& path, int busyMs) {
    close();
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        close();
        return false;
    }
    sqlite3_busy_timeout(db_, busyMs);
    sqlite3_extended_result_codes(db_, 1);
    return true;
}

void SqliteDb::close() {
    if (db_) sqlite3_close_v2(db_);
    db_ = nullptr;
}

bool SqliteDb::exec(const char* sql) { return db_ && sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK; }

std::int64_t SqliteDb::lastInsertId() const { return db_ ? sqlite3_last_insert_rowid(db_) : 0; }

int SqliteDb::changes() const { return db_ ? sqlite3_changes(db_) : 0; }

SqliteWriteTxn::SqliteWriteTxn(SqliteDb& db) : db_(db) { active_ = db_.exec("BEGIN IMMEDIATE"); }

SqliteWriteTxn::~SqliteWriteTxn() {
    if (active_) db_.exec("ROLLBACK");
}

bool SqliteWriteTxn::commit() {
    if (!active_) return false;
    if (!db_.exec("COMMIT")) return false;  // still active: the destructor rolls back
    active_ = false;
    return true;
}

}  // namespace hxruntime::detail
