// A second process and threads sharing one connection write to one store at the same time;
// every write lands, and values that several of them overwrite hold one of the written values.
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "registry_test_support.h"

namespace kestor::testing {
namespace {

constexpr char16_t kSharedKey[] = u"Software\\Kestor\\Shared";
constexpr uint32_t kWriters = 4;  // writer 0 is a child process, the others threads here
constexpr uint32_t kValuesPerWriter = 300;
constexpr uint32_t kSharedValues = 10;

std::u16string Name(uint32_t writer, uint32_t i) {
    return Utf8ToWide("writer" + std::to_string(writer) + "_" + std::to_string(i));
}
std::u16string SharedName(uint32_t i) {
    return Utf8ToWide("shared" + std::to_string(i));
}
uint32_t Written(uint32_t writer, uint32_t i) {
    return writer << 16 | i;
}

// Returns the number of failed steps; no test assertions, as it also runs in a child.
int RunWriter(uint32_t writer) {
    RegistryKey key;
    if (RegistryKey::Open(kSharedKey, key) != RegStatus::Ok) return 1;
    int failures = 0;
    for (uint32_t i = 0; i < kValuesPerWriter; ++i) {
        uint32_t value = 0;
        failures += key.SetDword(Name(writer, i), Written(writer, i)) != RegStatus::Ok;
        failures += key.SetDword(SharedName(i % kSharedValues), i) != RegStatus::Ok;
        failures += key.QueryDword(Name(writer, i / 2), value) != RegStatus::Ok ||
                    value != Written(writer, i / 2);
    }
    return failures;
}

class RegistryConcurrencyTest : public RegistryTest {
protected:
    static void ExpectNothingLost() {
        RegistryKey key;
        ASSERT_EQ(RegistryKey::Open(kSharedKey, key), RegStatus::Ok);
        uint32_t subKeys = 0, values = 0;
        ASSERT_EQ(key.QueryInfo(subKeys, values), RegStatus::Ok);
        EXPECT_EQ(values, kWriters * kValuesPerWriter + kSharedValues);
        for (uint32_t writer = 0; writer < kWriters; ++writer)
            for (uint32_t i = 0; i < kValuesPerWriter; ++i)
                EXPECT_EQ(Dword(key, Name(writer, i)),
                          std::pair(RegStatus::Ok, Written(writer, i)));
        for (uint32_t i = 0; i < kSharedValues; ++i) {
            const auto [status, value] = Dword(key, SharedName(i));
            EXPECT_TRUE(status == RegStatus::Ok && value % kSharedValues == i) << value;
        }
    }
};

TEST_F(RegistryConcurrencyTest, AProcessAndThreadsWritingAtOnceLoseNothing) {
    MustCreate(kSharedKey);  // this process's connection exists before the fork
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(start[1]);
        char go = 0;
        _exit(read(start[0], &go, 1) == 1 && RunWriter(0) == 0 ? 0 : 1);
    }
    close(start[0]);
    const bool started = write(start[1], "g", 1) == 1;  // all begin together
    close(start[1]);  // on failure the child sees the end of the pipe and gives up
    std::vector<int> failures(kWriters, 0);
    std::vector<std::thread> threads;
    for (uint32_t t = 1; started && t < kWriters; ++t)
        threads.emplace_back([t, &failures] { failures[t] = RunWriter(t); });
    for (std::thread& thread : threads) thread.join();
    int childStatus = 0;
    ASSERT_EQ(waitpid(child, &childStatus, 0), child);
    ASSERT_TRUE(started);
    EXPECT_TRUE(WIFEXITED(childStatus) && WEXITSTATUS(childStatus) == 0) << childStatus;
    for (uint32_t t = 1; t < kWriters; ++t) EXPECT_EQ(failures[t], 0) << "thread " << t;

    ExpectNothingLost();
    RegistryDatabase::CloseUnused();  // and so does a fresh connection that reads the file anew
    ExpectNothingLost();
}

}  // namespace
}  // namespace kestor::testing
