/* A minimal program that uses the library. */
#include <gvusb.h>

#include <string.h>

int main(void) {
    return strcmp(GVUSB_GetDLLVersion(), "07.01.00") == 0 ? 0 : 1;
}
