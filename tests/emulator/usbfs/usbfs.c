/*
 * What usbfs answers, with raw system calls: the same on the emulated bus and, in tests/kernel, on a real kernel. The
 * answers were measured there.
 */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>

#include <cmocka.h>

#include "bus.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { bulk_in = 0x81, bulk_out = 0x02, patience_ms = 60000, moment_ms = 100 };

/* ---- calls */

/* The result of an ioctl, or a negative errno. */
static int call(int node, unsigned long request, void* argument) {
    const int result = ioctl(node, request, argument);
    return result < 0 ? -errno : result;
}

static int call_word(int node, unsigned long request, unsigned word) {
    return call(node, request, &word);
}

static int claim(int node, unsigned interface) {
    return call_word(node, USBDEVFS_CLAIMINTERFACE, interface);
}

/* The number in a file of a device in sysfs; -1 if there is none. */
static long attribute(const char* device, const char* name, int base) {
    char path[600];
    char text[32] = "";
    snprintf(path, sizeof path, "/sys/bus/usb/devices/%s/%s", device, name);
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t length = file >= 0 ? read(file, text, sizeof text - 1) : -1;
    if (file >= 0) {
        close(file);
    }
    return length > 0 ? strtol(text, NULL, base) : -1;
}

/* The path of the only reader's node; false if it is not there. */
static bool find_path(char* path, size_t size) {
    DIR* const devices = opendir("/sys/bus/usb/devices");
    bool found = false;
    assert_non_null(devices);
    for (struct dirent* entry; !found && (entry = readdir(devices)) != NULL;) {
        if (attribute(entry->d_name, "idVendor", 16) == GVUSB_VENDOR_ID) {
            snprintf(path, size, "/dev/bus/usb/%03ld/%03ld", attribute(entry->d_name, "busnum", 10),
                     attribute(entry->d_name, "devnum", 10));
            found = access(path, F_OK) == 0;
        }
    }
    closedir(devices);
    return found;
}

static char node_path[64];

static int open_node(int flags) {
    const int node = open(node_path, flags | O_CLOEXEC);
    assert_true(node >= 0);
    return node;
}

static int open_claimed(void) {
    const int node = open_node(O_RDWR);
    assert_int_equal(claim(node, 0), 0);
    return node;
}

static void pause_ms(long duration) {
    const struct timespec time = {.tv_sec = duration / 1000, .tv_nsec = duration % 1000 * 1000000};
    nanosleep(&time, NULL);
}

static void fill_bulk(struct usbdevfs_urb* urb, unsigned char endpoint, void* data, int length) {
    memset(urb, 0, sizeof *urb);
    urb->type = USBDEVFS_URB_TYPE_BULK;
    urb->endpoint = endpoint;
    urb->buffer = data;
    urb->buffer_length = length;
}

static int submit(int node, struct usbdevfs_urb* urb) {
    return call(node, USBDEVFS_SUBMITURB, urb);
}

static int reap(int node, struct usbdevfs_urb** urb) {
    *urb = NULL;
    return call(node, USBDEVFS_REAPURB, urb);
}

static int reap_now(int node, struct usbdevfs_urb** urb) {
    *urb = NULL;
    return call(node, USBDEVFS_REAPURBNDELAY, urb);
}

/* Submits a URB and checks how it completes. */
static void run_urb(int node, struct usbdevfs_urb* urb, int status, int actual) {
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, urb), 0);
    assert_int_equal(reap(node, &reaped), 0);
    assert_ptr_equal(reaped, urb);
    assert_int_equal(urb->status, status);
    assert_int_equal(urb->actual_length, actual);
}

static void send_bytes(int node, void* data, int length) {
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_out, data, length);
    run_urb(node, &urb, 0, length);
}

static void receive_bytes(int node, void* data, int room, int length) {
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_in, data, room);
    run_urb(node, &urb, 0, length);
}

static void check_exchange(int node) {
    unsigned char out[] = "frame";
    unsigned char in[64] = "";
    send_bytes(node, out, sizeof out);
    receive_bytes(node, in, sizeof in, sizeof out);
    assert_memory_equal(in, out, sizeof out);
}

static int polled(int node, int events, int timeout_ms) {
    struct pollfd descriptor = {.fd = node, .events = (short)events};
    assert_true(poll(&descriptor, 1, timeout_ms) >= 0);
    return descriptor.revents;
}

enum { all_events = POLLIN | POLLOUT | POLLPRI };

static int set_up(void** state) {
    (void)state;
    calm_bus();
    if (!is_plugged(1)) {
        bus("plug 1");
    }
    for (const double end = now_ms() + patience_ms; !find_path(node_path, sizeof node_path);) {
        assert_true(now_ms() < end);
        pause_ms(10);
    }
    /* What another test has left. */
    const int node = open_node(O_RDWR);
    call(node, USBDEVFS_RESET, NULL);
    call_word(node, USBDEVFS_SETCONFIGURATION, 1);
    close(node);
    return 0;
}

/* ---- claims and requests */

static void InterfacesAreClaimedByOneOpening(void** state) {
    const int node = open_node(O_RDWR);
    const int other = open_node(O_RDWR);
    struct usbdevfs_getdriver driver = {.interface = 0};
    assert_int_equal(call(node, USBDEVFS_GETDRIVER, &driver), -ENODATA);
    assert_int_equal(claim(node, 0), 0);
    assert_int_equal(claim(node, 0), 0);
    assert_int_equal(claim(node, 5), -ENOENT);
    assert_int_equal(claim(node, 64), -EINVAL);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 5), -ENOENT);
    assert_int_equal(claim(other, 0), -EBUSY);
    assert_int_equal(call_word(other, USBDEVFS_RELEASEINTERFACE, 0), -EINVAL);
    assert_int_equal(call(other, USBDEVFS_GETDRIVER, &driver), 0);
    assert_string_equal(driver.driver, "usbfs");
    close(node);
    assert_int_equal(claim(other, 0), 0);
    close(other);
}

/* A file of the only reader in sysfs, or of its interface if the name begins with ":1.0/", as far as there is one. */
static const char* sysfs_text(const char* name) {
    static char text[256];
    char path[600];
    DIR* const devices = opendir("/sys/bus/usb/devices");
    assert_non_null(devices);
    text[0] = '\0';
    for (struct dirent* entry; (entry = readdir(devices)) != NULL;) {
        if (attribute(entry->d_name, "idVendor", 16) != GVUSB_VENDOR_ID) {
            continue;
        }
        snprintf(path, sizeof path, "/sys/bus/usb/devices/%s%s%s", entry->d_name, name[0] == ':' ? "" : "/",
                 name);
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        const ssize_t length = file >= 0 ? read(file, text, sizeof text - 1) : -1;
        if (length >= 0) {
            text[length] = '\0';
        } else {
            const ssize_t target = readlink(path, text, sizeof text - 1);
            text[target > 0 ? target : 0] = '\0';
        }
        if (file >= 0) {
            close(file);
        }
        break;
    }
    closedir(devices);
    return text;
}

static void SysfsDescribesTheReader(void** state) {
    assert_string_equal(sysfs_text("bConfigurationValue"), "1\n");
    assert_string_equal(sysfs_text("bNumInterfaces"), " 1\n");
    assert_string_equal(sysfs_text("bNumConfigurations"), "1\n");
    assert_string_equal(sysfs_text("bmAttributes"), "80\n");
    assert_string_equal(sysfs_text("bMaxPower"), "100mA\n");
    assert_string_equal(sysfs_text("bMaxPacketSize0"), "64\n");
    assert_string_equal(sysfs_text("bDeviceClass"), "00\n");
    assert_string_equal(sysfs_text("bcdDevice"), "0100\n");
    assert_string_equal(sysfs_text("version"), " 1.10\n");
    assert_string_equal(sysfs_text("speed"), "12\n");
    assert_string_equal(sysfs_text("maxchild"), "0\n");
    assert_string_equal(sysfs_text("quirks"), "0x0\n");
    assert_string_equal(sysfs_text("avoid_reset_quirk"), "0\n");
    assert_string_equal(sysfs_text("authorized"), "1\n");
    assert_string_equal(sysfs_text("ltm_capable"), "no\n");
    assert_string_equal(sysfs_text("rx_lanes"), "1\n");
    assert_string_equal(sysfs_text("tx_lanes"), "1\n");
    assert_string_equal(sysfs_text("serial"), "A1\n");
    assert_string_equal(sysfs_text("configuration"), "");
    assert_string_equal(sysfs_text("ep_00/type"), "Control\n");
    assert_string_equal(sysfs_text("ep_00/bLength"), "07\n");
    assert_string_equal(sysfs_text("ep_00/interval"), "0ms\n");
    assert_string_equal(sysfs_text(":1.0/bInterfaceNumber"), "00\n");
    assert_string_equal(sysfs_text(":1.0/bAlternateSetting"), " 0\n");
    assert_string_equal(sysfs_text(":1.0/bNumEndpoints"), "02\n");
    assert_string_equal(sysfs_text(":1.0/bInterfaceClass"), "ff\n");
    assert_string_equal(sysfs_text(":1.0/interface"), "TESK RCI2\n");
    assert_string_equal(sysfs_text(":1.0/ep_81/type"), "Bulk\n");
    assert_string_equal(sysfs_text(":1.0/ep_81/direction"), "in\n");
    assert_string_equal(sysfs_text(":1.0/ep_02/wMaxPacketSize"), "0040\n");
    assert_string_equal(sysfs_text(":1.0/ep_02/interval"), "0ms\n");
}

static bool ends_with(const char* text, const char* end) {
    const size_t length = strlen(text);
    return length >= strlen(end) && strcmp(text + length - strlen(end), end) == 0;
}

static void SysfsShowsDriversAndTheConfiguration(void** state) {
    assert_string_equal(sysfs_text(":1.0/driver"), "");
    const int node = open_claimed();
    assert_true(ends_with(sysfs_text(":1.0/driver"), "/bus/usb/drivers/usbfs"));
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), 0);
    assert_string_equal(sysfs_text(":1.0/driver"), "");
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, 0), 0);
    assert_string_equal(sysfs_text("bConfigurationValue"), "");
    assert_string_equal(sysfs_text("bNumInterfaces"), "");
    assert_string_equal(sysfs_text(":1.0/bInterfaceNumber"), "");
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, 1), 0);
    assert_string_equal(sysfs_text("bConfigurationValue"), "1\n");
    assert_string_equal(sysfs_text(":1.0/ep_81/type"), "Bulk\n");
    close(node);
}

/* At the end of a page that is followed by none, so that reading beyond the name is an error. */
static void ADriversNameMayFillItsRoom(void** state) {
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    unsigned char* const pages =
        mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    assert_ptr_not_equal(pages, MAP_FAILED);
    assert_int_equal(munmap(pages + page, page), 0);
    struct usbdevfs_disconnect_claim* const wanted =
        (struct usbdevfs_disconnect_claim*)(pages + page - sizeof *wanted);
    const int node = open_claimed();
    const int other = open_node(O_RDWR);
    memset(wanted, 'x', sizeof *wanted);
    memcpy(wanted->driver, "usbfs", 5);
    wanted->interface = 0;
    wanted->flags = USBDEVFS_DISCONNECT_CLAIM_IF_DRIVER;
    assert_int_equal(call(other, USBDEVFS_DISCONNECT_CLAIM, wanted), -EBUSY);
    wanted->flags = USBDEVFS_DISCONNECT_CLAIM_EXCEPT_DRIVER;
    assert_int_equal(call(other, USBDEVFS_DISCONNECT_CLAIM, wanted), 0);
    close(other);
    close(node);
    munmap(pages, page);
}

static void RequestsWork(void** state) {
    const int node = open_claimed();
    unsigned char data[64] = {0};
    struct usbdevfs_setinterface setting = {.interface = 0, .altsetting = 0};
    struct usbdevfs_ctrltransfer get_descriptor = {.bRequestType = 0x80,
                                                   .bRequest = 6,
                                                   .wValue = 0x0100,
                                                   .wLength = 18,
                                                   .timeout = patience_ms,
                                                   .data = data};
    struct usbdevfs_bulktransfer out = {.ep = bulk_out, .len = 4, .timeout = patience_ms, .data = data};
    struct usbdevfs_bulktransfer in = {.ep = bulk_in, .len = 64, .timeout = patience_ms, .data = data};
    struct usbdevfs_connectinfo info = {0};
    struct usbdevfs_conninfo_ex extended = {0};
    struct usbdevfs_disconnectsignal wanted = {.signr = 0, .context = NULL};
    unsigned capabilities = 0;
    unsigned bus_number = 0;
    unsigned address = 0;
    assert_int_equal(sscanf(node_path, "/dev/bus/usb/%u/%u", &bus_number, &address), 2);

    assert_int_equal(call(node, USBDEVFS_SETINTERFACE, &setting), 0);
    setting.altsetting = 3;
    assert_int_equal(call(node, USBDEVFS_SETINTERFACE, &setting), -EINVAL);
    assert_int_equal(call(node, USBDEVFS_CONTROL, &get_descriptor), 18);
    assert_int_equal(data[0], 18);
    assert_int_equal(data[8] | data[9] << 8, GVUSB_VENDOR_ID);
    get_descriptor.wValue = 0x7700;
    assert_int_equal(call(node, USBDEVFS_CONTROL, &get_descriptor), -EPIPE);
    assert_int_equal(call(node, USBDEVFS_BULK, &out), 4);
    assert_int_equal(call(node, USBDEVFS_BULK, &in), 4);
    in.timeout = moment_ms;
    assert_int_equal(call(node, USBDEVFS_BULK, &in), -ETIMEDOUT);
    assert_int_equal(call(node, USBDEVFS_CONNECTINFO, &info), 0);
    assert_int_equal(info.devnum, address);
    assert_int_equal(info.slow, 0);
    assert_int_equal(call(node, USBDEVFS_CONNINFO_EX(sizeof extended), &extended), 0);
    assert_int_equal(extended.busnum, bus_number);
    assert_int_equal(extended.devnum, address);
    assert_int_equal(extended.num_ports, 1);
    assert_int_equal(call(node, USBDEVFS_GET_CAPABILITIES, &capabilities), 0);
    const unsigned expected = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_REAP_AFTER_DISCONNECT |
                              USBDEVFS_CAP_MMAP | USBDEVFS_CAP_DROP_PRIVILEGES | USBDEVFS_CAP_CONNINFO_EX;
    assert_int_equal(capabilities & expected, expected);
    assert_int_equal(call(node, USBDEVFS_GET_SPEED, NULL), 2);
    assert_int_equal(call(node, USBDEVFS_FORBID_SUSPEND, NULL), 0);
    assert_int_equal(call(node, USBDEVFS_ALLOW_SUSPEND, NULL), 0);
    assert_int_equal(call(node, USBDEVFS_DISCSIGNAL, &wanted), 0);
    assert_int_equal(call(node, _IO('U', 99), NULL), -ENOTTY);
    assert_int_equal(isatty(node), 0);
    assert_int_equal(errno, ENOTTY);
    close(node);
}

static void HaltsAreClearedByWhoHasClaimed(void** state) {
    const int node = open_claimed();
    const int other = open_node(O_RDWR);
    unsigned char data[4] = "abc";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, sizeof data);
    assert_int_equal(call_word(other, USBDEVFS_CLEAR_HALT, bulk_in), -EBUSY);
    assert_int_equal(call_word(other, USBDEVFS_RESETEP, bulk_in), -EBUSY);
    assert_int_equal(call_word(node, USBDEVFS_CLEAR_HALT, 0x85), -ENOENT);
    assert_int_equal(call_word(node, USBDEVFS_CLEAR_HALT, 0x91), -EINVAL);
    bus("stall 1 out");
    run_urb(node, &out, -EPIPE, 0);
    assert_int_equal(call_word(node, USBDEVFS_RESETEP, bulk_out), 0);
    run_urb(node, &out, -EPIPE, 0);
    assert_int_equal(call_word(node, USBDEVFS_CLEAR_HALT, bulk_out), 0);
    run_urb(node, &out, 0, sizeof data);
    close(other);
    close(node);
}

static void AnUnconfiguredReaderHasNoInterfaces(void** state) {
    const int node = open_claimed();
    unsigned char data[4] = "";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, sizeof data);
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, 1), -EBUSY);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), 0);
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, 7), -EINVAL);
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, (unsigned)-1), 0);
    assert_int_equal(claim(node, 0), -ENOENT);
    assert_int_equal(submit(node, &out), -ESRCH);
    assert_int_equal(call_word(node, USBDEVFS_CLEAR_HALT, bulk_out), -ESRCH);
    assert_int_equal(call_word(node, USBDEVFS_SETCONFIGURATION, 1), 0);
    assert_int_equal(claim(node, 0), 0);
    check_exchange(node);
    close(node);
}

static int detach_and_claim(int node, unsigned interface, unsigned flags) {
    struct usbdevfs_disconnect_claim wanted = {.interface = interface, .flags = flags, .driver = "usbfs"};
    return call(node, USBDEVFS_DISCONNECT_CLAIM, &wanted);
}

static int ask_driver(int node, int interface, int request) {
    struct usbdevfs_ioctl driver = {.ifno = interface, .ioctl_code = request, .data = NULL};
    return call(node, USBDEVFS_IOCTL, &driver);
}

static void InterfacesAreTakenAway(void** state) {
    const int node = open_node(O_RDWR);
    const int other = open_node(O_RDWR);
    assert_int_equal(detach_and_claim(node, 5, 0), -EINVAL);
    assert_int_equal(detach_and_claim(node, 0, 0), 0);
    assert_int_equal(detach_and_claim(other, 0, USBDEVFS_DISCONNECT_CLAIM_EXCEPT_DRIVER), -EBUSY);
    assert_int_equal(detach_and_claim(other, 0, 0), 0);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), -EINVAL);
    assert_int_equal(call_word(other, USBDEVFS_RELEASEINTERFACE, 0), 0);
    assert_int_equal(ask_driver(node, 0, USBDEVFS_DISCONNECT), -ENODATA);
    assert_int_equal(ask_driver(node, 5, USBDEVFS_CONNECT), -EINVAL);
    close(other);
    close(node);
}

static void PrivilegesAreDropped(void** state) {
    const int node = open_node(O_RDWR);
    const int other = open_node(O_RDWR);
    assert_int_equal(call_word(node, USBDEVFS_DROP_PRIVILEGES, ~0U), 0);
    assert_int_equal(ask_driver(node, 0, USBDEVFS_DISCONNECT), -EACCES);
    assert_int_equal(ask_driver(node, 5, USBDEVFS_CONNECT), -EACCES);
    assert_int_equal(claim(other, 0), 0);
    assert_int_equal(detach_and_claim(node, 0, 0), -EACCES);
    assert_int_equal(call(node, USBDEVFS_RESET, NULL), -EACCES);
    close(other);
    assert_int_equal(claim(node, 0), 0);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), 0);
    assert_int_equal(call_word(node, USBDEVFS_DROP_PRIVILEGES, 0), 0);
    assert_int_equal(claim(node, 0), -EACCES);
    close(node);
}

static void AResetTakesTheClaims(void** state) {
    const int node = open_claimed();
    unsigned char data[64];
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    struct usbdevfs_urb* reaped;
    struct usbdevfs_getdriver driver = {.interface = 0};
    assert_int_equal(submit(node, &in), 0);
    assert_int_equal(call(node, USBDEVFS_RESET, NULL), 0);
    assert_int_equal(reap_now(node, &reaped), 0);
    assert_int_equal(in.status, -ESHUTDOWN);
    assert_int_equal(call(node, USBDEVFS_GETDRIVER, &driver), -ENODATA);
    close(node);
}

/* ---- URBs */

static void MistakenUrbsAreRefused(void** state) {
    const int node = open_claimed();
    unsigned char data[64] = {0x80, 6, 0, 1, 0, 0, 18, 0};
    struct usbdevfs_urb sound;
    fill_bulk(&sound, bulk_out, data, 4);
    struct usbdevfs_urb urb = sound;
    urb.type = USBDEVFS_URB_TYPE_INTERRUPT;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb.type = USBDEVFS_URB_TYPE_CONTROL;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb.type = 9;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb = sound;
    urb.flags = 0x8000;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb = sound;
    urb.buffer = NULL;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb = sound;
    urb.buffer_length = -1;
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb = sound;
    urb.endpoint = 0x85;
    assert_int_equal(submit(node, &urb), -ENOENT);
    urb = (struct usbdevfs_urb){
        .type = USBDEVFS_URB_TYPE_CONTROL, .endpoint = 0, .buffer = data, .buffer_length = 8 + 10};
    assert_int_equal(submit(node, &urb), -EINVAL);
    urb.buffer_length = 7;
    assert_int_equal(submit(node, &urb), -EINVAL);
    close(node);
}

static void AControlTransferHasTheLengthOfItsSetup(void** state) {
    const int node = open_claimed();
    unsigned char out[8 + 6] = {0x40, 0, 0, 0, 0, 0, 2, 0, 'a', 'b', 'c', 'd', 'e', 'f'};
    unsigned char in[8 + 6] = {0xC0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0};
    struct usbdevfs_urb urb = {.type = USBDEVFS_URB_TYPE_CONTROL, .buffer = out, .buffer_length = sizeof out};
    run_urb(node, &urb, 0, 2);
    urb.buffer = in;
    run_urb(node, &urb, 0, 2);
    assert_memory_equal(in + 8, "ab\0", 3);
    close(node);
}

static void AShortAnswerIsAnErrorIfItIsToBe(void** state) {
    const int node = open_claimed();
    unsigned char data[64] = "abc";
    send_bytes(node, data, 4);
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    in.flags = USBDEVFS_URB_SHORT_NOT_OK;
    run_urb(node, &in, -EREMOTEIO, 4);
    close(node);
}

static void AnAnswerThatDoesNotFitOverflows(void** state) {
    const int node = open_claimed();
    unsigned char data[64] = "";
    send_bytes(node, data, 64);
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, 10);
    run_urb(node, &in, -EOVERFLOW, 10);
    close(node);
}

static void EmptyAndLongTransfersWork(void** state) {
    const int node = open_claimed();
    static unsigned char out[65536];
    static unsigned char in[65536];
    for (size_t i = 0; i < sizeof out; ++i) {
        out[i] = (unsigned char)(i * 7 + i / 251);
    }
    send_bytes(node, out, 0);
    receive_bytes(node, in, 64, 0);
    send_bytes(node, out, 16384);
    receive_bytes(node, in, 16384, 16384);
    assert_memory_equal(in, out, 16384);
    close(node);
}

static void TooMuchMemoryIsRefused(void** state) {
    const int node = open_claimed();
    const size_t size = (size_t)40 << 20;
    unsigned char* const data = malloc(size);
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_out, data, (int)size);
    assert_non_null(data);
    assert_int_equal(submit(node, &urb), -ENOMEM);
    check_exchange(node);
    free(data);
    close(node);
}

static void ReapingWritesOnlyTheResult(void** state) {
    const int node = open_claimed();
    unsigned char data[64];
    unsigned char other[64];
    unsigned char answer[4] = "abc";
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    struct usbdevfs_urb* reaped;
    memset(data, 0xAA, sizeof data);
    assert_int_equal(submit(node, &in), 0);
    in.usercontext = other;
    in.buffer = other;
    in.flags = 0x77;
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, answer, sizeof answer);
    assert_int_equal(submit(node, &out), 0);
    for (int i = 0; i < 2; ++i) {
        assert_int_equal(reap(node, &reaped), 0);
        assert_ptr_equal(reaped, i == 0 ? &out : &in);
    }
    assert_int_equal(in.status, 0);
    assert_int_equal(in.actual_length, sizeof answer);
    assert_ptr_equal(in.usercontext, other);
    assert_ptr_equal(in.buffer, other);
    assert_int_equal(in.flags, 0x77);
    assert_memory_equal(data, answer, sizeof answer);
    for (size_t i = sizeof answer; i < sizeof data; ++i) {
        assert_int_equal(data[i], 0xAA);
    }
    close(node);
}

static void ReleasingEndsPendingTransfers(void** state) {
    const int node = open_claimed();
    unsigned char data[64];
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &in), 0);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), 0);
    assert_int_equal(reap_now(node, &reaped), 0);
    assert_int_equal(in.status, -ESHUTDOWN);
    close(node);
}

static void AUrbCanBePendingTwice(void** state) {
    const int node = open_claimed();
    unsigned char data[4] = "abc";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, sizeof data);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &out), 0);
    assert_int_equal(submit(node, &out), 0);
    for (int i = 0; i < 2; ++i) {
        assert_int_equal(reap(node, &reaped), 0);
        assert_ptr_equal(reaped, &out);
    }
    close(node);
}

static void PendingUrbsAreDiscardedOnce(void** state) {
    const int node = open_claimed();
    unsigned char data[64];
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, 4);
    struct usbdevfs_urb* reaped;
    assert_int_equal(call(node, USBDEVFS_DISCARDURB, &in), -EINVAL);
    assert_int_equal(submit(node, &in), 0);
    assert_int_equal(call(node, USBDEVFS_DISCARDURB, &in), 0);
    assert_int_equal(call(node, USBDEVFS_DISCARDURB, &in), -EINVAL);
    assert_int_equal(reap_now(node, &reaped), 0);
    assert_ptr_equal(reaped, &in);
    assert_int_equal(in.status, -ENOENT);
    assert_int_equal(reap_now(node, &reaped), -EAGAIN);
    assert_int_equal(submit(node, &out), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    assert_int_equal(call(node, USBDEVFS_DISCARDURB, &out), -EINVAL);
    assert_int_equal(reap_now(node, &reaped), 0);
    close(node);
}

static void* submit_later(void* node) {
    static unsigned char data[4] = "abc";
    static struct usbdevfs_urb out;
    pause_ms(moment_ms);
    fill_bulk(&out, bulk_out, data, sizeof data);
    submit(*(int*)node, &out);
    return NULL;
}

static void ReapingWaits(void** state) {
    int node = open_claimed();
    struct usbdevfs_urb* reaped;
    pthread_t thread;
    assert_int_equal(pthread_create(&thread, NULL, submit_later, &node), 0);
    assert_int_equal(reap(node, &reaped), 0);
    assert_int_equal(reaped->status, 0);
    pthread_join(thread, NULL);
    close(node);
}

static void BadPointersAreErrors(void** state) {
    const int node = open_claimed();
    void* const bad = mmap(NULL, 65536, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static const unsigned long requests[] = {USBDEVFS_CLAIMINTERFACE,   USBDEVFS_RELEASEINTERFACE,
                                             USBDEVFS_SETCONFIGURATION, USBDEVFS_CLEAR_HALT,
                                             USBDEVFS_RESETEP,          USBDEVFS_SUBMITURB,
                                             USBDEVFS_CONTROL,          USBDEVFS_BULK,
                                             USBDEVFS_GETDRIVER,        USBDEVFS_IOCTL,
                                             USBDEVFS_DISCONNECT_CLAIM, USBDEVFS_GET_CAPABILITIES,
                                             USBDEVFS_CONNECTINFO,      USBDEVFS_SETINTERFACE,
                                             USBDEVFS_DISCSIGNAL,       USBDEVFS_DROP_PRIVILEGES};
    assert_ptr_not_equal(bad, MAP_FAILED);
    for (size_t i = 0; i < sizeof requests / sizeof requests[0]; ++i) {
        assert_int_equal(call(node, requests[i], bad), -EFAULT);
        assert_int_equal(call(node, requests[i], NULL), -EFAULT);
    }
    assert_int_equal(call(node, USBDEVFS_DISCARDURB, bad), -EINVAL);
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_out, bad, 64);
    assert_int_equal(submit(node, &urb), -EFAULT);
    unsigned char data[4] = "abc";
    send_bytes(node, data, sizeof data);
    fill_bulk(&urb, bulk_in, bad, 64);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &urb), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    assert_int_equal(reap_now(node, &reaped), -EFAULT);
    assert_int_equal(reap_now(node, &reaped), -EAGAIN);
    fill_bulk(&urb, bulk_out, data, sizeof data);
    assert_int_equal(submit(node, &urb), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    urb.status = 1;
    urb.actual_length = 77;
    assert_int_equal(call(node, USBDEVFS_REAPURBNDELAY, bad), -EFAULT);
    // What comes before the bad pointer is written.
    assert_int_equal(urb.status, 0);
    assert_int_equal(urb.actual_length, sizeof data);
    munmap(bad, 65536);
    close(node);
}

/* Two pages, of which the second has this protection. */
static unsigned char* two_pages(int protection) {
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    unsigned char* const pages =
        mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    assert_ptr_not_equal(pages, MAP_FAILED);
    assert_int_equal(mprotect(pages + page, page, protection), 0);
    return pages;
}

static void EveryPageOfABufferIsChecked(void** state) {
    const int node = open_claimed();
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    unsigned char* const pages = two_pages(PROT_NONE);
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_out, pages + page - 4, 5);
    assert_int_equal(submit(node, &urb), -EFAULT);
    assert_int_equal(call(node, USBDEVFS_SUBMITURB, pages + page - 8), -EFAULT);
    fill_bulk(&urb, bulk_out, pages + page - 4, 4);
    run_urb(node, &urb, 0, 4);
    // Only the bytes that are received have to fit.
    fill_bulk(&urb, bulk_in, pages + page - 4, 64);
    run_urb(node, &urb, 0, 4);
    memcpy(pages, "abcde", 5);
    send_bytes(node, pages, 5);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &urb), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    assert_int_equal(reap_now(node, &reaped), -EFAULT);
    assert_memory_equal(pages + page - 4, "abcd", 4);
    munmap(pages, 2 * page);
    close(node);
}

static void ABufferToSendMayBeReadOnly(void** state) {
    const int node = open_claimed();
    const size_t page = (size_t)sysconf(_SC_PAGESIZE);
    unsigned char* const pages = two_pages(PROT_READ);
    struct usbdevfs_urb urb;
    fill_bulk(&urb, bulk_out, pages + page, 4);
    run_urb(node, &urb, 0, 4);
    fill_bulk(&urb, bulk_in, pages + page, 64);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &urb), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    assert_int_equal(reap_now(node, &reaped), -EFAULT);
    munmap(pages, 2 * page);
    close(node);
}

/* ---- readiness */

static void ANodeIsWritableWhileAUrbCanBeReaped(void** state) {
    const int node = open_claimed();
    unsigned char data[4] = "abc";
    struct usbdevfs_urb out;
    struct usbdevfs_urb another;
    fill_bulk(&out, bulk_out, data, sizeof data);
    fill_bulk(&another, bulk_out, data, sizeof data);
    struct usbdevfs_urb* reaped;
    for (int round = 0; round < 100; ++round) {
        assert_int_equal(polled(node, all_events, 0), 0);
        assert_int_equal(submit(node, &out), 0);
        assert_int_equal(polled(node, all_events, patience_ms), POLLOUT);
        assert_int_equal(submit(node, &another), 0);
        assert_int_equal(polled(node, all_events, 0), POLLOUT);
        assert_int_equal(reap(node, &reaped), 0);
        assert_int_equal(polled(node, all_events, patience_ms), POLLOUT);
        assert_int_equal(reap(node, &reaped), 0);
    }
    assert_int_equal(polled(node, all_events, 0), 0);
    close(node);
}

static void AnotherOpeningIsNotWoken(void** state) {
    const int node = open_claimed();
    const int other = open_node(O_RDWR);
    unsigned char data[4] = "abc";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, sizeof data);
    assert_int_equal(submit(node, &out), 0);
    assert_int_equal(polled(node, POLLOUT, patience_ms), POLLOUT);
    assert_int_equal(polled(other, all_events, moment_ms), 0);
    close(other);
    close(node);
}

static void ReadingAndWritingANodeChangeNothing(void** state) {
    const int node = open_claimed();
    const int other = open_node(O_RDWR);
    unsigned char data[64] = "abc";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, 4);
    struct usbdevfs_urb* reaped;
    assert_true(read(other, data, 50) >= 18);
    assert_int_equal(polled(node, all_events, 0), 0);
    assert_int_equal(write(node, data, 4), -1);
    assert_int_equal(errno, EINVAL);
    assert_int_equal(submit(node, &out), 0);
    assert_int_equal(polled(node, all_events, patience_ms), POLLOUT);
    assert_int_equal(write(node, data, 4), -1);
    assert_int_equal(errno, EINVAL);
    assert_int_equal(polled(node, all_events, 0), POLLOUT);
    assert_int_equal(reap_now(node, &reaped), 0);
    assert_int_equal(polled(node, all_events, 0), 0);
    close(other);
    close(node);
}

static void AnUnpluggedReaderIsAnErrorAndAHangUp(void** state) {
    const int node = open_claimed();
    struct usbdevfs_urb* reaped;
    unsigned char data[4] = "abc";
    struct usbdevfs_urb out;
    fill_bulk(&out, bulk_out, data, sizeof data);
    struct usbdevfs_getdriver driver = {.interface = 0};
    struct usbdevfs_ctrltransfer control = {.bRequestType = 0x80, .bRequest = 6, .wValue = 0x0100};
    struct epoll_event event = {.events = EPOLLIN | EPOLLOUT, .data.u64 = 7};
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    assert_int_equal(epoll_ctl(epoll, EPOLL_CTL_ADD, node, &event), 0);
    bus("unplug 1");
    assert_int_equal(polled(node, all_events, patience_ms), POLLERR | POLLHUP);
    assert_int_equal(epoll_wait(epoll, &event, 1, patience_ms), 1);
    assert_int_equal(event.events, EPOLLERR | EPOLLHUP);
    assert_int_equal(event.data.u64, 7);
    fd_set reading;
    fd_set writing;
    struct timeval no_time = {0, 0};
    FD_ZERO(&reading);
    FD_ZERO(&writing);
    FD_SET(node, &reading);
    FD_SET(node, &writing);
    assert_int_equal(select(node + 1, &reading, &writing, NULL, &no_time), 2);
    assert_int_equal(reap_now(node, &reaped), -ENODEV);
    assert_int_equal(reap(node, &reaped), -ENODEV);
    assert_int_equal(submit(node, &out), -ENODEV);
    assert_int_equal(call_word(node, USBDEVFS_RELEASEINTERFACE, 0), -ENODEV);
    assert_int_equal(call(node, USBDEVFS_GETDRIVER, &driver), -ENODEV);
    assert_int_equal(call(node, USBDEVFS_CONTROL, &control), -ENODEV);
    assert_int_equal(call(node, _IO('U', 99), NULL), -ENODEV);
    assert_int_equal(read(node, data, sizeof data), -1);
    assert_int_equal(errno, ENODEV);
    assert_int_equal(open(node_path, O_RDWR | O_CLOEXEC), -1);
    assert_int_equal(errno, ENOENT);
    bus("plug 1");
    assert_int_equal(call_word(node, USBDEVFS_CLAIMINTERFACE, 0), -ENODEV);
    assert_int_equal(polled(node, all_events, 0), POLLERR | POLLHUP);
    close(epoll);
    close(node);
}

static void PendingUrbsAreReapedAfterUnplugging(void** state) {
    const int node = open_claimed();
    unsigned char data[64];
    struct usbdevfs_urb in;
    fill_bulk(&in, bulk_in, data, sizeof data);
    struct usbdevfs_urb* reaped;
    assert_int_equal(submit(node, &in), 0);
    bus("unplug 1");
    for (int events = 0; events != (POLLOUT | POLLERR | POLLHUP);) {
        events = polled(node, all_events, patience_ms);
        assert_true(events != 0);
    }
    assert_int_equal(reap_now(node, &reaped), 0);
    assert_ptr_equal(reaped, &in);
    assert_int_equal(in.status, -ESHUTDOWN);
    assert_int_equal(reap_now(node, &reaped), -ENODEV);
    assert_int_equal(polled(node, all_events, 0), POLLERR | POLLHUP);
    close(node);
}

static volatile sig_atomic_t signalled;
static void* volatile signalled_address;

static void note_signal(int number, siginfo_t* info, void* context) {
    (void)number;
    (void)context;
    signalled_address = info->si_addr;
    signalled = 1;
}

static void UnpluggingSendsTheSignalThatWasAskedFor(void** state) {
    const int node = open_node(O_RDWR);
    struct sigaction action = {.sa_sigaction = note_signal, .sa_flags = SA_SIGINFO};
    struct usbdevfs_disconnectsignal wanted = {.signr = SIGUSR2, .context = &action};
    assert_int_equal(sigaction(SIGUSR2, &action, NULL), 0);
    assert_int_equal(call(node, USBDEVFS_DISCSIGNAL, &wanted), 0);
    signalled = 0;
    bus("unplug 1");
    for (const double end = now_ms() + patience_ms; !signalled && now_ms() < end;) {
        pause_ms(1);
    }
    assert_true(signalled);
    assert_ptr_equal(signalled_address, &action);
    signal(SIGUSR2, SIG_DFL);
    close(node);
}

/* ---- the file */

static void AReadOnlyNodeIsOnlyRead(void** state) {
    const int node = open_node(O_RDONLY);
    unsigned char data[18] = {0};
    struct stat status;
    struct stat by_path;
    unsigned bus_number = 0;
    unsigned address = 0;
    assert_int_equal(sscanf(node_path, "/dev/bus/usb/%u/%u", &bus_number, &address), 2);
    const dev_t number = makedev(189, (bus_number - 1) * 128 + address - 1);
    assert_int_equal(claim(node, 0), -EPERM);
    assert_int_equal(polled(node, all_events, 0), 0);
    assert_int_equal(read(node, data, sizeof data), sizeof data);
    assert_int_equal(data[0], 18);
    assert_int_equal(data[8] | data[9] << 8, GVUSB_VENDOR_ID);
    assert_int_equal(read(node, data, 2), 2);
    assert_int_equal(data[1], 2);
    assert_int_equal(lseek(node, 0, SEEK_SET), 0);
    assert_int_equal(read(node, data, 2), 2);
    assert_int_equal(data[0], 18);
    assert_int_equal(pread(node, data, 2, 18), 2);
    assert_int_equal(data[1], 2);
    assert_int_equal(fstat(node, &status), 0);
    assert_true(S_ISCHR(status.st_mode));
    assert_int_equal(status.st_rdev, number);
    assert_int_equal(stat(node_path, &by_path), 0);
    assert_true(S_ISCHR(by_path.st_mode));
    assert_int_equal(by_path.st_rdev, number);
    assert_int_equal(by_path.st_dev, status.st_dev);
    assert_int_equal(by_path.st_ino, status.st_ino);
    assert_int_equal(write(node, data, 2), -1);
    assert_int_equal(errno, EBADF);
    close(node);
    assert_int_equal(open(node_path, O_RDWR | O_DIRECTORY | O_CLOEXEC), -1);
    assert_int_equal(errno, ENOTDIR);
}

/* As those of every other device, such as /dev/null. */
static void ANodeHasTheFlagsItIsOpenedWith(void** state) {
    static const int flags[] = {O_RDWR, O_RDONLY | O_NONBLOCK, O_WRONLY | O_SYNC | O_APPEND,
                                O_RDWR | O_NOCTTY};
    for (size_t i = 0; i < sizeof flags / sizeof flags[0]; ++i) {
        const int node = open_node(flags[i]);
        const int null = open("/dev/null", flags[i] | O_CLOEXEC);
        const int copy = dup(node);
        assert_int_equal(fcntl(node, F_GETFL), fcntl(null, F_GETFL));
        assert_int_equal(fcntl(node, F_SETFL, O_NONBLOCK | O_SYNC | O_WRONLY), 0);
        assert_int_equal(fcntl(null, F_SETFL, O_NONBLOCK | O_SYNC | O_WRONLY), 0);
        assert_int_equal(fcntl(copy, F_GETFL), fcntl(null, F_GETFL));
        assert_int_equal(fcntl(node, F_SETFL, 0), 0);
        assert_int_equal(fcntl(null, F_SETFL, 0), 0);
        assert_int_equal(fcntl(copy, F_GETFL), fcntl(null, F_GETFL));
        assert_int_equal(fcntl(node, F_SETFL, O_DIRECT), -1);
        assert_int_equal(errno, EINVAL);
        assert_int_equal(fcntl(node, F_GETFD), FD_CLOEXEC);
        close(copy);
        close(null);
        close(node);
    }
    assert_int_equal(open(node_path, O_RDWR | O_DIRECT | O_CLOEXEC), -1);
    assert_int_equal(errno, EINVAL);
}

static void AStreamReadsTheDescriptors(void** state) {
    unsigned char streamed[18] = {0};
    unsigned char bytes[18];
    FILE* const stream = fopen(node_path, "rbe");
    const int node = open_node(O_RDONLY);
    assert_non_null(stream);
    assert_int_equal(fread(streamed, 1, sizeof streamed, stream), sizeof streamed);
    assert_int_equal(read(node, bytes, sizeof bytes), sizeof bytes);
    assert_memory_equal(streamed, bytes, sizeof bytes);
    fclose(stream);
    close(node);
}

static void ANodeIsOpenedInItsFolder(void** state) {
    char folder[64];
    snprintf(folder, sizeof folder, "%s", node_path);
    *strrchr(folder, '/') = '\0';
    const int opened = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    assert_true(opened >= 0);
    const int node = openat(opened, strrchr(node_path, '/') + 1, O_RDWR | O_CLOEXEC);
    assert_true(node >= 0);
    assert_int_equal(claim(node, 0), 0);
    check_exchange(node);
    close(node);
    close(opened);
}

static void TransfersUseMemoryOfTheNode(void** state) {
    const int node = open_claimed();
    unsigned char* const memory = mmap(NULL, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, node, 0);
    assert_ptr_not_equal(memory, MAP_FAILED);
    static const unsigned char frame[4] = {1, 2, 3, 4};
    memcpy(memory, frame, sizeof frame);
    send_bytes(node, memory, sizeof frame);
    receive_bytes(node, memory + 4096, 64, sizeof frame);
    assert_memory_equal(memory + 4096, frame, sizeof frame);
    munmap(memory, 8192);
    close(node);
}

/* ---- descriptors */

static void CopiesAreTheSameOpening(void** state) {
    const int node = open_node(O_RDWR);
    const int copy = dup(node);
    assert_int_equal(claim(copy, 0), 0);
    close(node);
    assert_int_equal(claim(copy, 0), 0);
    check_exchange(copy);
    const int other = open_node(O_RDWR);
    const int another = fcntl(other, F_DUPFD_CLOEXEC, 50);
    assert_int_equal(claim(another, 0), -EBUSY);
    close(copy);
    assert_int_equal(claim(another, 0), 0);
    close(another);
    close(other);
}

static void OverwrittenDescriptorsAreClosed(void** state) {
    const int node = open_claimed();
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    assert_int_equal(dup2(null, node), node);
    assert_int_equal(claim(node, 0), -ENOTTY);
    close(node);
    close(null);
    const int again = open_claimed();
    check_exchange(again);
    close(again);
}

static void AllDescriptorsCanBeClosed(void** state) {
    const pid_t child = fork();
    if (child == 0) {
        const int first = STDERR_FILENO + 1;
        if (open(node_path, O_RDWR | O_CLOEXEC) < 0) {
            _exit(3);
        }
        closefrom(first);
        for (int i = 0; i < 3; ++i) {
            const int node = open(node_path, O_RDWR | O_CLOEXEC);
            if (node != first || claim(node, 0) != 0) {
                _exit(1);
            }
            if (close_range((unsigned)first, ~0U, 0) != 0) {
                _exit(2);
            }
        }
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    assert_int_equal(status, 0);
}

static void ADescriptorCanBePassed(void** state) {
    int ends[2];
    assert_int_equal(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const int node = open_node(O_RDWR);
    char byte = 'x';
    union {
        struct cmsghdr header;
        char bytes[CMSG_SPACE(sizeof node)];
    } control;
    struct iovec piece = {.iov_base = &byte, .iov_len = 1};
    struct msghdr message = {
        .msg_iov = &piece, .msg_iovlen = 1, .msg_control = &control, .msg_controllen = sizeof control};
    const pid_t child = fork();
    if (child == 0) {
        close(node);
        if (recvmsg(ends[1], &message, 0) != 1) {
            _exit(1);
        }
        const struct cmsghdr* const header = CMSG_FIRSTHDR(&message);
        int passed = -1;
        if (header == NULL) {
            _exit(3);
        }
        memcpy(&passed, CMSG_DATA(header), sizeof passed);
        _exit(claim(passed, 0) == 0 ? 0 : 2);
    }
    memset(&control, 0, sizeof control);
    control.header.cmsg_level = SOL_SOCKET;
    control.header.cmsg_type = SCM_RIGHTS;
    control.header.cmsg_len = CMSG_LEN(sizeof node);
    memcpy(CMSG_DATA(&control.header), &node, sizeof node);
    assert_int_equal(sendmsg(ends[0], &message, 0), 1);
    int status = -1;
    waitpid(child, &status, 0);
    assert_int_equal(status, 0);
    check_exchange(node);
    close(node);
    close(ends[0]);
    close(ends[1]);
}

static const char* program;

static void ADescriptorOutlivesExec(void** state) {
    const int node = open(node_path, O_RDWR);
    char number[16];
    snprintf(number, sizeof number, "%d", node);
    const pid_t child = fork();
    if (child == 0) {
        execl(program, program, "--exchange", number, (char*)NULL);
        _exit(99);
    }
    int status = -1;
    waitpid(child, &status, 0);
    assert_int_equal(status, 0);
    assert_int_equal(claim(node, 0), 0);
    close(node);
}

/* Returns how many exchanges went wrong. */
static int count_failures(int node, int exchanges) {
    int failures = 0;
    for (int i = 0; i < exchanges; ++i) {
        unsigned char data[16] = {0};
        struct usbdevfs_bulktransfer out = {.ep = bulk_out, .len = 16, .timeout = patience_ms, .data = data};
        struct usbdevfs_bulktransfer in = {.ep = bulk_in, .len = 16, .timeout = patience_ms, .data = data};
        failures += call(node, USBDEVFS_BULK, &out) != 16;
        failures += call(node, USBDEVFS_BULK, &in) != 16;
    }
    return failures;
}

static void ParentAndChildUseOneOpening(void** state) {
    enum { exchanges = 500 };
    const int node = open_claimed();
    const pid_t child = fork();
    if (child == 0) {
        _exit(count_failures(node, exchanges) != 0);
    }
    const int failures = count_failures(node, exchanges);
    int status = -1;
    waitpid(child, &status, 0);
    assert_int_equal(failures, 0);
    assert_int_equal(status, 0);
    close(node);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
#define TEST(name) cmocka_unit_test_setup(name, set_up)
        TEST(InterfacesAreClaimedByOneOpening),
        TEST(SysfsDescribesTheReader),
        TEST(SysfsShowsDriversAndTheConfiguration),
        TEST(ADriversNameMayFillItsRoom),
        TEST(RequestsWork),
        TEST(HaltsAreClearedByWhoHasClaimed),
        TEST(AnUnconfiguredReaderHasNoInterfaces),
        TEST(InterfacesAreTakenAway),
        TEST(PrivilegesAreDropped),
        TEST(AResetTakesTheClaims),
        TEST(MistakenUrbsAreRefused),
        TEST(AControlTransferHasTheLengthOfItsSetup),
        TEST(AShortAnswerIsAnErrorIfItIsToBe),
        TEST(AnAnswerThatDoesNotFitOverflows),
        TEST(EmptyAndLongTransfersWork),
        TEST(TooMuchMemoryIsRefused),
        TEST(ReapingWritesOnlyTheResult),
        TEST(ReleasingEndsPendingTransfers),
        TEST(AUrbCanBePendingTwice),
        TEST(PendingUrbsAreDiscardedOnce),
        TEST(ReapingWaits),
        TEST(BadPointersAreErrors),
        TEST(EveryPageOfABufferIsChecked),
        TEST(ABufferToSendMayBeReadOnly),
        TEST(ANodeIsWritableWhileAUrbCanBeReaped),
        TEST(AnotherOpeningIsNotWoken),
        TEST(ReadingAndWritingANodeChangeNothing),
        TEST(AnUnpluggedReaderIsAnErrorAndAHangUp),
        TEST(PendingUrbsAreReapedAfterUnplugging),
        TEST(UnpluggingSendsTheSignalThatWasAskedFor),
        TEST(AReadOnlyNodeIsOnlyRead),
        TEST(ANodeHasTheFlagsItIsOpenedWith),
        TEST(AStreamReadsTheDescriptors),
        TEST(ANodeIsOpenedInItsFolder),
        TEST(TransfersUseMemoryOfTheNode),
        TEST(CopiesAreTheSameOpening),
        TEST(OverwrittenDescriptorsAreClosed),
        TEST(AllDescriptorsCanBeClosed),
        TEST(ADescriptorCanBePassed),
        TEST(ADescriptorOutlivesExec),
        TEST(ParentAndChildUseOneOpening),
#undef TEST
    };
    if (argc == 3 && strcmp(argv[1], "--exchange") == 0) {
        const int node = atoi(argv[2]);
        return claim(node, 0) == 0 && count_failures(node, 1) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    program = argv[0];
    if (argc > 1) {
        cmocka_set_test_filter(argv[1]);
    }
    return cmocka_run_group_tests_name("usbfs", tests, NULL, NULL);
}
