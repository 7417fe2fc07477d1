#include "usbip_ports.h"

#include <stdio.h>

/* The states in the status file of each controller. */
enum { state_free = 4, state_used = 6 };

static int read_controller(FILE* file, struct usbip_port* ports, int most) {
    char line[128];
    int count = 0;
    while (count < most && fgets(line, sizeof line, file) != NULL) {
        char hub[8];
        int state = 0;
        struct usbip_port* port = &ports[count];
        if (sscanf(line, "%7s %d %d %*d %x %*d %31s", hub, &port->number, &state, &port->remote_id,
                   port->device) == 5 &&
            hub[0] == 'h' && hub[1] == 's') {
            port->in_use = state != state_free;
            port->has_address = state == state_used;
            ++count;
        }
    }
    return count;
}

int usbip_ports(struct usbip_port* ports, int most) {
    char path[64] = "/sys/devices/platform/vhci_hcd.0/status";
    int count = 0;
    FILE* file = NULL;
    for (int controller = 1; (file = fopen(path, "r")) != NULL; ++controller) {
        count += read_controller(file, ports + count, most - count);
        fclose(file);
        snprintf(path, sizeof path, "/sys/devices/platform/vhci_hcd.0/status.%d", controller);
    }
    return count;
}

const struct usbip_port* usbip_free_port(const struct usbip_port* ports, int count) {
    for (int i = 0; i < count; ++i) {
        if (!ports[i].in_use) {
            return &ports[i];
        }
    }
    return NULL;
}
