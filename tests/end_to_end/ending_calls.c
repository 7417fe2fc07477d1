/* Calls that another thread ends, in parallel mode. */
#include "testing.h"

#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

/* The readers as described in CMakeLists.txt: the first has bulk endpoints, the second has none. */
enum { bulk_id = 0xA1, control_id = 0xB2 };

/* A call that is not ended takes this long. */
static const char* const long_timeout = "60000";

struct call {
    pthread_t thread;
    int handle;
    int (*function)(int handle);
    int result;
    atomic_bool done;
};

static const unsigned char frame[] = {2, 0, 7};

static int transceive(int handle) {
    unsigned char answer[64];
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
}

static int transmit(int handle) {
    return GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, sizeof frame);
}

static int receive(int handle) {
    unsigned char answer[64];
    return GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, sizeof answer);
}

static void* run(void* argument) {
    struct call* const call = argument;
    call->result = call->function(call->handle);
    atomic_store(&call->done, true);
    return NULL;
}

static void start(struct call* call, int handle, int (*function)(int)) {
    *call = (struct call){.handle = handle, .function = function};
    assert_int_equal(pthread_create(&call->thread, NULL, run, call), 0);
}

static void pause_briefly(void) {
    const struct timespec pause = {.tv_nsec = 1000000};
    nanosleep(&pause, NULL);
}

static int frames_of(int reader) {
    return atoi(bus("frames %d", reader));
}

/* Start an exchange and return when the reader has got the frame. It does not answer. */
static void start_exchange(struct call* call, int reader, int handle) {
    const int before = frames_of(reader);
    start(call, handle, transceive);
    while (frames_of(reader) == before) {
        pause_briefly();
    }
}

static int result_of(struct call* call) {
    pthread_join(call->thread, NULL);
    return call->result;
}

/* Cancel until the call has ended: at first it may not have begun. */
static int result_of_canceled(struct call* call) {
    do {
        assert_int_equal(GVUSB_SetDevicePara(call->handle, "CANCEL", ""), 0);
        pause_briefly();
    } while (!atomic_load(&call->done));
    return result_of(call);
}

static int open_with_long_timeout(unsigned int id) {
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", "1"), 0);
    const int handle = open_reader(id);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", long_timeout), 0);
    return handle;
}

static int canceled_code(int reader) {
    return reader == 1 ? GVUSB_ERR_BULK_TRANSFER : GVUSB_ERR_CONTROL_TRANSFER;
}

static void CancelEndsEachKindOfCall(void** state) {
    for (int reader = 1; reader <= 2; ++reader) {
        const int handle = open_with_long_timeout(reader == 1 ? bulk_id : control_id);
        struct call call;
        bus("mute %d in", reader);
        start(&call, handle, receive);
        assert_int_equal(result_of_canceled(&call), canceled_code(reader));
        bus("mute %d out", reader);
        start(&call, handle, transmit);
        assert_int_equal(result_of_canceled(&call), canceled_code(reader));
        start(&call, handle, transceive);
        assert_int_equal(result_of_canceled(&call), canceled_code(reader));
        bus("unmute %d in", reader);
        bus("unmute %d out", reader);
        bus("flush %d", reader);
        check_echo(handle);
    }
}

/* "CANCEL" stores 0 first, and then the call stores its own code. */
static void TheLastErrorIsThatOfTheCanceledCall(void** state) {
    for (int reader = 1; reader <= 2; ++reader) {
        const int handle = open_with_long_timeout(reader == 1 ? bulk_id : control_id);
        struct call call;
        bus("mute %d in", reader);
        start_exchange(&call, reader, handle);
        assert_int_equal(GVUSB_SetDevicePara(handle, "CANCEL", ""), 0);
        assert_int_equal(result_of(&call), canceled_code(reader));
        assert_int_equal(last_error(handle), canceled_code(reader));
    }
}

static void ClosingEndsTheCall(void** state) {
    for (int reader = 1; reader <= 2; ++reader) {
        const unsigned int id = reader == 1 ? bulk_id : control_id;
        const int handle = open_with_long_timeout(id);
        struct call call;
        bus("mute %d in", reader);
        start_exchange(&call, reader, handle);
        assert_int_equal(GVUSB_CloseDevice(handle), 0);
        assert_int_equal(result_of(&call), GVUSB_ERR_NOT_OPENED);
        bus("unmute %d in", reader);
        bus("flush %d", reader);
        assert_int_equal(GVUSB_OpenDevice(id), handle);
        check_echo(handle);
    }
}

static void ClosingEndsTheFirstCallAfterOpening(void** state) {
    const int handle = open_with_long_timeout(bulk_id);
    struct call call;
    bus("mute 1 in");
    start_exchange(&call, 1, handle);
    const int other = open_with_long_timeout(control_id);
    assert_int_equal(GVUSB_CloseDevice(other), 0);
    assert_false(atomic_load(&call.done));
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
    assert_int_equal(result_of(&call), GVUSB_ERR_NOT_OPENED);
}

static void CancelOfAllReadersEndsTheCallsOfEach(void** state) {
    struct call calls[2];
    bus("mute 1 in");
    bus("mute 2 in");
    start_exchange(&calls[0], 1, open_with_long_timeout(bulk_id));
    start_exchange(&calls[1], 2, open_with_long_timeout(control_id));
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_ALL_DEVICES, "CANCEL", ""), 0);
    assert_int_equal(result_of(&calls[0]), GVUSB_ERR_BULK_TRANSFER);
    assert_int_equal(result_of(&calls[1]), GVUSB_ERR_CONTROL_TRANSFER);
}

static void CancelDoesNotEndTheNextCall(void** state) {
    const int handle = open_with_long_timeout(bulk_id);
    assert_int_equal(GVUSB_SetDevicePara(handle, "CANCEL", ""), 0);
    check_echo(handle);
}

/* The reader does not know that the call has ended. */
static void TheNextReceiveGetsTheAnswerOfACanceledCall(void** state) {
    const int handle = open_with_long_timeout(bulk_id);
    struct call call;
    bus("delay 1 in 50000");
    start_exchange(&call, 1, handle);
    assert_int_equal(result_of_canceled(&call), GVUSB_ERR_BULK_TRANSFER);
    bus("delay 1 in 0");
    unsigned char answer[64];
    assert_int_equal(GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, sizeof answer), (int)sizeof frame);
    assert_memory_equal(answer, frame, sizeof frame);
    check_echo(handle);
}

static void ACallEndsWithItsOwnCodeIfTheReaderLeaves(void** state) {
    const int handle = open_with_long_timeout(bulk_id);
    struct call call;
    bus("mute 1 in");
    start_exchange(&call, 1, handle);
    bus("unplug 1");
    assert_int_equal(result_of(&call), GVUSB_ERR_NOT_PRESENT);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(CancelEndsEachKindOfCall),
        TEST_CASE(TheLastErrorIsThatOfTheCanceledCall),
        TEST_CASE(ClosingEndsTheCall),
        TEST_CASE(ClosingEndsTheFirstCallAfterOpening),
        TEST_CASE(CancelOfAllReadersEndsTheCallsOfEach),
        TEST_CASE(CancelDoesNotEndTheNextCall),
        TEST_CASE(TheNextReceiveGetsTheAnswerOfACanceledCall),
        TEST_CASE(ACallEndsWithItsOwnCodeIfTheReaderLeaves),
    };
    return run_group("ending_calls", tests, sizeof tests / sizeof *tests, argc, argv);
}
