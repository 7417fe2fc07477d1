/* The client's half of the USB/IP protocol (documented with the kernel: Documentation/usb/usbip_protocol.rst). */
#pragma once

#include <stdbool.h>

#include "usbip/wire.h"

struct usbip_reader {
    char bus_id[usbip_bus_id_size];
    unsigned int remote_id; /* the server's bus and device number, as the kernel shows it again */
    unsigned int speed;     /* as the kernel numbers speeds */
};

/* The readers of the server at ADDRESS:PORT; -1 when it does not tell them. */
int usbip_readers(const char* server, struct usbip_reader* readers, int most);

/* Connects the reader to a port of the kernel's controller. */
bool usbip_attach(const char* server, const struct usbip_reader* reader, int port);
