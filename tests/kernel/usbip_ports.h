/* The ports of the kernel's controllers for USB/IP. */
#pragma once

#include <stdbool.h>

struct usbip_port {
    int number;
    bool in_use;
    bool has_address;       /* the device behind it is on its way into the system */
    unsigned int remote_id; /* the server's bus and device number */
    char device[32];        /* the kernel's name of it */
};

/* All ports for devices up to high speed; how many there are. */
int usbip_ports(struct usbip_port* ports, int most);

/* Null when all are in use. */
const struct usbip_port* usbip_free_port(const struct usbip_port* ports, int count);
