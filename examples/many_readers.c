/*
 * Exchange frames with all readers at once, with one thread for each reader.
 *
 * usage: many_readers [EXCHANGES [PARALLEL]]
 *
 * Every function of the library may be called from any thread. In parallel mode, exchanges with different readers
 * run at the same time. With 0 for PARALLEL, each waits for the others: compare the times. Rely on the returned
 * codes: the last error belongs to the whole process and may come from another thread.
 */
#include <gvusb.h>

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { MAX_READERS = 64, DEFAULT_EXCHANGES = 100 };

struct reader {
    pthread_t thread;
    int handle;
    int exchanges; /* to make */
    int answered;
    int code; /* of the first failure, or 0 */
};

static void* talk(void* argument) {
    static const unsigned char request[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    struct reader* reader = argument;
    while (reader->answered < reader->exchanges) {
        unsigned char answer[256];
        int count = GVUSB_Transceive(reader->handle, GVUSB_PROTOCOL, 0, request, sizeof request, answer,
                                     sizeof answer);
        if (count < 0) {
            reader->code = count;
            break;
        }
        ++reader->answered;
    }
    return NULL;
}

/* Print the result for a reader and close it. Return its code. */
static int finish(const struct reader* reader) {
    char id[GVUSB_PARAMETER_SIZE] = "";
    char text[GVUSB_TEXT_SIZE] = "";
    GVUSB_GetDevicePara(reader->handle, "DEVICE-ID", id);
    GVUSB_GetErrorText(reader->code, text);
    printf("%-8s  %d of %d frames answered, %s\n", id, reader->answered, reader->exchanges, text);
    GVUSB_CloseDevice(reader->handle);
    return reader->code;
}

int main(int argc, char** argv) {
    int exchanges = argc > 1 ? atoi(argv[1]) : DEFAULT_EXCHANGES;
    static struct reader readers[MAX_READERS];
    int count = 0;

    if (GVUSB_SetDevicePara(GVUSB_DRIVER, "PARALLEL", argc > 2 ? argv[2] : "1") != 0) {
        fprintf(stderr, "PARALLEL must be 0 or 1.\n");
        return EXIT_FAILURE;
    }
    int code = GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    if (code != 0) {
        char text[GVUSB_TEXT_SIZE];
        GVUSB_GetErrorText(code, text);
        fprintf(stderr, "%s\n", text);
        return EXIT_FAILURE;
    }
    int handle = GVUSB_GetDeviceList(0);
    for (; handle != 0 && count < MAX_READERS; handle = GVUSB_GetDeviceList(handle)) {
        readers[count++] = (struct reader){.handle = handle, .exchanges = exchanges};
    }
    if (handle != 0) {
        fprintf(stderr, "There are more than %d readers; the others are not used.\n", MAX_READERS);
    }
    struct timespec begin;
    struct timespec end;
    clock_gettime(CLOCK_MONOTONIC, &begin);
    int started = 0;
    while (started < count && pthread_create(&readers[started].thread, NULL, talk, &readers[started]) == 0) {
        ++started;
    }
    int status = EXIT_SUCCESS;
    if (started < count) {
        fprintf(stderr, "Threads could be started for only %d of %d readers.\n", started, count);
        status = EXIT_FAILURE;
    }
    for (int i = 0; i < started; ++i) {
        pthread_join(readers[i].thread, NULL);
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    for (int i = 0; i < started; ++i) {
        if (finish(&readers[i]) != 0) {
            status = EXIT_FAILURE;
        }
    }
    printf("%.2f s\n", (double)(end.tv_sec - begin.tv_sec) + (double)(end.tv_nsec - begin.tv_nsec) / 1e9);
    return status;
}
