// What the launcher and the preload inside the program agree on. In C, because the preload is written in C.
//
// Any thread.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>

// The file that the library reads, and the folder that holds the nodes of USB devices.
static const char emulate_configuration_file[] = "/etc/gavo/gvusb.conf";
static const char emulate_node_folder[] = "/dev/bus/usb/";

// Environment variables that the launcher sets for the program: its scratch folder, the file to open instead of
// the configuration file, the command socket and the address of the USB/IP server.
static const char emulate_folder_variable[] = "GVUSB_EMULATE_FOLDER";
static const char emulate_configuration_variable[] = "GVUSB_EMULATE_CONFIG";
static const char emulate_socket_variable[] = "GVUSB_EMULATE_SOCKET";
static const char emulate_usbip_variable[] = "GVUSB_EMULATE_USBIP";

// umockdev's own: the root of the emulated /sys and /dev.
static const char emulate_root_variable[] = "UMOCKDEV_DIR";

// A program's udev sockets in that root are named "event", the descriptor and, after a dot, the process ID.
static const char emulate_event_socket[] = "event";

// The size of umockdev's table of what a program has open below /dev.
enum { emulate_most_open_devices = 50 };

// Sent by the preload before it closes a node, so that everything the opening held is free when close()
// returns, as with the kernel's usbfs.
static const unsigned long emulate_closing_request = _IO('U', 0xE0);

// Subfolder of the scratch folder with a symbolic link for each node that must not be opened.
static const char emulate_refusals[] = "refused";

// Writes the path of a node's link: FOLDER/refused/001.002 for /dev/bus/usb/001/002. The link's target is the
// errno. False if the path does not fit.
static inline bool emulate_refusal_path(char* path, size_t size, const char* folder, const char* node) {
    const int length =
        snprintf(path, size, "%s/%s/%s", folder, emulate_refusals, node + strlen(emulate_node_folder));
    if (length < 0 || (size_t)length >= size) {
        return false;
    }
    *strrchr(path, '/') = '.';
    return true;
}
