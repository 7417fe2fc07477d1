#include "device_test.h"

#include <memory>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A reader whose only configuration has this value.
fake::FakeReader configured(std::uint8_t value) {
    fake::FakeReader reader = fake::bulkReader();
    reader.configurations[0].value = value;
    return reader;
}

// A reader whose first configuration has this value, and whose second one is the required one.
fake::FakeReader configuredSecond(std::uint8_t firstValue) {
    fake::FakeReader reader = configured(firstValue);
    reader.configurations.push_back(fake::bulkReader().configurations[0]);
    return reader;
}

class OpenTest : public DeviceTest {
protected:
    std::unique_ptr<GVDevice> make(fake::FakeReader reader) {
        auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", std::move(reader)));
        device->devId = 0x1A2B3C;
        device->lastError = GVUSB_ERR_OUT_OF_RANGE;
        fake::takeCalls();
        return device;
    }
};

TEST_F(OpenTest, OpensAndChecksTheFirstConfiguration) {
    const auto device = make(fake::bulkReader());

    EXPECT_EQ(device->OpenDevice(), GVUSB_OK);

    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev1)\n");
    EXPECT_EQ(device->lastError, GVUSB_OK);
    EXPECT_EQ(stateOf(*device), openState);
}

TEST_F(OpenTest, OpeningLogsHandleAndIdInHexadecimal) {
    const auto device = make(fake::bulkReader());
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_OK); }),
                ElementsAre("[open] devHnd=0x1 devId=0x1a2b3c: ok"));
    device->CloseDevice();
    device->devHnd = 0x1000000F;
    device->devId = 0xFFFFFFFF;
    EXPECT_THAT(logOf(3, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_OK); }),
                ElementsAre("[open] devHnd=0x1000000f devId=0xffffffff: ok"));
}

TEST_F(OpenTest, OpeningAndClosingAreNotLoggedUpToLevelOne) {
    const auto device = make(fake::bulkReader());
    for (const int level : {-1, 0, 1}) {
        EXPECT_THAT(logOf(level,
                          [&] {
                              EXPECT_EQ(device->OpenDevice(), GVUSB_OK);
                              EXPECT_EQ(device->OpenDevice(), GVUSB_OK);
                              EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
                              fake::failNext("libusb_open", LIBUSB_ERROR_ACCESS);
                              EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CANNOT_OPEN);
                              fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO);
                              EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CONFIG_DESCRIPTOR_READ);
                              EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
                          }),
                    IsEmpty())
            << level;
    }
}

TEST_F(OpenTest, OpeningTwiceDoesNotTouchLibusb) {
    const auto device = make(fake::bulkReader());
    makeReady(*device);
    device->lastError = GVUSB_ERR_TIMEOUT;

    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_OK); }),
                ElementsAre("[open] allready opened"));

    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(device->lastError, GVUSB_OK);
    EXPECT_EQ(stateOf(*device), bulkState);
}

TEST_F(OpenTest, FailedOpeningLeavesTheReaderClosed) {
    const auto device = make(fake::bulkReader());
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        device->lastError = 0;
        fake::failNext("libusb_open", code);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CANNOT_OPEN); }),
                    ElementsAre("[open] libusb_open returned " + std::to_string(code)));
        EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = " + std::to_string(code) + "\n");
        EXPECT_EQ(device->lastError, GVUSB_ERR_CANNOT_OPEN);
        EXPECT_EQ(stateOf(*device), closedState);
    }
    EXPECT_EQ(device->OpenDevice(), GVUSB_OK);
}

TEST_F(OpenTest, RecordWithoutUsbDeviceCannotBeOpened) {
    auto device = std::make_unique<GVDevice>(1, nullptr);
    fake::reset(); // the constructor has made calls for the device
    const auto attempt = [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CANNOT_OPEN); };

    EXPECT_THAT(logOf(2, attempt), ElementsAre("[open] no usbdev-structure"));
    EXPECT_EQ(device->lastError, GVUSB_ERR_CANNOT_OPEN);
    EXPECT_THAT(logOf(1, attempt), IsEmpty());
    EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
    device.reset();

    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(OpenTest, OtherFirstConfigurationIsReplacedByTheRequiredOne) {
    for (const std::uint8_t value : {std::uint8_t{0}, std::uint8_t{2}, std::uint8_t{255}}) {
        SCOPED_TRACE(unsigned{value});
        fake::reset();
        const auto device = make(configuredSecond(value));
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_OK); }),
                    ElementsAre("[open] devHnd=0x1 devId=0x1a2b3c: ok"));
        EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                        "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                        "libusb_set_configuration(hnd1, 1) = 0\n"
                                        "libusb_free_config_descriptor(config of dev1)\n");
        EXPECT_EQ(device->lastError, GVUSB_OK);
    }
}

TEST_F(OpenTest, DescriptorMattersNotTheActiveConfiguration) {
    fake::FakeReader reader = configured(1);
    reader.configurations.push_back({.value = 2});
    const auto device = make(reader);
    open(*device);
    {
        const MutexLock lock(device->mutex);
        ASSERT_EQ(libusb_set_configuration(device->usbdev_hnd, 2), 0);
    }
    EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
    fake::takeCalls();

    EXPECT_EQ(device->OpenDevice(), GVUSB_OK);

    EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev1)\n");
}

TEST_F(OpenTest, UnreadableConfigurationLeavesHandleOpenAndLastErrorUntouched) {
    const auto device = make(fake::bulkReader());
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        device->lastError = GVUSB_ERR_OUT_OF_RANGE;
        fake::failNext("libusb_get_config_descriptor", code);
        EXPECT_THAT(
            logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CONFIG_DESCRIPTOR_READ); }),
            ElementsAre("[set config] libusb_get_config_descriptor(0) returned " + std::to_string(code)));
        EXPECT_EQ(device->lastError, GVUSB_ERR_OUT_OF_RANGE);
        EXPECT_EQ(stateOf(*device), openState);
        EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
        EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                        "libusb_get_config_descriptor(dev1, 0) = " +
                                            std::to_string(code) +
                                            "\n"
                                            "libusb_release_interface(hnd1, 0) = -5\n"
                                            "libusb_close(hnd1)\n");
    }
}

TEST_F(OpenTest, RefusedConfigurationLeavesHandleOpenAndLastErrorUntouched) {
    const auto device = make(configured(2));
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        device->lastError = GVUSB_ERR_OUT_OF_RANGE;
        fake::failNext("libusb_set_configuration", code);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_SET_CONFIGURATION); }),
                    ElementsAre("[set config] libusb_set_configuration(1) returned " + std::to_string(code)));
        EXPECT_EQ(device->lastError, GVUSB_ERR_OUT_OF_RANGE);
        EXPECT_EQ(stateOf(*device), openState);
        EXPECT_EQ(fake::takeCallText(), "libusb_open(dev1) = 0\n"
                                        "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                        "libusb_set_configuration(hnd1, 1) = " +
                                            std::to_string(code) +
                                            "\n"
                                            "libusb_free_config_descriptor(config of dev1)\n");
        EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
        fake::takeCalls();
    }
}

TEST_F(OpenTest, FailedConfigurationIsNotLoggedUpToLevelOne) {
    const auto device = make(configured(2));
    EXPECT_THAT(logOf(1, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_SET_CONFIGURATION); }), IsEmpty());
}

TEST_F(OpenTest, ReaderWithFailedConfigurationCountsAsOpen) {
    const auto device = make(fake::bulkReader());
    fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO);
    EXPECT_EQ(device->OpenDevice(), GVUSB_ERR_CONFIG_DESCRIPTOR_READ);
    fake::takeCalls();

    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->OpenDevice(), GVUSB_OK); }),
                ElementsAre("[open] allready opened"));

    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

TEST_F(OpenTest, SetConfigurationKeepsTheLastError) {
    const auto device = make(fake::bulkReader());
    open(*device);
    device->lastError = GVUSB_ERR_OUT_OF_RANGE;
    const MutexLock lock(device->mutex);
    fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_NO_MEM);
    EXPECT_EQ(device->SetConfiguration(), GVUSB_ERR_CONFIG_DESCRIPTOR_READ);
    EXPECT_EQ(device->lastError, GVUSB_ERR_OUT_OF_RANGE);
}

TEST_F(OpenTest, ClosingReleasesInterfaceThenCloses) {
    const auto device = make(fake::bulkReader());
    makeReady(*device);
    device->lastError = GVUSB_ERR_TIMEOUT;

    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->CloseDevice(), GVUSB_OK); }),
                ElementsAre("[close] devHnd=0x1 devId=0x1a2b3c: ok"));

    EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = 0\n"
                                    "libusb_close(hnd1)\n");
    EXPECT_EQ(device->lastError, GVUSB_OK);
    EXPECT_EQ(stateOf(*device), closedState);
}

TEST_F(OpenTest, FailedReleaseDoesNotKeepTheReaderOpen) {
    const auto device = make(fake::bulkReader());
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        makeReady(*device);
        fake::failNext("libusb_release_interface", code);
        EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
        EXPECT_EQ(fake::takeCallText(), "libusb_release_interface(hnd1, 0) = " + std::to_string(code) +
                                            "\n"
                                            "libusb_close(hnd1)\n");
        EXPECT_EQ(device->lastError, GVUSB_OK);
        EXPECT_EQ(stateOf(*device), closedState);
    }
}

TEST_F(OpenTest, ClosingAClosedReaderSucceedsAndLogsTheSame) {
    const auto device = make(fake::bulkReader());

    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(device->CloseDevice(), GVUSB_OK); }),
                ElementsAre("[close] devHnd=0x1 devId=0x1a2b3c: ok"));

    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(device->lastError, GVUSB_OK);
    EXPECT_EQ(stateOf(*device), closedState);
}

TEST_F(OpenTest, ClosedRecordIsNotTouchedByCloseDev) {
    const auto device = make(fake::bulkReader());
    const MutexLock lock(device->mutex);
    device->transferMode = TransferMode::bulk;
    device->addrIn = 0x81;
    device->addrOut = 0x02;

    device->CloseDev();

    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(device->transferMode, TransferMode::bulk);
    EXPECT_EQ(device->addrIn, 0x81);
    EXPECT_EQ(device->addrOut, 0x02);
    EXPECT_EQ(device->lastError, GVUSB_ERR_OUT_OF_RANGE);
}

TEST_F(OpenTest, TimeoutAndIdentityAreKeptAfterClosing) {
    const auto device = make(fake::bulkReader());
    EXPECT_EQ(device->IdentifyDevice(), GVUSB_OK);
    EXPECT_EQ(device->SetDevicePara("TIMEOUT", "77"), GVUSB_OK);
    open(*device);
    EXPECT_EQ(device->CloseDevice(), GVUSB_OK);
    EXPECT_EQ(timeoutOf(*device), 77u);
    EXPECT_EQ(device->devId, 0x1A2B3Cu);
    EXPECT_STREQ(device->famName, "DESKTOP");
}

} // namespace
