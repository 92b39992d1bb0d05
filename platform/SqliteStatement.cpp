#include "platform/SqliteStatement.h"

#include <sqlite3.h>

namespace kestor {

SqliteStatement::SqliteStatement(sqlite3* db, const char* sql)
    : prepareResult_(sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr)) {
    if (prepareResult_ == SQLITE_OK && statement_ == nullptr) prepareResult_ = SQLITE_MISUSE;
}

SqliteStatement::~SqliteStatement() {
    sqlite3_finalize(statement_);
}

void SqliteStatement::BindInt(int index, int64_t value) {
    if (statement_ != nullptr) sqlite3_bind_int64(statement_, index, value);
}

void SqliteStatement::BindText(int index, std::string_view text) {
    if (statement_ != nullptr)
        sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT,
                            SQLITE_UTF8);
}

void SqliteStatement::BindBlob(int index, const void* data, size_t size) {
    if (statement_ == nullptr) return;
    if (size == 0)
        sqlite3_bind_zeroblob(statement_, index, 0);
    else
        sqlite3_bind_blob64(statement_, index, data, size, SQLITE_TRANSIENT);
}

int SqliteStatement::Step() {
    if (prepareResult_ != SQLITE_OK) return prepareResult_;
    return sqlite3_step(statement_);
}

int64_t SqliteStatement::ColumnInt(int column) const {
    return sqlite3_column_int64(statement_, column);
}

std::string SqliteStatement::ColumnText(int column) const {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    return text == nullptr ? std::string() : std::string(text, static_cast<size_t>(size));
}

std::vector<uint8_t> SqliteStatement::ColumnBlob(int column) const {
    const auto* data = static_cast<const uint8_t*>(sqlite3_column_blob(statement_, column));
    const int size = sqlite3_column_bytes(statement_, column);
    if (data == nullptr || size <= 0) return {};
    return std::vector<uint8_t>(data, data + size);
}

int SqliteExecute(sqlite3* db, const char* sql) {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

}  // namespace kestor
