/*
 * Watch readers come and go in hot-plug mode 2, in which libusb reports changes while its events are handled.
 * This mode is for programs that have an event loop; this one has nothing else.
 *
 * usage: watch_readers_events [SECONDS]
 *
 * /etc/gavo/gvusb.conf must contain gvusb_hotplug=2. In mode 1, the default, no event loop is needed: see
 * watch_readers.c.
 */
#define _POSIX_C_SOURCE 199309L /* clock_gettime */
#include <gvusb.h>

#include <libusb.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { DEFAULT_SECONDS = 60 };

/* Handlers may run in another thread than main. These two only call printf, which is safe. */
static void on_connect(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)text;
    printf("reader %X was connected\n", id);
}

/* libusb does not say which reader it was. GVUSB_IsDevicePresent says so for each handle. */
static void on_disconnect(int handle, unsigned int id, const char* text) {
    (void)handle;
    (void)id;
    (void)text;
    printf("a reader was disconnected\n");
}

static int fail(int code) {
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetErrorText(code, text);
    fprintf(stderr, "%s\n", text);
    return EXIT_FAILURE;
}

int main(int argc, char** argv) {
    int seconds = argc > 1 ? atoi(argv[1]) : DEFAULT_SECONDS;
    setvbuf(stdout, NULL, _IOLBF, 0);

    char mode[GVUSB_PARAMETER_SIZE] = "";
    int code = GVUSB_GetDevicePara(GVUSB_DRIVER, "HOTPLUG-MODE", mode);
    if (code != 0) {
        return fail(code);
    }
    if (strcmp(mode, "2") != 0) {
        fprintf(stderr, "The hot-plug mode is %s; /etc/gavo/gvusb.conf must contain gvusb_hotplug=2.\n",
                mode);
        return EXIT_FAILURE;
    }

    /* The library uses libusb's default context. This reference keeps the context until main ends. */
    if (libusb_init(NULL) != 0) {
        fprintf(stderr, "libusb could not be initialized.\n");
        return EXIT_FAILURE;
    }
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_connect};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, on_disconnect};
    code = GVUSB_AddEventHandler(0, &connect);
    if (code == 0) {
        code = GVUSB_AddEventHandler(0, &disconnect);
    }
    if (code != 0) {
        libusb_exit(NULL);
        return fail(code);
    }
    printf("waiting for readers to come and go\n");

    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const time_t end = now.tv_sec + seconds;
    int result = 0;
    while (now.tv_sec < end && (result == 0 || result == LIBUSB_ERROR_INTERRUPTED)) {
        struct timeval second = {1, 0};
        result = libusb_handle_events_timeout(NULL, &second);
        clock_gettime(CLOCK_MONOTONIC, &now);
    }

    /* After this, no handler runs. */
    GVUSB_DelEventHandler(0, &connect);
    GVUSB_DelEventHandler(0, &disconnect);
    libusb_exit(NULL);
    if (result != 0 && result != LIBUSB_ERROR_INTERRUPTED) {
        fprintf(stderr, "Events could not be handled: %s\n", libusb_strerror(result));
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
