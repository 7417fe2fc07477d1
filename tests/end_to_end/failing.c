/* Faults of readers: silence, stalls, unplugging, resets. */
#include "testing.h"

#include <pthread.h>
#include <string.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { bulk = 1, control, readers = control };
enum { bulk_id = 0xB1, control_id = 0xC1 };

static const unsigned char frame[] = {0x10, 0x20, 0x30};
static unsigned char answer[64];

static int transceive(int handle) {
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
}

static int transmit(int handle) {
    return GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, sizeof frame);
}

static int receive(int handle) {
    memset(answer, 0xAA, sizeof answer);
    return GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, sizeof answer);
}

static void check_times_out(int (*exchange)(int handle), int handle, double timeout_ms) {
    const double start = now_ms();
    assert_int_equal(exchange(handle), GVUSB_ERR_TIMEOUT);
    const double taken = now_ms() - start;
    if (taken < timeout_ms || taken > timeout_ms + long_enough_ms) {
        fail_msg("timed out after %.1f ms instead of %.1f", taken, timeout_ms);
    }
    assert_int_equal(last_error(0), GVUSB_ERR_TIMEOUT);
    assert_int_equal(last_error(handle), GVUSB_ERR_TIMEOUT);
}

static int open_with_timeout(unsigned int id, const char* milliseconds) {
    const int handle = open_reader(id);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", milliseconds), 0);
    return handle;
}

static void check_echo_patiently(int handle) {
    be_patient(handle);
    check_echo(handle);
}

static void TheDefaultTimeoutIsOneSecond(void** state) {
    const int handle = open_reader_with_default_timeout(bulk_id);
    bus("mute %d in", bulk);
    check_times_out(transceive, handle, 1000);
}

static void EachReaderHasItsOwnTimeout(void** state) {
    const int quick = open_with_timeout(bulk_id, "60");
    const int slow = open_with_timeout(control_id, "250");
    bus("mute all in");
    check_times_out(transceive, quick, 60);
    check_times_out(receive, quick, 60);
    check_times_out(transceive, slow, 250);
    check_times_out(receive, slow, 250);
}

static void TheTimeoutAppliesToSendingAndReceivingSeparately(void** state) {
    const int handle = open_with_timeout(bulk_id, "2500");
    bus("delay %d out 1300", bulk);
    bus("delay %d in 1300", bulk);
    const double start = now_ms();
    assert_int_equal(transceive(handle), sizeof frame);
    assert_true(now_ms() - start >= 2600);
}

static void ASendThatTimesOutClearsBothHalts(void** state) {
    const int handle = open_reader(bulk_id);
    check_echo_patiently(handle);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "60"), 0);
    bus("mute %d out", bulk);
    const long halts = host_count(bulk, "clear-halts");
    check_times_out(transmit, handle, 60);
    assert_int_equal(host_count(bulk, "clear-halts"), halts + 2);
    check_times_out(transceive, handle, 60);
    assert_int_equal(host_count(bulk, "clear-halts"), halts + 4);
    bus("unmute %d out", bulk);
    check_echo_patiently(handle);
}

static void AReceiveThatTimesOutDoesNotClearTheHalts(void** state) {
    const int handle = open_with_timeout(bulk_id, "60");
    const long halts = host_count(bulk, "clear-halts");
    bus("mute %d in", bulk);
    check_times_out(receive, handle, 60);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "1000"), 0); /* enough to send the frame */
    check_times_out(transceive, handle, 1000);
    assert_int_equal(host_count(bulk, "clear-halts"), halts);
    bus("unmute %d in", bulk);
    check_echo_patiently(handle);
}

static void ControlTransfersTimeOutInBothDirections(void** state) {
    const int handle = open_with_timeout(control_id, "60");
    bus("mute %d out", control);
    check_times_out(transmit, handle, 60);
    bus("unmute %d out", control);
    bus("mute %d in", control);
    check_times_out(receive, handle, 60);
    bus("unmute %d in", control);
    check_echo_patiently(handle);
}

static void ATimedOutReceiveLeavesZerosInTheBuffer(void** state) {
    const int handle = open_with_timeout(bulk_id, "60");
    assert_int_equal(receive(handle), GVUSB_ERR_TIMEOUT);
    for (size_t i = 0; i < sizeof answer; ++i) {
        assert_int_equal(answer[i], 0);
    }
}

static void AStalledPipeFailsUntilItIsReset(void** state) {
    static const char* const pipes[] = {"in", "out"};
    const int handle = open_reader(bulk_id);
    for (size_t i = 0; i < sizeof pipes / sizeof *pipes; ++i) {
        bus("stall %d %s", bulk, pipes[i]);
        assert_int_equal(transceive(handle), GVUSB_ERR_BULK_TRANSFER);
        assert_int_equal(last_error(handle), GVUSB_ERR_BULK_TRANSFER);
        assert_int_equal(transceive(handle), GVUSB_ERR_BULK_TRANSFER);
        const long halts = host_count(bulk, "clear-halts");
        assert_int_equal(GVUSB_SetDevicePara(handle, "RESETPIPE", ""), 0);
        assert_int_equal(host_count(bulk, "clear-halts"), halts + 2);
        bus("flush %d", bulk);
        check_echo(handle);
    }
}

static void APermanentStallSurvivesAReset(void** state) {
    const int handle = open_reader(bulk_id);
    bus("stall %d in stuck", bulk);
    assert_int_equal(transceive(handle), GVUSB_ERR_BULK_TRANSFER);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETPIPE", ""), 0);
    assert_int_equal(receive(handle), GVUSB_ERR_BULK_TRANSFER);
}

static void AStalledControlRequestFailsAlone(void** state) {
    const int handle = open_reader(control_id);
    bus("stall %d out", control);
    assert_int_equal(transmit(handle), GVUSB_ERR_CONTROL_TRANSFER);
    assert_int_equal(last_error(0), GVUSB_ERR_CONTROL_TRANSFER);
    bus("unstall %d out", control);
    check_echo(handle);
    bus("stall %d in", control);
    assert_int_equal(transceive(handle), GVUSB_ERR_CONTROL_TRANSFER);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETPIPE", ""), 0);
    assert_int_equal(host_count(control, "clear-halts"), 0);
    bus("unstall %d in", control);
    assert_int_equal(receive(handle), sizeof frame);
}

static void AnUnpluggedReaderIsNotPresent(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    for (int reader = 1; reader <= readers; ++reader) {
        const int handle = open_reader(ids[reader - 1]);
        check_echo(handle);
        assert_int_equal(GVUSB_IsDevicePresent(handle), 1);
        bus("unplug %d", reader);
        assert_int_equal(GVUSB_IsDevicePresent(handle), 0);
        assert_int_equal(last_error(0), 0);
        assert_int_equal(last_error(handle), GVUSB_ERR_NOT_PRESENT);
        assert_int_equal(transceive(handle), GVUSB_ERR_NOT_PRESENT);
        assert_int_equal(transmit(handle), GVUSB_ERR_NOT_PRESENT);
        assert_int_equal(receive(handle), GVUSB_ERR_NOT_PRESENT);
        assert_int_equal(last_error(0), GVUSB_ERR_NOT_PRESENT);
        bus("plug %d", reader);
        scan_until(readers);
    }
}

static void ParametersOfAnUnpluggedReader(void** state) {
    char value[GVUSB_PARAMETER_SIZE] = ""; /* The log shows it. */
    const int handle = open_reader(bulk_id);
    check_echo(handle);
    bus("unplug %d", bulk);
    assert_int_equal(GVUSB_GetDevicePara(handle, "TYPENUMBER", value), GVUSB_ERR_STRING_DESCRIPTOR_READ);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETDEVICE", ""), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETPIPE", ""), 0);
    assert_string_equal(parameter(handle, "DEVICE-ID"), "B1");
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
    assert_int_equal(GVUSB_CloseDevice(handle), GVUSB_ERR_HANDLE_NOT_FOUND);
}

struct waiting_exchange {
    int handle;
    int result;
    double ended;
};

static void* exchange_in_thread(void* argument) {
    struct waiting_exchange* exchange = argument;
    unsigned char received[64];
    exchange->result =
        GVUSB_Transceive(exchange->handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, received, sizeof received);
    exchange->ended = now_ms();
    return NULL;
}

struct transfers {
    int reader;
    long count;
};

static bool has_transfers(void* context) {
    const struct transfers* wanted = context;
    return host_count(wanted->reader, "transfers") >= wanted->count;
}

static void UnpluggingEndsAPendingTransfer(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    for (int reader = 1; reader <= readers; ++reader) {
        const int handle = open_with_timeout(ids[reader - 1], "60000");
        check_echo(handle);
        bus("mute %d in", reader);
        struct transfers both = {reader, host_count(reader, "transfers") + 2};
        struct waiting_exchange exchange = {.handle = handle};
        pthread_t thread;
        assert_int_equal(pthread_create(&thread, NULL, exchange_in_thread, &exchange), 0);
        const bool waits = await(has_transfers, &both, long_enough_ms);
        const double unplugged = now_ms();
        bus("unplug %d", reader);
        pthread_join(thread, NULL);
        assert_true(waits);
        assert_int_equal(exchange.result, GVUSB_ERR_NOT_PRESENT);
        assert_true(exchange.ended - unplugged < long_enough_ms);
        bus("unmute %d in", reader);
        bus("plug %d", reader);
        scan_until(readers);
    }
}

static void AReaderPluggedAgainKeepsItsHandleAfterAScan(void** state) {
    const int handle = open_reader(bulk_id);
    const int other = open_reader(control_id);
    for (int i = 0; i < 3; ++i) {
        check_echo(handle);
        bus("unplug %d", bulk);
        assert_int_equal(transceive(handle), GVUSB_ERR_NOT_PRESENT);
        check_echo(other);
        bus("plug %d", bulk);
        scan_until(readers);
        assert_int_equal(GVUSB_GetDeviceHnd(bulk_id), handle);
        assert_int_equal(GVUSB_OpenDevice(bulk_id), handle);
        check_echo(other);
    }
    check_echo(handle);
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
}

/* After a scan that does not find an open reader, its handle can only be closed. */
static void AScanWithoutAnOpenReaderKeepsItsHandle(void** state) {
    const int handle = open_reader(bulk_id);
    bus("unplug %d", bulk);
    scan_until(readers - 1);
    assert_int_equal(GVUSB_GetDeviceHnd(bulk_id), handle);
    assert_int_equal(GVUSB_IsDevicePresent(handle), 0);
    bus("plug %d", bulk);
    scan_until(readers);
    check_echo(handle);
}

static void AResetReachesTheReader(void** state) {
    const int handle = open_reader(bulk_id);
    check_echo(handle);
    assert_int_equal(transmit(handle), 0);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETDEVICE", ""), 0);
    assert_int_equal(host_count(bulk, "resets"), 1);
    check_echo(handle);
}

static void AReaderWorksAfterAReset(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    for (int reader = 1; reader <= readers; ++reader) {
        const int handle = open_reader(ids[reader - 1]);
        check_echo(handle);
        assert_int_equal(GVUSB_SetDevicePara(handle, "RESETDEVICE", ""), 0);
        assert_int_equal(GVUSB_IsDevicePresent(handle), 1);
        check_echo(handle);
    }
}

static void AFailedResetIsReported(void** state) {
    const int handle = open_reader(bulk_id);
    check_echo(handle);
    bus("fail-reset %d on", bulk);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETDEVICE", ""), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    assert_int_equal(last_error(0), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    assert_int_equal(last_error(handle), GVUSB_ERR_PARAMETER_NOT_AVAILABLE);
    check_echo(handle);
}

static void EachReaderKeepsItsOwnLastError(void** state) {
    const int first = open_with_timeout(bulk_id, "60");
    const int second = open_reader(control_id);
    bus("mute %d in", bulk);
    assert_int_equal(transceive(first), GVUSB_ERR_TIMEOUT);
    check_echo(second);
    assert_int_equal(last_error(0), 0);
    assert_int_equal(last_error(first), GVUSB_ERR_TIMEOUT);
    assert_int_equal(last_error(second), 0);
    assert_int_equal(last_error(first), GVUSB_ERR_TIMEOUT);

    int code = 0;
    char text[GVUSB_TEXT_SIZE];
    assert_int_equal(GVUSB_GetLastError(first, &code, text), 0);
    assert_string_equal(text, "GVUSB: (-1130) timeout");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(TheDefaultTimeoutIsOneSecond),
        TEST_CASE(EachReaderHasItsOwnTimeout),
        TEST_CASE(TheTimeoutAppliesToSendingAndReceivingSeparately),
        TEST_CASE(ASendThatTimesOutClearsBothHalts),
        TEST_CASE(AReceiveThatTimesOutDoesNotClearTheHalts),
        TEST_CASE(ControlTransfersTimeOutInBothDirections),
        TEST_CASE(ATimedOutReceiveLeavesZerosInTheBuffer),
        TEST_CASE(AStalledPipeFailsUntilItIsReset),
        TEST_CASE(APermanentStallSurvivesAReset),
        TEST_CASE(AStalledControlRequestFailsAlone),
        TEST_CASE(AnUnpluggedReaderIsNotPresent),
        TEST_CASE(ParametersOfAnUnpluggedReader),
        TEST_CASE(UnpluggingEndsAPendingTransfer),
        TEST_CASE(AReaderPluggedAgainKeepsItsHandleAfterAScan),
        TEST_CASE(AScanWithoutAnOpenReaderKeepsItsHandle),
        TEST_CASE(AResetReachesTheReader),
        TEST_CASE(AReaderWorksAfterAReset),
        TEST_CASE(AFailedResetIsReported),
        TEST_CASE(EachReaderKeepsItsOwnLastError),
    };
    return run_group("failing", tests, sizeof tests / sizeof *tests, argc, argv);
}
