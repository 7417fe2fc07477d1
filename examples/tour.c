/* A tour of the library: find and open all readers, exchange a frame with each, cause an error, close all. */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>

static void print_bytes(const char* label, const unsigned char* bytes, int count) {
    printf("    %s", label);
    for (int i = 0; i < count; ++i) {
        printf(" %02X", bytes[i]);
    }
    printf("\n");
}

/* Print the text of the last error. */
static void print_last_error(const char* what) {
    int code = 0;
    char text[GVUSB_TEXT_SIZE];
    GVUSB_GetLastError(0, &code, text);
    printf("  %s: %s\n", what, text);
}

/* Print the identity of a scan-list entry and open the reader. Return its handle or a negative code. */
static int open_reader(int index) {
    char id[GVUSB_PARAMETER_SIZE] = "";
    char family[GVUSB_PARAMETER_SIZE] = "";
    char name[GVUSB_PARAMETER_SIZE] = "";
    char protocol[GVUSB_PARAMETER_SIZE] = "";
    GVUSB_GetScanListPara(index, "DEVICE-ID", id);
    GVUSB_GetScanListPara(index, "FAMILYNAME", family);
    GVUSB_GetScanListPara(index, "DEVICENAME", name);
    GVUSB_GetScanListPara(index, "INTERFACE", protocol);
    printf("  %s: %s, family %s, interface %s\n", id, name, family, protocol);

    int handle = GVUSB_OpenDevice((unsigned int)strtoul(id, NULL, 16));
    if (handle < 0) {
        print_last_error("  opening failed");
        return handle;
    }
    char type[GVUSB_PARAMETER_SIZE] = "";
    GVUSB_GetDevicePara(handle, "TYPENUMBER", type);
    printf("    opened with handle 0x%x, type number %s\n", (unsigned int)handle, type);
    return handle;
}

/* Send a frame and print it and the answer. Return 0 or a negative code. */
static int exchange_frame(int handle) {
    static const unsigned char request[] = {0x02, 0x00, 0x07, 0xFF, 0x01};
    unsigned char answer[256];
    print_bytes("sent    ", request, (int)sizeof request);
    int count = GVUSB_Transceive(handle, GVUSB_PROTOCOL, 0, request, sizeof request, answer, sizeof answer);
    if (count < 0) {
        print_last_error("  the exchange failed");
        return count;
    }
    print_bytes("received", answer, count);
    return 0;
}

int main(void) {
    printf("gvusb %s\n\nReaders on the bus\n", GVUSB_GetDLLVersion());
    if (GVUSB_Scan(GVUSB_SCAN_ALL, NULL) != 0) {
        print_last_error("the scan failed");
        return EXIT_FAILURE;
    }
    int status = EXIT_SUCCESS;
    int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        int handle = open_reader(index);
        if (handle < 0 || exchange_frame(handle) != 0) {
            status = EXIT_FAILURE;
        }
    }

    printf("\nAn error, with its text\n");
    GVUSB_OpenDevice(0xDECAF);
    print_last_error("opening a reader that no scan found");

    printf("\nClosing\n");
    int handle;
    while ((handle = GVUSB_GetDeviceList(0)) != 0) {
        GVUSB_CloseDevice(handle);
        printf("  closed handle 0x%x\n", (unsigned int)handle);
    }
    return status;
}
