// Several threads and several processes using one store at the same time: every write lands,
// and a value written by several parties holds one of the written values.
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "registry_test_support.h"

namespace kestor::testing {
namespace {

using RegistryConcurrencyTest = RegistryTest;

constexpr char16_t kSharedKey[] = u"Software\\Kestor\\Shared";
constexpr uint32_t kValuesPerWriter = 300;
constexpr uint32_t kSharedValues = 10;

std::u16string OwnName(uint32_t writer, uint32_t index) {
    return u"writer" + Utf8ToWide(std::to_string(writer)) + u"_value" +
           Utf8ToWide(std::to_string(index));
}

std::u16string SharedName(uint32_t index) {
    return u"shared" + Utf8ToWide(std::to_string(index % kSharedValues));
}

uint32_t Written(uint32_t writer, uint32_t index) {
    return writer << 16 | index;
}

bool IsAWrittenValue(uint32_t value, uint32_t writers) {
    return (value >> 16) < writers && (value & 0xFFFF) < kValuesPerWriter;
}

// Writes its own values and overwrites the shared ones, reading back as it goes. Returns the
// number of failed checks; it must not use test assertions because it also runs in a child.
int RunWriter(uint32_t writer, uint32_t writers) {
    int failures = 0;
    RegistryKey key;
    if (RegistryKey::Open(kSharedKey, key) != RegStatus::Ok) return 1;
    for (uint32_t i = 0; i < kValuesPerWriter; ++i) {
        if (key.SetDword(OwnName(writer, i), Written(writer, i)) != RegStatus::Ok) ++failures;
        if (key.SetDword(SharedName(i), Written(writer, i)) != RegStatus::Ok) ++failures;
        uint32_t value = 0;
        if (key.QueryDword(OwnName(writer, i / 2), value) != RegStatus::Ok ||
            value != Written(writer, i / 2))
            ++failures;
        if (key.QueryDword(SharedName(i + 3), value) == RegStatus::Ok &&
            !IsAWrittenValue(value, writers))
            ++failures;
        WideString name;
        RegType type = RegType::None;
        std::vector<uint8_t> data;
        const RegStatus listed = key.EnumValue(i, name, type, data);
        if (listed != RegStatus::Ok && listed != RegStatus::NoMoreItems) ++failures;
    }
    return failures;
}

void ExpectNothingLost(uint32_t writers) {
    RegistryKey key;
    ASSERT_EQ(RegistryKey::Open(kSharedKey, key), RegStatus::Ok);
    uint32_t subKeys = 0;
    uint32_t values = 0;
    ASSERT_EQ(key.QueryInfo(subKeys, values), RegStatus::Ok);
    EXPECT_EQ(values, writers * kValuesPerWriter + kSharedValues);
    for (uint32_t writer = 0; writer < writers; ++writer) {
        for (uint32_t i = 0; i < kValuesPerWriter; ++i) {
            uint32_t value = 0;
            ASSERT_EQ(key.QueryDword(OwnName(writer, i), value), RegStatus::Ok);
            EXPECT_EQ(value, Written(writer, i));
        }
    }
    for (uint32_t i = 0; i < kSharedValues; ++i) {
        uint32_t value = 0;
        ASSERT_EQ(key.QueryDword(SharedName(i), value), RegStatus::Ok);
        EXPECT_TRUE(IsAWrittenValue(value, writers)) << value;
        EXPECT_EQ((value & 0xFFFF) % kSharedValues, i);  // written under this very name
    }
}

TEST_F(RegistryConcurrencyTest, TwoProcessesWritingAtOnceLoseNothing) {
    MustCreate(kSharedKey);  // this process's connection exists before the fork

    int start[2];
    ASSERT_EQ(pipe(start), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(start[1]);
        char go = 0;
        const bool started = read(start[0], &go, 1) == 1;
        _exit(started && RunWriter(1, 2) == 0 ? 0 : 1);
    }
    close(start[0]);
    const bool started = write(start[1], "g", 1) == 1;  // both begin together
    close(start[1]);  // on failure the child sees the end of the pipe and gives up

    const int failures = started ? RunWriter(0, 2) : -1;
    int childStatus = 0;
    ASSERT_EQ(waitpid(child, &childStatus, 0), child);
    ASSERT_TRUE(started);
    EXPECT_EQ(failures, 0);
    ASSERT_TRUE(WIFEXITED(childStatus));
    EXPECT_EQ(WEXITSTATUS(childStatus), 0);

    ExpectNothingLost(2);
    // And so does a fresh connection that reads the file from scratch.
    RegistryDatabase::CloseUnused();
    ExpectNothingLost(2);
}

TEST_F(RegistryConcurrencyTest, ThreadsSharingOneConnectionLoseNothing) {
    MustCreate(kSharedKey);
    constexpr uint32_t kThreads = 4;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &failures] { failures[t] = RunWriter(t, kThreads); });
    for (std::thread& thread : threads) thread.join();
    for (uint32_t t = 0; t < kThreads; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;
    ExpectNothingLost(kThreads);
}

}  // namespace
}  // namespace kestor::testing
