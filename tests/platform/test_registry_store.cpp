// The store file behind the registry: where it lives, what survives a reopen, and how damaged
// files, unwritable places and locks held by other processes are reported.
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "platform/RegistryLocation.h"
#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryStoreTest = RegistryTest;

void WriteFile(const std::string& file, const std::vector<uint8_t>& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> ReadFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Fills a store with enough keys and values to span many pages, then closes it.
void FillStore() {
    RegistryKey metadata;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Tavlin\\Metadata", metadata), RegStatus::Ok);
    for (int id = 0; id < 60; ++id) {
        RegistryKey type;
        const std::u16string name =
            u"00000000" + std::u16string(1, u'0' + id / 10) + std::u16string(1, u'0' + id % 10);
        ASSERT_EQ(metadata.CreateSubKey(name, type), RegStatus::Ok);
        ASSERT_EQ(type.SetString(u"Description", std::u16string(100, u'd')), RegStatus::Ok);
    }
    metadata.Close();
    RegistryDatabase::CloseUnused();
}

TEST_F(RegistryStoreTest, LocationComesFromTheEnvironmentAndFoldersAreCreated) {
    ScopedEnvironment xdg("XDG_CONFIG_HOME");
    ScopedEnvironment home("HOME");
    const std::string base = Folder().string();

    EXPECT_EQ(RegistryFileLocation(), StoreFile());

    unsetenv("KESTOR_REGISTRY");  // the fixture restores it
    xdg.Set(base + "/xdg");
    home.Set(base + "/home");
    EXPECT_EQ(RegistryFileLocation(), base + "/xdg/kestor/registry.db");
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Create(u"Software\\Kestor", key), RegStatus::Ok);
    EXPECT_TRUE(std::filesystem::is_regular_file(base + "/xdg/kestor/registry.db"));

    xdg.Set("relative/config");  // not absolute: ignored
    EXPECT_EQ(RegistryFileLocation(), base + "/home/.config/kestor/registry.db");
    xdg.Unset();
    EXPECT_EQ(RegistryFileLocation(), base + "/home/.config/kestor/registry.db");
    RegistryKey other;
    EXPECT_EQ(RegistryKey::Open(u"Software\\Kestor", other), RegStatus::NotFound);  // new store
    ASSERT_EQ(RegistryKey::Create(u"Software\\Home", other), RegStatus::Ok);
    EXPECT_TRUE(std::filesystem::is_regular_file(base + "/home/.config/kestor/registry.db"));

    // An open key stays with the store it was opened in.
    EXPECT_EQ(key.SetDword(u"Where", 1), RegStatus::Ok);
    xdg.Set(base + "/xdg");
    uint32_t where = 0;
    RegistryKey reopened;
    ASSERT_EQ(RegistryKey::Open(u"Software\\Kestor", reopened), RegStatus::Ok);
    ASSERT_EQ(reopened.QueryDword(u"Where", where), RegStatus::Ok);
    EXPECT_EQ(where, 1u);
}

TEST_F(RegistryStoreTest, ContentSurvivesClosingAndReplacingTheFileStartsAfresh) {
    {
        RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata");
        ASSERT_EQ(key.SetDword(u"MetadataInfoSize", 4096), RegStatus::Ok);
    }
    RegistryDatabase::CloseUnused();  // the next open reads and validates the file again

    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(u"software\\tavlin\\metadata", key), RegStatus::Ok);
    uint32_t size = 0;
    ASSERT_EQ(key.QueryDword(u"MetadataInfoSize", size), RegStatus::Ok);
    EXPECT_EQ(size, 4096u);
    key.Close();

    // Removing the file while the process keeps its connection: a new, empty store appears.
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(StoreFile() + suffix);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata", key), RegStatus::NotFound);
    EXPECT_TRUE(std::filesystem::exists(StoreFile()));
}

TEST_F(RegistryStoreTest, DamagedOrForeignFilesAreReportedAsCorrupt) {
    RegistryKey key;

    // Garbage bytes.
    std::mt19937 random(42);
    std::vector<uint8_t> garbage(8192);
    for (uint8_t& byte : garbage) byte = static_cast<uint8_t>(random());
    WriteFile(StoreFile(), garbage);
    EXPECT_EQ(RegistryKey::Open(u"Software", key), RegStatus::Corrupt);
    EXPECT_EQ(RegistryKey::Create(u"Software", key), RegStatus::Corrupt);
    EXPECT_EQ(RegistryKey::DeleteTree(u"Software"), RegStatus::Corrupt);
    EXPECT_FALSE(key.IsOpen());
    EXPECT_EQ(ReadFile(StoreFile()), garbage);  // left untouched

    // A SQLite file of some other program.
    const std::string foreign = (Folder() / "foreign.db").string();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(foreign.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(
        sqlite3_exec(db, "CREATE TABLE keys(id INTEGER, name TEXT)", nullptr, nullptr, nullptr),
        SQLITE_OK);
    sqlite3_close(db);
    UseStore(foreign);
    EXPECT_EQ(RegistryKey::Create(u"Software", key), RegStatus::Corrupt);

    // A real store cut short, and one with a damaged page in the middle.
    const std::string good = (Folder() / "good.db").string();
    UseStore(good);
    FillStore();
    const std::vector<uint8_t> bytes = ReadFile(good);
    ASSERT_GT(bytes.size(), 8192u);

    const std::string truncated = (Folder() / "truncated.db").string();
    WriteFile(truncated, std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
    UseStore(truncated);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata", key), RegStatus::Corrupt);

    const std::string damaged = (Folder() / "damaged.db").string();
    std::vector<uint8_t> broken = bytes;
    for (size_t i = 4096; i < 8192; ++i) broken[i] = static_cast<uint8_t>(random());
    WriteFile(damaged, broken);
    UseStore(damaged);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata", key), RegStatus::Corrupt);

    // The intact original still opens.
    UseStore(good);
    EXPECT_EQ(RegistryKey::Open(u"Software\\Tavlin\\Metadata\\0000000059", key), RegStatus::Ok);
}

TEST_F(RegistryStoreTest, UnwritableLocationsAreReportedWithoutCreatingAnything) {
    // A regular file where a folder should be.
    const std::filesystem::path blocker = Folder() / "not-a-folder";
    WriteFile(blocker.string(), {1, 2, 3});
    UseStore((blocker / "kestor" / "registry.db").string());
    RegistryKey key;
    EXPECT_EQ(RegistryKey::Create(u"Software", key), RegStatus::IoError);
    EXPECT_EQ(RegistryKey::Open(u"Software", key), RegStatus::IoError);
    EXPECT_EQ(RegistryKey::DeleteTree(u"Software"), RegStatus::IoError);
    EXPECT_FALSE(key.IsOpen());

    // Places the user may not write to (permissions do not bind the superuser).
    if (geteuid() != 0) {
        const std::filesystem::path locked = Folder() / "locked";
        std::filesystem::create_directory(locked);
        std::filesystem::permissions(
            locked, std::filesystem::perms::owner_read | std::filesystem::perms::owner_exec);
        UseStore((locked / "registry.db").string());
        EXPECT_EQ(RegistryKey::Create(u"Software", key), RegStatus::AccessDenied);
        UseStore((locked / "sub" / "registry.db").string());
        EXPECT_EQ(RegistryKey::Create(u"Software", key), RegStatus::AccessDenied);
        EXPECT_FALSE(std::filesystem::exists(locked / "registry.db"));
        std::filesystem::permissions(locked, std::filesystem::perms::owner_all);

        // A store that may only be read: reading and opening work, changes are refused.
        const std::string readOnly = (Folder() / "read-only.db").string();
        UseStore(readOnly);
        ASSERT_EQ(RegistryKey::Create(u"Software\\Kestor", key), RegStatus::Ok);
        ASSERT_EQ(key.SetDword(u"Kept", 7), RegStatus::Ok);
        key.Close();
        RegistryDatabase::CloseUnused();
        std::filesystem::permissions(readOnly, std::filesystem::perms::owner_read);
        ASSERT_EQ(RegistryKey::Create(u"software\\kestor", key), RegStatus::Ok);
        uint32_t kept = 0;
        EXPECT_EQ(key.QueryDword(u"Kept", kept), RegStatus::Ok);
        EXPECT_EQ(kept, 7u);
        EXPECT_EQ(key.SetDword(u"Kept", 8), RegStatus::AccessDenied);
        EXPECT_EQ(RegistryKey::Create(u"Software\\Other", key), RegStatus::AccessDenied);
    }
}

// Holds the store's write lock through a connection of its own, as another process would.
class ForeignWriter {
public:
    explicit ForeignWriter(const std::string& file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &db_), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    ~ForeignWriter() { sqlite3_close(db_); }
    void Release() { EXPECT_EQ(sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK); }

private:
    sqlite3* db_ = nullptr;
};

// Sets the busy timeout for one test and puts the default back afterwards.
class ScopedBusyTimeout {
public:
    explicit ScopedBusyTimeout(int milliseconds) { RegistryDatabase::SetBusyTimeout(milliseconds); }
    ~ScopedBusyTimeout() { RegistryDatabase::SetBusyTimeout(5000); }
};

TEST_F(RegistryStoreTest, ALockedStoreIsWaitedForAndReportsBusyAfterTheTimeout) {
    RegistryKey key = MustCreate(u"Software\\Tavlin\\Metadata");
    ASSERT_EQ(key.SetDword(u"SequenceMetadataDynamic", 0), RegStatus::Ok);

    {
        ScopedBusyTimeout shortWait(50);
        ForeignWriter writer(StoreFile());
        EXPECT_EQ(key.SetDword(u"SequenceMetadataDynamic", 1), RegStatus::Busy);
        RegistryKey created;
        EXPECT_EQ(key.CreateSubKey(u"0000000001", created), RegStatus::Busy);
        // Readers are not blocked by a writer.
        uint32_t value = 9;
        EXPECT_EQ(key.QueryDword(u"SequenceMetadataDynamic", value), RegStatus::Ok);
        EXPECT_EQ(value, 0u);
        writer.Release();
        EXPECT_EQ(key.SetDword(u"SequenceMetadataDynamic", 1), RegStatus::Ok);
    }

    // A write waits until the other writer is done (the generous timeout only keeps a broken
    // build from hanging).
    ScopedBusyTimeout longWait(60000);
    ForeignWriter writer(StoreFile());
    std::thread releaser([&writer] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        writer.Release();
    });
    EXPECT_EQ(key.SetDword(u"SequenceMetadataDynamic", 2), RegStatus::Ok);
    releaser.join();
    uint32_t value = 0;
    ASSERT_EQ(key.QueryDword(u"SequenceMetadataDynamic", value), RegStatus::Ok);
    EXPECT_EQ(value, 2u);
}

TEST_F(RegistryStoreTest, StatusTextsAreDistinct) {
    std::set<std::string> texts;
    for (RegStatus status : {RegStatus::Ok, RegStatus::NotFound, RegStatus::NoMoreItems,
                             RegStatus::InvalidArgument, RegStatus::WrongType, RegStatus::Busy,
                             RegStatus::Corrupt, RegStatus::AccessDenied, RegStatus::IoError})
        texts.insert(RegStatusText(status));
    EXPECT_EQ(texts.size(), 9u);
    EXPECT_STREQ(RegStatusText(static_cast<RegStatus>(99)), "Unknown registry status");
}

}  // namespace
}  // namespace kestor::testing
