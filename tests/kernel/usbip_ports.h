/* The ports of the kernel's controllers for USB/IP. */
#pragma once

#include <stdbool.h>

struct usbip_port {
    int number;
    bool in_use;
    bool has_address;       /* a device is attached and is being set up */
    unsigned int remote_id; /* the server's bus and device number */
    char device[32];        /* the kernel's name for it */
};

/* List all ports for devices up to high speed; return their number. */
int usbip_ports(struct usbip_port* ports, int most);

/* Null if all ports are in use. */
const struct usbip_port* usbip_free_port(const struct usbip_port* ports, int count);
