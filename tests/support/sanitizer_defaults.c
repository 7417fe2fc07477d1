/* Options of the thread sanitizer for every test program. */

const char* __tsan_default_options(void);
const char* __tsan_default_suppressions(void);

const char* __tsan_default_options(void) {
    return "halt_on_error=1";
}

/*
 * The manager destroys the scan-list mutex while it holds it, so that no other thread locks it during
 * unloading. And libusb 1.0.26 destroys a transfer's mutex after its event thread has unlocked it, in an
 * order that the sanitizer cannot see. libmosquitto locks its mutexes in several orders; one thread at a time calls it.
 */
const char* __tsan_default_suppressions(void) {
    return "mutex:GVDrvHnd::~GVDrvHnd\n"
           "race:libusb_free_transfer\n"
           "deadlock:libmosquitto.so\n";
}
