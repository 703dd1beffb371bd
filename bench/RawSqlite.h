// Shared by the playlist benchmarks: timing helpers and the "raw" side, a connection of its own
// to the same database with its statements prepared up front, as a program using SQLite
// directly would keep them.
#pragma once

#include <errno.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

[[noreturn]] inline void die(const std::string& what, sqlite3* db = nullptr) {
    std::fprintf(stderr, "%s: %s%s%s\n", program_invocation_short_name, what.c_str(), db ? ": " : "",
                 db ? sqlite3_errmsg(db) : "");
    std::exit(1);
}

inline double millis(Clock::time_point from) {
    return std::chrono::duration<double, std::milli>(Clock::now() - from).count();
}

inline double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

class RawSqlite {
public:
    RawSqlite(const std::string& path, int busyTimeoutMs) {
        if (sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) die("open " + path, m_db);
        sqlite3_busy_timeout(m_db, busyTimeoutMs);
        exec("PRAGMA synchronous=NORMAL;");  // per connection; the store sets the same
    }
    ~RawSqlite() {
        for (sqlite3_stmt* s : m_stmts) sqlite3_finalize(s);
        sqlite3_close(m_db);
    }
    RawSqlite(const RawSqlite&) = delete;
    RawSqlite& operator=(const RawSqlite&) = delete;

    void exec(const char* sql) {
        if (sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) die(sql, m_db);
    }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) die(sql, m_db);
        m_stmts.push_back(s);
        return s;
    }
    // Steps to the end; column 0 of the last row (or -1 when there was none).
    sqlite3_int64 run(sqlite3_stmt* s) {
        sqlite3_int64 v = -1;
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) v = sqlite3_column_int64(s, 0);
        if (rc != SQLITE_DONE) die(sqlite3_sql(s), m_db);
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        return v;
    }
    // A one-off select's column 0 of its last row (or -1).
    sqlite3_int64 value(const char* sql) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(m_db, sql, -1, &s, nullptr) != SQLITE_OK) die(sql, m_db);
        sqlite3_int64 v = -1;
        int rc;
        while ((rc = sqlite3_step(s)) == SQLITE_ROW) v = sqlite3_column_int64(s, 0);
        sqlite3_finalize(s);
        if (rc != SQLITE_DONE) die(sql, m_db);
        return v;
    }
    sqlite3* db() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
    std::vector<sqlite3_stmt*> m_stmts;
};

}  // namespace bench
