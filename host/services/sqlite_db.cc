#include "services/sqlite_db.h"

Status SqliteDb::Open(const std::string& path, std::unique_ptr<SqliteDb>* db) {
    sqlite3* handle = nullptr;
    const int result =
        sqlite3_open_v2(path.c_str(), &handle,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (result != SQLITE_OK) {
        const std::string why = handle != nullptr ? sqlite3_errmsg(handle) : sqlite3_errstr(result);
        sqlite3_close(handle);
        return Status::Error(CACHE_WRITE_FAILED, "cannot open " + path + ": " + why);
    }
    sqlite3_extended_result_codes(handle, 0);
    db->reset(new SqliteDb(handle));
    return Status::Ok();
}

SqliteDb::~SqliteDb() {
    sqlite3_close(db_);
}

int SqliteDb::Exec(const char* sql) {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
}

int SqliteDb::Prepare(const char* sql, std::unique_ptr<SqliteStatement>* statement) {
    sqlite3_stmt* compiled = nullptr;
    const int result =
        sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &compiled, nullptr);
    if (result == SQLITE_OK) statement->reset(new SqliteStatement(compiled));
    return result;
}

int SqliteStatement::Step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return result;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    return result;
}

std::string SqliteStatement::Text(int column) const {
    const void* data = sqlite3_column_blob(statement_, column);
    const int size = sqlite3_column_bytes(statement_, column);
    if (data == nullptr || size <= 0) return std::string();
    return std::string(static_cast<const char*>(data), static_cast<size_t>(size));
}
