/* Ends after the second poll, of which the reader tells that is opened at each because nobody has scanned it.
 */
#include "bus.h"

#include <gvusb.h>

static bool has_seen_three(void* before) {
    return host_count(1, "closes") >= *(const long*)before + 3;
}

int main(void) {
    long before = host_count(1, "closes");
    GVUSB_GetDLLVersion();
    return await(has_seen_three, &before, 10000) ? 0 : 1;
}
