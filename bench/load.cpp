// usage: load LIBRARY SAMPLES UPDATE_RATE_MICROSECONDS
//
// Load and unload the library, and initialize and exit libusb, each time in a new process that has libusb and
// the C++ runtime loaded. Print the median times and the heap that the library uses as JSON, for measure.py.

#include "allocations.h"

#include "gvusb.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <libusb.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Sample {
    double begin = 0; // microseconds
    double end = 0;
    std::size_t heap = 0; // bytes in use while loaded
};

template <class Action>
double microseconds(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

Sample loadLibrary(const char* path, const char* updateRate) {
    Sample sample;
    void* library = nullptr;
    const std::size_t before = allocations().bytes;
    sample.begin = microseconds([&] { library = dlopen(path, RTLD_NOW); });
    if (library == nullptr) {
        throw std::runtime_error(dlerror());
    }
    sample.heap = allocations().bytes - before;
    const auto set = reinterpret_cast<decltype(&GVUSB_SetDevicePara)>(dlsym(library, "GVUSB_SetDevicePara"));
    if (set == nullptr || set(GVUSB_DRIVER, "HOTPLUG-UPDATERATE", updateRate) != GVUSB_OK) {
        throw std::runtime_error("the update rate could not be set");
    }
    // The library's thread is sleeping when the library is unloaded.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    sample.end = microseconds([&] { dlclose(library); });
    return sample;
}

Sample startLibUsb() {
    Sample sample;
    const std::size_t before = allocations().bytes;
    sample.begin = microseconds([] {
        if (libusb_init(nullptr) != LIBUSB_SUCCESS) {
            throw std::runtime_error("libusb_init failed");
        }
    });
    sample.heap = allocations().bytes - before;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    sample.end = microseconds([] { libusb_exit(nullptr); });
    return sample;
}

Sample inChild(const std::function<Sample()>& take) {
    std::array<int, 2> ends = {};
    if (pipe(ends.data()) != 0) {
        throw std::runtime_error("pipe() failed");
    }
    const pid_t child = fork();
    if (child == 0) {
        int status = 1;
        try {
            const Sample sample = take();
            status = write(ends[1], &sample, sizeof sample) == sizeof sample ? 0 : 1;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
        _exit(status);
    }
    close(ends[1]);
    Sample sample;
    const bool whole = child > 0 && read(ends[0], &sample, sizeof sample) == sizeof sample;
    close(ends[0]);
    int status = 0;
    if (!whole || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("taking a sample failed");
    }
    return sample;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int count, char** arguments) try {
    if (count != 4) {
        std::fprintf(stderr, "usage: %s LIBRARY SAMPLES UPDATE_RATE_MICROSECONDS\n", arguments[0]);
        return 2;
    }
    const long samples = std::strtol(arguments[2], nullptr, 10);
    std::vector<double> load;
    std::vector<double> unload;
    std::vector<double> init;
    std::vector<double> exit;
    std::size_t heap = 0;
    // Alternate, so that other load on the machine affects both.
    for (long i = 0; i < samples; ++i) {
        const Sample library = inChild([&] { return loadLibrary(arguments[1], arguments[3]); });
        load.push_back(library.begin);
        unload.push_back(library.end);
        const Sample bare = inChild(&startLibUsb);
        heap = library.heap - bare.heap;
        init.push_back(bare.begin);
        exit.push_back(bare.end);
    }
    std::printf(R"({"load": %.1f, "unload": %.1f, "init": %.1f, "exit": %.1f, "heap": %zu})"
                "\n",
                median(load), median(unload), median(init), median(exit), heap);
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
}
