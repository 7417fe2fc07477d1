/* Opening and closing readers, and using their handles. */
#include "testing.h"

#include <stdio.h>
#include <string.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { desk = 1, gate, second_configuration, with_driver, readers = with_driver };
enum { desk_id = 0xA1, gate_id = 0xB2, second_configuration_id = 0xC3, with_driver_id = 0xD4 };

static int exchange(int handle) {
    static const unsigned char frame[] = {0x01, 0x02, 0x03};
    unsigned char answer[64];
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
}

static void scan(void) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
}

static void OpensByDeviceIdAndReturnsAHandle(void** state) {
    scan();
    const int handle = GVUSB_OpenDevice(desk_id);
    assert_in_range(handle, 0x10000001, 0x1FFFFFFF);
    assert_int_equal(last_error(0), 0);
    assert_int_equal(last_error(handle), 0);
    assert_int_equal(GVUSB_GetDeviceHnd(desk_id), handle);
    assert_int_equal(GVUSB_IsDevicePresent(handle), 1);
    char text[16];
    snprintf(text, sizeof text, "%d", handle);
    assert_string_equal(parameter(handle, "DEVICEHND"), text);
    check_echo(handle);
}

static void AReaderThatWasNotScannedIsNotOpened(void** state) {
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_NOT_SCANNED);
    assert_int_equal(last_error(0), GVUSB_ERR_NOT_SCANNED);
    scan();
    assert_int_equal(GVUSB_OpenDevice(0xDECAF), GVUSB_ERR_NOT_SCANNED);
    assert_int_equal(GVUSB_GetDeviceHnd(desk_id), GVUSB_ERR_NOT_OPENED);
    assert_int_equal(last_error(0), GVUSB_ERR_NOT_OPENED);
}

static void AReaderDroppedFromTheScanListIsOpenButNotScanned(void** state) {
    const int handle = open_reader(desk_id);
    GVUSB_ClearScanList();
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_NOT_SCANNED);
    check_echo(handle);
}

static void SeveralReadersAreOpenAtOnce(void** state) {
    scan();
    const int first = GVUSB_OpenDevice(desk_id);
    const int second = GVUSB_OpenDevice(gate_id);
    assert_true(first > 0);
    assert_true(second > 0);
    assert_int_not_equal(first, second);
    for (int i = 0; i < 3; ++i) {
        check_echo(first);
        check_echo(second);
    }
    assert_int_equal(GVUSB_CloseDevice(first), 0);
    check_echo(second);
}

static void ScanAndOpenOpensEveryReader(void** state) {
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    int handle = 0;
    for (int index = 0; index < readers; ++index) {
        handle = GVUSB_GetDeviceList(handle);
        char text[16];
        snprintf(text, sizeof text, "%d", handle);
        assert_string_equal(scan_list_parameter(index, "DEVICEHND"), text);
        check_echo(handle);
    }
    assert_int_equal(GVUSB_GetDeviceList(handle), 0);
}

static void HandlesAreIteratedInTheOrderOfOpening(void** state) {
    assert_int_equal(GVUSB_GetDeviceList(0), 0);
    scan();
    const int first = GVUSB_OpenDevice(gate_id);
    const int second = GVUSB_OpenDevice(desk_id);
    const int third = GVUSB_OpenDevice(with_driver_id);
    assert_int_equal(GVUSB_GetDeviceList(0), first);
    assert_int_equal(GVUSB_GetDeviceList(-5), first);
    assert_int_equal(GVUSB_GetDeviceList(first), second);
    assert_int_equal(GVUSB_GetDeviceList(second), third);
    assert_int_equal(GVUSB_GetDeviceList(third), 0);

    assert_int_equal(GVUSB_CloseDevice(second), 0);
    assert_int_equal(GVUSB_GetDeviceList(first), third);
    assert_int_equal(GVUSB_GetDeviceList(second), 0);
}

static void OpeningAnOpenReaderChangesNothing(void** state) {
    scan();
    const int handle = GVUSB_OpenDevice(desk_id);
    const long opens = host_count(desk, "opens");
    assert_int_equal(GVUSB_CloseDevice(0), GVUSB_ERR_NULL_HANDLE);
    assert_int_equal(GVUSB_OpenDevice(desk_id), handle);
    assert_int_equal(last_error(0), GVUSB_ERR_NULL_HANDLE);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(GVUSB_GetDeviceHnd(desk_id), handle);
    assert_int_equal(host_count(desk, "opens"), opens);
}

static void AClosedReaderOpensAgainWithItsHandle(void** state) {
    scan();
    const int handle = GVUSB_OpenDevice(desk_id);
    for (int i = 0; i < 3; ++i) {
        check_echo(handle);
        assert_int_equal(GVUSB_CloseDevice(handle), 0);
        assert_int_equal(last_error(0), 0);
        assert_int_equal(exchange(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
        assert_int_equal(GVUSB_IsDevicePresent(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
        assert_int_equal(GVUSB_OpenDevice(desk_id), handle);
    }
    GVUSB_CloseDevice(handle);
    scan();
    const int another = GVUSB_OpenDevice(desk_id);
    assert_true(another > handle);
    check_echo(another);
}

static void ClosingReleasesTheReader(void** state) {
    scan();
    const long releases = host_count(desk, "releases");
    const int handle = GVUSB_OpenDevice(desk_id);
    check_echo(handle);
    assert_int_equal(host_count(desk, "opens"), host_count(desk, "closes") + 1);
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
    assert_int_equal(host_count(desk, "opens"), host_count(desk, "closes"));
    assert_int_equal(host_count(desk, "releases"), releases + 1);
}

static void ClosingAnUnknownHandleIsRefused(void** state) {
    const int handle = open_reader(desk_id);
    assert_int_equal(GVUSB_CloseDevice(handle + 100), GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(last_error(0), GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(GVUSB_CloseDevice(-7), GVUSB_ERR_NEGATIVE_HANDLE);
    assert_int_equal(GVUSB_CloseDevice(0), GVUSB_ERR_NULL_HANDLE);
    GVUSB_ClearScanList();
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
    assert_int_equal(GVUSB_CloseDevice(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(last_error(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
}

static void ARefusedReaderStaysScannedAndOpensLater(void** state) {
    static const char* const refusals[] = {"EACCES", "EPERM", "EMFILE"};
    scan();
    for (size_t i = 0; i < sizeof refusals / sizeof *refusals; ++i) {
        bus("refuse %d %s", desk, refusals[i]);
        assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
        assert_int_equal(last_error(0), GVUSB_ERR_CANNOT_OPEN);
        assert_int_equal(GVUSB_GetDeviceHnd(desk_id), GVUSB_ERR_NOT_OPENED);
        assert_string_equal(scan_list_parameter(scan_list_index("A1"), "DEVICEHND"), "0");
        bus("refuse %d off", desk);
        const int handle = GVUSB_OpenDevice(desk_id);
        check_echo(handle);
        GVUSB_CloseDevice(handle);
    }
}

/* libusb treats a reader whose node is missing as unplugged, even before it is notified. */
static void AReaderWithoutItsNodeIsNotScannedUntilItIsPluggedAgain(void** state) {
    scan();
    bus("refuse %d ENOENT", desk);
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
    bus("refuse %d off", desk);
    scan();
    assert_int_equal(scan_list_index("A1"), -1);
    bus("replug %d", desk);
    scan_until(readers);
    check_echo(GVUSB_OpenDevice(desk_id));
}

static void ABusyInterfaceIsReportedByTheFirstTransfer(void** state) {
    bus("busy %d on", desk);
    const int handle = open_reader(desk_id);
    assert_int_equal(exchange(handle), GVUSB_ERR_CANNOT_CLAIM);
    assert_int_equal(last_error(0), GVUSB_ERR_CANNOT_CLAIM);
    assert_int_equal(last_error(handle), GVUSB_ERR_CANNOT_CLAIM);
    assert_int_equal(GVUSB_IsDevicePresent(handle), 1);

    bus("busy %d off", desk);
    GVUSB_CloseDevice(handle);
    assert_int_equal(GVUSB_OpenDevice(desk_id), handle);
    check_echo(handle);
}

static void TheInterfaceIsClaimedOncePerOpening(void** state) {
    scan();
    const long claims = host_count(desk, "claims");
    const int handle = GVUSB_OpenDevice(desk_id);
    assert_int_equal(host_count(desk, "claims"), claims);
    check_echo(handle);
    check_echo(handle);
    assert_int_equal(host_count(desk, "claims"), claims + 1);
}

static void AReaderUnpluggedAfterTheScanCannotBeOpened(void** state) {
    scan();
    bus("unplug %d", desk);
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
    bus("plug %d", desk);
    scan_until(readers);
    check_echo(GVUSB_OpenDevice(desk_id));
}

static void AReaderInAnotherConfigurationIsSetToTheFirst(void** state) {
    scan();
    const long before = host_count(second_configuration, "set-configurations");
    const long desk_before = host_count(desk, "set-configurations");
    const int handle = GVUSB_OpenDevice(second_configuration_id);
    assert_true(handle > 0);
    assert_int_equal(host_count(second_configuration, "set-configurations"), before + 1);
    check_echo(handle);

    const int other = GVUSB_OpenDevice(desk_id);
    check_echo(other);
    assert_int_equal(host_count(desk, "set-configurations"), desk_before);
}

static void AReaderThatCannotBeConfiguredIsClosedForARetry(void** state) {
    bus("fail-configuration %d on", second_configuration);
    scan();
    for (int i = 0; i < 2; ++i) {
        const long tries = host_count(second_configuration, "set-configurations");
        assert_int_equal(GVUSB_OpenDevice(second_configuration_id), GVUSB_ERR_SET_CONFIGURATION);
        assert_int_equal(last_error(0), GVUSB_ERR_SET_CONFIGURATION);
        assert_int_equal(host_count(second_configuration, "set-configurations"), tries + 1);
        if (bus_is_emulated()) {
            assert_int_equal(host_count(second_configuration, "opens"),
                             host_count(second_configuration, "closes"));
        }
        assert_int_equal(GVUSB_GetDeviceHnd(second_configuration_id), GVUSB_ERR_NOT_OPENED);
    }
    bus("fail-configuration %d off", second_configuration);
    check_echo(GVUSB_OpenDevice(second_configuration_id));
}

static void AFailingReaderDoesNotPreventOpeningTheOthers(void** state) {
    bus("fail-configuration %d on", second_configuration);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), GVUSB_ERR_SET_CONFIGURATION);
    assert_int_equal(last_error(0), GVUSB_ERR_SET_CONFIGURATION);
    assert_int_equal(GVUSB_GetDeviceHnd(second_configuration_id), GVUSB_ERR_NOT_OPENED);
    check_echo(GVUSB_GetDeviceHnd(desk_id));
    check_echo(GVUSB_GetDeviceHnd(gate_id));
    check_echo(GVUSB_GetDeviceHnd(with_driver_id));
}

static void ABoundKernelDriverIsDetached(void** state) {
    bus("driver %d usbhid", with_driver);
    scan();
    const long detaches = host_count(with_driver, "driver-detaches");
    const int handle = GVUSB_OpenDevice(with_driver_id);
    check_echo(handle);
    assert_int_equal(host_count(with_driver, "driver-detaches"), detaches + 1);
    check_echo(handle);
    assert_int_equal(host_count(with_driver, "driver-detaches"), detaches + 1);
}

static void AReaderWithDeviceIdZeroOpensButIsNotFoundByItsId(void** state) {
    plug_new("id=0,name=Null");
    scan_until(readers + 1);
    const int handle = GVUSB_OpenDevice(0);
    assert_true(handle > 0);
    assert_int_equal(GVUSB_OpenDevice(0), handle);
    assert_int_equal(GVUSB_GetDeviceList(0), handle);
    assert_int_equal(GVUSB_GetDeviceList(handle), 0);
    assert_int_equal(GVUSB_GetDeviceHnd(0), GVUSB_ERR_NOT_OPENED);
    assert_string_equal(parameter(handle, "DEVICENAME"), "Null");
    check_echo(handle);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(OpensByDeviceIdAndReturnsAHandle),
        TEST_CASE(AReaderThatWasNotScannedIsNotOpened),
        TEST_CASE(AReaderDroppedFromTheScanListIsOpenButNotScanned),
        TEST_CASE(SeveralReadersAreOpenAtOnce),
        TEST_CASE(ScanAndOpenOpensEveryReader),
        TEST_CASE(HandlesAreIteratedInTheOrderOfOpening),
        TEST_CASE(OpeningAnOpenReaderChangesNothing),
        TEST_CASE(AClosedReaderOpensAgainWithItsHandle),
        TEST_CASE(ClosingReleasesTheReader),
        TEST_CASE(ClosingAnUnknownHandleIsRefused),
        TEST_CASE(ARefusedReaderStaysScannedAndOpensLater),
        TEST_CASE(AReaderWithoutItsNodeIsNotScannedUntilItIsPluggedAgain),
        TEST_CASE(ABusyInterfaceIsReportedByTheFirstTransfer),
        TEST_CASE(TheInterfaceIsClaimedOncePerOpening),
        TEST_CASE(AReaderUnpluggedAfterTheScanCannotBeOpened),
        TEST_CASE(AReaderInAnotherConfigurationIsSetToTheFirst),
        TEST_CASE(AReaderThatCannotBeConfiguredIsClosedForARetry),
        TEST_CASE(AFailingReaderDoesNotPreventOpeningTheOthers),
        TEST_CASE(ABoundKernelDriverIsDetached),
        TEST_CASE(AReaderWithDeviceIdZeroOpensButIsNotFoundByItsId),
    };
    return run_group("opening", tests, sizeof tests / sizeof *tests, argc, argv);
}
