#include "allocation_failure.h"

#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct alignas(64) Aligned {
    char bytes[64];
};

// Prevent the optimizer from dropping an allocation whose pointer is unused.
template <class T>
void keep(T* pointer) {
    asm volatile("" : : "g"(pointer) : "memory");
}

class AllocationFailureTest : public testing::Test {
protected:
    void SetUp() override {
        if (!support::allocationsAreWatched) {
            GTEST_SKIP() << "the sanitizer replaces operator new";
        }
    }
};

} // namespace

TEST_F(AllocationFailureTest, CountsEveryFormOfNew) {
    const std::size_t before = support::allocations();
    auto* const one = new int(1);
    keep(one);
    auto* const many = new int[3];
    keep(many);
    auto* const aligned = new Aligned;
    keep(aligned);
    auto* const quiet = new (std::nothrow) int;
    keep(quiet);
    const std::size_t counted = support::allocations() - before;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(aligned) % alignof(Aligned), 0u);
    delete one;
    delete[] many;
    delete aligned;
    delete quiet;
    EXPECT_EQ(counted, 4u);
}

TEST_F(AllocationFailureTest, CountsStringsBuiltInTheCxxRuntime) {
    const std::size_t before = support::allocations();
    const std::string text(100, 'x');
    keep(text.data());
    EXPECT_EQ(support::allocations() - before, 1u);
}

TEST_F(AllocationFailureTest, OnlyTheChosenAllocationFails) {
    int made = 0;
    bool threw = false;
    const auto failure = support::failAllocation(3);
    for (int i = 0; i < 4; ++i) {
        try {
            const auto pointer = std::make_unique<int>(i);
            keep(pointer.get());
            ++made;
            EXPECT_EQ(failure.happened(), i == 3);
        } catch (const std::bad_alloc&) {
            threw = true;
            EXPECT_EQ(i, 2);
        }
    }
    EXPECT_TRUE(threw);
    EXPECT_EQ(made, 3);
    EXPECT_TRUE(failure.happened());
}

TEST_F(AllocationFailureTest, NothrowFormReturnsNull) {
    const auto failure = support::failAllocation(1);
    EXPECT_EQ(new (std::nothrow) int, nullptr);
}

TEST_F(AllocationFailureTest, EndsWithItsScope) {
    {
        const auto failure = support::failAllocation(1);
        EXPECT_FALSE(failure.happened());
    }
    EXPECT_NO_THROW(keep(std::make_unique<int>(1).get()));
}

TEST_F(AllocationFailureTest, OtherThreadsAreNotDisturbed) {
    int made = 0;
    std::thread thread([&] {
        const std::size_t before = support::allocations();
        const auto pointer = std::make_unique<int>(1);
        keep(pointer.get());
        made = static_cast<int>(support::allocations() - before);
    });
    {
        const auto failure = support::failAllocation(1);
        thread.join();
        EXPECT_FALSE(failure.happened());
    }
    EXPECT_EQ(made, 1);
}

TEST_F(AllocationFailureTest, PauseNeitherCountsNorFails) {
    const auto failure = support::failAllocation(1);
    const std::size_t before = support::allocations();
    {
        const support::AllocationPause pause;
        EXPECT_NO_THROW(keep(std::make_unique<int>(1).get()));
    }
    EXPECT_EQ(support::allocations(), before);
    EXPECT_THROW(keep(std::make_unique<int>(1).get()), std::bad_alloc);
}
