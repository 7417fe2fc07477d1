/*
 * Send a frame to a reader and print the answer.
 *
 * usage: exchange_frame ID BYTE...     all hexadecimal, for example: exchange_frame 1A2B3C 02 00 07 FF 01
 */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>

enum { MAX_FRAME = 4096 }; /* the limit for readers without bulk endpoints */

static int fail(int code) {
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetErrorText(code, text);
    fprintf(stderr, "%s\n", text);
    return EXIT_FAILURE;
}

/* Read a hexadecimal number. Return 0 after printing a message if the text is not one. */
static int read_hexadecimal(const char* text, unsigned int largest, unsigned int* number) {
    char* end;
    unsigned long value = strtoul(text, &end, 16);
    *number = (unsigned int)value;
    if (end != text && *end == '\0' && value <= largest) {
        return 1;
    }
    fprintf(stderr, "'%s' is not a hexadecimal number up to %X\n", text, largest);
    return 0;
}

int main(int argc, char** argv) {
    if (argc < 3 || argc - 2 > MAX_FRAME) {
        fprintf(stderr, "usage: %s ID BYTE...\n", argv[0]);
        return EXIT_FAILURE;
    }
    unsigned int id;
    unsigned int byte;
    unsigned char frame[MAX_FRAME];
    unsigned int length = 0;
    if (!read_hexadecimal(argv[1], 0xFFFFFFFF, &id)) {
        return EXIT_FAILURE;
    }
    for (int i = 2; i < argc; ++i) {
        if (!read_hexadecimal(argv[i], 0xFF, &byte)) {
            return EXIT_FAILURE;
        }
        frame[length++] = (unsigned char)byte;
    }

    int code = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    if (code != 0) {
        return fail(code);
    }
    int handle = GVUSB_OpenDevice(id);
    if (handle < 0) {
        return fail(handle);
    }
    unsigned char answer[MAX_FRAME];
    int count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, frame, length, answer, sizeof answer);
    GVUSB_CloseDevice(handle);
    if (count < 0) {
        return fail(count);
    }
    for (int i = 0; i < count; ++i) {
        printf("%s%02X", i > 0 ? " " : "", answer[i]);
    }
    printf("\n");
    return EXIT_SUCCESS;
}
