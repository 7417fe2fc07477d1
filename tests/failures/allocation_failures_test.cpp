// Fail every allocation of every operation once.
#include "sweep.h"
#include "sweep_test.h"

#include "allocation_failure.h"

namespace {

using namespace failures;

class AllocationFailuresTest : public SweepTest<AllocationFailuresTest> {
public:
    static constexpr const char* name = "memory";

protected:
    void SetUp() override {
        if (!support::allocationsAreWatched) {
            GTEST_SKIP() << "the sanitizer replaces operator new";
        }
    }

    static std::size_t sweep(int logLevel) {
        const support::CapturedStdout output;
        std::size_t n = 1;
        while (runOutOfMemory(GetParam(), n, logLevel)) {
            ++n;
        }
        return n - 1;
    }
};

} // namespace

TEST_P(AllocationFailuresTest, EachAllocationMayFail) {
    tell(sweep(0));
}

TEST_P(AllocationFailuresTest, EachAllocationMayFailWhileAllIsLogged) {
    tell(sweep(3));
}

INSTANTIATE_TEST_SUITE_P(EachOperation, AllocationFailuresTest, testing::ValuesIn(allOperations()), nameOf);
