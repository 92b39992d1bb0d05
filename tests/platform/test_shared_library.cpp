#include <limits.h>
#include <stdlib.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/SharedLibrary.h"

using kestor::SharedLibrary;

TEST(SharedLibrary, LoadsLibcFindsItsSymbolsAndExplainsFailures) {
    SharedLibrary libc;
    ASSERT_TRUE(libc.Open("libc.so.6")) << libc.Error();
    auto strLen = reinterpret_cast<size_t (*)(const char*)>(libc.Symbol("strlen"));
    ASSERT_NE(strLen, nullptr) << libc.Error();
    EXPECT_EQ(strLen("kestor"), 6u);
    EXPECT_EQ(libc.Symbol("kestor_no_such_symbol"), nullptr);
    EXPECT_NE(libc.Error().find("kestor_no_such_symbol"), std::string::npos) << libc.Error();

    SharedLibrary moved = std::move(libc);
    EXPECT_EQ(libc.Symbol("strlen"), nullptr);
    EXPECT_NE(moved.Symbol("strlen"), nullptr);
    moved.Close();

    EXPECT_FALSE(moved.Open("libkestor-missing-driver.so"));
    EXPECT_FALSE(moved.IsOpen());
    EXPECT_NE(moved.Error().find("libkestor-missing-driver.so"), std::string::npos);
    EXPECT_FALSE(moved.Open(""));
    EXPECT_FALSE(moved.Error().empty());
}

TEST(SharedLibrary, ThisLibraryDirectoryIsTheFolderOfTheCode) {
    // The tests link the library's code into the executable itself.
    char executable[PATH_MAX] = {};
    ASSERT_NE(realpath("/proc/self/exe", executable), nullptr);
    const std::string path = executable;
    EXPECT_EQ(kestor::ThisLibraryDirectory(), path.substr(0, path.rfind('/')));
}
