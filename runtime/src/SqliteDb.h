// A thin RAII layer over the SQLite C API, enough for the cleaner store. Nothing throws;
// every failure is a false / empty result and the connection keeps its last error text.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>

namespace hxruntime::detail {

class SqliteDb;

// One prepared statement. Bind parameters are 1-based, columns 0-based.
class SqliteStmt {
public:
    SqliteStmt(SqliteDb& db, const char* sql);
    ~SqliteStmt();
    SqliteStmt(const SqliteStmt&) = delete;
    SqliteStmt& operator=(const SqliteStmt&) = delete;

    bool ok() const { return stmt_ != nullptr; }
    SqliteStmt& bind(int i, std::int64_t v);
    SqliteStmt& bind(int i, const std::string& v);
    SqliteStmt& bindNull(int i);
    // Steps once: true while a row is available; false at the end or on an error (see failed()).
    bool row();
    // Runs a statement without result rows; true on SQLITE_DONE.
    bool exec();
    bool failed() const { return failed_; }

    std::int64_t i64(int col) const;
    std::string text(int col) const;
    bool isNull(int col) const;

private:
    sqlite3_stmt* stmt_ = nullptr;
    bool failed_ = false;
};

class SqliteDb {
public:
    SqliteDb() = default;
    ~SqliteDb() { close(); }
    SqliteDb(const SqliteDb&) = delete;
    SqliteDb& operator=(const SqliteDb&) = delete;

    // Opens (creating) the database file; busyMs is how long a statement waits for another
    // connection's lock before failing with SQLITE_BUSY.
    bool open(const std::string& path, int busyMs);
    void close();
    bool isOpen() const { return db_ != nullptr; }
    // Runs one or more statements without results.
    bool exec(const char* sql);
    std::int64_t lastInsertId() const;
    int changes() const;
    sqlite3* handle() { return db_; }

private:
    sqlite3* db_ = nullptr;
};

// Holds a write transaction (BEGIN IMMEDIATE: the write lock is taken up front, so two
// writers queue on the busy timeout instead of failing on a lock upgrade). Rolled back
// unless commit() succeeds.
class SqliteWriteTxn {
public:
    explicit SqliteWriteTxn(SqliteDb& db);
    ~SqliteWriteTxn();
    SqliteWriteTxn(const SqliteWriteTxn&) = delete;
    SqliteWriteTxn& operator=(const SqliteWriteTxn&) = delete;
    bool ok() const { return active_; }
    bool commit();

private:
    SqliteDb& db_;
    bool active_ = false;
};

}  // namespace hxruntime::detail
