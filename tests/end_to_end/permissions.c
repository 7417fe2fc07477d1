/* Readers whose device nodes the program may not write to. */
#include "testing.h"

#include <libusb.h>
#include <linux/capability.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The readers as described in CMakeLists.txt, by product ID. */
enum { desk = 1, gate };
enum { desk_id = 0xA1, gate_id = 0xB2 };

/* Root may open every node; drop the capabilities for this from the calling thread. */
static void obey_permissions(void) {
    struct __user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3};
    struct __user_cap_data_struct sets[2];
    assert_int_equal(syscall(SYS_capget, &header, sets), 0);
    sets[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
    assert_int_equal(syscall(SYS_capset, &header, sets), 0);
}

/* Change the mode of the node that libusb would open. */
static void change_mode(int product, mode_t mode) {
    libusb_device** list = NULL;
    const ssize_t count = libusb_get_device_list(NULL, &list);
    int changed = 0;
    for (ssize_t i = 0; i < count; ++i) {
        struct libusb_device_descriptor descriptor;
        char node[64];
        if (libusb_get_device_descriptor(list[i], &descriptor) == 0 &&
            descriptor.idVendor == GVUSB_VENDOR_ID && descriptor.idProduct == product) {
            snprintf(node, sizeof node, "/dev/bus/usb/%03d/%03d", libusb_get_bus_number(list[i]),
                     libusb_get_device_address(list[i]));
            changed += chmod(node, mode) == 0;
        }
    }
    libusb_free_device_list(list, 1);
    assert_int_equal(changed, 1);
}

static int give_permissions_back(void** state) {
    change_mode(desk, 0666);
    change_mode(gate, 0666);
    return start_afresh(state);
}

static void AReaderThatMayNotBeWrittenToIsNotScanned(void** state) {
    change_mode(desk, 0444);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(GVUSB_GetScanListSize(), 1);
    assert_int_equal(scan_list_index("A1"), -1);
    change_mode(gate, 0444);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
}

static void AReaderThatMayNoLongerBeWrittenToIsNotOpened(void** state) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    change_mode(desk, 0444);
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
    int code = 0;
    char text[GVUSB_TEXT_SIZE];
    assert_int_equal(GVUSB_GetLastError(0, &code, text), 0);
    assert_string_equal(text, "GVUSB: (-1143) device cannot be opened");
    check_echo(GVUSB_OpenDevice(gate_id));
    change_mode(desk, 0666);
    check_echo(GVUSB_OpenDevice(desk_id));
}

static void AnOpenReaderWorksAfterItsPermissionIsRemoved(void** state) {
    const int handle = open_reader(desk_id);
    change_mode(desk, 0);
    check_echo(handle);
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
    assert_int_equal(GVUSB_OpenDevice(desk_id), GVUSB_ERR_CANNOT_OPEN);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup(AReaderThatMayNotBeWrittenToIsNotScanned, give_permissions_back),
        cmocka_unit_test_setup(AReaderThatMayNoLongerBeWrittenToIsNotOpened, give_permissions_back),
        cmocka_unit_test_setup(AnOpenReaderWorksAfterItsPermissionIsRemoved, give_permissions_back),
    };
    obey_permissions();
    return run_group("permissions", tests, sizeof tests / sizeof *tests, argc, argv);
}
