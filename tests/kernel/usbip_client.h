/* The client's half of the USB/IP protocol (documented with the kernel: Documentation/usb/usbip_protocol.rst). */
#pragma once

#include <stdbool.h>

#include "usbip/wire.h"

struct usbip_reader {
    char bus_id[usbip_bus_id_size];
    unsigned int remote_id; /* the server's bus and device number; the kernel reports it for each port */
    unsigned int speed;     /* as numbered by the kernel */
};

/* List the readers of the server at ADDRESS:PORT; -1 on failure. */
int usbip_readers(const char* server, struct usbip_reader* readers, int most);

/* Attach the reader to a port of the kernel's controller. */
bool usbip_attach(const char* server, const struct usbip_reader* reader, int port);
