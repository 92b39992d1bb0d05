// Fixture of the grab module tests: a scratch registry store, the fake grabber installed as
// the grabber manager, captured debug lines, and helpers to read what the module did.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "FakeGrabber.h"
#include "KGrab.h"
#include "platform/RegistryDatabase.h"
#include "support/DebugCapture.h"
#include "support/TempDir.h"

// A module call that must fail and record `code`.
#define EXPECT_GRAB_ERROR(call, code)                        \
    do {                                                     \
        EXPECT_FALSE(call);                                  \
        EXPECT_EQ(Module().GetLastError(), (code)) << #call; \
    } while (0)

namespace kestor::test {

class GrabModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* previous = getenv("KESTOR_REGISTRY")) previousRegistry_ = previous;
        setenv("KESTOR_REGISTRY", folder_.File("registry.db").c_str(), 1);
    }

    void TearDown() override {
        module_.reset();
        FakeGrabber::Uninstall();
        RegistryDatabase::CloseUnused();
        if (previousRegistry_)
            setenv("KESTOR_REGISTRY", previousRegistry_->c_str(), 1);
        else
            unsetenv("KESTOR_REGISTRY");
    }

    // A new module (created after the fake is installed) with error output silenced.
    KGrabModule& Module() {
        if (!module_) {
            module_ = std::make_unique<KGrabModule>();
            module_->SetErrorOutput(false, false, true);
        }
        return *module_;
    }

    // Installs a fake with `config` and loads it as `module` for company "Acme".
    bool LoadFake(const FakeGrabberConfig& config = {},
                  eKSupportedModule module = eKModuleSimulatedCamera) {
        FakeGrabber::Install(config);
        return Module().Load(module, u"Acme", false);
    }

    FakeGrabber& Fake() { return *FakeGrabber::Last(); }

    // Debug lines without the "Kestor: " prefix and the newline.
    std::vector<std::string> TraceLines() const {
        std::vector<std::string> lines;
        for (std::string line : debug_.Lines()) {
            if (line.rfind("Kestor: ", 0) == 0) line = line.substr(8);
            if (!line.empty() && line.back() == '\n') line.pop_back();
            lines.push_back(line);
        }
        return lines;
    }
    int CountLines(const std::string& text) const {
        const std::vector<std::string> lines = TraceLines();
        return static_cast<int>(std::count(lines.begin(), lines.end(), text));
    }

    TempDir folder_{::testing::TempDir()};
    DebugCapture debug_;

private:
    std::unique_ptr<KGrabModule> module_;
    std::optional<std::string> previousRegistry_;
};

}  // namespace kestor::test
