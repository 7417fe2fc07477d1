// Memory runs out during an operation. Whether the exception passes or only a log line is lost, the mutex is
// unlocked, and destroying the device releases everything.

#include "allocation_failure.h"
#include "mutex_probe.h"
#include "transfer_operations.h"

#include <functional>
#include <new>

namespace {

struct Work {
    const char* name;
    bool onOpenReader;
    const char* failing; // libusb function that fails, or null
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
    {"identifyFailing", false, "libusb_get_string_descriptor_ascii",
     [](GVDevice& device) { device.IdentifyDevice(); }},
    {"open", false, nullptr, [](GVDevice& device) { device.OpenDevice(); }},
    {"openFailing", false, "libusb_open", [](GVDevice& device) { device.OpenDevice(); }},
    {"configureFailing", false, "libusb_get_config_descriptor",
     [](GVDevice& device) { device.OpenDevice(); }},
    {"close", true, nullptr, [](GVDevice& device) { device.CloseDevice(); }},
    {"notPresent", true, "libusb_get_string_descriptor_ascii", [](GVDevice& device) { device.IsPresent(); }},
    {"transceive", true, nullptr, transceive},
    {"transceiveFailing", true, "libusb_bulk_transfer", transceive},
    {"lookUpFailing", true, "libusb_claim_interface", transceive},
    {"transmitWhileClosed", false, nullptr, transceive},
};

class OutOfMemoryTest : public DeviceTest, public testing::WithParamInterface<Work> {
protected:
    void SetUp() override {
        if (!support::allocationsAreWatched) {
            GTEST_SKIP() << "the sanitizer replaces operator new";
        }
    }

    // Run the work with the n-th allocation failing; return whether there was one.
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
