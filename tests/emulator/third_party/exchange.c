/* Exchanges frames with a reader through libusb in two threads, and prints its device ID and the length of an answer. */
#include <libusb.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

static int exchange(libusb_device_handle* handle) {
    unsigned char frame[64] = {1, 2, 3};
    int count = 0;
    if (libusb_bulk_transfer(handle, 0x02, frame, 3, &count, 10000) != 0) {
        return -1;
    }
    memset(frame, 0, sizeof frame);
    if (libusb_bulk_transfer(handle, 0x81, frame, sizeof frame, &count, 10000) != 0 || frame[2] != 3) {
        return -1;
    }
    return count;
}

static void* exchange_often(void* handle) {
    for (int i = 0; i < 20; ++i) {
        if (exchange(handle) != 3) {
            return "failed";
        }
    }
    return NULL;
}

int main(void) {
    libusb_context* context = NULL;
    pthread_t thread;
    void* failed = "no thread";
    unsigned char id[64] = "";
    if (libusb_init(&context) != 0) {
        return 1;
    }
    libusb_device_handle* const handle = libusb_open_device_with_vid_pid(context, GVUSB_VENDOR_ID, 1);
    if (handle == NULL || libusb_claim_interface(handle, 0) != 0) {
        return 1;
    }
    if (pthread_create(&thread, NULL, exchange_often, handle) == 0) {
        pthread_join(thread, &failed);
    }
    const int count = exchange(handle);
    libusb_get_string_descriptor_ascii(handle, 1, id, sizeof id);
    printf("%s %d %s\n", id, count, failed == NULL ? "passed" : (const char*)failed);
    libusb_release_interface(handle, 0);
    libusb_close(handle);
    libusb_exit(context);
    return failed != NULL;
}
