// A stub libusb that does nothing and allocates nothing. It is loaded instead of the real one, so that only
// the cost of the program remains.
//
// The environment variable GVUSB_BENCH_READERS sets the number of readers on its bus (1). If
// GVUSB_BENCH_CALLS names a file, each call writes a line there.

#include <libusb.h>

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { mostReaders = 1024, answerLength = 16 };

struct libusb_device {
    unsigned number;
};
struct libusb_device_handle {
    struct libusb_device* device;
};

static struct libusb_device devices[mostReaders];
static struct libusb_device_handle handles[mostReaders];
static libusb_device* list[mostReaders + 1];

static FILE* calls;

__attribute__((constructor)) static void openCalls(void) {
    const char* const path = getenv("GVUSB_BENCH_CALLS");
    if (path != NULL) {
        calls = fopen(path, "w");
    }
}

static void note(const char* function) {
    if (__builtin_expect(calls != NULL, 0)) {
        fprintf(calls, "%s\n", function);
        fflush(calls);
    }
}

static const struct libusb_endpoint_descriptor endpoints[] = {
    {.bLength = 7,
     .bDescriptorType = LIBUSB_DT_ENDPOINT,
     .bEndpointAddress = 0x81,
     .bmAttributes = 2,
     .wMaxPacketSize = 64},
    {.bLength = 7,
     .bDescriptorType = LIBUSB_DT_ENDPOINT,
     .bEndpointAddress = 0x02,
     .bmAttributes = 2,
     .wMaxPacketSize = 64},
};
static const struct libusb_interface_descriptor setting = {
    .bLength = 9, .bDescriptorType = LIBUSB_DT_INTERFACE, .bNumEndpoints = 2, .endpoint = endpoints};
static const struct libusb_interface interface = {.altsetting = &setting, .num_altsetting = 1};
static struct libusb_config_descriptor configuration = {.bLength = 9,
                                                        .bDescriptorType = LIBUSB_DT_CONFIG,
                                                        .bNumInterfaces = 1,
                                                        .bConfigurationValue = 1,
                                                        .interface = &interface};

int libusb_init(libusb_context** context) {
    (void)context;
    note(__func__);
    return LIBUSB_SUCCESS;
}

void libusb_exit(libusb_context* context) {
    (void)context;
    note(__func__);
}

const struct libusb_version* libusb_get_version(void) {
    note(__func__);
    static const struct libusb_version version = {
        .major = 1, .minor = 0, .micro = 26, .rc = "", .describe = ""};
    return &version;
}

int libusb_has_capability(uint32_t capability) {
    (void)capability;
    note(__func__);
    return 1;
}

void libusb_set_debug(libusb_context* context, int level) {
    (void)context;
    (void)level;
    note(__func__);
}

int libusb_hotplug_register_callback(libusb_context* context, int events, int flags, int vendor, int product,
                                     int class, libusb_hotplug_callback_fn callback, void* data,
                                     libusb_hotplug_callback_handle* handle) {
    (void)context, (void)events, (void)flags, (void)vendor, (void)product, (void)class, (void)callback,
        (void)data;
    note(__func__);
    *handle = 1;
    return LIBUSB_SUCCESS;
}

void libusb_hotplug_deregister_callback(libusb_context* context, libusb_hotplug_callback_handle handle) {
    (void)context;
    (void)handle;
    note(__func__);
}

ssize_t libusb_get_device_list(libusb_context* context, libusb_device*** found) {
    (void)context;
    note(__func__);
    static ssize_t count;
    if (count == 0) {
        const char* const wanted = getenv("GVUSB_BENCH_READERS");
        const long readers = wanted == NULL ? 1 : strtol(wanted, NULL, 10);
        count = readers < 1 ? 1 : readers > mostReaders ? mostReaders : readers;
        for (ssize_t i = 0; i < count; ++i) {
            devices[i].number = (unsigned)i + 1;
            handles[i].device = &devices[i];
            list[i] = &devices[i];
        }
    }
    *found = list;
    return count;
}

void libusb_free_device_list(libusb_device** found, int unreference) {
    (void)found;
    (void)unreference;
    note(__func__);
}

libusb_device* libusb_ref_device(libusb_device* device) {
    note(__func__);
    return device;
}

void libusb_unref_device(libusb_device* device) {
    (void)device;
    note(__func__);
}

int libusb_get_device_descriptor(libusb_device* device, struct libusb_device_descriptor* descriptor) {
    (void)device;
    note(__func__);
    descriptor->idVendor = GVUSB_VENDOR_ID;
    descriptor->idProduct = 1;
    descriptor->bNumConfigurations = 1;
    return LIBUSB_SUCCESS;
}

int libusb_get_config_descriptor(libusb_device* device, uint8_t index,
                                 struct libusb_config_descriptor** found) {
    (void)device;
    (void)index;
    note(__func__);
    *found = &configuration;
    return LIBUSB_SUCCESS;
}

void libusb_free_config_descriptor(struct libusb_config_descriptor* descriptor) {
    (void)descriptor;
    note(__func__);
}

uint8_t libusb_get_bus_number(libusb_device* device) {
    (void)device;
    note(__func__);
    return 1;
}

uint8_t libusb_get_device_address(libusb_device* device) {
    note(__func__);
    return (uint8_t)device->number;
}

int libusb_open(libusb_device* device, libusb_device_handle** handle) {
    note(__func__);
    *handle = &handles[device->number - 1];
    return LIBUSB_SUCCESS;
}

void libusb_close(libusb_device_handle* handle) {
    (void)handle;
    note(__func__);
}

int libusb_get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t index, unsigned char* text,
                                       int size) {
    note(__func__);
    enum { deviceId = 1 };
    if (index != deviceId) {
        memcpy(text, "Reader", sizeof "Reader");
        return sizeof "Reader" - 1;
    }
    return snprintf((char*)text, (size_t)size, "%X", handle->device->number);
}

int libusb_set_configuration(libusb_device_handle* handle, int value) {
    (void)handle;
    (void)value;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_detach_kernel_driver(libusb_device_handle* handle, int number) {
    (void)handle;
    (void)number;
    note(__func__);
    return LIBUSB_ERROR_NOT_FOUND;
}

int libusb_claim_interface(libusb_device_handle* handle, int number) {
    (void)handle;
    (void)number;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_release_interface(libusb_device_handle* handle, int number) {
    (void)handle;
    (void)number;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
    (void)handle;
    (void)endpoint;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_reset_device(libusb_device_handle* handle) {
    (void)handle;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_bulk_transfer(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data,
                         int length, int* transferred, unsigned timeout) {
    (void)handle;
    (void)data;
    (void)timeout;
    note(__func__);
    *transferred = (endpoint & LIBUSB_ENDPOINT_IN) == 0 || length < answerLength ? length : answerLength;
    return LIBUSB_SUCCESS;
}

struct libusb_transfer* libusb_alloc_transfer(int packets) {
    (void)packets;
    note(__func__);
    static _Alignas(max_align_t) char transfers[mostReaders][sizeof(struct libusb_transfer)];
    static int used;
    return used < mostReaders ? (struct libusb_transfer*)transfers[used++] : NULL;
}

void libusb_free_transfer(struct libusb_transfer* transfer) {
    (void)transfer;
    note(__func__);
}

// The transfer that completes when events are handled.
static struct libusb_transfer* submitted;

int libusb_submit_transfer(struct libusb_transfer* transfer) {
    note(__func__);
    submitted = transfer;
    return LIBUSB_SUCCESS;
}

int libusb_cancel_transfer(struct libusb_transfer* transfer) {
    (void)transfer;
    note(__func__);
    return LIBUSB_SUCCESS;
}

int libusb_handle_events_completed(libusb_context* context, int* completed) {
    (void)context;
    (void)completed;
    note(__func__);
    struct libusb_transfer* const transfer = submitted;
    transfer->actual_length = transfer->length < answerLength ? transfer->length : answerLength;
    transfer->callback(transfer); // the status is LIBUSB_TRANSFER_COMPLETED, which is 0
    return LIBUSB_SUCCESS;
}

// Not noted: the thread that waits for hot-plug events calls it too, at any time.
int libusb_event_handler_active(libusb_context* context) {
    (void)context;
    return 0;
}

int libusb_control_transfer(libusb_device_handle* handle, uint8_t requestType, uint8_t request,
                            uint16_t value, uint16_t index, unsigned char* data, uint16_t length,
                            unsigned timeout) {
    (void)handle, (void)requestType, (void)request, (void)value, (void)index, (void)data, (void)timeout;
    note(__func__);
    return length;
}
