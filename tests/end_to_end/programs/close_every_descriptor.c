/* Closes every descriptor while readers are open, as daemons do, and ends. */
#include <gvusb.h>

#include <sys/resource.h>
#include <unistd.h>

int main(void) {
    if (GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL) != 0) {
        return 1;
    }
    struct rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    for (int descriptor = 0; descriptor < (int)limit.rlim_cur && descriptor < 4096; ++descriptor) {
        close(descriptor);
    }
    return 42;
}
