// usage: idle SECONDS
//
// Load the library, do nothing, and print the used share of a core as JSON, for measure.py. A call of
// getppid() marks the start and the end of the idle time in a trace of the system calls.

#include "gvusb.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include <unistd.h>

namespace {

double processorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::fprintf(stderr, "usage: %s SECONDS\n", arguments[0]);
        return 2;
    }
    const double seconds = std::strtod(arguments[1], nullptr);
    if (GVUSB_Scan(GVUSB_SCAN_ALL, nullptr) != GVUSB_OK) {
        std::fprintf(stderr, "there is no reader on the bus\n");
        return 1;
    }
    const double before = processorSeconds();
    getppid();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    getppid();
    std::printf(R"({"core": %.7f})"
                "\n",
                (processorSeconds() - before) / seconds);
    return 0;
}
