/* Frame exchanges over bulk endpoints and control transfers. */
#include "testing.h"

#include <string.h>

/* The readers as described in CMakeLists.txt, by number. */
enum { bulk = 1, fast, control, in_only, many_endpoints };
enum { bulk_id = 0xB1, fast_id = 0xB2, control_id = 0xC1, in_only_id = 0xC2, many_endpoints_id = 0xD1 };
enum { longest_control_frame = 4096 };

static unsigned char frame[longest_frame];
static unsigned char answer[longest_frame];
static struct seen_frame seen;

static void fill_frame(unsigned int length) {
    for (unsigned int i = 0; i < length; ++i) {
        frame[i] = (unsigned char)(i * 7 + length + i / 251);
    }
}

static int transceive(int handle, unsigned int length) {
    return GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, length, answer, sizeof answer);
}

static int receive(int handle, unsigned int size) {
    memset(answer, 0xAA, sizeof answer);
    return GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, size);
}

static int transmit(int handle, unsigned int length) {
    return GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, length);
}

/* Check that the reader receives exactly this frame, and that it comes back. */
static void check_round_trip(int handle, int reader, unsigned int length) {
    fill_frame(length);
    read_seen_frame(reader, &seen);
    const long count = seen.count;
    assert_int_equal(transceive(handle, length), length);
    assert_memory_equal(answer, frame, length);
    read_seen_frame(reader, &seen);
    assert_int_equal(seen.count, count + 1);
    assert_int_equal(seen.length, length);
    assert_memory_equal(seen.bytes, frame, length);
}

static void FramesOfEverySizeAreExchangedOverBulk(void** state) {
    static const unsigned int lengths[] = {1,   2,    63,   64,   65,    127,   128,   511,   512,
                                           513, 4095, 4096, 4097, 16383, 16384, 16385, 65535, 65536};
    const int slow_handle = open_reader(bulk_id);
    const int fast_handle = open_reader(fast_id);
    for (size_t i = 0; i < sizeof lengths / sizeof *lengths; ++i) {
        check_round_trip(slow_handle, bulk, lengths[i]);
        check_round_trip(fast_handle, fast, lengths[i]);
    }
}

static void FramesOfEverySizeAreExchangedOverControl(void** state) {
    static const unsigned int lengths[] = {1,   2,   8,   63,   64,   65,
                                           255, 256, 512, 1023, 4095, longest_control_frame};
    const int handle = open_reader(control_id);
    for (size_t i = 0; i < sizeof lengths / sizeof *lengths; ++i) {
        check_round_trip(handle, control, lengths[i]);
    }
}

static void FramesTooLongForControlAreRefused(void** state) {
    const int handle = open_reader(control_id);
    read_seen_frame(control, &seen);
    const long count = seen.count;
    assert_int_equal(transceive(handle, longest_control_frame + 1), GVUSB_ERR_CONTROL_TRANSFER);
    assert_int_equal(last_error(handle), GVUSB_ERR_CONTROL_TRANSFER);
    assert_int_equal(transmit(handle, 65535), GVUSB_ERR_CONTROL_TRANSFER);
    assert_int_equal(transmit(handle, 65536), GVUSB_ERR_SEND_LENGTH);
    assert_int_equal(last_error(0), GVUSB_ERR_SEND_LENGTH);
    read_seen_frame(control, &seen);
    assert_int_equal(seen.count, count);
    check_round_trip(handle, control, 10);
}

static void TheProtocolNameIsTheSameInAnyCase(void** state) {
    const int handle = open_reader(bulk_id);
    fill_frame(3);
    assert_int_equal(GVUSB_Transceive(handle, "tesk-rci2", 0, frame, 3, answer, sizeof answer), 3);
    assert_int_equal(GVUSB_Transceive(handle, "Tesk-Rci2", -1, frame, 3, answer, sizeof answer), 3);
}

static void AnotherProtocolIsRefused(void** state) {
    static const char* const names[] = {"",           "TESK-RCI",  "TESK-RCI2 ",
                                        " TESK-RCI2", "TESK RCI2", "TESK-RCI22"};
    const int handle = open_reader(bulk_id);
    const long transfers = host_count(bulk, "transfers");
    for (size_t i = 0; i < sizeof names / sizeof *names; ++i) {
        assert_int_equal(GVUSB_Transceive(handle, names[i], 0, frame, 3, answer, sizeof answer),
                         GVUSB_ERR_UNKNOWN_INTERFACE);
        assert_int_equal(GVUSB_Transmit(handle, names[i], frame, 3), GVUSB_ERR_UNKNOWN_INTERFACE);
        assert_int_equal(GVUSB_Receive(handle, names[i], answer, 3), GVUSB_ERR_UNKNOWN_INTERFACE);
        assert_int_equal(last_error(handle), GVUSB_ERR_UNKNOWN_INTERFACE);
    }
    assert_int_equal(host_count(bulk, "transfers"), transfers);
    if (bus_is_emulated()) {
        assert_int_equal(host_count(bulk, "claims"), host_count(bulk, "releases"));
    }
}

static void BadArgumentsAreRefusedInOrder(void** state) {
    const int handle = open_reader(bulk_id);
    assert_int_equal(GVUSB_Transceive(-1, NULL, 0, NULL, 0, NULL, 0), GVUSB_ERR_NEGATIVE_HANDLE);
    assert_int_equal(GVUSB_Transceive(0, NULL, 0, NULL, 0, NULL, 0), GVUSB_ERR_NULL_HANDLE);
    assert_int_equal(GVUSB_Transceive(handle, NULL, 0, frame, 0, answer, 0), GVUSB_ERR_NULL_POINTER);
    assert_int_equal(GVUSB_Transceive(handle, "other", 0, frame, 0, answer, 0), GVUSB_ERR_NO_SEND_DATA);
    assert_int_equal(GVUSB_Transceive(handle, "other", 0, frame, 1, answer, 0),
                     GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL);
    assert_int_equal(GVUSB_Transceive(handle + 100, "other", 0, frame, 1, answer, 1),
                     GVUSB_ERR_HANDLE_NOT_FOUND);
    assert_int_equal(GVUSB_Transmit(handle, GVUSB_PROTOCOL, frame, 0), GVUSB_ERR_NO_SEND_DATA);
    assert_int_equal(GVUSB_Receive(handle, GVUSB_PROTOCOL, answer, 0), GVUSB_ERR_RECEIVE_BUFFER_TOO_SMALL);
}

static void SendingAndReceivingWorkSeparately(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        fill_frame(12);
        assert_int_equal(transmit(handle, 12), 0);
        frame[0] ^= 0xFF;
        assert_int_equal(transmit(handle, 5), 0);
        assert_int_equal(receive(handle, 64), 12);
        assert_int_equal(answer[0], frame[0] ^ 0xFF);
        assert_int_equal(receive(handle, 64), 5);
        assert_memory_equal(answer, frame, 5);
    }
}

static void OnlyReceivingLeavesItsCountAsTheLastError(void** state) {
    const int handle = open_reader(bulk_id);
    fill_frame(7);
    assert_int_equal(transmit(handle, 7), 0);
    assert_int_equal(last_error(0), 0);
    assert_int_equal(receive(handle, 64), 7);
    int code = 0;
    char text[GVUSB_TEXT_SIZE];
    assert_int_equal(GVUSB_GetLastError(0, &code, text), GVUSB_ERR_UNKNOWN_ERROR_CODE);
    assert_int_equal(code, 7);
    assert_string_equal(text, "GVUSB: Unknown Error: 0x7 (7)");
    assert_int_equal(last_error(handle), 0);
    assert_int_equal(transceive(handle, 7), 7);
    assert_int_equal(last_error(0), 0);
}

/* Sending takes its time on a busy machine, so only receiving has a short time-out. */
static void send_and_time_out(int handle, unsigned int length) {
    assert_int_equal(transmit(handle, length), 0);
    assert_int_equal(GVUSB_SetDevicePara(handle, "TIMEOUT", "50"), 0);
    assert_int_equal(receive(handle, 64), GVUSB_ERR_TIMEOUT);
    be_patient(handle);
}

static void AnAnswerThatComesTooLateIsReceivedNext(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        bus("delay all in 5000");
        fill_frame(5);
        send_and_time_out(handle, 5);
        bus("delay all in 0");
        assert_int_equal(receive(handle, 64), 5);
        assert_memory_equal(answer, frame, 5);
    }
}

static void AfterALateAnswerExchangesAreOneBehind(void** state) {
    const int handle = open_reader(bulk_id);
    bus("delay %d in 5000", bulk);
    fill_frame(1);
    send_and_time_out(handle, 1);
    bus("delay %d in 0", bulk);
    for (unsigned int length = 2; length < 5; ++length) {
        fill_frame(length);
        assert_int_equal(transceive(handle, length), length - 1);
    }
}

static void AnAnswerLongerThanTheBufferFailsOverBulk(void** state) {
    const int handle = open_reader(bulk_id);
    bus("reply %d pattern:100", bulk);
    assert_int_equal(transmit(handle, 1), 0);
    assert_int_equal(receive(handle, 10), GVUSB_ERR_BULK_TRANSFER);
    assert_int_equal(last_error(handle), GVUSB_ERR_BULK_TRANSFER);
}

static void ABufferOfWholePacketsReceivesAnAnswerInParts(void** state) {
    const int handle = open_reader(bulk_id);
    bus("reply %d pattern:100", bulk);
    assert_int_equal(transmit(handle, 1), 0);
    assert_int_equal(receive(handle, 64), 64);
    assert_int_equal(receive(handle, 64), 36);
    assert_int_equal(answer[0], 64);
}

static void AnAnswerLongerThanTheBufferIsTruncatedOverControl(void** state) {
    const int handle = open_reader(control_id);
    bus("reply %d pattern:100", control);
    assert_int_equal(transmit(handle, 1), 0);
    assert_int_equal(receive(handle, 10), 10);
    assert_int_equal(answer[9], 9);
    assert_int_equal(answer[10], 0xAA);
}

static void TheBufferAfterAShortAnswerIsZero(void** state) {
    const int handle = open_reader(bulk_id);
    fill_frame(3);
    assert_int_equal(transmit(handle, 3), 0);
    assert_int_equal(receive(handle, 1000), 3);
    for (int i = 3; i < 1000; ++i) {
        assert_int_equal(answer[i], 0);
    }
    assert_int_equal(answer[1000], 0xAA);
}

static void OnlyTheFirst4096BytesAreZeroOverControl(void** state) {
    const int handle = open_reader(control_id);
    fill_frame(3);
    assert_int_equal(transmit(handle, 3), 0);
    assert_int_equal(receive(handle, 10000), 3);
    assert_int_equal(answer[3], 0);
    assert_int_equal(answer[longest_control_frame - 1], 0);
    assert_int_equal(answer[longest_control_frame], 0xAA);
}

static void ShortAnswersAreReceivedAsTheyAre(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    bus("short all in 3");
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        fill_frame(10);
        assert_int_equal(transceive(handle, 10), 3);
        assert_memory_equal(answer, frame, 3);
        assert_int_equal(last_error(0), 0);
    }
}

static void AnEmptyAnswerIsReceivedAsNothing(void** state) {
    static const unsigned int ids[] = {bulk_id, control_id};
    bus("reply all pattern:0");
    for (size_t i = 0; i < sizeof ids / sizeof *ids; ++i) {
        const int handle = open_reader(ids[i]);
        assert_int_equal(transceive(handle, 10), 0);
        assert_int_equal(last_error(handle), 0);
    }
}

static void AFrameAcceptedOnlyInPartCountsAsSent(void** state) {
    const int handle = open_reader(bulk_id);
    bus("short %d out 2", bulk);
    fill_frame(10);
    assert_int_equal(transmit(handle, 10), 0);
    read_seen_frame(bulk, &seen);
    assert_int_equal(seen.length, 2);
}

static void AReaderWithOneBulkEndpointUsesControlTransfers(void** state) {
    const int handle = open_reader(in_only_id);
    check_round_trip(handle, in_only, 20);
    assert_int_equal(seen.endpoint, 0);
}

static void TheLastBulkEndpointOfEachDirectionIsUsed(void** state) {
    const int handle = open_reader(many_endpoints_id);
    check_round_trip(handle, many_endpoints, 100);
    assert_int_equal(seen.endpoint, 0x05);
}

static void ExchangesWithSeveralReadersDoNotMix(void** state) {
    static const unsigned int ids[] = {bulk_id, fast_id, control_id, in_only_id, many_endpoints_id};
    enum { count = sizeof ids / sizeof *ids };
    int handles[count];
    for (int i = 0; i < count; ++i) {
        handles[i] = open_reader(ids[i]);
    }
    for (int i = 0; i < count; ++i) {
        fill_frame(20 + (unsigned int)i);
        assert_int_equal(transmit(handles[i], 20 + (unsigned int)i), 0);
    }
    for (int i = count - 1; i >= 0; --i) {
        fill_frame(20 + (unsigned int)i);
        assert_int_equal(receive(handles[i], 64), 20 + i);
        assert_memory_equal(answer, frame, 20 + (size_t)i);
    }
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(FramesOfEverySizeAreExchangedOverBulk),
        TEST_CASE(FramesOfEverySizeAreExchangedOverControl),
        TEST_CASE(FramesTooLongForControlAreRefused),
        TEST_CASE(TheProtocolNameIsTheSameInAnyCase),
        TEST_CASE(AnotherProtocolIsRefused),
        TEST_CASE(BadArgumentsAreRefusedInOrder),
        TEST_CASE(SendingAndReceivingWorkSeparately),
        TEST_CASE(OnlyReceivingLeavesItsCountAsTheLastError),
        TEST_CASE(AnAnswerThatComesTooLateIsReceivedNext),
        TEST_CASE(AfterALateAnswerExchangesAreOneBehind),
        TEST_CASE(AnAnswerLongerThanTheBufferFailsOverBulk),
        TEST_CASE(ABufferOfWholePacketsReceivesAnAnswerInParts),
        TEST_CASE(AnAnswerLongerThanTheBufferIsTruncatedOverControl),
        TEST_CASE(TheBufferAfterAShortAnswerIsZero),
        TEST_CASE(OnlyTheFirst4096BytesAreZeroOverControl),
        TEST_CASE(ShortAnswersAreReceivedAsTheyAre),
        TEST_CASE(AnEmptyAnswerIsReceivedAsNothing),
        TEST_CASE(AFrameAcceptedOnlyInPartCountsAsSent),
        TEST_CASE(AReaderWithOneBulkEndpointUsesControlTransfers),
        TEST_CASE(TheLastBulkEndpointOfEachDirectionIsUsed),
        TEST_CASE(ExchangesWithSeveralReadersDoNotMix),
    };
    return run_group("exchanging", tests, sizeof tests / sizeof *tests, argc, argv);
}
