// Layout of the store file. Keys form a tree through `parent` (0 is the user's root, which has
// no row); names are kept as created, `folded` holds their upper-case form for lookups and
// ordering. Ids are never reused, so a handle to a deleted key cannot reach a newer one.
#include <sqlite3.h>

#include <string>

#include "platform/RegistryDatabase.h"
#include "platform/SqliteStatement.h"

namespace kestor {

namespace {

constexpr int64_t kApplicationId = 0x4B524547;  // "KREG"
constexpr int64_t kSchemaVersion = 1;

// Written exactly as SQLite keeps them in sqlite_schema, so that validation can compare text.
constexpr const char* kKeysTable =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL, "
    "name TEXT NOT NULL, folded TEXT NOT NULL, UNIQUE(parent, folded))";
constexpr const char* kValuesTable =
    "CREATE TABLE key_values(key INTEGER NOT NULL, name TEXT NOT NULL, folded TEXT NOT NULL, "
    "type INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(key, folded))";

RegStatus QueryInt(sqlite3* db, const char* sql, int64_t& value) {
    SqliteStatement statement(db, sql);
    const int result = statement.Step();
    if (result != SQLITE_ROW) return RegistryStatusFromSqlite(result, db);
    value = statement.ColumnInt(0);
    return RegStatus::Ok;
}

RegStatus IsEmpty(sqlite3* db, bool& empty) {
    int64_t objects = 0;
    int64_t applicationId = 0;
    int64_t version = 0;
    RegStatus status = QueryInt(db, "SELECT count(*) FROM sqlite_schema", objects);
    if (status == RegStatus::Ok) status = QueryInt(db, "PRAGMA application_id", applicationId);
    if (status == RegStatus::Ok) status = QueryInt(db, "PRAGMA user_version", version);
    empty = objects == 0 && applicationId == 0 && version == 0;
    return status;
}

bool IsExpectedObject(const std::string& type, const std::string& name, const std::string& sql) {
    if (type == "table") {
        return (name == "keys" && sql == kKeysTable) ||
               (name == "key_values" && sql == kValuesTable) || name == "sqlite_sequence";
    }
    return type == "index" &&
           (name == "sqlite_autoindex_keys_1" || name == "sqlite_autoindex_key_values_1");
}

RegStatus Validate(sqlite3* db) {
    int64_t applicationId = 0;
    int64_t version = 0;
    RegStatus status = QueryInt(db, "PRAGMA application_id", applicationId);
    if (status == RegStatus::Ok) status = QueryInt(db, "PRAGMA user_version", version);
    if (status != RegStatus::Ok) return status;
    if (applicationId != kApplicationId || version != kSchemaVersion) return RegStatus::Corrupt;

    int tables = 0;
    SqliteStatement objects(db, "SELECT type, name, sql FROM sqlite_schema");
    int result;
    while ((result = objects.Step()) == SQLITE_ROW) {
        if (!IsExpectedObject(objects.ColumnText(0), objects.ColumnText(1), objects.ColumnText(2)))
            return RegStatus::Corrupt;
        const std::string name = objects.ColumnText(1);
        if (name == "keys" || name == "key_values") ++tables;
    }
    if (result != SQLITE_DONE) return RegistryStatusFromSqlite(result, db);
    if (tables != 2) return RegStatus::Corrupt;

    // A damaged or truncated file is refused at once rather than on some later access.
    SqliteStatement check(db, "PRAGMA quick_check(1)");
    result = check.Step();
    if (result != SQLITE_ROW) return RegistryStatusFromSqlite(result, db);
    return check.ColumnText(0) == "ok" ? RegStatus::Ok : RegStatus::Corrupt;
}

RegStatus Create(sqlite3* db) {
    // Another process may be creating the same new file: the write lock decides who does it,
    // the other one validates the result.
    int result = SqliteExecute(db, "BEGIN IMMEDIATE");
    if (result != SQLITE_OK) return RegistryStatusFromSqlite(result, db);
    bool empty = false;
    RegStatus status = IsEmpty(db, empty);
    if (status == RegStatus::Ok && empty) {
        const std::string pragmas = "PRAGMA application_id = " + std::to_string(kApplicationId) +
                                    "; PRAGMA user_version = " + std::to_string(kSchemaVersion);
        result = SqliteExecute(db, kKeysTable);
        if (result == SQLITE_OK) result = SqliteExecute(db, kValuesTable);
        if (result == SQLITE_OK) result = SqliteExecute(db, pragmas.c_str());
        if (result == SQLITE_OK) result = SqliteExecute(db, "COMMIT");
        status = RegistryStatusFromSqlite(result, db);
    }
    if (sqlite3_get_autocommit(db) == 0) SqliteExecute(db, "ROLLBACK");
    if (status == RegStatus::Ok && !empty) status = Validate(db);
    return status;
}

}  // namespace

RegStatus PrepareRegistrySchema(sqlite3* db) {
    bool empty = false;
    RegStatus status = IsEmpty(db, empty);
    if (status == RegStatus::Ok && !empty) status = Validate(db);
    if (status != RegStatus::Ok) return status;

    // Settings are small records: small pages keep a typical store at a few KiB. Only takes
    // effect while the file is still empty.
    if (empty) SqliteExecute(db, "PRAGMA page_size = 1024");
    // Write-ahead logging lets readers in other processes go on while one writes. A file
    // system without shared memory keeps the rollback journal, which works too. NORMAL sync is
    // safe against crashed processes; only a power cut may lose the last changes, as with the
    // lazily flushed Windows registry.
    SqliteExecute(db, "PRAGMA synchronous = NORMAL");
    SqliteExecute(db, "PRAGMA journal_mode = WAL");
    return empty ? Create(db) : RegStatus::Ok;
}

}  // namespace kestor
