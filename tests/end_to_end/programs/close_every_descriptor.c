/*
 * Closes every descriptor while readers are open, as daemons do, and ends. The thread sanitizer does not follow
 * close_range(): it would report each close() of a descriptor that a thread of the library is using.
 */
#define _GNU_SOURCE

#include <gvusb.h>

#include <unistd.h>

int main(void) {
    if (GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL) != 0 || close_range(0, ~0U, 0) != 0) {
        return 1;
    }
    return 42;
}
