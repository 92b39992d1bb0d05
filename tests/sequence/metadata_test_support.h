// Fixture for tests that touch the metadata registry: each test gets its own store file in a
// scratch folder, named through KESTOR_REGISTRY, and the environment is restored afterwards.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>

#include "platform/RegistryDatabase.h"
#include "support/TempDir.h"

namespace kestor::test {

class MetadataStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* previous = getenv("KESTOR_REGISTRY")) previous_ = previous;
        setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    }

    void TearDown() override {
        RegistryDatabase::CloseUnused();
        if (previous_)
            setenv("KESTOR_REGISTRY", previous_->c_str(), 1);
        else
            unsetenv("KESTOR_REGISTRY");
    }

private:
    TempDir folder_{::testing::TempDir()};
    std::optional<std::string> previous_;
};

}  // namespace kestor::test
