/*
 * Watch readers come and go, and use the handles of those that come back.
 *
 * usage: watch_readers [SECONDS]
 *
 * The library polls the bus in its own thread and calls the handlers there. When an open reader comes back,
 * its handle works again. Each handler scans, because the library reports a reader only once between two
 * scans. It scans before it prints: a disconnect is reported only for readers that the last scan found.
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep, clock_gettime */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { MAX_READERS = 16, CHECK_INTERVAL_MS = 50, DEFAULT_SECONDS = 60 };

struct watched {
    int handle;
    int present;
};

static struct timespec start;

static double seconds_since_start(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)(now.tv_sec - start.tv_sec) + (double)(now.tv_nsec - start.tv_nsec) / 1e9;
}

static void on_connect(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)text;
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    printf("  %4.1f s  event: reader %X was connected\n", seconds_since_start(), id);
}

static void on_disconnect(int handle, unsigned int id, const char* text) {
    (void)text;
    GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    printf("  %4.1f s  event: reader %X was disconnected, handle 0x%x\n", seconds_since_start(), id,
           (unsigned int)handle);
}

static int watch_events(void) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_connect};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_disconnect};
    int code = GVUSB_AddEventHandler(0, &connect);
    return code != 0 ? code : GVUSB_AddEventHandler(0, &disconnect);
}

static void try_exchange(int handle) {
    static const unsigned char request[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    unsigned char answer[256];
    char text[GVUSB_TEXT_SIZE] = "a frame was answered";
    int count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request, sizeof request, answer, sizeof answer);
    if (count < 0) {
        GVUSB_GetErrorText(count, text);
    }
    printf("  %4.1f s  handle 0x%x: %s\n", seconds_since_start(), (unsigned int)handle, text);
}

static void check(struct watched* reader) {
    int present = GVUSB_IsDevicePresent(reader->handle) == 1;
    if (present == reader->present) {
        return;
    }
    reader->present = present;
    printf("  %4.1f s  handle 0x%x: %s\n", seconds_since_start(), (unsigned int)reader->handle,
           present ? "the reader is back" : "the reader does not answer any more");
    if (present) {
        try_exchange(reader->handle);
    }
}

int main(int argc, char** argv) {
    int seconds = argc > 1 ? atoi(argv[1]) : DEFAULT_SECONDS;
    clock_gettime(CLOCK_MONOTONIC, &start);
    setvbuf(stdout, NULL, _IOLBF, 0);

    int code = GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    if (code == 0 || code == GVUSB_ERR_NO_DEVICE_FOUND) { /* a reader may be plugged in later */
        code = watch_events();
    }
    if (code != 0) {
        char text[GVUSB_TEXT_SIZE];
        GVUSB_GetErrorText(code, text);
        fprintf(stderr, "%s\n", text);
        return EXIT_FAILURE;
    }

    struct watched readers[MAX_READERS];
    int count = 0;
    for (int handle = GVUSB_GetDeviceList(0); handle != 0 && count < MAX_READERS;
         handle = GVUSB_GetDeviceList(handle)) {
        readers[count++] = (struct watched){handle, 1};
        try_exchange(handle);
    }
    while (seconds_since_start() < seconds) {
        for (int i = 0; i < count; ++i) {
            check(&readers[i]);
        }
        nanosleep(&(struct timespec){0, CHECK_INTERVAL_MS * 1000000L}, NULL);
    }
    return EXIT_SUCCESS;
}
