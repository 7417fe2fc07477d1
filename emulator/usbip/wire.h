// The messages of USB/IP, protocol version 1.1.1, as they lie on the wire. The kernel's documentation
// describes them: Documentation/usb/usbip_protocol.rst.
//
// Every number is in network byte order, except inside a setup packet, which keeps USB's own. In C, because
// test clients in C share it.
#pragma once

#include <assert.h>
#include <stdint.h>

enum { usbip_protocol_version = 0x0111 };

// ---- operations

// A connection begins with an operation, which lists or imports devices.
struct usbip_operation {
    uint16_t version;
    uint16_t code;
    uint32_t status; // 0 in requests
};

enum usbip_operation_code {
    usbip_request_import = 0x8003, // followed by the bus ID, usbip_bus_id_size bytes
    usbip_reply_import = 0x0003,   // followed by the device if the status is usbip_ok
    usbip_request_list = 0x8005,
    usbip_reply_list = 0x0005 // followed by a count of 32 bits and each device with its interfaces
};

enum usbip_operation_status { usbip_ok = 0, usbip_busy = 2, usbip_no_device = 4 };

enum { usbip_path_size = 256, usbip_bus_id_size = 32 };

struct usbip_device {
    char path[usbip_path_size]; // in the server's sysfs
    char bus_id[usbip_bus_id_size];
    uint32_t bus;
    uint32_t number;
    uint32_t speed; // enum usb_device_speed of the kernel
    uint16_t vendor;
    uint16_t product;
    uint16_t release;
    uint8_t device_class;
    uint8_t device_subclass;
    uint8_t device_protocol;
    uint8_t configuration; // the active one
    uint8_t configurations;
    uint8_t interfaces; // of the active configuration; in a list, as many struct usbip_interface follow
};

struct usbip_interface {
    uint8_t interface_class;
    uint8_t interface_subclass;
    uint8_t interface_protocol;
    uint8_t padding;
};

// ---- URBs

// Once a device is imported, the same connection carries URBs. Every message begins with this header and has
// the same size, except for the data of a transfer, which follows it.
struct usbip_header {
    uint32_t command;
    uint32_t sequence;
    uint32_t device;    // bus << 16 | number; 0 in replies
    uint32_t direction; // 0 in replies
    uint32_t endpoint;  // its number, without the direction bit; 0 in replies
};

enum usbip_command {
    usbip_command_submit = 1,
    usbip_command_unlink = 2,
    usbip_reply_submit = 3,
    usbip_reply_unlink = 4
};

enum usbip_direction { usbip_out = 0, usbip_in = 1 };

// Flags of submits: fail if fewer bytes come than were asked for; end whole packets with a zero-length one.
enum { usbip_short_not_ok = 0x0001, usbip_zero_packet = 0x0040 };

struct usbip_submit {
    struct usbip_header header;
    uint32_t flags;
    uint32_t length; // of the data, in either direction
    uint32_t start_frame;
    uint32_t packets; // isochronous; otherwise 0 or -1
    uint32_t interval;
    uint8_t setup[8];
};

struct usbip_submit_reply {
    struct usbip_header header;
    uint32_t status; // 0 or a negative errno
    uint32_t actual_length;
    uint32_t start_frame;
    uint32_t packets;
    uint32_t errors;
    uint8_t padding[8];
};

struct usbip_unlink {
    struct usbip_header header;
    uint32_t unlinked; // the sequence number of the submit to cancel
    uint8_t padding[24];
};

struct usbip_unlink_reply {
    struct usbip_header header;
    uint32_t status; // -ECONNRESET if the submit was cancelled, 0 if it had completed
    uint8_t padding[24];
};

static_assert(sizeof(struct usbip_operation) == 8, "as on the wire");
static_assert(sizeof(struct usbip_device) == 312, "as on the wire");
static_assert(sizeof(struct usbip_interface) == 4, "as on the wire");
static_assert(sizeof(struct usbip_submit) == 48, "as on the wire");
static_assert(sizeof(struct usbip_submit_reply) == 48, "as on the wire");
static_assert(sizeof(struct usbip_unlink) == 48, "as on the wire");
static_assert(sizeof(struct usbip_unlink_reply) == 48, "as on the wire");
