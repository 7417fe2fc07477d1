// Ends by an uncaught exception while a reader is open.
#include <gvusb.h>

#include <sys/resource.h>

int main() {
    const rlimit noCore = {};
    setrlimit(RLIMIT_CORE, &noCore);
    const int handle = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, nullptr);
    if (handle < 0) {
        return 3;
    }
    throw handle;
}
