// A small owner of one SQLite connection and its prepared statements.
#ifndef SKARVO_SERVICES_SQLITE_DB_H_
#define SKARVO_SERVICES_SQLITE_DB_H_

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

#include "common/status.h"

class SqliteStatement;

// One connection, closed when the object goes. Not thread safe: its owner
// locks.
class SqliteDb {
  public:
    // Opens, or creates, the database file `path` in *db.
    static Status Open(const std::string& path, std::unique_ptr<SqliteDb>* db);
    ~SqliteDb();

    SqliteDb(const SqliteDb&) = delete;
    SqliteDb& operator=(const SqliteDb&) = delete;

    // Runs statements that return no rows; the SQLite result code.
    int Exec(const char* sql);
    // Compiles `sql` into *statement; the SQLite result code.
    int Prepare(const char* sql, std::unique_ptr<SqliteStatement>* statement);
    // The text of the last failure, for messages.
    std::string Error() const { return sqlite3_errmsg(db_); }
    bool InTransaction() const { return sqlite3_get_autocommit(db_) == 0; }
    sqlite3* Handle() const { return db_; }

  private:
    explicit SqliteDb(sqlite3* db) : db_(db) {}
    sqlite3* const db_;
};

// A prepared statement: bind by position (from 1), Step, read columns (from
// 0). Step resets the statement when it ends, so it can run again.
class SqliteStatement {
  public:
    explicit SqliteStatement(sqlite3_stmt* statement) : statement_(statement) {}
    ~SqliteStatement() { sqlite3_finalize(statement_); }

    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    void Bind(int index, int64_t value) { sqlite3_bind_int64(statement_, index, value); }
    void Bind(int index, const std::string& value) {
        sqlite3_bind_text(statement_, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT);
    }
    void BindBlob(int index, const std::string& value) {
        sqlite3_bind_blob(statement_, index, value.data(), static_cast<int>(value.size()),
                          SQLITE_TRANSIENT);
    }
    void BindNull(int index) { sqlite3_bind_null(statement_, index); }

    // SQLITE_ROW while rows come; otherwise the statement is reset and its
    // bindings cleared, and the result (SQLITE_DONE on success) returned.
    int Step();

    int64_t Int(int column) const { return sqlite3_column_int64(statement_, column); }
    bool IsNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    // Text and blob columns alike.
    std::string Text(int column) const;

  private:
    sqlite3_stmt* const statement_;
};

#endif  // SKARVO_SERVICES_SQLITE_DB_H_
