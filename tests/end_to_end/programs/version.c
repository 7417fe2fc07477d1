/* The least that a program can do with the library. */
#include <gvusb.h>

#include <string.h>

int main(void) {
    return strcmp(GVUSB_GetDLLVersion(), "07.01.00") == 0 ? 0 : 1;
}
