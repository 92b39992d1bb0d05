// A prepared SQLite statement that finalizes itself. A failed prepare is remembered and
// reported by the first Step(), so callers check one result per statement.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kestor {

class SqliteStatement {
public:
    SqliteStatement(sqlite3* db, const char* sql);
    ~SqliteStatement();
    SqliteStatement(const SqliteStatement&) = delete;
    SqliteStatement& operator=(const SqliteStatement&) = delete;

    // Parameters are numbered from 1.
    void BindInt(int index, int64_t value);
    void BindText(int index, std::string_view text);
    // An empty blob is bound as a zero-length blob, never as NULL.
    void BindBlob(int index, const void* data, size_t size);

    // SQLITE_ROW, SQLITE_DONE or an error code (the prepare error when preparing failed).
    int Step();

    // Columns are numbered from 0 and valid after Step() returned SQLITE_ROW.
    int64_t ColumnInt(int column) const;
    std::string ColumnText(int column) const;
    std::vector<uint8_t> ColumnBlob(int column) const;

private:
    sqlite3_stmt* statement_ = nullptr;
    int prepareResult_;
};

// Runs SQL that returns no rows; returns the SQLite result code.
int SqliteExecute(sqlite3* db, const char* sql);

}  // namespace kestor
