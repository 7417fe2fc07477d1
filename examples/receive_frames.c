/*
 * Print the frames that a reader sends without being asked, such as tags in its field.
 *
 * usage: receive_frames ID COUNT     ID is hexadecimal
 */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>

static int fail(int code) {
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetErrorText(code, text);
    fprintf(stderr, "%s\n", text);
    return EXIT_FAILURE;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s ID COUNT\n", argv[0]);
        return EXIT_FAILURE;
    }
    int code = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    if (code != 0) {
        return fail(code);
    }
    int handle = GVUSB_OpenDevice((unsigned int)strtoul(argv[1], NULL, 16));
    if (handle < 0) {
        return fail(handle);
    }
    for (long left = strtol(argv[2], NULL, 10); left > 0;) {
        unsigned char frame[4096];
        int count = GVUSB_Receive(handle, GVUSB_PROTOCOL, frame, sizeof frame);
        if (count == GVUSB_ERR_TIMEOUT) {
            continue; /* nothing has come yet */
        }
        if (count < 0) {
            GVUSB_CloseDevice(handle);
            return fail(count);
        }
        for (int i = 0; i < count; ++i) {
            printf("%s%02X", i > 0 ? " " : "", frame[i]);
        }
        printf("\n");
        fflush(stdout);
        --left;
    }
    GVUSB_CloseDevice(handle);
    return EXIT_SUCCESS;
}
