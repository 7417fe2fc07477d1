// The requests of usbfs: transfers, and what else is done with a device.

#include "preload.h"

#include <errno.h>
#include <linux/usbdevice_fs.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>

enum { direction_in = 0x80, setup_size = 8, iso_type = 0, control_type = 2, bulk_type = 3 };

static bool is_good(const void* pointer) {
    const uintptr_t address = (uintptr_t)pointer;
    return address >= 4096 && address <= UINTPTR_MAX - 4096;
}

static struct recording_entry entry_for(struct place place, enum recording_kind kind) {
    return (struct recording_entry){.kind = (uint16_t)kind, .bus = place.bus, .address = place.address};
}

// ---- asynchronous transfers

// usbfs numbers the types in another order than usbmon.
static uint8_t type_of(unsigned char type) {
    static const uint8_t types[] = {[USBDEVFS_URB_TYPE_ISO] = iso_type,
                                    [USBDEVFS_URB_TYPE_INTERRUPT] = 1,
                                    [USBDEVFS_URB_TYPE_CONTROL] = control_type,
                                    [USBDEVFS_URB_TYPE_BULK] = bulk_type};
    return type < sizeof types ? types[type] : bulk_type;
}

static uint64_t id_of(const struct usbdevfs_urb* urb) {
    return process_bits() ^ (uint64_t)(uintptr_t)urb;
}

struct transfer {
    struct recording_entry entry;
    const unsigned char* data;
    uint32_t room; // for data
};

// The parts that submission and completion share. Without data.
static struct transfer transfer_of(struct place place, const struct usbdevfs_urb* urb,
                                   enum recording_kind kind) {
    struct transfer transfer = {.entry = entry_for(place, kind), .data = urb->buffer};
    transfer.entry.id = id_of(urb);
    transfer.entry.type = type_of(urb->type);
    transfer.entry.endpoint = urb->endpoint;
    transfer.entry.length = urb->buffer_length > 0 ? (uint32_t)urb->buffer_length : 0;
    transfer.room = transfer.entry.length;
    if (urb->type == USBDEVFS_URB_TYPE_CONTROL && urb->buffer_length >= setup_size) {
        const unsigned char* const setup = urb->buffer;
        const uint32_t wanted = (uint32_t)(setup[6] | setup[7] << 8);
        transfer.entry.endpoint =
            (uint8_t)((urb->endpoint & 0x0F) | (wanted != 0 ? setup[0] & direction_in : 0));
        memcpy(transfer.entry.setup, setup, setup_size);
        transfer.entry.flags = recording_with_setup;
        transfer.entry.length = wanted;
        transfer.data += setup_size;
        transfer.room -= setup_size;
    }
    return transfer;
}

static uint32_t least(uint32_t one, uint32_t other) {
    return one < other ? one : other;
}

// Reads the program's memory before the system checks it: a program with bad pointers ends here.
static void record_submission(struct place place, const struct usbdevfs_urb* urb) {
    if (!is_good(urb) || (urb->buffer_length > 0 && !is_good(urb->buffer))) {
        return;
    }
    struct transfer transfer = transfer_of(place, urb, recording_submission);
    const bool sends = (transfer.entry.endpoint & direction_in) == 0 && urb->type != USBDEVFS_URB_TYPE_ISO;
    record(&transfer.entry, transfer.data, sends ? least(transfer.entry.length, transfer.room) : 0);
}

static void record_refusal(struct place place, const struct usbdevfs_urb* urb, int error) {
    if (!is_good(urb) || (urb->buffer_length > 0 && !is_good(urb->buffer))) {
        return;
    }
    struct transfer transfer = transfer_of(place, urb, recording_submission_error);
    transfer.entry.result = -error;
    transfer.entry.flags = 0;
    record(&transfer.entry, NULL, 0);
}

static void record_completion(struct place place, const struct usbdevfs_urb* urb) {
    struct transfer transfer = transfer_of(place, urb, recording_completion);
    transfer.entry.result = urb->status;
    transfer.entry.flags = 0;
    transfer.entry.length = urb->actual_length > 0 ? (uint32_t)urb->actual_length : 0;
    const bool receives = (transfer.entry.endpoint & direction_in) != 0 && urb->type != USBDEVFS_URB_TYPE_ISO;
    record(&transfer.entry, transfer.data, receives ? least(transfer.entry.length, transfer.room) : 0);
}

// ---- synchronous transfers

static uint64_t next_id(void) {
    static uint64_t last;
    return process_bits() | UINT64_C(1) << 47 |
           (__atomic_add_fetch(&last, 1, __ATOMIC_RELAXED) << 3 & 0xFFFFFFFF);
}

// The system reports how often it has waited too long, and usbmon that it then ended the transfer.
static int32_t status_of_result(int result) {
    return result >= 0 ? 0 : errno == ETIMEDOUT ? -ENOENT : -errno;
}

static int run(int descriptor, unsigned long request, void* argument, struct recording_entry* entry,
               void* data) {
    const bool receives = (entry->endpoint & direction_in) != 0;
    entry->id = next_id();
    record(entry, data, receives ? 0 : entry->length);
    const int result = next()->ioctl(descriptor, request, argument);
    entry->kind = recording_completion;
    entry->flags = 0;
    entry->result = status_of_result(result);
    entry->length = result > 0 ? (uint32_t)result : 0;
    record(entry, data, receives ? entry->length : 0);
    return result;
}

static int run_control(struct place place, int descriptor, unsigned long request,
                       struct usbdevfs_ctrltransfer* control) {
    struct recording_entry entry = entry_for(place, recording_submission);
    entry.type = control_type;
    entry.flags = recording_with_setup;
    entry.length = control->wLength;
    entry.endpoint = control->wLength != 0 ? control->bRequestType & direction_in : 0;
    const uint8_t setup[setup_size] = {control->bRequestType,     control->bRequest,
                                       (uint8_t)control->wValue,  (uint8_t)(control->wValue >> 8),
                                       (uint8_t)control->wIndex,  (uint8_t)(control->wIndex >> 8),
                                       (uint8_t)control->wLength, (uint8_t)(control->wLength >> 8)};
    memcpy(entry.setup, setup, sizeof setup);
    return run(descriptor, request, control, &entry, control->data);
}

static int run_bulk(struct place place, int descriptor, unsigned long request,
                    struct usbdevfs_bulktransfer* bulk) {
    struct recording_entry entry = entry_for(place, recording_submission);
    entry.type = bulk_type;
    entry.endpoint = (uint8_t)bulk->ep;
    entry.length = bulk->len;
    return run(descriptor, request, bulk, &entry, bulk->data);
}

// ---- the rest

static unsigned word_of(const void* argument) {
    unsigned word;
    memcpy(&word, argument, sizeof word);
    return word;
}

// What a request does besides transfers. False if it changes nothing.
static bool describe(unsigned long request, const void* argument, struct recording_entry* entry) {
    if (request != USBDEVFS_RESET && !is_good(argument)) {
        return false;
    }
    enum recording_kind kind;
    switch (request) {
    case USBDEVFS_RESET:
        entry->kind = recording_reset;
        return true;
    case USBDEVFS_DISCARDURB:
        entry->kind = recording_discard;
        entry->id = id_of(argument);
        return true;
    case USBDEVFS_CLAIMINTERFACE:
        kind = recording_claim;
        break;
    case USBDEVFS_RELEASEINTERFACE:
        kind = recording_release;
        break;
    case USBDEVFS_SETCONFIGURATION:
        kind = recording_set_configuration;
        break;
    case USBDEVFS_CLEAR_HALT:
        kind = recording_clear_halt;
        break;
    case USBDEVFS_RESETEP:
        kind = recording_reset_endpoint;
        break;
    case USBDEVFS_SETINTERFACE:
        entry->numbers[1] = (int32_t)((const struct usbdevfs_setinterface*)argument)->altsetting;
        kind = recording_set_interface;
        break;
    case USBDEVFS_DISCONNECT_CLAIM:
        entry->numbers[1] = 1; // it also detaches
        kind = recording_claim;
        break;
    case USBDEVFS_IOCTL: {
        const struct usbdevfs_ioctl* const inner = argument;
        const bool detaches = inner->ioctl_code == (int)USBDEVFS_DISCONNECT;
        if (!detaches && inner->ioctl_code != (int)USBDEVFS_CONNECT) {
            return false;
        }
        kind = detaches ? recording_detach : recording_attach;
        break;
    }
    default:
        return false;
    }
    entry->kind = (uint16_t)kind;
    entry->numbers[0] = (int32_t)word_of(argument);
    return true;
}

static int answer(struct place place, int descriptor, unsigned long request, void* argument) {
    // Programs on other systems pass the number as an int.
    const unsigned long number = (uint32_t)request;
    if (number == USBDEVFS_SUBMITURB) {
        record_submission(place, argument);
        const int result = next()->ioctl(descriptor, request, argument);
        if (result < 0) {
            record_refusal(place, argument, errno);
        }
        return result;
    }
    if (number == USBDEVFS_REAPURB || number == USBDEVFS_REAPURBNDELAY) {
        const int result = next()->ioctl(descriptor, request, argument);
        if (result == 0) {
            record_completion(place, *(struct usbdevfs_urb* const*)argument);
        }
        return result;
    }
    if (number == USBDEVFS_CONTROL && is_good(argument)) {
        return run_control(place, descriptor, request, argument);
    }
    if (number == USBDEVFS_BULK && is_good(argument)) {
        return run_bulk(place, descriptor, request, argument);
    }
    struct recording_entry entry = entry_for(place, recording_skip);
    const bool notable = describe(number, argument, &entry);
    const int result = next()->ioctl(descriptor, request, argument);
    if (notable) {
        entry.result = result < 0 ? -errno : result;
        record(&entry, NULL, 0);
    }
    return result;
}

EXPORT int ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (_IOC_TYPE(request) == 'U' && is_recording()) {
        const struct place place = place_of_descriptor(descriptor);
        if (place.bus != 0) {
            return answer(place, descriptor, request, argument);
        }
    }
    return next()->ioctl(descriptor, request, argument);
}
