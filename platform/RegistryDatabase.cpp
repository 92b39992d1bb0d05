#include "platform/RegistryDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>

#include "platform/RegistryLocation.h"
#include "platform/RegistryTransaction.h"
#include "platform/SqliteStatement.h"

namespace kestor {

namespace {

std::atomic<int> gBusyTimeoutMs{5000};

struct ConnectionCache {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<RegistryDatabase>> byFile;
};

ConnectionCache& Cache() {
    static ConnectionCache cache;
    return cache;
}

// Rolls back whatever a failed or throwing transaction left open, so the connection stays
// usable for the next one.
class RollbackGuard {
public:
    explicit RollbackGuard(sqlite3* db) : db_(db) {}
    ~RollbackGuard() {
        if (sqlite3_get_autocommit(db_) == 0) SqliteExecute(db_, "ROLLBACK");
    }
    RollbackGuard(const RollbackGuard&) = delete;
    RollbackGuard& operator=(const RollbackGuard&) = delete;

private:
    sqlite3* db_;
};

}  // namespace

RegStatus RegistryStatusFromSqlite(int result, sqlite3* db) {
    switch (result & 0xFF) {
        case SQLITE_OK:
        case SQLITE_ROW:
        case SQLITE_DONE:
            return RegStatus::Ok;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return RegStatus::Busy;
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
        case SQLITE_FORMAT:
        case SQLITE_SCHEMA:
        case SQLITE_MISMATCH:
        case SQLITE_CONSTRAINT:
        case SQLITE_ERROR:  // our statements are fixed, so this means an unexpected layout
            return RegStatus::Corrupt;
        case SQLITE_PERM:
        case SQLITE_READONLY:
        case SQLITE_AUTH:
            return RegStatus::AccessDenied;
        case SQLITE_CANTOPEN: {
            const int error = db == nullptr ? 0 : sqlite3_system_errno(db);
            if (error == EACCES || error == EPERM || error == EROFS) return RegStatus::AccessDenied;
            return RegStatus::IoError;
        }
        default:
            return RegStatus::IoError;
    }
}

RegistryDatabase::RegistryDatabase(sqlite3* db, dev_t device, ino_t inode)
    : db_(db), owner_(getpid()), device_(device), inode_(inode) {}

RegistryDatabase::~RegistryDatabase() {
    // A forked child must not close its parent's connection: SQLite's locks and log belong to
    // the parent. The copy is left alone instead.
    if (owner_ == getpid()) sqlite3_close_v2(db_);
}

RegStatus RegistryDatabase::Acquire(const std::string& file,
                                    std::shared_ptr<RegistryDatabase>& out) {
    out.reset();
    if (file.empty()) return RegStatus::IoError;
    ConnectionCache& cache = Cache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    auto found = cache.byFile.find(file);
    if (found != cache.byFile.end()) {
        if (found->second->StillMatches(file)) {
            out = found->second;
            return RegStatus::Ok;
        }
        cache.byFile.erase(found);  // keys still holding it keep working on the old file
    }
    std::shared_ptr<RegistryDatabase> opened;
    const RegStatus status = Open(file, opened);
    if (status != RegStatus::Ok) return status;
    cache.byFile.emplace(file, opened);
    out = std::move(opened);
    return RegStatus::Ok;
}

void RegistryDatabase::CloseUnused() {
    ConnectionCache& cache = Cache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    std::erase_if(cache.byFile, [](const auto& entry) { return entry.second.use_count() == 1; });
}

void RegistryDatabase::SetBusyTimeout(int milliseconds) {
    gBusyTimeoutMs = milliseconds;
}

RegStatus RegistryDatabase::Open(const std::string& file, std::shared_ptr<RegistryDatabase>& out) {
    RegStatus status = PrepareRegistryFolder(file);
    if (status != RegStatus::Ok) return status;

    sqlite3* db = nullptr;
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(file.c_str(), &db, flags, nullptr);
    if (result != SQLITE_OK) {
        // SQLite retries a failed open read-only, so its last system error hides the cause.
        status = (result & 0xFF) == SQLITE_CANTOPEN ? DiagnoseUnopenableFile(file)
                                                    : RegistryStatusFromSqlite(result, db);
        sqlite3_close_v2(db);
        return status;
    }
    sqlite3_busy_timeout(db, gBusyTimeoutMs);
    // The file may come from anywhere: never run code stored in it.
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);

    status = PrepareRegistrySchema(db);
    struct stat info {};
    if (status == RegStatus::Ok && stat(file.c_str(), &info) != 0) status = RegStatus::IoError;
    if (status != RegStatus::Ok) {
        sqlite3_close_v2(db);
        return status;
    }
    out.reset(new RegistryDatabase(db, info.st_dev, info.st_ino));
    return RegStatus::Ok;
}

bool RegistryDatabase::StillMatches(const std::string& file) const {
    struct stat info {};
    return owner_ == getpid() && stat(file.c_str(), &info) == 0 && info.st_dev == device_ &&
           info.st_ino == inode_;
}

RegStatus RegistryDatabase::Read(const Work& work) {
    return Run(false, work);
}

RegStatus RegistryDatabase::Write(const Work& work) {
    return Run(true, work);
}

RegStatus RegistryDatabase::Run(bool write, const Work& work) {
    std::lock_guard<std::mutex> lock(mutex_);
    sqlite3_busy_timeout(db_, gBusyTimeoutMs);
    // A write takes the write lock up front: upgrading a read transaction later could fail
    // without waiting when another process committed in between.
    const int begun = SqliteExecute(db_, write ? "BEGIN IMMEDIATE" : "BEGIN");
    if (begun != SQLITE_OK) return RegistryStatusFromSqlite(begun, db_);
    RollbackGuard guard(db_);
    RegistryTransaction transaction(db_);
    RegStatus status = work(transaction);
    if (status == RegStatus::Ok) {
        const int committed = SqliteExecute(db_, "COMMIT");
        if (committed != SQLITE_OK) status = RegistryStatusFromSqlite(committed, db_);
    }
    return status;
}

}  // namespace kestor
