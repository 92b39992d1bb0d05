#include "platform/RegistryTransaction.h"

#include <sqlite3.h>

#include <algorithm>

#include "platform/RegistryDatabase.h"
#include "platform/SqliteStatement.h"

namespace kestor {

namespace {

// Status of a statement that either finds one row or none.
RegStatus RowStatus(int result, sqlite3* db, RegStatus whenNone) {
    if (result == SQLITE_ROW) return RegStatus::Ok;
    if (result == SQLITE_DONE) return whenNone;
    return RegistryStatusFromSqlite(result, db);
}

RegStatus DoneStatus(int result, sqlite3* db) {
    return result == SQLITE_DONE ? RegStatus::Ok : RegistryStatusFromSqlite(result, db);
}

// Types are 32-bit on Windows; anything else was not written by the registry.
RegStatus TypeFromColumn(int64_t stored, RegType& type) {
    if (stored < 0 || stored > UINT32_MAX) return RegStatus::Corrupt;
    type = static_cast<RegType>(static_cast<uint32_t>(stored));
    return RegStatus::Ok;
}

RegStatus Count(sqlite3* db, const char* sql, int64_t key, uint32_t& count) {
    SqliteStatement statement(db, sql);
    statement.BindInt(1, key);
    const RegStatus status = RowStatus(statement.Step(), db, RegStatus::Corrupt);
    if (status == RegStatus::Ok)
        count = static_cast<uint32_t>(std::min<int64_t>(statement.ColumnInt(0), UINT32_MAX));
    return status;
}

}  // namespace

RegStatus RegistryTransaction::KeyExists(int64_t id) {
    if (id == kRootId) return RegStatus::Ok;
    SqliteStatement statement(db_, "SELECT 1 FROM keys WHERE id = ?1");
    statement.BindInt(1, id);
    return RowStatus(statement.Step(), db_, RegStatus::NotFound);
}

RegStatus RegistryTransaction::FindSubKey(int64_t parent, const std::string& folded, int64_t& id,
                                          std::string& name) {
    SqliteStatement statement(db_, "SELECT id, name FROM keys WHERE parent = ?1 AND folded = ?2");
    statement.BindInt(1, parent);
    statement.BindText(2, folded);
    const RegStatus status = RowStatus(statement.Step(), db_, RegStatus::NotFound);
    if (status == RegStatus::Ok) {
        id = statement.ColumnInt(0);
        name = statement.ColumnText(1);
    }
    return status;
}

RegStatus RegistryTransaction::AddSubKey(int64_t parent, const std::string& name,
                                         const std::string& folded, int64_t& id) {
    SqliteStatement statement(db_, "INSERT INTO keys(parent, name, folded) VALUES(?1, ?2, ?3)");
    statement.BindInt(1, parent);
    statement.BindText(2, name);
    statement.BindText(3, folded);
    const RegStatus status = DoneStatus(statement.Step(), db_);
    if (status == RegStatus::Ok) id = sqlite3_last_insert_rowid(db_);
    return status;
}

RegStatus RegistryTransaction::SubKeyAt(int64_t parent, uint32_t index, std::string& name) {
    SqliteStatement statement(
        db_, "SELECT name FROM keys WHERE parent = ?1 ORDER BY folded LIMIT 1 OFFSET ?2");
    statement.BindInt(1, parent);
    statement.BindInt(2, index);
    const RegStatus status = RowStatus(statement.Step(), db_, RegStatus::NoMoreItems);
    if (status == RegStatus::Ok) name = statement.ColumnText(0);
    return status;
}

RegStatus RegistryTransaction::CountSubKeys(int64_t key, uint32_t& count) {
    return Count(db_, "SELECT count(*) FROM keys WHERE parent = ?1", key, count);
}

RegStatus RegistryTransaction::DeleteTree(int64_t id) {
    // UNION (not UNION ALL) ends the walk even if a damaged file links keys in a cycle.
    static constexpr const char* kDeleteValues =
        "WITH RECURSIVE tree(id) AS (SELECT ?1 UNION SELECT keys.id FROM keys JOIN tree "
        "ON keys.parent = tree.id) DELETE FROM key_values WHERE key IN tree";
    static constexpr const char* kDeleteKeys =
        "WITH RECURSIVE tree(id) AS (SELECT ?1 UNION SELECT keys.id FROM keys JOIN tree "
        "ON keys.parent = tree.id) DELETE FROM keys WHERE id IN tree";
    for (const char* sql : {kDeleteValues, kDeleteKeys}) {
        SqliteStatement statement(db_, sql);
        statement.BindInt(1, id);
        const RegStatus status = DoneStatus(statement.Step(), db_);
        if (status != RegStatus::Ok) return status;
    }
    return RegStatus::Ok;
}

RegStatus RegistryTransaction::FindValue(int64_t key, const std::string& folded, RegType& type,
                                         std::vector<uint8_t>& data) {
    SqliteStatement statement(db_,
                              "SELECT type, data FROM key_values WHERE key = ?1 AND folded = ?2");
    statement.BindInt(1, key);
    statement.BindText(2, folded);
    RegStatus status = RowStatus(statement.Step(), db_, RegStatus::NotFound);
    if (status == RegStatus::Ok) status = TypeFromColumn(statement.ColumnInt(0), type);
    if (status == RegStatus::Ok) data = statement.ColumnBlob(1);
    return status;
}

RegStatus RegistryTransaction::ValueAt(int64_t key, uint32_t index, std::string& name,
                                       RegType& type, std::vector<uint8_t>& data) {
    SqliteStatement statement(db_,
                              "SELECT name, type, data FROM key_values WHERE key = ?1 "
                              "ORDER BY folded LIMIT 1 OFFSET ?2");
    statement.BindInt(1, key);
    statement.BindInt(2, index);
    RegStatus status = RowStatus(statement.Step(), db_, RegStatus::NoMoreItems);
    if (status == RegStatus::Ok) status = TypeFromColumn(statement.ColumnInt(1), type);
    if (status == RegStatus::Ok) {
        name = statement.ColumnText(0);
        data = statement.ColumnBlob(2);
    }
    return status;
}

RegStatus RegistryTransaction::CountValues(int64_t key, uint32_t& count) {
    return Count(db_, "SELECT count(*) FROM key_values WHERE key = ?1", key, count);
}

RegStatus RegistryTransaction::PutValue(int64_t key, const std::string& name,
                                        const std::string& folded, RegType type, const void* data,
                                        uint32_t size) {
    SqliteStatement statement(db_,
                              "INSERT INTO key_values(key, name, folded, type, data) "
                              "VALUES(?1, ?2, ?3, ?4, ?5) ON CONFLICT(key, folded) "
                              "DO UPDATE SET type = excluded.type, data = excluded.data");
    statement.BindInt(1, key);
    statement.BindText(2, name);
    statement.BindText(3, folded);
    statement.BindInt(4, static_cast<uint32_t>(type));
    statement.BindBlob(5, data, size);
    return DoneStatus(statement.Step(), db_);
}

RegStatus RegistryTransaction::RemoveValue(int64_t key, const std::string& folded) {
    SqliteStatement statement(db_, "DELETE FROM key_values WHERE key = ?1 AND folded = ?2");
    statement.BindInt(1, key);
    statement.BindText(2, folded);
    const RegStatus status = DoneStatus(statement.Step(), db_);
    if (status == RegStatus::Ok && sqlite3_changes(db_) == 0) return RegStatus::NotFound;
    return status;
}

}  // namespace kestor
