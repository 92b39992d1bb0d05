// Registry fixture: every test gets its own store file in a fresh scratch folder, named through
// KESTOR_REGISTRY, and the environment is restored afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/Registry.h"
#include "platform/RegistryDatabase.h"
#include "support/TempDir.h"

namespace kestor {

// Failure messages name the status instead of printing its bytes.
inline void PrintTo(RegStatus status, std::ostream* out) {
    *out << RegStatusText(status);
}

namespace testing {

class ScopedEnvironment {
public:
    explicit ScopedEnvironment(const char* name) : name_(name) {
        if (const char* value = getenv(name)) previous_ = value;
    }
    ~ScopedEnvironment() { previous_ ? Set(*previous_) : Unset(); }
    void Set(const std::string& value) const { setenv(name_, value.c_str(), 1); }
    void Unset() const { unsetenv(name_); }

private:
    const char* name_;
    std::optional<std::string> previous_;
};

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override { UseStore(StoreFile()); }
    void TearDown() override { RegistryDatabase::CloseUnused(); }

    void UseStore(const std::string& file) const { registryVariable_.Set(file); }
    const std::filesystem::path& Folder() const { return folder_.Path(); }
    std::string StoreFile() const { return folder_.File("registry.db"); }

    static RegistryKey MustCreate(WideStringView path) {
        RegistryKey key;
        EXPECT_EQ(RegistryKey::Create(path, key), RegStatus::Ok);
        return key;
    }
    // Status and value of a query, for one-line checks.
    static std::pair<RegStatus, uint32_t> Dword(const RegistryKey& key, WideStringView name) {
        uint32_t value = 0;
        const RegStatus status = key.QueryDword(name, value);
        return {status, value};
    }
    static std::pair<RegStatus, WideString> String(const RegistryKey& key, WideStringView name) {
        WideString value;
        const RegStatus status = key.QueryString(name, value);
        return {status, value};
    }
    // All subkey names of `key`, in enumeration order.
    static std::vector<std::u16string> SubKeyNames(const RegistryKey& key) {
        std::vector<std::u16string> names;
        WideString name;
        RegStatus status;
        for (uint32_t i = 0; (status = key.EnumSubKey(i, name)) == RegStatus::Ok; ++i)
            names.push_back(name);
        EXPECT_EQ(status, RegStatus::NoMoreItems);
        return names;
    }

private:
    ::kestor::test::TempDir folder_{std::filesystem::temp_directory_path().string()};
    ScopedEnvironment registryVariable_{"KESTOR_REGISTRY"};
};

}  // namespace testing
}  // namespace kestor
