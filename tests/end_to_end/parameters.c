/* Settings of readers and of the driver. */
#include "testing.h"

#include <stdio.h>
#include <string.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { desk = 1, gate };
enum { desk_id = 0x12AB0, gate_id = 0xB2 };

static int get(int handle, const char* key) {
    char value[GVUSB_PARAMETER_SIZE] = ""; /* The log shows it. */
    return GVUSB_GetDevicePara(handle, key, value);
}

static void EveryParameterOfAReader(void** state) {
    const int handle = open_reader_with_default_timeout(desk_id);
    char handle_text[16];
    snprintf(handle_text, sizeof handle_text, "%d", handle);
    assert_string_equal(parameter(handle, "TIMEOUT"), "1000");
    assert_string_equal(parameter(handle, "DEVICEHND"), handle_text);
    assert_string_equal(parameter(handle, "DEVICE-ID"), "12AB0");
    assert_string_equal(parameter(handle, "DEVICENAME"), "Desk reader");
    assert_string_equal(parameter(handle, "FAMILYNAME"), "Desk");
    assert_string_equal(parameter(handle, "INTERFACE"), "TESK-RCI2-USB");
    assert_string_equal(parameter(handle, "TYPENUMBER"), "D-100");
    assert_int_equal(last_error(0), 0);
    assert_int_equal(last_error(handle), 0);
}

static void KeysAreTheSameInAnyCase(void** state) {
    const int handle = open_reader(desk_id);
    assert_string_equal(parameter(handle, "device-id"), "12AB0");
    assert_string_equal(parameter(handle, "DeviceName"), "Desk reader");
    assert_int_equal(GVUSB_SetDevicePara(handle, "TimeOut", "77"), 0);
    assert_string_equal(parameter(handle, "timeout"), "77");
    assert_string_equal(parameter(GVUSB_DRIVER, "hotplug-mode"), "0");
}

static void UnknownKeysAreRefused(void** state) {
    static const char* const keys[] = {"", "TIME-OUT", "TIMEOUT ", "DEVICEID", "HOTPLUG-MODE"};
    const int handle = open_reader(desk_id);
    for (size_t i = 0; i < sizeof keys / sizeof *keys; ++i) {
        assert_int_equal(get(handle, keys[i]), GVUSB_ERR_UNKNOWN_PARAMETER);
        assert_int_equal(last_error(handle), GVUSB_ERR_UNKNOWN_PARAMETER);
        assert_int_equal(GVUSB_SetDevicePara(handle, keys[i], "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
        assert_int_equal(last_error(0), GVUSB_ERR_UNKNOWN_PARAMETER);
    }
    assert_int_equal(GVUSB_SetDevicePara(handle, "DEVICENAME", "x"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(get(handle, "RESETPIPE"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(get(handle, "CANCEL"), GVUSB_ERR_UNKNOWN_PARAMETER);
}

static void KeysOfAnyLengthAreRefusedSafely(void** state) {
    static char key[100000];
    const int handle = open_reader(desk_id);
    for (size_t length = 120; length < sizeof key; length = length < 140 ? length + 1 : length * 3) {
        memset(key, 'K', length);
        key[length] = '\0';
        assert_int_equal(get(handle, key), GVUSB_ERR_UNKNOWN_PARAMETER);
        assert_int_equal(GVUSB_SetDevicePara(handle, key, "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
        assert_int_equal(get(GVUSB_DRIVER, key), GVUSB_ERR_UNKNOWN_PARAMETER);
    }
}

static void TheTimeoutAcceptsNumbersFromOne(void** state) {
    static const char* const refused[] = {"0", "-1", "", "soon"};
    const int handle = open_reader(desk_id);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "250ms"), 0);
    assert_string_equal(parameter(handle, "TIMEOUT"), "250");
    for (size_t i = 0; i < sizeof refused / sizeof *refused; ++i) {
        assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", refused[i]), GVUSB_ERR_OUT_OF_RANGE);
        assert_int_equal(last_error(handle), GVUSB_ERR_OUT_OF_RANGE);
    }
    assert_string_equal(parameter(handle, "TIMEOUT"), "250");
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "99999999999999999999"), 0);
    assert_string_equal(parameter(handle, "TIMEOUT"), "4294967295");
    check_echo(handle);
}

static void TheTimeoutIsKeptUntilTheNextScan(void** state) {
    int handle = open_reader(desk_id);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "55"), 0);
    GVUSB_CloseDevice(handle);
    handle = GVUSB_OpenDevice(desk_id);
    assert_string_equal(parameter(handle, "TIMEOUT"), "55");
    GVUSB_CloseDevice(handle);
    handle = open_reader_with_default_timeout(desk_id);
    assert_string_equal(parameter(handle, "TIMEOUT"), "1000");
}

static void TypeNumberIsReadEachTime(void** state) {
    const int handle = open_reader(desk_id);
    bus("string %d 10 Changed type", desk);
    assert_string_equal(parameter(handle, "TYPENUMBER"), "Changed type");
    bus("fail-string %d 10 on", desk);
    assert_int_equal(get(handle, "TYPENUMBER"), GVUSB_ERR_STRING_DESCRIPTOR_READ);
    assert_int_equal(last_error(handle), GVUSB_ERR_STRING_DESCRIPTOR_READ);
    bus("string %d 10 D-100", desk);
}

static void TheIdentityIsThatOfTheScan(void** state) {
    const int handle = open_reader(desk_id);
    bus("string %d 5 Renamed", desk);
    assert_string_equal(parameter(handle, "DEVICENAME"), "Desk reader");
    GVUSB_CloseDevice(handle);
    assert_string_equal(parameter(open_reader(desk_id), "DEVICENAME"), "Renamed");
    bus("string %d 5 Desk reader", desk);
}

static void TheLongestTextsFitTheirBuffers(void** state) {
    char text[127];
    memset(text, 'n', sizeof text - 1);
    text[sizeof text - 1] = '\0';
    char description[300];
    snprintf(description, sizeof description, "id=FFFFFFFF,name=%s", text);
    plug_new(description);
    scan_until(3);
    const int handle = GVUSB_OpenDevice(0xFFFFFFFFU);
    assert_string_equal(parameter(handle, "DEVICENAME"), text);
    assert_string_equal(parameter(handle, "DEVICE-ID"), "FFFFFFFF");
}

static void ReadingFromAllDevicesReadsTheFirstOpenOne(void** state) {
    assert_int_equal(get(GVUSB_ALL_DEVICES, "TIMEOUT"), GVUSB_ERR_EMPTY_DEVICE_LIST);
    assert_int_equal(last_error(0), GVUSB_ERR_EMPTY_DEVICE_LIST);
    open_reader(gate_id);
    GVUSB_OpenDevice(desk_id);
    assert_string_equal(parameter(GVUSB_ALL_DEVICES, "DEVICE-ID"), "B2");
}

static void WritingToAllDevicesWritesToEveryOpenOne(void** state) {
    const int first = open_reader(desk_id);
    const int second = GVUSB_OpenDevice(gate_id);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "321"), 0);
    assert_string_equal(parameter(first, "TIMEOUT"), "321");
    assert_string_equal(parameter(second, "TIMEOUT"), "321");
}

static void WritingToAllDevicesStopsAtTheFirstFailure(void** state) {
    const int first = open_reader(desk_id);
    const int second = GVUSB_OpenDevice(gate_id);
    bus("fail-reset %d on", desk);
    const long resets = host_count(gate, "resets");
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "RESETDEVICE", ""),
                     GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    assert_int_equal(host_count(gate, "resets"), resets);
    assert_int_equal(last_error(first), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    assert_int_equal(last_error(second), 0);
}

static void WritingToAllDevicesReturnsTheLastErrorIfThereAreNone(void** state) {
    last_error(0);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "1"), 0);
    assert_int_equal(GVUSB_CloseDevice(0), GVUSB_ERR_NULL_HANDLE);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "TIMEOUT", "1"), GVUSB_ERR_NULL_HANDLE);
    assert_int_equal(last_error(0), GVUSB_ERR_NULL_HANDLE);
}

static void HandlesThatAreNotOpenAreRefused(void** state) {
    const int handle = open_reader(desk_id);
    GVUSB_CloseDevice(handle);
    assert_int_equal(get(handle, "TIMEOUT"), GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "1"), GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(get(-2, "TIMEOUT"), GVUSB_ERR_NEGATIVE_HANDLE);
    assert_int_equal(GVUSB_SetDevicePara(-2, "TIMEOUT", "1"), GVUSB_ERR_NEGATIVE_HANDLE);
    assert_int_equal(get(handle, NULL), GVUSB_ERR_NULL_POINTER);
    assert_int_equal(GVUSB_GetDevicePara(handle, "TIMEOUT", NULL), GVUSB_ERR_NULL_POINTER);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", NULL), GVUSB_ERR_NULL_POINTER);
}

static void EachDriverParameterIsEitherReadOrWritten(void** state) {
    assert_string_equal(parameter(GVUSB_DRIVER, "HOTPLUG-MODE"), "0");
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(get(GVUSB_DRIVER, "HOTPLUG-UPDATERATE"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(get(GVUSB_DRIVER, "HOTPLUG-SUSPEND"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(get(GVUSB_DRIVER, "TIMEOUT"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(last_error(0), GVUSB_ERR_UNKNOWN_PARAMETER);
}

static void TheUpdateRateAcceptsNumbersFromTen(void** state) {
    static const char* const accepted[] = {"10", "250000ms", " 300000", "4000000000"};
    static const char* const refused[] = {"9", "0", "abc", ""};
    for (size_t i = 0; i < sizeof accepted / sizeof *accepted; ++i) {
        assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", accepted[i]), 0);
    }
    for (size_t i = 0; i < sizeof refused / sizeof *refused; ++i) {
        assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", refused[i]),
                         GVUSB_ERR_OUT_OF_RANGE);
        assert_int_equal(last_error(0), GVUSB_ERR_OUT_OF_RANGE);
    }
}

static void SuspendAcceptsExactlyZeroAndOne(void** state) {
    static const char* const refused[] = {"", "2", "00", " 1", "true"};
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "0"), 0);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "hotplug-suspend", "1"), 0);
    for (size_t i = 0; i < sizeof refused / sizeof *refused; ++i) {
        assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", refused[i]),
                         GVUSB_ERR_OUT_OF_RANGE);
    }
}

static void ParallelAcceptsExactlyZeroAndOne(void** state) {
    static const char* const refused[] = {"", "2", "00", " 1", "1 ", "-1", "true"};
    const char* const configured = in_parallel_suite() ? "1" : "0";
    const int handle = open_reader(desk_id);
    assert_string_equal(parameter(GVUSB_DRIVER, "PARALLEL"), configured);
    for (int value = 0; value <= 1; ++value) {
        const char* const text = value != 0 ? "1" : "0";
        assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", text), 0);
        for (size_t i = 0; i < sizeof refused / sizeof *refused; ++i) {
            assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", refused[i]),
                             GVUSB_ERR_OUT_OF_RANGE);
            assert_int_equal(last_error(0), GVUSB_ERR_OUT_OF_RANGE);
        }
        assert_string_equal(parameter(GVUSB_DRIVER, "parallel"), text);
        check_echo(handle);
    }
    assert_int_equal(get(handle, "PARALLEL"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(GVUSB_SetDevicePara(handle, "PARALLEL", "1"), GVUSB_ERR_UNKNOWN_PARAMETER);
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", configured), 0);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(EveryParameterOfAReader),
        TEST_CASE(KeysAreTheSameInAnyCase),
        TEST_CASE(UnknownKeysAreRefused),
        TEST_CASE(KeysOfAnyLengthAreRefusedSafely),
        TEST_CASE(TheTimeoutAcceptsNumbersFromOne),
        TEST_CASE(TheTimeoutIsKeptUntilTheNextScan),
        TEST_CASE(TypeNumberIsReadEachTime),
        TEST_CASE(TheIdentityIsThatOfTheScan),
        TEST_CASE(TheLongestTextsFitTheirBuffers),
        TEST_CASE(ReadingFromAllDevicesReadsTheFirstOpenOne),
        TEST_CASE(WritingToAllDevicesWritesToEveryOpenOne),
        TEST_CASE(WritingToAllDevicesStopsAtTheFirstFailure),
        TEST_CASE(WritingToAllDevicesReturnsTheLastErrorIfThereAreNone),
        TEST_CASE(HandlesThatAreNotOpenAreRefused),
        TEST_CASE(EachDriverParameterIsEitherReadOrWritten),
        TEST_CASE(TheUpdateRateAcceptsNumbersFromTen),
        TEST_CASE(SuspendAcceptsExactlyZeroAndOne),
        TEST_CASE(ParallelAcceptsExactlyZeroAndOne),
    };
    return run_group("parameters", tests, sizeof tests / sizeof *tests, argc, argv);
}
