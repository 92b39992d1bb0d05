// A second process and threads sharing one connection use one store at the same time: every
// write lands, and a value written by several parties holds one of the written values.
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "registry_test_support.h"

namespace kestor::testing {
namespace {

constexpr char16_t kSharedKey[] = u"Software\\Kestor\\Shared";
constexpr uint32_t kValuesPerWriter = 300;
constexpr uint32_t kSharedValues = 10;

std::u16string OwnName(uint32_t writer, uint32_t index) {
    return Utf8ToWide("writer" + std::to_string(writer) + "_value" + std::to_string(index));
}

std::u16string SharedName(uint32_t index) {
    return Utf8ToWide("shared" + std::to_string(index % kSharedValues));
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
        uint32_t value = 0;
        WideString name;
        RegType type = RegType::None;
        std::vector<uint8_t> data;
        failures += key.SetDword(OwnName(writer, i), Written(writer, i)) != RegStatus::Ok;
        failures += key.SetDword(SharedName(i), Written(writer, i)) != RegStatus::Ok;
        failures += key.QueryDword(OwnName(writer, i / 2), value) != RegStatus::Ok ||
                    value != Written(writer, i / 2);
        failures += key.QueryDword(SharedName(i + 3), value) == RegStatus::Ok &&
                    !IsAWrittenValue(value, writers);
        const RegStatus listed = key.EnumValue(i, name, type, data);
        failures += listed != RegStatus::Ok && listed != RegStatus::NoMoreItems;
    }
    return failures;
}

class RegistryConcurrencyTest : public RegistryTest {
protected:
    static void ExpectNothingLost(uint32_t writers) {
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Open(kSharedKey, key), RegStatus::Ok);
        uint32_t subKeys = 0, values = 0;
        ASSERT_EQ(key.QueryInfo(subKeys, values), RegStatus::Ok);
        EXPECT_EQ(values, writers * kValuesPerWriter + kSharedValues);
        for (uint32_t writer = 0; writer < writers; ++writer)
            for (uint32_t i = 0; i < kValuesPerWriter; ++i)
                EXPECT_EQ(Dword(key, OwnName(writer, i)),
                          std::pair(RegStatus::Ok, Written(writer, i)));
        for (uint32_t i = 0; i < kSharedValues; ++i) {
            const auto [status, value] = Dword(key, SharedName(i));
            EXPECT_EQ(status, RegStatus::Ok);
            EXPECT_TRUE(IsAWrittenValue(value, writers)) << value;
            EXPECT_EQ((value & 0xFFFF) % kSharedValues, i) << "written under this very name";
        }
    }
};

TEST_F(RegistryConcurrencyTest, AProcessAndThreadsWritingAtOnceLoseNothing) {
    MustCreate(kSharedKey);           // this process's connection exists before the fork
    constexpr uint32_t kWriters = 4;  // writer 0 is a child process, the others threads here
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(start[1]);
        char go = 0;
        _exit(read(start[0], &go, 1) == 1 && RunWriter(0, kWriters) == 0 ? 0 : 1);
    }
    close(start[0]);
    const bool started = write(start[1], "g", 1) == 1;  // all begin together
    close(start[1]);  // on failure the child sees the end of the pipe and gives up
    std::vector<int> failures(kWriters, 0);
    std::vector<std::thread> threads;
    for (uint32_t t = 1; started && t < kWriters; ++t)
        threads.emplace_back([t, &failures] { failures[t] = RunWriter(t, kWriters); });
    for (std::thread& thread : threads) thread.join();
    int childStatus = 0;
    ASSERT_EQ(waitpid(child, &childStatus, 0), child);
    ASSERT_TRUE(started);
    EXPECT_TRUE(WIFEXITED(childStatus) && WEXITSTATUS(childStatus) == 0) << childStatus;
    for (uint32_t t = 1; t < kWriters; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;

    ExpectNothingLost(kWriters);
    RegistryDatabase::CloseUnused();  // and so does a fresh connection that reads the file anew
    ExpectNothingLost(kWriters);
}

}  // namespace
}  // namespace kestor::testing
