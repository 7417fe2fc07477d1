#include "base/own_process.h"

#include <csignal>
#include <optional>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

// The process ID that getpid() returns; nullopt: the real one.
std::optional<pid_t> toldProcessId;

int statusOf(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

extern "C" pid_t getpid() noexcept {
    return toldProcessId ? *toldProcessId : static_cast<pid_t>(syscall(SYS_getpid));
}

TEST(OwnProcess, IsCurrentInTheProcessThatCreatedIt) {
    const OwnProcess process;
    EXPECT_TRUE(process.isCurrent());
}

TEST(OwnProcess, IsNotCurrentInAForkedChild) {
    const OwnProcess process;
    const pid_t child = fork();
    if (child == 0) {
        _exit(process.isCurrent() ? 1 : 0);
    }
    EXPECT_EQ(statusOf(child), 0);
    EXPECT_TRUE(process.isCurrent());
}

// The first process of a container has the ID 1, even if another container's first process started it.
TEST(OwnProcess, IsNotCurrentInAChildWithItsParentsProcessId) {
    const OwnProcess process;
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        toldProcessId = parent;
        _exit(getpid() == parent && !process.isCurrent() ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
}

// A child can be created without fork().
TEST(OwnProcess, IsNotCurrentInAChildCreatedByTheSystemCall) {
    const OwnProcess process;
    const pid_t parent = getpid();
    const auto child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, nullptr));
    if (child == 0) {
        toldProcessId = parent;
        _exit(process.isCurrent() ? 1 : 0);
    }
    EXPECT_EQ(statusOf(child), 0);
}

TEST(OwnProcess, IsCurrentInAChildThatCreatesItsOwn) {
    const pid_t child = fork();
    if (child == 0) {
        const OwnProcess process;
        _exit(process.isCurrent() ? 0 : 1);
    }
    EXPECT_EQ(statusOf(child), 0);
}
