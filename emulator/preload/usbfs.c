// The ioctls of usbfs. Checks what the kernel checks before it asks the device, in the same order; the launcher answers
// the rest. Results are as in the kernel: 0 or more, or a negative errno.

#include "requests.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/usb/ch9.h>
#include <linux/usbdevice_fs.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

enum { direction_in = 0x80, recipient_mask = 0x1F, type_mask = 0x60, vendor_type = 0x40 };
enum { page_size = 4096, most_memory = opening_blocks * opening_block_size };

// A program's memory with this size and more is refused as a mistake, and not as too much.
static const uint32_t mistaken_size = UINT32_MAX / 2 - 1000000;

static const uint32_t capabilities = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                     USBDEVFS_CAP_BULK_SCATTER_GATHER | USBDEVFS_CAP_REAP_AFTER_DISCONNECT |
                                     USBDEVFS_CAP_MMAP | USBDEVFS_CAP_DROP_PRIVILEGES |
                                     USBDEVFS_CAP_CONNINFO_EX | USBDEVFS_CAP_SUSPEND;

struct opened {
    struct opening_memory* memory;
    int descriptor;
};

// ---- transfers

static bool has_claimed(const struct opening_memory* memory, unsigned interface_number) {
    return interface_number < 64 &&
           (__atomic_load_n(&memory->claimed, __ATOMIC_ACQUIRE) >> interface_number & 1) != 0;
}

static const struct opening_endpoint* find_endpoint(const struct opening_memory* memory, uint8_t address) {
    const uint32_t count = __atomic_load_n(&memory->endpoint_count, __ATOMIC_ACQUIRE);
    for (uint32_t i = 0; i < count && i < opening_most_endpoints; ++i) {
        if (memory->endpoints[i].address == address) {
            return &memory->endpoints[i];
        }
    }
    return NULL;
}

// As the first transfer does: claim the endpoint's interface if that has not been done.
static int prepare_endpoint(struct opening_memory* memory, uint8_t address) {
    const struct opening_endpoint* const endpoint = find_endpoint(memory, address);
    if (endpoint != NULL && has_claimed(memory, endpoint->interface_number)) {
        return 0;
    }
    return call_with(memory, opening_prepare, address, 0);
}

static int prepare_recipient(struct opening_memory* memory, uint8_t request_type, uint16_t index) {
    if ((request_type & type_mask) == vendor_type) {
        return 0;
    }
    const uint8_t low = (uint8_t)index;
    switch (request_type & recipient_mask) {
    case USB_RECIP_ENDPOINT:
        return (low & ~direction_in) == 0 ? 0 : prepare_endpoint(memory, low);
    case USB_RECIP_INTERFACE:
        return has_claimed(memory, low) ? 0 : call_with(memory, opening_prepare_interface, low, 0);
    default:
        return 0;
    }
}

// The request of a transfer that has been checked. Takes the data of one to the reader. Null with `error`.
static struct opening_request* make_transfer(struct opening_memory* memory, const uint8_t* buffer,
                                             uint32_t length, bool in, int* error) {
    struct opening_request* const request = length < most_memory ? take_request(memory) : NULL;
    if (request == NULL) {
        *error = -ENOMEM;
        return NULL;
    }
    *error = !take_room(memory, request, length)                                   ? -ENOMEM
             : !in && !copy_from_program(room_of(memory, request), buffer, length) ? -EFAULT
                                                                                   : 0;
    if (*error != 0) {
        free_request(memory, request);
        return NULL;
    }
    return request;
}

struct checked_urb {
    uint8_t type;
    uint8_t endpoint;
    uint8_t* buffer; // without the setup packet
    uint32_t length;
    bool in;
    uint8_t setup[opening_setup_size];
};

static int check_control(struct opening_memory* memory, const struct usbdevfs_urb* urb,
                         struct checked_urb* checked) {
    const struct opening_endpoint* const endpoint = find_endpoint(memory, urb->endpoint);
    if (endpoint != NULL && endpoint->type != USBDEVFS_URB_TYPE_CONTROL) {
        return -EINVAL;
    }
    if (urb->buffer_length < opening_setup_size) {
        return -EINVAL;
    }
    if (!copy_from_program(checked->setup, urb->buffer, sizeof checked->setup)) {
        return -EFAULT;
    }
    const uint8_t* const setup = checked->setup;
    const uint16_t length = (uint16_t)(setup[6] | setup[7] << 8);
    if (urb->buffer_length < length + opening_setup_size) {
        return -EINVAL;
    }
    const int error = prepare_recipient(memory, setup[0], (uint16_t)(setup[4] | setup[5] << 8));
    checked->endpoint = 0;
    checked->buffer = (uint8_t*)urb->buffer + opening_setup_size;
    checked->length = length;
    checked->in = (setup[0] & direction_in) != 0 && length != 0;
    return error;
}

static int check_data(const struct opening_memory* memory, const struct usbdevfs_urb* urb,
                      struct checked_urb* checked) {
    const struct opening_endpoint* const endpoint = find_endpoint(memory, urb->endpoint);
    if (endpoint == NULL) {
        return -ENOENT;
    }
    // The kernel takes a bulk URB for an interrupt endpoint too.
    const bool fits = endpoint->type == urb->type ||
                      (urb->type == USBDEVFS_URB_TYPE_BULK && endpoint->type == USBDEVFS_URB_TYPE_INTERRUPT);
    checked->type = endpoint->type;
    return fits ? 0 : -EINVAL;
}

static int check_urb(struct opening_memory* memory, const struct usbdevfs_urb* urb,
                     struct checked_urb* checked) {
    const unsigned known_flags = USBDEVFS_URB_ISO_ASAP | USBDEVFS_URB_SHORT_NOT_OK |
                                 USBDEVFS_URB_BULK_CONTINUATION | USBDEVFS_URB_NO_FSBR |
                                 USBDEVFS_URB_ZERO_PACKET | USBDEVFS_URB_NO_INTERRUPT;
    if ((urb->flags & ~known_flags) != 0 || (uint32_t)urb->buffer_length >= mistaken_size ||
        (urb->buffer_length > 0 && urb->buffer == NULL)) {
        return -EINVAL;
    }
    const bool default_pipe = urb->type == USBDEVFS_URB_TYPE_CONTROL && (urb->endpoint & ~direction_in) == 0;
    const int error = default_pipe ? 0 : prepare_endpoint(memory, urb->endpoint);
    if (error != 0) {
        return error;
    }
    *checked = (struct checked_urb){.type = urb->type,
                                    .endpoint = urb->endpoint,
                                    .buffer = urb->buffer,
                                    .length = (uint32_t)urb->buffer_length,
                                    .in = (urb->endpoint & direction_in) != 0};
    switch (urb->type) {
    case USBDEVFS_URB_TYPE_CONTROL:
        return check_control(memory, urb, checked);
    case USBDEVFS_URB_TYPE_BULK:
    case USBDEVFS_URB_TYPE_INTERRUPT:
        return check_data(memory, urb, checked);
    default:
        return -EINVAL; // no reader has isochronous endpoints
    }
}

static int submit(const struct opened* opened, void* argument) {
    struct opening_memory* const memory = opened->memory;
    struct usbdevfs_urb urb;
    if (!copy_from_program(&urb, argument, sizeof urb)) {
        return -EFAULT;
    }
    struct checked_urb checked;
    int error = check_urb(memory, &urb, &checked);
    if (error != 0) {
        return error;
    }
    struct opening_request* const request =
        make_transfer(memory, checked.buffer, checked.length, checked.in, &error);
    if (request == NULL) {
        return error;
    }
    request->operation = opening_submit;
    request->urb = (uintptr_t)argument;
    request->buffer = (uintptr_t)checked.buffer;
    request->endpoint = checked.endpoint;
    request->type = checked.type;
    request->short_not_ok = checked.in && (urb.flags & USBDEVFS_URB_SHORT_NOT_OK) != 0;
    request->zero_packet = !checked.in && (urb.flags & USBDEVFS_URB_ZERO_PACKET) != 0;
    memcpy(request->setup, checked.setup, sizeof request->setup);
    request->signal = urb.signr;
    request->process = urb.signr != 0 ? getpid() : 0;
    post_request(memory, request);
    return 0;
}

// Write only what the kernel writes: the data, three members and the URB's address.
static int deliver(struct opening_memory* memory, struct opening_request* request, void* argument) {
    // NOLINTBEGIN(performance-no-int-to-ptr): the memory is shared with a process that has other pointers
    struct usbdevfs_urb* const urb = (struct usbdevfs_urb*)(uintptr_t)request->urb;
    uint8_t* const buffer = (uint8_t*)(uintptr_t)request->buffer;
    // NOLINTEND(performance-no-int-to-ptr)
    const bool in = request->endpoint != 0 ? (request->endpoint & direction_in) != 0
                                           : (request->setup[0] & direction_in) != 0;
    const size_t received = in && request->actual <= request->length ? request->actual : 0;
    int status = request->result;
    int actual = (int)request->actual;
    int errors = 0;
    void* address = urb;
    const struct iovec from[] = {{room_of(memory, request), received},
                                 {&status, sizeof status},
                                 {&actual, sizeof actual},
                                 {&errors, sizeof errors},
                                 {&address, sizeof address}};
    const struct iovec program[] = {{buffer, received},
                                    {&urb->status, sizeof status},
                                    {&urb->actual_length, sizeof actual},
                                    {&urb->error_count, sizeof errors},
                                    {argument, sizeof address}};
    const bool copied = copy_pieces_to_program(program, from, sizeof from / sizeof from[0]);
    free_request(memory, request);
    return copied ? 0 : -EFAULT;
}

static int reap_now(const struct opened* opened, void* argument) {
    struct opening_memory* const memory = opened->memory;
    // Looked at first: what has completed by then is in the ring.
    const bool gone = __atomic_load_n(&memory->gone, __ATOMIC_SEQ_CST) != 0;
    struct opening_request* const request = take_completed(memory, opened->descriptor);
    if (request == NULL) {
        return gone ? -ENODEV : -EAGAIN;
    }
    return deliver(memory, request, argument);
}

static int reap(const struct opened* opened, void* argument) {
    for (;;) {
        const uint32_t seen = __atomic_load_n(&opened->memory->completed, __ATOMIC_SEQ_CST);
        const int result = reap_now(opened, argument);
        if (result != -EAGAIN) {
            return result;
        }
        if (await_completion(opened->memory, seen) != 0) {
            return -EINTR;
        }
    }
}

// Posts the transfer, waits for it and frees it. Returns the number of bytes or a negative errno.
static int run_transfer(struct opening_memory* memory, struct opening_request* request, uint8_t* buffer,
                        bool in, uint32_t timeout_ms) {
    request->operation = opening_transfer;
    post_request(memory, request);
    int error = await_request(memory, request, timeout_ms, true);
    if (error == ETIMEDOUT || error == EINTR) {
        call_with(memory, opening_cancel, 0, (uint64_t)(request - memory->requests));
        if (await_request(memory, request, 0, false) == 0 && request->result == 0) {
            error = 0; // it has completed meanwhile
        }
    }
    int result = error != 0 ? -error : request->result;
    if (result == 0) {
        result = (int)request->actual;
        if (in && request->actual <= request->length &&
            !copy_to_program(buffer, room_of(memory, request), request->actual)) {
            result = -EFAULT;
        }
    }
    free_request(memory, request);
    return result;
}

static int control_transfer(const struct opened* opened, void* argument) {
    struct opening_memory* const memory = opened->memory;
    struct usbdevfs_ctrltransfer control;
    if (!copy_from_program(&control, argument, sizeof control)) {
        return -EFAULT;
    }
    int error = prepare_recipient(memory, control.bRequestType, control.wIndex);
    if (error != 0) {
        return error;
    }
    if (control.wLength > page_size) {
        return -EINVAL;
    }
    const bool in = (control.bRequestType & direction_in) != 0;
    struct opening_request* const request = make_transfer(memory, control.data, control.wLength, in, &error);
    if (request == NULL) {
        return error;
    }
    request->type = USBDEVFS_URB_TYPE_CONTROL;
    const uint8_t setup[] = {control.bRequestType,     control.bRequest,
                             (uint8_t)control.wValue,  (uint8_t)(control.wValue >> 8),
                             (uint8_t)control.wIndex,  (uint8_t)(control.wIndex >> 8),
                             (uint8_t)control.wLength, (uint8_t)(control.wLength >> 8)};
    memcpy(request->setup, setup, sizeof setup);
    return run_transfer(memory, request, control.data, in, control.timeout);
}

static int bulk_transfer(const struct opened* opened, void* argument) {
    struct opening_memory* const memory = opened->memory;
    struct usbdevfs_bulktransfer bulk;
    if (!copy_from_program(&bulk, argument, sizeof bulk)) {
        return -EFAULT;
    }
    int error = prepare_endpoint(memory, (uint8_t)bulk.ep);
    if (error != 0) {
        return error;
    }
    const struct opening_endpoint* const endpoint = find_endpoint(memory, (uint8_t)bulk.ep);
    if (endpoint == NULL || bulk.len >= mistaken_size) {
        return -EINVAL;
    }
    const bool in = (endpoint->address & direction_in) != 0;
    struct opening_request* const request = make_transfer(memory, bulk.data, bulk.len, in, &error);
    if (request == NULL) {
        return error;
    }
    request->endpoint = endpoint->address;
    request->type = endpoint->type;
    return run_transfer(memory, request, bulk.data, in, bulk.timeout);
}

// ---- drivers

static int set_name(struct opening_request* request, const char* name, size_t size) {
    memcpy(request->name, name, strnlen(name, size < sizeof request->name ? size : sizeof request->name - 1));
    return 0;
}

static int get_driver(struct opening_memory* memory, void* argument) {
    struct usbdevfs_getdriver driver;
    if (!copy_from_program(&driver, argument, sizeof driver)) {
        return -EFAULT;
    }
    struct opening_request* const request = take_request(memory);
    if (request == NULL) {
        return -ENOMEM;
    }
    request->operation = opening_get_driver;
    request->argument = driver.interface;
    post_request(memory, request);
    const int error = await_request(memory, request, 0, false);
    const int result = error != 0 ? -error : request->result;
    memset(driver.driver, 0, sizeof driver.driver);
    memcpy(driver.driver, request->name, strnlen(request->name, sizeof request->name));
    free_request(memory, request);
    return result != 0 ? result : copy_to_program(argument, &driver, sizeof driver) ? 0 : -EFAULT;
}

// USBDEVFS_IOCTL passes an ioctl to the driver of an interface. Only binding and unbinding are supported.
static int driver_ioctl(struct opening_memory* memory, void* argument) {
    struct usbdevfs_ioctl driver;
    if (!copy_from_program(&driver, argument, sizeof driver)) {
        return -EFAULT;
    }
    if (__atomic_load_n(&memory->privileges_dropped, __ATOMIC_ACQUIRE) != 0) {
        return -EACCES;
    }
    switch ((unsigned)driver.ioctl_code) {
    case USBDEVFS_DISCONNECT:
        return call_with(memory, opening_detach_driver, (uint32_t)driver.ifno, 0);
    case USBDEVFS_CONNECT:
        return call_with(memory, opening_attach_driver, (uint32_t)driver.ifno, 0);
    default:
        return -ENOTTY;
    }
}

static int detach_and_claim(struct opening_memory* memory, void* argument) {
    struct usbdevfs_disconnect_claim wanted;
    if (!copy_from_program(&wanted, argument, sizeof wanted)) {
        return -EFAULT;
    }
    struct opening_request* const request = take_request(memory);
    if (request == NULL) {
        return -ENOMEM;
    }
    request->operation = opening_detach_and_claim;
    request->argument = wanted.interface;
    request->value = wanted.flags;
    set_name(request, wanted.driver, sizeof wanted.driver);
    return call_launcher(memory, request);
}

// ---- facts

static int get_connection(const struct opening_memory* memory, void* argument) {
    struct usbdevfs_connectinfo info;
    memset(&info, 0, sizeof info);
    info.devnum = memory->address;
    info.slow = memory->speed == USB_SPEED_LOW;
    return copy_to_program(argument, &info, sizeof info) ? 0 : -EFAULT;
}

static int get_extended_connection(const struct opening_memory* memory, void* argument, size_t size) {
    struct usbdevfs_conninfo_ex info;
    memset(&info, 0, sizeof info);
    info.size = (uint32_t)(size < sizeof info ? size : sizeof info);
    info.busnum = memory->bus;
    info.devnum = memory->address;
    info.speed = memory->speed;
    info.num_ports = memory->port != 0;
    info.ports[0] = (uint8_t)memory->port;
    return copy_to_program(argument, &info, info.size) ? 0 : -EFAULT;
}

// ---- everything

// The word that these requests take from the program.
static int call_with_word(struct opening_memory* memory, enum opening_operation operation,
                          const void* argument) {
    uint32_t word = 0;
    return copy_from_program(&word, argument, sizeof word) ? call_with(memory, operation, word, 0) : -EFAULT;
}

static int set_interface(struct opening_memory* memory, const void* argument) {
    struct usbdevfs_setinterface setting;
    return copy_from_program(&setting, argument, sizeof setting)
               ? call_with(memory, opening_set_interface, setting.interface, setting.altsetting)
               : -EFAULT;
}

static int signal_at_disconnect(struct opening_memory* memory, const void* argument) {
    struct usbdevfs_disconnectsignal wanted;
    return copy_from_program(&wanted, argument, sizeof wanted)
               ? call_with(memory, opening_signal_disconnect, wanted.signr, (uintptr_t)wanted.context)
               : -EFAULT;
}

static int answer(const struct opened* opened, unsigned long request, void* argument) {
    struct opening_memory* const memory = opened->memory;
    if (memory->access == O_RDONLY) {
        return -EPERM;
    }
    if (request == USBDEVFS_REAPURB) {
        return reap(opened, argument);
    }
    if (request == USBDEVFS_REAPURBNDELAY) {
        return reap_now(opened, argument);
    }
    if (__atomic_load_n(&memory->gone, __ATOMIC_SEQ_CST) != 0) {
        return -ENODEV;
    }
    switch (request) {
    case USBDEVFS_SUBMITURB:
        return submit(opened, argument);
    case USBDEVFS_DISCARDURB:
        return call_with(memory, opening_discard, 0, (uintptr_t)argument);
    case USBDEVFS_CONTROL:
        return control_transfer(opened, argument);
    case USBDEVFS_BULK:
        return bulk_transfer(opened, argument);
    case USBDEVFS_CLAIMINTERFACE:
        return call_with_word(memory, opening_claim, argument);
    case USBDEVFS_RELEASEINTERFACE:
        return call_with_word(memory, opening_release, argument);
    case USBDEVFS_SETINTERFACE:
        return set_interface(memory, argument);
    case USBDEVFS_SETCONFIGURATION:
        return call_with_word(memory, opening_set_configuration, argument);
    case USBDEVFS_CLEAR_HALT:
        return call_with_word(memory, opening_clear_halt, argument);
    case USBDEVFS_RESETEP:
        return call_with_word(memory, opening_reset_endpoint, argument);
    case USBDEVFS_RESET:
        return call_with(memory, opening_reset, 0, 0);
    case USBDEVFS_GETDRIVER:
        return get_driver(memory, argument);
    case USBDEVFS_IOCTL:
        return driver_ioctl(memory, argument);
    case USBDEVFS_DISCONNECT_CLAIM:
        return detach_and_claim(memory, argument);
    case USBDEVFS_DISCSIGNAL:
        return signal_at_disconnect(memory, argument);
    case USBDEVFS_DROP_PRIVILEGES:
        return call_with_word(memory, opening_drop_privileges, argument);
    case USBDEVFS_CONNECTINFO:
        return get_connection(memory, argument);
    case USBDEVFS_GET_CAPABILITIES:
        return copy_to_program(argument, &capabilities, sizeof capabilities) ? 0 : -EFAULT;
    case USBDEVFS_GET_SPEED:
        return (int)memory->speed;
    case USBDEVFS_FORBID_SUSPEND:
    case USBDEVFS_ALLOW_SUSPEND:
    case USBDEVFS_WAIT_FOR_RESUME:
        return 0;
    default:
        break;
    }
    if (_IOC_TYPE(request) == 'U' && _IOC_NR(request) == _IOC_NR(USBDEVFS_CONNINFO_EX(0))) {
        return get_extended_connection(memory, argument, _IOC_SIZE(request));
    }
    return -ENOTTY;
}

int node_ioctl(struct node* node, int descriptor, unsigned long request, void* argument) {
    const struct opened opened = {.memory = memory_of(node), .descriptor = descriptor};
    const int kept = errno;
    // Programs on other systems pass the number as an int.
    const int result = answer(&opened, (uint32_t)request, argument);
    errno = result < 0 ? -result : kept;
    return result < 0 ? -1 : result;
}
