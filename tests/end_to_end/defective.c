/* Readers with malformed descriptors, read by the real libusb. */
#include "testing.h"

#include <stdio.h>

/* The defective reader has bulk endpoints and accepts control transfers too, so it answers either way. */
enum { sound_id = 0xA1, defective_id = 0xD1 };

/* Its descriptors in hexadecimal before truncation. The vendor ID is inserted. */
static const char sound[] = "1201100100000040%02x%02x0100000103050101" /* device */
                            "090220000101008032"                       /* configuration */
                            "0904000002ff000006"                       /* interface */
                            "07058102400000"                           /* endpoints */
                            "07050202400000";
enum { configuration_end = 27, first_endpoint_begin = 36, sound_end = 50 };

/* Plug in a reader whose descriptors end after this many bytes; return its number. */
static int plug_cut_short(size_t length) {
    char digits[sizeof sound];
    snprintf(digits, sizeof digits, sound, GVUSB_VENDOR_ID & 0xFFU, GVUSB_VENDOR_ID >> 8U);
    digits[2 * length] = '\0';
    char description[sizeof digits + 32];
    snprintf(description, sizeof description, "id=D1,descriptors=%s", digits);
    return plug_new(description);
}

/* libusb then reports two endpoints but a null list. */
static void AConfigurationThatEndsInsideItsFirstEndpointHasNone(void** state) {
    const int reader = plug_cut_short(first_endpoint_begin + 2);
    scan_until(2);
    const int handle = GVUSB_OpenDevice(defective_id);
    assert_true(handle > 0);
    check_echo(handle);
    struct seen_frame frame;
    read_seen_frame(reader, &frame);
    assert_int_equal(frame.endpoint, 0);
    assert_int_equal(GVUSB_SetDevicePara(handle, "RESETPIPE", ""), 0);
    check_echo(handle);
    assert_int_equal(GVUSB_CloseDevice(handle), 0);
}

/*
 * libusb skips a device whose first configuration lacks its header, and cannot read a configuration that ends
 * where an endpoint descriptor should start.
 */
static void DescriptorsMayEndAnywhere(void** state) {
    for (size_t length = 0; length <= sound_end; ++length) {
        const int reader = plug_cut_short(length);
        scan_until(length < configuration_end ? 1 : 2);
        const int handle = GVUSB_OpenDevice(defective_id);
        if (handle > 0) {
            check_echo(handle);
            assert_int_equal(GVUSB_CloseDevice(handle), 0);
        } else if (length >= first_endpoint_begin && length < sound_end) {
            assert_int_equal(handle, GVUSB_ERR_CONFIG_DESCRIPTOR_READ);
        } else {
            assert_true(length < configuration_end);
            assert_int_equal(handle, GVUSB_ERR_NOT_SCANNED);
        }
        bus("unplug %d", reader);
        scan_until(1);
    }
    const int handle = open_reader(sound_id);
    check_echo(handle);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(AConfigurationThatEndsInsideItsFirstEndpointHasNone),
        TEST_CASE(DescriptorsMayEndAnywhere),
    };
    return run_group("defective", tests, sizeof tests / sizeof *tests, argc, argv);
}
