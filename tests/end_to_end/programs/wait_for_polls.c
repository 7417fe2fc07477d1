/*
 * Ends after polls have run. The reader is not scanned, so each poll opens it, which shows in its counters.
 */
#include "bus.h"

#include <gvusb.h>

/*
 * Each poll makes two requests: for the languages and for the ID. When the fourth poll has begun, three are
 * done.
 */
enum { transfers_per_poll = 2 };

static bool has_seen_three(void* before) {
    return host_count(1, "transfers") > *(const long*)before + 3 * transfers_per_poll;
}

int main(void) {
    long before = host_count(1, "transfers");
    GVUSB_GetDLLVersion();
    return await(has_seen_three, &before, 60000) ? 0 : 1;
}
