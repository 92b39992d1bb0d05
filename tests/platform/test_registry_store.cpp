// The store file behind the registry: where it lives, what survives a reopen, and how damaged
// files, unwritable places and locks held by other processes are reported.
#include <linux/capability.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>
#include <thread>

#include "platform/RegistryLocation.h"
#include "registry_test_support.h"

namespace kestor::testing {
namespace {

namespace fs = std::filesystem;
using RegistryStoreTest = RegistryTest;

void WriteFile(const fs::path& file, const std::vector<uint8_t>& bytes) {
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> ReadFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every way of reaching a store gives `expected`, and no key is opened.
void ExpectStoreRefused(RegStatus expected) {
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Create(u"Software", key), expected);
    EXPECT_EQ(RegistryKey::Open(u"Software", key), expected);
    EXPECT_EQ(RegistryKey::DeleteTree(u"Software"), expected);
    EXPECT_FALSE(key.IsOpen());
}

TEST_F(RegistryStoreTest, LocationComesFromTheEnvironmentAndOpenKeysStayInTheirStore) {
    ScopedEnvironment xdg("XDG_CONFIG_HOME"), home("HOME");
    const std::string base = Folder().string();
    EXPECT_EQ(RegistryFileLocation(), StoreFile());

    unsetenv("KESTOR_REGISTRY");  // the fixture restores it
    xdg.Set(base + "/xdg");
    home.Set(base + "/home");
    RegistryKey key = MustCreate(u"Software\\Kestor");
    EXPECT_TRUE(fs::is_regular_file(base + "/xdg/kestor/registry.db")) << "folders are created";
    for (bool relative : {true, false}) {  // a relative XDG_CONFIG_HOME is ignored
        relative ? xdg.Set("relative/config") : xdg.Unset();
        EXPECT_EQ(RegistryFileLocation(), base + "/home/.config/kestor/registry.db");
    }
    RegistryKey other;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Kestor", other), RegStatus::NotFound) << "new store";
    EXPECT_EQ(key.SetDword(u"Where", 1), RegStatus::Ok);
    xdg.Set(base + "/xdg");
    EXPECT_EQ(Dword(MustCreate(u"Software\\Kestor"), u"Where"), std::pair(RegStatus::Ok, 1u));
}

TEST_F(RegistryStoreTest, ContentSurvivesClosingAndReplacingTheFileStartsAfresh) {
    ASSERT_EQ(MustCreate(u"Software\\Tavlin\\Metadata").SetDword(u"MetadataInfoSize", 4096),
              RegStatus::Ok);
    RegistryDatabase::CloseUnused();  // the next open reads and validates the file again
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(u"software\\tavlin\\metadata", key), RegStatus::Ok);
    EXPECT_EQ(Dword(key, u"MetadataInfoSize"), std::pair(RegStatus::Ok, 4096u));
    key.Close();
    // Removing the file while the process keeps its connection: a new, empty store appears.
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(StoreFile() + suffix);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata", key), RegStatus::NotFound);
    EXPECT_TRUE(fs::exists(StoreFile()));
}

TEST_F(RegistryStoreTest, DamagedOrForeignFilesAreReportedAsCorrupt) {
    std::mt19937 random(42);
    std::vector<uint8_t> garbage(8192);
    for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
    WriteFile(StoreFile(), garbage);
    ExpectStoreRefused(RegStatus::Corrupt);
    EXPECT_EQ(ReadFile(StoreFile()), garbage) << "left untouched";

    const std::string foreign = Folder() / "foreign.db";  // some other program's SQLite file
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(foreign.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE keys(id INTEGER)", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    UseStore(foreign);
    ExpectStoreRefused(RegStatus::Corrupt);

    // A real store spanning many pages, cut short or with a damaged page.
    const std::string good = Folder() / "good.db";
    UseStore(good);
    for (int id = 10; id < 70; ++id)
        ASSERT_EQ(MustCreate(Utf8ToWide("Software\\Tavlin\\Metadata\\" + std::to_string(id)))
                      .SetString(u"Description", std::u16string(100, u'd')),
                  RegStatus::Ok);
    RegistryDatabase::CloseUnused();
    const std::vector<uint8_t> bytes = ReadFile(good);
    ASSERT_GT(bytes.size(), 8192u);
    std::vector<uint8_t> damaged = bytes;
    for (size_t i = 4096; i < 8192; ++i) damaged[i] = static_cast<uint8_t>(random());
    const std::pair<const char*, std::vector<uint8_t>> broken[] = {
        {"truncated.db", {bytes.begin(), bytes.begin() + bytes.size() / 2}},
        {"damaged.db", damaged}};
    RegistryKey key;
    for (const auto& [name, content] : broken) {
        WriteFile(Folder() / name, content);
        UseStore(Folder() / name);
        EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata", key), RegStatus::Corrupt)
            << name;
    }
    UseStore(good);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\69", key), RegStatus::Ok)
        << "the intact original still opens";
}

TEST_F(RegistryStoreTest, UnwritableLocationsAreReportedWithoutCreatingAnything) {
    const fs::path blocker = Folder() / "not-a-folder";  // a regular file where a folder should be
    WriteFile(blocker, {1, 2, 3});
    UseStore(blocker / "kestor" / "registry.db");
    ExpectStoreRefused(RegStatus::IoError);

    // A folder that may not be written, and a store that may only be read.
    const fs::path locked = Folder() / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    const std::string readOnly = Folder() / "read-only.db";
    UseStore(readOnly);
    ASSERT_EQ(MustCreate(u"Software\\Kestor").SetDword(u"Kept", 7), RegStatus::Ok);
    RegistryDatabase::CloseUnused();
    fs::permissions(readOnly, fs::perms::owner_read);

    // Permissions do not bind a privileged process: check in a child without capabilities,
    // which reports the first failed step through its exit code.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        if (syscall(SYS_capset, &header, none) != 0) _exit(10);
        RegistryKey key;
        for (const fs::path& file : {locked / "registry.db", locked / "sub" / "registry.db"}) {
            UseStore(file);
            if (RegistryKey::Create(u"Software", key) != RegStatus::AccessDenied) _exit(11);
        }
        if (fs::exists(locked / "registry.db")) _exit(12);
        UseStore(readOnly);  // reading works, changes are refused
        if (RegistryKey::Create(u"software\\kestor", key) != RegStatus::Ok) _exit(13);
        if (Dword(key, u"Kept") != std::pair(RegStatus::Ok, 7u)) _exit(14);
        if (key.SetDword(u"Kept", 8) != RegStatus::AccessDenied) _exit(15);
        _exit(RegistryKey::Create(u"Software\\Other", key) == RegStatus::AccessDenied ? 0 : 16);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "step " << WEXITSTATUS(status);
    fs::permissions(locked, fs::perms::owner_all);
}

TEST_F(RegistryStoreTest, ALockedStoreIsWaitedForAndReportsBusyAfterTheTimeout) {
    struct DefaultTimeoutAfterwards {
        ~DefaultTimeoutAfterwards() { RegistryDatabase::SetBusyTimeout(5000); }
    } restore;
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata");
    ASSERT_EQ(key.SetDword(u"Dynamic", 0), RegStatus::Ok);
    sqlite3* other = nullptr;  // another process's connection holding the write lock
    ASSERT_EQ(sqlite3_open(StoreFile().c_str(), &other), SQLITE_OK);
    auto run = [other](const char* sql) {
        return sqlite3_exec(other, sql, nullptr, nullptr, nullptr);
    };

    RegistryDatabase::SetBusyTimeout(50);
    ASSERT_EQ(run("BEGIN IMMEDIATE"), SQLITE_OK);
    EXPECT_EQ(key.SetDword(u"Dynamic", 1), RegStatus::Busy);
    RegistryKey created;
    EXPECT_EQ(key.CreateSubKey(u"0000000001", created), RegStatus::Busy);
    EXPECT_EQ(Dword(key, u"Dynamic"), std::pair(RegStatus::Ok, 0u)) << "readers are not blocked";
    ASSERT_EQ(run("COMMIT"), SQLITE_OK);

    // A write waits until the other writer is done (the generous timeout only keeps a broken
    // build from hanging).
    RegistryDatabase::SetBusyTimeout(60000);
    ASSERT_EQ(run("BEGIN IMMEDIATE"), SQLITE_OK);
    std::thread releaser([&run] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        EXPECT_EQ(run("COMMIT"), SQLITE_OK);
    });
    EXPECT_EQ(key.SetDword(u"Dynamic", 2), RegStatus::Ok);
    releaser.join();
    EXPECT_EQ(Dword(key, u"Dynamic"), std::pair(RegStatus::Ok, 2u));
    sqlite3_close(other);
}

}  // namespace
}  // namespace kestor::testing
