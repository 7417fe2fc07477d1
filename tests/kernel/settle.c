/*
 * Makes the guest's kernel follow the server of virtual readers: attaches every reader that is not yet
 * attached, and waits until the kernel and udev show exactly the server's readers. Exits with 0 if they do.
 *
 * The system's USB/IP client could attach them too, but takes much longer to start.
 *
 * The environment names the server; without one, there are no readers.
 */
#include "bus.h"
#include "usbip_client.h"
#include "usbip_ports.h"

#include <dirent.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { most_readers = 256, longest_wait_s = 40, pause_us = 50000 };

static struct usbip_reader readers[most_readers];
static struct usbip_port ports[most_readers];
static int port_count;

/* The server lists only readers that are not attached. */
static bool attach_missing(const char* server) {
    const int count = usbip_readers(server, readers, most_readers);
    for (int i = 0; i < count; ++i) {
        const struct usbip_port* free_port = usbip_free_port(ports, port_count);
        if (free_port == NULL || !usbip_attach(server, &readers[i], free_port->number)) {
            return false;
        }
        port_count = usbip_ports(ports, most_readers);
    }
    return count >= 0;
}

static int plugged_readers(void) {
    int count = 0;
    for (int reader = reader_count(); reader > 0; --reader) {
        count += is_plugged(reader);
    }
    return count;
}

static bool is_configured(const char* device) {
    char path[512];
    char value[8] = "";
    snprintf(path, sizeof path, "/sys/bus/usb/devices/%s/bConfigurationValue", device);
    FILE* file = fopen(path, "r");
    if (file == NULL) {
        return false;
    }
    const bool configured = fgets(value, sizeof value, file) != NULL && value[0] >= '1' && value[0] <= '9';
    fclose(file);
    return configured;
}

static int count_entries(const char* folder, const char* beginning, const char* without) {
    DIR* entries = opendir(folder);
    int count = 0;
    if (entries == NULL) {
        return 0;
    }
    for (const struct dirent* entry; (entry = readdir(entries)) != NULL;) {
        count += entry->d_name[0] != '.' && strncmp(entry->d_name, beginning, strlen(beginning)) == 0 &&
                 strpbrk(entry->d_name, without) == NULL;
    }
    closedir(entries);
    return count;
}

/*
 * udev writes a file for each device before it reports the device, and deletes the file when the device is
 * removed.
 */
static bool udev_agrees(void) {
    return access("/run/udev/control", F_OK) != 0 ||
           (access("/run/udev/queue", F_OK) != 0 &&
            count_entries("/run/udev/data", "c189:", "") == count_entries("/sys/bus/usb/devices", "", ":"));
}

static bool kernel_agrees(int plugged) {
    int used = 0;
    for (int i = 0; i < port_count; ++i) {
        used += ports[i].in_use;
        if (ports[i].in_use && (!ports[i].has_address || !is_configured(ports[i].device))) {
            return false;
        }
    }
    /* The other devices are root hubs, whose names begin with "usb". */
    return used == plugged && count_entries("/sys/bus/usb/devices", "", ":") -
                                      count_entries("/sys/bus/usb/devices", "usb", ":") ==
                                  plugged;
}

/* The reason why the kernel has not settled yet; null if it has. */
static const char* trouble(const char* server, int plugged) {
    port_count = usbip_ports(ports, most_readers);
    if (server != NULL && !attach_missing(server)) {
        return "a reader cannot be attached";
    }
    if (!kernel_agrees(plugged)) {
        return "the kernel's devices differ from the server's readers";
    }
    return udev_agrees() ? NULL : "udev has not processed all devices yet";
}

int main(void) {
    const char* server = getenv("GVUSB_EMULATE_USBIP");
    const int plugged = server != NULL ? plugged_readers() : 0;
    const time_t end = time(NULL) + longest_wait_s;
    const char* found = NULL;
    while ((found = trouble(server, plugged)) != NULL && time(NULL) <= end) {
        usleep(pause_us);
    }
    if (found == NULL) {
        return 0;
    }
    fprintf(stderr, "settle: %s; %d readers are plugged\n", found, plugged);
    for (int i = 0; i < port_count; ++i) {
        if (ports[i].in_use) {
            fprintf(stderr, "settle: port %d has %x, device %s\n", ports[i].number, ports[i].remote_id,
                    ports[i].device);
        }
    }
    return 1;
}
