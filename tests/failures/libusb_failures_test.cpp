// Fail every libusb call of every operation once, with every libusb error code.
#include "sweep.h"
#include "sweep_test.h"

#include "configuration_file.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace {

using namespace failures;

class LibusbFailuresTest : public SweepTest<LibusbFailuresTest> {
public:
    static constexpr const char* name = "libusb";

protected:
    void SetUp() override {
        const support::CapturedStdout output;
        trace_ = callsOf(GetParam());
    }

    // Returns the number of failures.
    template <std::size_t count>
    std::size_t sweep(const int (&codes)[count], Failing::Extent extent, int logLevel) const {
        const support::CapturedStdout output;
        for (std::size_t i = 0; i < trace_.size(); ++i) {
            for (const int code : codes) {
                runWithFailure(GetParam(), Failing(trace_, i, code, extent), i + 1, logLevel);
            }
        }
        return trace_.size() * count;
    }

    Trace trace_;
};

// In the repetition in parallel mode: how a code is translated depends on no mode, only what a failure leaves locked or in
// the lists does.
constexpr int codesInParallelMode[] = {LIBUSB_ERROR_NO_DEVICE, LIBUSB_ERROR_BUSY, LIBUSB_ERROR_OTHER};

// The operations that pass an exception on to the application. libusb calls the others, or the loader.
std::vector<Operation> throwingOperations() {
    std::vector<Operation> throwing;
    for (const auto& operations : {scanOperations(), openingOperations(), transferOperations(),
                                   parameterOperations(), hotPlugOperations()}) {
        std::ranges::copy_if(operations, std::back_inserter(throwing),
                             [](const Operation& each) { return !each.mayLoseEvents; });
    }
    return throwing;
}

class ExceptionsTest : public SweepTest<ExceptionsTest> {
public:
    static constexpr const char* name = "exceptions";
};

} // namespace

TEST_P(LibusbFailuresTest, EachCallMayFailWithEachCode) {
    EXPECT_EQ(!trace_.empty(), GetParam().callsLibusb);
    tell(support::inParallelSuite() ? sweep(codesInParallelMode, Failing::Extent::once, 0)
                                    : sweep(everyCode, Failing::Extent::once, 0));
}

// As if the reader were unplugged, or libusb failed permanently, during the operation.
TEST_P(LibusbFailuresTest, AllCallsFromAnyPointOnMayFail) {
    tell(sweep({LIBUSB_ERROR_NO_DEVICE}, Failing::Extent::fromThenOn, 0));
}

TEST_P(LibusbFailuresTest, LoggingMakesNoDifference) {
    tell(sweep({LIBUSB_ERROR_IO}, Failing::Extent::once, 3));
}

INSTANTIATE_TEST_SUITE_P(EachOperation, LibusbFailuresTest, testing::ValuesIn(allOperations()), nameOf);

// As if the thread were canceled in libusb.
TEST_P(ExceptionsTest, ExceptionFromAnyLibusbCallReleasesEveryLock) {
    const support::CapturedStdout output;
    std::size_t thrown = 0;
    while (runWithException(GetParam(), thrown + 1)) {
        ++thrown;
    }
    tell(thrown);
}

INSTANTIATE_TEST_SUITE_P(EachOperation, ExceptionsTest, testing::ValuesIn(throwingOperations()), nameOf);
