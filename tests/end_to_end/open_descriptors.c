#include "open_descriptors.h"

#include "process_figures.h"
#include "testing.h"

#include <unistd.h>

/* A poll that is in progress, or begins although polls are suspended now, has readers open. A scan waits for its end. */
long descriptors_without_polls(void) {
    long fewest = 0;
    assert_int_equal(GVUSB_SetDevicePara(GVUSB_DRIVER, "HOTPLUG-SUSPEND", "1"), 0);
    for (int i = 0; i < 10; ++i) {
        usleep(20000);
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
        const long count = own_figures().descriptors;
        fewest = i == 0 || count < fewest ? count : fewest;
    }
    return fewest;
}

/* The thread sanitizer may have started a symbolizer process, which uses two pipes. */
bool has_descriptors(void* count) {
    const long more = own_figures().descriptors - *(const long*)count;
#ifdef GVUSB_TEST_SANITIZED
    return more == 0 || more == 2;
#else
    return more == 0;
#endif
}
