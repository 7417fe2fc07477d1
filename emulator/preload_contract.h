// What the launcher and the preload inside the program agree on, besides the memory of openings. In C, because the
// preload is written in C.
//
// Any thread.
#pragma once

// The file that the library reads, and the folder that holds the nodes of USB devices.
static const char emulate_configuration_file[] = "/etc/gavo/gvusb.conf";
static const char emulate_node_folder[] = "/dev/bus/usb/";

// Environment variables that the launcher sets for the program: its scratch folder, the file to open instead of
// the configuration file, the command socket, whether to serve system calls that bypass the C library, and the address of
// the USB/IP server.
static const char emulate_folder_variable[] = "GVUSB_EMULATE_FOLDER";
static const char emulate_configuration_variable[] = "GVUSB_EMULATE_CONFIG";
static const char emulate_socket_variable[] = "GVUSB_EMULATE_SOCKET";
static const char emulate_system_calls_variable[] = "GVUSB_EMULATE_SYSTEM_CALLS";
static const char emulate_usbip_variable[] = "GVUSB_EMULATE_USBIP";

// In the scratch folder: the emulated /sys, /dev/bus and /run/udev, the socket for opening nodes, and the folder with the
// sockets of the programs' udev monitors, whose names begin with their multicast groups and a dot.
static const char emulate_root[] = "root";
static const char emulate_node_socket[] = "nodes";
static const char emulate_listeners[] = "uevents";

// The beginning of the abstract name of the sockets that send udev events. A program receives it in the room of a netlink
// address, which is 12 bytes.
static const char emulate_event_sender[] = "gvusbudev";
