#include "device_test.h"

#include <memory>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr fake::FakeEndpoint bulk(std::uint8_t address) {
    return {address, 2};
}

// A reader whose interface 0 has these endpoints in alternate setting 0.
fake::FakeReader readerWith(fake::FakeAltSetting endpoints) {
    fake::FakeReader reader;
    reader.configurations[0].interfaces[0].altSettings = {std::move(endpoints)};
    return reader;
}

class EndpointsTest : public DeviceTest {
protected:
    std::unique_ptr<GVDevice> makeOpen(fake::FakeReader reader) {
        fake::reset();
        auto device = std::make_unique<GVDevice>(1, fake::plug("dev1", std::move(reader)));
        open(*device);
        device->lastError = GVUSB_ERR_OUT_OF_RANGE;
        return device;
    }

    static int lookUp(GVDevice& device) {
        const MutexLock lock(device.mutex);
        return device.GetBulkEndPoints();
    }

    static void resetEndPoints(GVDevice& device) {
        const MutexLock lock(device.mutex);
        device.ResetBulkEndPoints();
    }
};

TEST_F(EndpointsTest, LooksUpThenDetachesThenClaims) {
    const auto device = makeOpen(fake::bulkReader());

    EXPECT_EQ(lookUp(*device), GVUSB_OK);

    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev1)\n"
                                    "libusb_detach_kernel_driver(hnd1, 0) = -5\n"
                                    "libusb_claim_interface(hnd1, 0) = 0\n");
    EXPECT_EQ(stateOf(*device), bulkState);
    EXPECT_EQ(device->lastError, GVUSB_ERR_OUT_OF_RANGE);
}

TEST_F(EndpointsTest, LogsEndpointsInDecimalAndDetaching) {
    const auto device = makeOpen(fake::bulkReader());
    const auto look = [&] { EXPECT_EQ(lookUp(*device), GVUSB_OK); };
    EXPECT_THAT(logOf(2, look), ElementsAre("[get bulk end points] addrIn=129 addrOut=2",
                                            "[get bulk end points] detach driver returned: -5"));
    for (const int level : {-1, 0, 1}) {
        EXPECT_THAT(logOf(level, look), IsEmpty()) << level;
    }
}

TEST_F(EndpointsTest, EndpointsAreLoggedBeforeDetaching) {
    const auto device = makeOpen(fake::bulkReader());
    support::CapturedStdout output;
    Lines atDetaching;
    Lines atClaiming;
    const ScopedHook hook([&](std::string_view function, std::string_view) {
        if (function == "libusb_detach_kernel_driver") {
            atDetaching = output.takeLogLines();
        } else if (function == "libusb_claim_interface") {
            atClaiming = output.takeLogLines();
        }
    });
    GVLOG_SetLevel(2);
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_THAT(atDetaching, ElementsAre("[get bulk end points] addrIn=129 addrOut=2"));
    EXPECT_THAT(atClaiming, ElementsAre("[get bulk end points] detach driver returned: -5"));
}

struct Layout {
    const char* name;
    fake::FakeAltSetting endpoints;
    DeviceState expected;
};

TEST_F(EndpointsTest, TheLastBulkEndpointOfEachDirectionIsUsed) {
    const auto mode = [](TransferMode transferMode, int in, int out) {
        return DeviceState{.open = true, .mode = transferMode, .addrIn = in, .addrOut = out};
    };
    const auto control = TransferMode::control;
    const Layout layouts[] = {
        {"none", {}, mode(control, 255, 255)},
        {"IN only", {bulk(0x81)}, mode(control, 129, 255)},
        {"OUT only", {bulk(0x02)}, mode(control, 255, 2)},
        {"both", {bulk(0x81), bulk(0x02)}, mode(TransferMode::bulk, 129, 2)},
        {"OUT first", {bulk(0x02), bulk(0x81)}, mode(TransferMode::bulk, 129, 2)},
        {"same number", {bulk(0x03), bulk(0x83)}, mode(TransferMode::bulk, 131, 3)},
        {"two IN", {bulk(0x81), bulk(0x83)}, mode(control, 131, 255)},
        {"several, descending",
         {bulk(0x85), bulk(0x04), bulk(0x81), bulk(0x02)},
         mode(TransferMode::bulk, 129, 2)},
        {"several, ascending",
         {bulk(0x81), bulk(0x82), bulk(0x03), bulk(0x84), bulk(0x05)},
         mode(TransferMode::bulk, 132, 5)},
        {"highest", {bulk(0x8F), bulk(0x0F)}, mode(TransferMode::bulk, 143, 15)},
    };
    for (const auto& [name, endpoints, expected] : layouts) {
        SCOPED_TRACE(name);
        const auto device = makeOpen(readerWith(endpoints));
        const Lines lines = logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_OK); });
        EXPECT_EQ(stateOf(*device), expected);
        EXPECT_EQ(lines.front(), "[get bulk end points] addrIn=" + std::to_string(expected.addrIn) +
                                     " addrOut=" + std::to_string(expected.addrOut));
    }
}

TEST_F(EndpointsTest, OtherTransferTypesAreSkipped) {
    for (const std::uint8_t type : {std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{3}}) {
        SCOPED_TRACE(unsigned{type});
        const auto without = makeOpen(readerWith({{0x81, type}, {0x02, type}}));
        EXPECT_EQ(lookUp(*without), GVUSB_OK);
        EXPECT_EQ(stateOf(*without), controlState);

        const auto behind = makeOpen(readerWith({bulk(0x81), bulk(0x02), {0x83, type}, {0x04, type}}));
        EXPECT_EQ(lookUp(*behind), GVUSB_OK);
        EXPECT_EQ(stateOf(*behind), bulkState);
    }
}

TEST_F(EndpointsTest, OnlyTheLowTwoBitsOfTheAttributesDetermineTheType) {
    const auto device = makeOpen(readerWith({{0x81, 0xFE}, {0x02, 0x06}, {0x83, 0xFD}, {0x04, 0x07}}));
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device), bulkState);
}

TEST_F(EndpointsTest, OtherAlternateSettingsAreIgnored) {
    fake::FakeReader reader = readerWith({bulk(0x81)});
    reader.configurations[0].interfaces[0].altSettings.push_back({bulk(0x84), bulk(0x05)});
    const auto device = makeOpen(reader);
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device),
              (DeviceState{.open = true, .mode = TransferMode::control, .addrIn = 0x81, .addrOut = 255}));
}

TEST_F(EndpointsTest, OtherInterfacesAreIgnored) {
    fake::FakeReader reader = fake::bulkReader();
    reader.configurations[0].interfaces.push_back({.altSettings = {{bulk(0x84), bulk(0x05)}}});
    const auto device = makeOpen(reader);
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device), bulkState);
}

TEST_F(EndpointsTest, OtherConfigurationsAreIgnored) {
    fake::FakeReader reader = fake::controlReader();
    reader.configurations.push_back(
        {.value = 2, .interfaces = fake::bulkReader().configurations[0].interfaces});
    const auto device = makeOpen(reader);
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device), controlState);
}

TEST_F(EndpointsTest, WithoutInterfaceZeroThereAreNoEndpoints) {
    fake::FakeReader renumbered = fake::bulkReader();
    renumbered.configurations[0].interfaces[0].number = 1;
    fake::FakeReader empty = fake::bulkReader();
    empty.configurations[0].interfaces.clear();
    for (const fake::FakeReader& reader : {renumbered, empty}) {
        const auto device = makeOpen(reader);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_ERR_CANNOT_CLAIM); }),
                    ElementsAre("[get bulk end points] addrIn=255 addrOut=255",
                                "[get bulk end points] detach driver returned: -5",
                                "[get bulk end points] libusb_claim_interface(0) returned -5"));
        EXPECT_EQ(stateOf(*device), controlState);
    }
}

TEST_F(EndpointsTest, WithoutAlternateSettingThereAreNoEndpoints) {
    fake::FakeReader reader = fake::bulkReader();
    reader.configurations[0].interfaces[0].altSettings.clear();
    const auto device = makeOpen(reader);
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device), controlState);
}

// libusb takes the counts from the reader's descriptors, and does not guarantee that the lists exist.
TEST_F(EndpointsTest, NullListsMeanNoEndpointsDespiteTheirCounts) {
    for (const fake::FakeList list :
         {fake::FakeList::endpoints, fake::FakeList::altSettings, fake::FakeList::interfaces}) {
        SCOPED_TRACE(static_cast<int>(list));
        fake::FakeReader reader = fake::bulkReader();
        reader.configurations[0].nullList = list;
        const auto device = makeOpen(reader);
        EXPECT_EQ(lookUp(*device), GVUSB_OK);
        EXPECT_EQ(stateOf(*device), controlState);
    }
}

TEST_F(EndpointsTest, ControlModeDetachesAndClaimsToo) {
    const auto device = makeOpen(readerWith({bulk(0x81)}));
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_OK); }),
                ElementsAre("[get bulk end points] addrIn=129 addrOut=255",
                            "[get bulk end points] detach driver returned: -5"));
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_descriptor(dev1) = 0\n"
                                    "libusb_get_config_descriptor(dev1, 0) = 0\n"
                                    "libusb_free_config_descriptor(config of dev1)\n"
                                    "libusb_detach_kernel_driver(hnd1, 0) = -5\n"
                                    "libusb_claim_interface(hnd1, 0) = 0\n");
}

TEST_F(EndpointsTest, KernelDriverIsDetached) {
    fake::FakeReader reader = fake::bulkReader();
    reader.kernelDriver = true;
    const auto device = makeOpen(reader);
    EXPECT_EQ(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_OK); }).back(),
              "[get bulk end points] detach driver returned: 0");
    EXPECT_EQ(stateOf(*device), bulkState);
}

TEST_F(EndpointsTest, FailedDetachingChangesNothing) {
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        const auto device = makeOpen(fake::bulkReader());
        fake::failNext("libusb_detach_kernel_driver", code);
        EXPECT_EQ(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_OK); }).back(),
                  "[get bulk end points] detach driver returned: " + std::to_string(code));
        EXPECT_EQ(stateOf(*device), bulkState);
    }
}

TEST_F(EndpointsTest, FailedClaimKeepsTheTransferMode) {
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        for (const bool both : {true, false}) {
            const auto device = makeOpen(both ? fake::bulkReader() : fake::controlReader());
            fake::failNext("libusb_claim_interface", code);
            EXPECT_EQ(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_ERR_CANNOT_CLAIM); }).back(),
                      "[get bulk end points] libusb_claim_interface(0) returned " + std::to_string(code));
            EXPECT_EQ(stateOf(*device), both ? bulkState : controlState);
        }
    }
}

TEST_F(EndpointsTest, UnreadableConfigurationEndsInControlModeWithoutClaiming) {
    for (const int code : libusbErrors) {
        SCOPED_TRACE(code);
        const auto device = makeOpen(fake::bulkReader());
        fake::failNext("libusb_get_config_descriptor", code);
        EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_ERR_CONFIG_DESCRIPTOR_READ); }),
                    ElementsAre("[get bulk end points] libusb_get_config_descriptor(0) returned " +
                                std::to_string(code)));
        EXPECT_EQ(fake::takeCallText(), "libusb_get_device_descriptor(dev1) = 0\n"
                                        "libusb_get_config_descriptor(dev1, 0) = " +
                                            std::to_string(code) + "\n");
        EXPECT_EQ(stateOf(*device), controlState);
    }
}

TEST_F(EndpointsTest, ReaderWithoutConfigurationsHasNoEndpoints) {
    fake::FakeReader reader = fake::bulkReader();
    reader.reportedConfigurations = 0;
    const auto device = makeOpen(reader);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_ERR_NO_CONFIGURATION); }),
                ElementsAre("[get bulk end points] no configurations"));
    EXPECT_EQ(fake::takeCallText(), "libusb_get_device_descriptor(dev1) = 0\n");
    EXPECT_EQ(stateOf(*device), controlState);
}

// The result of reading the descriptor is ignored; without a descriptor, there are no configurations.
TEST_F(EndpointsTest, UnreadableDeviceDescriptorCountsAsNoConfigurations) {
    const auto device = makeOpen(fake::bulkReader());
    fake::failNext("libusb_get_device_descriptor", LIBUSB_ERROR_IO);
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(*device), GVUSB_ERR_NO_CONFIGURATION); }),
                ElementsAre("[get bulk end points] no configurations"));
    EXPECT_EQ(stateOf(*device), controlState);
}

TEST_F(EndpointsTest, FailuresAreNotLoggedUpToLevelOne) {
    const auto device = makeOpen(fake::bulkReader());
    EXPECT_THAT(logOf(1,
                      [&] {
                          fake::failNext("libusb_get_device_descriptor", LIBUSB_ERROR_IO);
                          EXPECT_EQ(lookUp(*device), GVUSB_ERR_NO_CONFIGURATION);
                          fake::failNext("libusb_get_config_descriptor", LIBUSB_ERROR_IO);
                          EXPECT_EQ(lookUp(*device), GVUSB_ERR_CONFIG_DESCRIPTOR_READ);
                          fake::failNext("libusb_claim_interface", LIBUSB_ERROR_BUSY);
                          EXPECT_EQ(lookUp(*device), GVUSB_ERR_CANNOT_CLAIM);
                          device->CloseDevice();
                          EXPECT_EQ(lookUp(*device), GVUSB_ERR_NOT_OPENED);
                      }),
                IsEmpty());
}

TEST_F(EndpointsTest, ClosedReaderCannotBeLookedUp) {
    GVDevice device(1, fake::plug("dev1", fake::bulkReader()));
    fake::takeCalls();
    {
        const MutexLock lock(device.mutex);
        device.transferMode = TransferMode::bulk;
        device.addrIn = 0x81;
        device.addrOut = 0x02;
    }
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(device), GVUSB_ERR_NOT_OPENED); }),
                ElementsAre("[get bulk end points] usbdev=NULL or usbdev_hnd=NULL"));
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
    EXPECT_EQ(stateOf(device), closedState);
}

TEST_F(EndpointsTest, RecordWithoutUsbDeviceCannotBeLookedUp) {
    GVDevice device(1, nullptr);
    fake::reset(); // the constructor has made calls for the device
    EXPECT_THAT(logOf(2, [&] { EXPECT_EQ(lookUp(device), GVUSB_ERR_NOT_OPENED); }),
                ElementsAre("[get bulk end points] usbdev=NULL or usbdev_hnd=NULL"));
}

TEST_F(EndpointsTest, EachLookupReplacesThePreviousOne) {
    const auto device = makeOpen(fake::bulkReader());
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    fake::change("dev1", [](fake::FakeReader& reader) {
        reader.configurations[0].interfaces[0].altSettings = {{bulk(0x83)}};
    });
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    EXPECT_EQ(stateOf(*device),
              (DeviceState{.open = true, .mode = TransferMode::control, .addrIn = 0x83, .addrOut = 255}));
}

TEST_F(EndpointsTest, ResettingClearsOutThenIn) {
    const auto device = makeOpen(fake::bulkReader());
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    fake::takeCalls();
    resetEndPoints(*device);
    EXPECT_EQ(fake::takeCallText(), "libusb_clear_halt(hnd1, 0x02) = 0\n"
                                    "libusb_clear_halt(hnd1, 0x81) = 0\n");
    EXPECT_EQ(stateOf(*device), bulkState);
}

TEST_F(EndpointsTest, FailedResettingOfOneEndpointDoesNotStopTheOther) {
    const auto device = makeOpen(fake::bulkReader());
    EXPECT_EQ(lookUp(*device), GVUSB_OK);
    fake::takeCalls();
    fake::failAlways("libusb_clear_halt", LIBUSB_ERROR_NO_DEVICE);
    resetEndPoints(*device);
    EXPECT_EQ(fake::takeCallText(), "libusb_clear_halt(hnd1, 0x02) = -4\n"
                                    "libusb_clear_halt(hnd1, 0x81) = -4\n");
}

TEST_F(EndpointsTest, ResettingDoesNothingOutsideBulkMode) {
    const auto unknown = makeOpen(fake::bulkReader());
    resetEndPoints(*unknown);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());

    const auto control = makeOpen(readerWith({bulk(0x02)}));
    EXPECT_EQ(lookUp(*control), GVUSB_OK);
    fake::takeCalls();
    resetEndPoints(*control);
    EXPECT_THAT(fake::takeCalls(), IsEmpty());
}

} // namespace
