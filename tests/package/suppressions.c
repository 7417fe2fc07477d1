/*
 * usage: suppressions [events]
 * Uses the readers in several threads. With "events", a thread handles libusb's events.
 */
#include <gvusb.h>
#include <libusb.h>
#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

enum { threads = 4, most = 8 };
static int handles[most];

static void ignore(int handle, unsigned int id, const char* text) {
    (void)handle, (void)id, (void)text;
}

static void* handle_events(void* unused) {
    (void)unused;
    for (;;) {
        libusb_handle_events(NULL);
    }
    return NULL;
}

static void* exchange(void* handle) {
    static const unsigned char frame[] = {0x02, 0x00, 0x07};
    unsigned char answer[512];
    for (int i = 0; i < 50; ++i) {
        GVUSB_Transceive(*(int*)handle, GVUSB_PROTOCOL, 0, frame, sizeof frame, answer, sizeof answer);
    }
    return NULL;
}

int main(int count, char** arguments) {
    GVUSB_EVENT_INIT connect = {GVUSB_EVENT_CONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    GVUSB_EVENT_INIT disconnect = {GVUSB_EVENT_DISCONNECT, 0, GVUSB_CALLBACK_FUNCTION, 0, ignore};
    pthread_t all[threads];
    pthread_t handler;
    int readers;
    (void)arguments;
    GVUSB_AddEventHandler(0, &connect);
    GVUSB_AddEventHandler(0, &disconnect);
    if (count > 1) {
        pthread_create(&handler, NULL, handle_events, NULL);
    }
    GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL);
    readers = GVUSB_GetScanListSize();
    if (readers < 1 || readers > most) {
        return 1;
    }
    for (int i = 0; i < readers; ++i) {
        char id[GVUSB_PARAMETER_SIZE] = "";
        unsigned int number = 0;
        GVUSB_GetScanListPara(i, "DEVICE-ID", id);
        sscanf(id, "%x", &number);
        handles[i] = GVUSB_GetDeviceHnd(number);
    }
    for (int i = 0; i < threads; ++i) {
        pthread_create(&all[i], NULL, exchange, &handles[i % readers]);
    }
    for (int i = 0; i < 4; ++i) {
        usleep(250000);
        GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    }
    for (int i = 0; i < threads; ++i) {
        pthread_join(all[i], NULL);
    }
    return 0;
}
