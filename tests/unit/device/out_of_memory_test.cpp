// Running out of memory in the middle of an operation: whether the exception passes or costs a log line only,
// the mutex is free, and nothing is left with libusb once the device is gone.

#include "allocation_failure.h"
#include "mutex_probe.h"
#include "transfer_operations.h"

#include <functional>
#include <new>

namespace {

struct Work {
    const char* name;
    bool onOpenReader;
    const char* failing; // libusb function, or null
    std::function<void(GVDevice&)> run;
};

void PrintTo(const Work& work, std::ostream* stream) {
    *stream << work.name;
}

void transceive(GVDevice& device) {
    transferOperations[2].run(device, "TESK-RCI2");
}

const Work works[] = {
    {"identify", false, nullptr, [](GVDevice& device) { device.IdentifyDevice(); }},
    {"identifyInVain", false, "libusb_get_string_descriptor_ascii",
     [](GVDevice& device) { device.IdentifyDevice(); }},
    {"open", false, nullptr, [](GVDevice& device) { device.OpenDevice(); }},
    {"openInVain", false, "libusb_open", [](GVDevice& device) { device.OpenDevice(); }},
    {"configureInVain", false, "libusb_get_config_descriptor", [](GVDevice& device) { device.OpenDevice(); }},
    {"close", true, nullptr, [](GVDevice& device) { device.CloseDevice(); }},
    {"notPresent", true, "libusb_get_string_descriptor_ascii", [](GVDevice& device) { device.IsPresent(); }},
    {"transceive", true, nullptr, transceive},
    {"transceiveInVain", true, "libusb_bulk_transfer", transceive},
    {"lookUpInVain", true, "libusb_claim_interface", transceive},
    {"transmitWhileClosed", false, nullptr, transceive},
};

class OutOfMemoryTest : public DeviceTest, public testing::WithParamInterface<Work> {
protected:
    void SetUp() override {
        if (!support::allocationsAreWatched) {
            GTEST_SKIP() << "operator new is the sanitizer's";
        }
    }

    // Runs the work with the n-th allocation failing; tells whether it got that far.
    static bool survives(std::size_t n) {
        const Work& work = GetParam();
        fake::reset();
        GVDevice device(1,
                        fake::plug("dev1", fake::bulkReader("1A2B3C and a text of more than a few bytes")));
        if (work.onOpenReader) {
            open(device);
        }
        if (work.failing != nullptr) {
            fake::failAlways(work.failing, LIBUSB_ERROR_IO);
        }
        bool happened = false;
        bool passed = false;
        {
            const auto failure = support::failAllocation(n);
            try {
                work.run(device);
            } catch (const std::bad_alloc&) {
                passed = true;
            }
            happened = failure.happened();
        }
        EXPECT_TRUE(happened || !passed);
        EXPECT_FALSE(support::isHeld(device.mutex));
        return happened;
    }
};

TEST_P(OutOfMemoryTest, LeavesTheMutexFreeAndNothingOpen) {
    support::CapturedStdout output;
    GVLOG_SetLevel(2);
    std::size_t n = 1;
    while (survives(n)) {
        EXPECT_EQ(fake::leftovers(), "") << n;
        ++n;
    }
    EXPECT_GT(n, 1u) << "no allocation was ever made";
}

TEST_P(OutOfMemoryTest, OnlyIdentifyingMayNeedMemoryWhileTheLogIsOff) {
    std::size_t n = 1;
    while (survives(n)) {
        EXPECT_EQ(fake::leftovers(), "") << n;
        ++n;
    }
    if (std::string(GetParam().name) != "identify") {
        EXPECT_EQ(n, 1u);
    }
}

INSTANTIATE_TEST_SUITE_P(EachOperation, OutOfMemoryTest, testing::ValuesIn(works),
                         [](const auto& each) { return std::string(each.param.name); });

} // namespace
