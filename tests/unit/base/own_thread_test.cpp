#include "base/own_thread.h"

#include <csignal>
#include <set>

#include <pthread.h>

#include <gtest/gtest.h>

namespace {

sigset_t blockedHere() {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return blocked;
}

// All signals except SIGKILL and SIGSTOP, and those that the C library or an emulator reserves.
sigset_t blockable() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const sigset_t blocked = blockedHere();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return blocked;
}

void* noteBlocked(void* argument) {
    *static_cast<sigset_t*>(argument) = blockedHere();
    return nullptr;
}

void expectSame(const sigset_t& left, const sigset_t& right) {
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&left, signal), sigismember(&right, signal)) << signal;
    }
}

class OwnThread : public testing::Test {
protected:
    OwnThread() {
        sigset_t some;
        sigemptyset(&some);
        sigaddset(&some, SIGUSR2);
        pthread_sigmask(SIG_SETMASK, &some, &before_);
    }
    ~OwnThread() override { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

TEST_F(OwnThread, BlocksEverySignalExceptThoseOfItsOwnFaults) {
    const std::set<int> faults = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS};
    sigset_t blocked;
    sigemptyset(&blocked);
    pthread_t thread;
    ASSERT_TRUE(startOwnThread(thread, noteBlocked, &blocked));
    pthread_join(thread, nullptr);
    const sigset_t possible = blockable();
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&blocked, signal), faults.contains(signal) ? 0 : sigismember(&possible, signal))
            << signal;
    }
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 1);
}

TEST_F(OwnThread, RestoresTheCallersSignalMask) {
    const sigset_t before = blockedHere();
    sigset_t ignored;
    pthread_t thread;
    ASSERT_TRUE(startOwnThread(thread, noteBlocked, &ignored));
    pthread_join(thread, nullptr);
    expectSame(blockedHere(), before);
}

TEST_F(OwnThread, ReportsAFailedCreation) {
    pthread_attr_t usual;
    pthread_attr_t enormous;
    ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
    ASSERT_EQ(pthread_getattr_default_np(&enormous), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&enormous, ~std::size_t{0xFFFF}), 0);
    ASSERT_EQ(pthread_setattr_default_np(&enormous), 0);
    const sigset_t before = blockedHere();
    sigset_t unused;
    pthread_t thread;
    EXPECT_FALSE(startOwnThread(thread, noteBlocked, &unused));
    pthread_setattr_default_np(&usual);
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&enormous);
    expectSame(blockedHere(), before);
}

} // namespace
