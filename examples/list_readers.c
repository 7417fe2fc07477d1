/* List the readers on the bus, with the texts that identify them. */
#include <gvusb.h>

#include <stdio.h>
#include <stdlib.h>

/* A parameter of an entry in the scan list, or an empty text. Stored in `value`. */
static const char* parameter(int index, const char* key, char value[GVUSB_PARAMETER_SIZE]) {
    value[0] = '\0';
    if (GVUSB_GetScanListPara(index, key, value) != 0) {
        value[0] = '\0';
    }
    return value;
}

int main(void) {
    int code = GVUSB_Scan(GVUSB_SCAN_ALL, NULL);
    if (code == GVUSB_ERR_NO_DEVICE_FOUND) {
        puts("There is no reader on the bus.");
        return EXIT_SUCCESS;
    }
    if (code != 0) {
        char text[GVUSB_TEXT_SIZE];
        GVUSB_GetErrorText(code, text);
        fprintf(stderr, "%s\n", text);
        return EXIT_FAILURE;
    }
    printf("%-8s  %-16s  %-24s  %s\n", "ID", "Family", "Name", "Interface");
    int size = GVUSB_GetScanListSize();
    for (int index = 0; index < size; ++index) {
        char id[GVUSB_PARAMETER_SIZE];
        char family[GVUSB_PARAMETER_SIZE];
        char name[GVUSB_PARAMETER_SIZE];
        char protocol[GVUSB_PARAMETER_SIZE];
        printf("%-8s  %-16s  %-24s  %s\n", parameter(index, "DEVICE-ID", id),
               parameter(index, "FAMILYNAME", family), parameter(index, "DEVICENAME", name),
               parameter(index, "INTERFACE", protocol));
    }
    return EXIT_SUCCESS;
}
