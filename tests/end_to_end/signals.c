/* Signals are delivered to the application's threads, not to those of the library or libusb. */
#include "program.h"
#include "testing.h"

static struct program_run run;

static void check_takes_signal(const char* configuration, const char* program) {
    run_program(&run, configuration, program, NULL, NULL, NULL);
    if (run.status != 0) {
        fail_msg("%s with \"%s\" ended with %d:\n%s", program, configuration, run.status, run.output);
    }
    assert_string_equal(run.output, "taken\n");
}

static void AProgramReceivesASignalByDescriptorInEveryMode(void** state) {
    check_takes_signal("gvusb_hotplug=0", "take_signal");
    check_takes_signal("gvusb_hotplug=1 gvusb_updaterate=10", "take_signal");
    check_takes_signal("gvusb_hotplug=2", "take_signal");
}

static void AProgramWithoutTheLibraryReceivesItToo(void** state) {
    check_takes_signal("gvusb_hotplug=0", "take_signal_without_library");
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(AProgramReceivesASignalByDescriptorInEveryMode),
        TEST_CASE(AProgramWithoutTheLibraryReceivesItToo),
    };
    return run_group("signals", tests, sizeof tests / sizeof *tests, argc, argv);
}
