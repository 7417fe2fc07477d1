/*
 * Exchange a frame every half second, and recover from errors: a time-out, a reader that is unplugged and
 * plugged in again, a halted endpoint.
 *
 * usage: handle_errors [EXCHANGES]
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { DEFAULT_EXCHANGES = 120, ANSWER_SIZE = 256 };

static void sleep_ms(long ms) {
    nanosleep(&(struct timespec){ms / 1000, ms % 1000 * 1000000L}, NULL);
}

/*
 * After a time-out, the answer may still arrive, and the next exchange would receive it instead of its own
 * answer. So receive until nothing arrives.
 */
static void drop_late_answer(int handle) {
    unsigned char late[ANSWER_SIZE];
    while (GVUSB_Receive(handle, GVUSB_PROTOCOL, late, sizeof late) > 0) {
        puts("  dropped a late answer");
    }
}

/*
 * A scan finds a reader that is back and reopens it under its old handle. If the library polls, a poll may do
 * so first.
 */
static void wait_for_reader(int handle) {
    while (GVUSB_IsDevicePresent(handle) != 1) {
        sleep_ms(500);
        GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    }
}

/* Recover from a failed exchange. Return 0 to continue, or the code to give up with. */
static int recover(int handle, int code) {
    switch (code) {
    case GVUSB_ERR_TIMEOUT:
        drop_late_answer(handle);
        return 0;
    case GVUSB_ERR_BULK_TRANSFER: /* an endpoint may be halted */
        return GVUSB_SetDevicePara(handle, "RESETPIPE", "");
    case GVUSB_ERR_CONTROL_TRANSFER: /* the reader refused the frame; there is nothing to clear */
        return 0;
    case GVUSB_ERR_NOT_PRESENT:
        puts("  waiting for the reader");
        wait_for_reader(handle);
        puts("  it is back");
        return 0;
    default: /* such as GVUSB_ERR_CANNOT_CLAIM: another program has claimed the reader */
        return code;
    }
}

int main(int argc, char** argv) {
    static const unsigned char request[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    int exchanges = argc > 1 ? atoi(argv[1]) : DEFAULT_EXCHANGES;
    char text[GVUSB_TEXT_SIZE];
    setvbuf(stdout, NULL, _IOLBF, 0);

    int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, NULL);
    int code = handle > 0 ? 0 : handle;
    for (int i = 1; i <= exchanges && code == 0; ++i) {
        unsigned char answer[ANSWER_SIZE];
        int count =
            GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request, sizeof request, answer, sizeof answer);
        if (count >= 0) {
            printf("exchange %d: %d bytes\n", i, count);
        } else {
            GVUSB_GetErrorText(count, text);
            printf("exchange %d: %s\n", i, text);
            code = recover(handle, count);
        }
        sleep_ms(500);
    }
    if (code != 0) {
        GVUSB_GetErrorText(code, text);
        fprintf(stderr, "%s\n", text);
        return EXIT_FAILURE;
    }
    GVUSB_CloseDevice(handle);
    return EXIT_SUCCESS;
}
