/* Ends after the second poll, of which the reader tells that is opened at each because nobody has scanned it.
 */
#include "bus.h"

#include <gvusb.h>

/* Each poll asks the reader for its languages and for its ID. With the fourth under way three are done. */
enum { transfers_per_poll = 2 };

static bool has_seen_three(void* before) {
    return host_count(1, "transfers") > *(const long*)before + 3 * transfers_per_poll;
}

int main(void) {
    long before = host_count(1, "transfers");
    GVUSB_GetDLLVersion();
    return await(has_seen_three, &before, 10000) ? 0 : 1;
}
