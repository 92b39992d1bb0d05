// The SQLite connection behind the registry: one per store file and process, shared by every
// open key and serialised by a mutex so that keys may be used from several threads. Every
// access runs in its own transaction; other processes are waited for up to the busy timeout.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Registry.h"

struct sqlite3;

namespace kestor {

class RegistryTransaction;

class RegistryDatabase {
public:
    using Work = std::function<RegStatus(RegistryTransaction&)>;

    // The connection for the store at `file`, opened (creating the file, its folders and the
    // schema when they are missing) and validated on first use. A connection is reused while
    // the file stays the same; a file replaced on disk or a forked child gets a new one.
    static RegStatus Acquire(const std::string& file, std::shared_ptr<RegistryDatabase>& out);
    // Closes the connections that no open key uses any more, which also folds the write-ahead
    // log back into the store file.
    static void CloseUnused();
    // How long a locked store is waited for before an access gives Busy (default 5 s).
    static void SetBusyTimeout(int milliseconds);

    ~RegistryDatabase();
    RegistryDatabase(const RegistryDatabase&) = delete;
    RegistryDatabase& operator=(const RegistryDatabase&) = delete;

    // Runs `work` in a read transaction, which sees one consistent state of the store.
    RegStatus Read(const Work& work);
    // Runs `work` in a write transaction, committed only when `work` returns Ok.
    RegStatus Write(const Work& work);

private:
    RegistryDatabase(sqlite3* db, dev_t device, ino_t inode);
    static RegStatus Open(const std::string& file, std::shared_ptr<RegistryDatabase>& out);
    bool StillMatches(const std::string& file) const;
    RegStatus Run(bool write, const Work& work);

    sqlite3* db_;
    std::mutex mutex_;
    pid_t owner_;
    dev_t device_;
    ino_t inode_;
};

// Status for a SQLite result code; for a failed open `db` tells the system error behind it.
RegStatus RegistryStatusFromSqlite(int result, sqlite3* db);

// Checks that the store has the registry's layout, creating it in a new or empty file.
RegStatus PrepareRegistrySchema(sqlite3* db);

}  // namespace kestor
