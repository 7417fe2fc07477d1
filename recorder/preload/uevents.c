// Devices that come and go, as the program is told: messages of the kernel and of udev.

#include "preload.h"

#include <stdlib.h>
#include <string.h>

struct properties {
    const char* action;
    const char* type;
    const char* bus;
    const char* address;
    const char* sequence;
};

static const char* value_of(const char* property, const char* name) {
    const size_t length = strlen(name);
    return strncmp(property, name, length) == 0 && property[length] == '=' ? property + length + 1 : NULL;
}

static void read_property(struct properties* properties, const char* property) {
    const char* value;
    if ((value = value_of(property, "ACTION")) != NULL) {
        properties->action = value;
    } else if ((value = value_of(property, "DEVTYPE")) != NULL) {
        properties->type = value;
    } else if ((value = value_of(property, "BUSNUM")) != NULL) {
        properties->bus = value;
    } else if ((value = value_of(property, "DEVNUM")) != NULL) {
        properties->address = value;
    } else if ((value = value_of(property, "SEQNUM")) != NULL) {
        properties->sequence = value;
    }
}

// The properties end with a zero each.
static void read_message(const char* text, size_t size) {
    struct properties properties = {.action = NULL};
    while (size != 0) {
        const size_t length = strnlen(text, size);
        if (length == size) {
            break;
        }
        read_property(&properties, text);
        text += length + 1;
        size -= length + 1;
    }
    if (properties.action == NULL || properties.type == NULL || properties.bus == NULL ||
        properties.address == NULL || strcmp(properties.type, "usb_device") != 0) {
        return;
    }
    const struct place place = {.bus = (uint16_t)atoi(properties.bus),
                                .address = (uint8_t)atoi(properties.address)};
    const bool comes = strcmp(properties.action, "add") == 0;
    if (comes || strcmp(properties.action, "remove") == 0) {
        record_presence(place, comes,
                        properties.sequence != NULL ? strtoull(properties.sequence, NULL, 10) : 0);
    }
}

// Of udev, with a header that says where the properties are, or of the kernel, "ACTION@PATH" before them.
static void look_at_message(const char* text, size_t size) {
    enum { offset_at = 16, length_at = 20, smallest = 24 };
    if (size >= smallest && memcmp(text, "libudev", 8) == 0) {
        uint32_t offset;
        uint32_t length;
        memcpy(&offset, text + offset_at, sizeof offset);
        memcpy(&length, text + length_at, sizeof length);
        if (offset <= size && length <= size - offset) {
            read_message(text + offset, length);
        }
    } else if (size > 4 && (memcmp(text, "add@", 4) == 0 || (size > 7 && memcmp(text, "remove@", 7) == 0))) {
        read_message(text, size);
    }
}

EXPORT ssize_t recvmsg(int descriptor, struct msghdr* message, int flags) {
    const ssize_t received = next()->recvmsg(descriptor, message, flags);
    if (received > 0 && (flags & MSG_PEEK) == 0 && message->msg_iovlen == 1 && is_recording()) {
        const size_t room = message->msg_iov[0].iov_len;
        look_at_message(message->msg_iov[0].iov_base, (size_t)received < room ? (size_t)received : room);
    }
    return received;
}
